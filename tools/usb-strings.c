#include "usb-strings.h"

#include <libudev.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static void CopyAttribute(struct udev_device* dev, const char* name, char* out, size_t size)
{
    const char* value = udev_device_get_sysattr_value(dev, name);
    snprintf(out, size, "%s", value != NULL ? value : "");
}

static unsigned int HexAttribute(struct udev_device* dev, const char* name)
{
    const char* value = udev_device_get_sysattr_value(dev, name);
    return value != NULL ? (unsigned int)strtoul(value, NULL, 16) : 0;
}

bool ReadUsbStrings(const char* devnode, struct UsbStrings* out)
{
    struct udev* udev;
    struct udev_enumerate* en;
    struct udev_list_entry* entry;
    bool found = false;

    memset(out, 0, sizeof *out);
    udev = udev_new();
    if (udev == NULL)
        return false;
    en = udev_enumerate_new(udev);
    if (en == NULL) {
        udev_unref(udev);
        return false;
    }
    /* Found by walking the hidraw class rather than by the node's device
     * number: the node may be a stand-in whose number means nothing (as under
     * karvex-emu). */
    udev_enumerate_add_match_subsystem(en, "hidraw");
    udev_enumerate_scan_devices(en);
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(en))
    {
        struct udev_device* dev = udev_device_new_from_syspath(udev, udev_list_entry_get_name(entry));
        const char* node;
        if (dev == NULL)
            continue;
        node = udev_device_get_devnode(dev);
        if (node != NULL && strcmp(node, devnode) == 0) {
            /* The parent is owned by dev. */
            struct udev_device* usb = udev_device_get_parent_with_subsystem_devtype(dev, "usb", "usb_device");
            if (usb != NULL) {
                CopyAttribute(usb, "manufacturer", out->manufacturer, sizeof out->manufacturer);
                CopyAttribute(usb, "product", out->product, sizeof out->product);
                CopyAttribute(usb, "serial", out->serial, sizeof out->serial);
                out->vendorId = HexAttribute(usb, "idVendor");
                out->productId = HexAttribute(usb, "idProduct");
                out->bcdDevice = HexAttribute(usb, "bcdDevice");
                found = true;
            }
        }
        udev_device_unref(dev);
        if (found)
            break;
    }
    udev_enumerate_unref(en);
    udev_unref(udev);
    return found;
}
