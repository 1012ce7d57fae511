#include "liblinux/LxUdevContext.h"

#include <libudev.h>

#include "libposix/PxTrace.h"

LxUdevContext::LxUdevContext() : mContext(nullptr) {}

LxUdevContext::~LxUdevContext()
{
    Deinit();
}

bool LxUdevContext::Init()
{
    if (mContext != nullptr) {
        PXTRACE_ERROR("%s: already initialized\n");
        return true;
    }
    mContext = udev_new();
    if (mContext == nullptr) {
        PXTRACE_ERROR("%s: udev_new failed\n");
        return false;
    }
    return true;
}

void LxUdevContext::Deinit()
{
    if (mContext != nullptr) {
        udev_unref(mContext);
        mContext = nullptr;
    }
}

void LxUdevContext::Ref()
{
    udev_ref(mContext);
}

void LxUdevContext::Unref()
{
    udev_unref(mContext);
}

bool LxUdevContext::IsInitialized()
{
    return mContext != nullptr;
}

udev* LxUdevContext::GetContext()
{
    return mContext;
}

void* LxUdevContext::GetUserdata()
{
    if (mContext == nullptr) {
        PXTRACE_ERROR("%s: mContext not initialized\n");
        return nullptr;
    }
    return udev_get_userdata(mContext);
}

void LxUdevContext::SetUserdata(void* userdata)
{
    if (mContext == nullptr) {
        PXTRACE_ERROR("%s: mContext not initialized\n");
        return;
    }
    udev_set_userdata(mContext, userdata);
}
