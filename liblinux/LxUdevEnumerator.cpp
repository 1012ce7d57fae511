#include "liblinux/LxUdevEnumerator.h"

#include <libudev.h>

#include "liblinux/LxUdevContext.h"
#include "libposix/PxTrace.h"

LxUdevEnumerator::LxUdevEnumerator() : mEnumerator(nullptr) {}

LxUdevEnumerator::~LxUdevEnumerator()
{
    Deinit();
}

bool LxUdevEnumerator::Init(LxUdevContext& ctx)
{
    if (mEnumerator != nullptr) {
        PXTRACE_ERROR("%s: already initialized\n");
        return true;
    }
    mEnumerator = udev_enumerate_new(ctx.GetContext());
    if (mEnumerator == nullptr) {
        PXTRACE_ERROR("%s: udev_enumerate_new failed\n");
        return false;
    }
    return true;
}

void LxUdevEnumerator::Deinit()
{
    if (mEnumerator != nullptr) {
        udev_enumerate_unref(mEnumerator);
        mEnumerator = nullptr;
    }
}

void LxUdevEnumerator::Ref()
{
    udev_enumerate_ref(mEnumerator);
}

void LxUdevEnumerator::Unref()
{
    udev_enumerate_unref(mEnumerator);
}

bool LxUdevEnumerator::IsInitialized()
{
    return mEnumerator != nullptr;
}

int LxUdevEnumerator::AddMatchSubsystem(const char* subsys)
{
    return udev_enumerate_add_match_subsystem(mEnumerator, subsys);
}

int LxUdevEnumerator::AddMatchProperty(const char* property, const char* value)
{
    return udev_enumerate_add_match_property(mEnumerator, property, value);
}

int LxUdevEnumerator::AddMatchSysattr(const char* sysattr, const char* value)
{
    return udev_enumerate_add_match_sysattr(mEnumerator, sysattr, value);
}

int LxUdevEnumerator::ScanDevices()
{
    return udev_enumerate_scan_devices(mEnumerator);
}

int LxUdevEnumerator::ScanSubsystems()
{
    return udev_enumerate_scan_subsystems(mEnumerator);
}

udev_list_entry* LxUdevEnumerator::GetListEntry()
{
    return udev_enumerate_get_list_entry(mEnumerator);
}
