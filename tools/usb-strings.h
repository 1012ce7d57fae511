/* What the library does not report about an adapter: the USB manufacturer
 * and product strings, read from sysfs through libudev. */
#ifndef KARVEX_TOOLS_USB_STRINGS_H
#define KARVEX_TOOLS_USB_STRINGS_H

#include <stdbool.h>

struct UsbStrings {
    char manufacturer[128];
    char product[128];
    /* Also known without opening the adapter (for one that cannot be opened). */
    unsigned int vendorId, productId, bcdDevice;
    char serial[128];
};

/* Fills *out for the hidraw node devnode ("/dev/hidraw0"). Strings the device
 * lacks stay empty. Returns false when the node or its USB parent is unknown. */
bool ReadUsbStrings(const char* devnode, struct UsbStrings* out);

#endif
