#include "liblinux/LxUdevDevice.h"

#include <cerrno>
#include <cstring>

#include <libudev.h>

#include "liblinux/LxUdevContext.h"
#include "libposix/PxTrace.h"

LxUdevDevice::LxUdevDevice(udev_device* dev) : mDevice(dev) {}

LxUdevDevice::~LxUdevDevice()
{
    Deinit();
}

bool LxUdevDevice::InitFromSyspath(LxUdevContext& ctx, const char* syspath)
{
    if (mDevice != nullptr) {
        PXTRACE_ERROR("%s: already initialized\n");
        return true;
    }
    mDevice = udev_device_new_from_syspath(ctx.GetContext(), syspath);
    if (mDevice == nullptr) {
        int err = errno;
        PXTRACE_ERROR("%s: udev_device_new_from_syspath failed (%s)\n", strerror(err));
        return false;
    }
    return true;
}

bool LxUdevDevice::InitWithGetParentWithSubsystemDevtype(LxUdevDevice& childDevice, const char* subsystem,
                                                         const char* devtype)
{
    if (mDevice != nullptr) {
        PXTRACE_ERROR("%s: already initialized\n");
        return true;
    }
    if (childDevice.mDevice == nullptr) {
        PXTRACE_ERROR("%s: dev not initialized\n");
        return true;
    }
    mDevice = udev_device_get_parent_with_subsystem_devtype(childDevice.mDevice, subsystem, devtype);
    if (mDevice == nullptr) {
        PXTRACE_ERROR("%s: udev_device_get_parent_with_subsystem_devtype failed\n");
        return false;
    }
    // The parent belongs to the child; our own reference keeps it alive
    // after the child wrapper has dropped the child.
    Ref();
    return true;
}

void LxUdevDevice::Deinit()
{
    if (mDevice != nullptr) {
        udev_device_unref(mDevice);
        mDevice = nullptr;
    }
}

void LxUdevDevice::Ref()
{
    udev_device_ref(mDevice);
}

void LxUdevDevice::Unref()
{
    udev_device_unref(mDevice);
}

bool LxUdevDevice::IsInitialized()
{
    return mDevice != nullptr;
}

const char* LxUdevDevice::GetSysattrValue(const char* sysattr)
{
    if (mDevice == nullptr) {
        PXTRACE_ERROR("%s: mDevice not initialized\n");
        return nullptr;
    }
    return udev_device_get_sysattr_value(mDevice, sysattr);
}

const char* LxUdevDevice::GetSyspath()
{
    if (mDevice == nullptr) {
        PXTRACE_ERROR("%s: mDevice not initialized\n");
        return nullptr;
    }
    return udev_device_get_syspath(mDevice);
}

const char* LxUdevDevice::GetDevpath()
{
    if (mDevice == nullptr) {
        PXTRACE_ERROR("%s: mDevice not initialized\n");
        return nullptr;
    }
    return udev_device_get_devpath(mDevice);
}

const char* LxUdevDevice::GetDevnode()
{
    if (mDevice == nullptr) {
        PXTRACE_ERROR("%s: mDevice not initialized\n");
        return nullptr;
    }
    return udev_device_get_devnode(mDevice);
}

const char* LxUdevDevice::GetAction()
{
    if (mDevice == nullptr) {
        PXTRACE_ERROR("%s: mDevice not initialized\n");
        return nullptr;
    }
    return udev_device_get_action(mDevice);
}

const char* LxUdevDevice::GetSubsystem()
{
    if (mDevice == nullptr) {
        PXTRACE_ERROR("%s: mDevice not initialized\n");
        return nullptr;
    }
    return udev_device_get_subsystem(mDevice);
}

const char* LxUdevDevice::GetDevtype()
{
    if (mDevice == nullptr) {
        PXTRACE_ERROR("%s: mDevice not initialized\n");
        return nullptr;
    }
    return udev_device_get_devtype(mDevice);
}
