#include "liblinux/LxUdevMonitor.h"

#include <libudev.h>

#include "liblinux/LxUdevContext.h"
#include "libposix/PxTrace.h"

LxUdevMonitor::LxUdevMonitor() : mMonitor(nullptr) {}

LxUdevMonitor::~LxUdevMonitor()
{
    Unref();
}

bool LxUdevMonitor::InitFromNetLink(LxUdevContext& ctx, const char* name)
{
    if (mMonitor != nullptr) {
        PXTRACE_ERROR("%s: already initialized\n");
        return true;
    }
    mMonitor = udev_monitor_new_from_netlink(ctx.GetContext(), name);
    if (mMonitor == nullptr) {
        PXTRACE_ERROR("%s: udev_monitor_new_from_netlink failed\n");
        return false;
    }
    return true;
}

bool LxUdevMonitor::InitFromNetLinkUdev(LxUdevContext& ctx)
{
    return InitFromNetLink(ctx, "udev");
}

bool LxUdevMonitor::InitFromNetLinkKernel(LxUdevContext& ctx)
{
    return InitFromNetLink(ctx, "kernel");
}

void LxUdevMonitor::Deinit()
{
    if (mMonitor != nullptr) {
        udev_monitor_unref(mMonitor);
        mMonitor = nullptr;
    }
}

void LxUdevMonitor::Ref()
{
    udev_monitor_ref(mMonitor);
}

void LxUdevMonitor::Unref()
{
    udev_monitor_unref(mMonitor);
}

bool LxUdevMonitor::IsInitialized()
{
    return mMonitor != nullptr;
}

bool LxUdevMonitor::EnableReceiving()
{
    if (mMonitor == nullptr) {
        PXTRACE_ERROR("%s: mMonitor not initialized\n");
        return false;
    }
    int rc = udev_monitor_enable_receiving(mMonitor);
    if (rc != 0) {
        PXTRACE_ERROR("%s: udev_monitor_enable_receiving failed (%d)\n", rc);
        return false;
    }
    return true;
}

int LxUdevMonitor::GetFd()
{
    if (mMonitor == nullptr) {
        PXTRACE_ERROR("%s: mMonitor not initialized\n");
        return -1;
    }
    return udev_monitor_get_fd(mMonitor);
}

bool LxUdevMonitor::SetReceiveBufferSize(int size)
{
    if (mMonitor == nullptr) {
        PXTRACE_ERROR("%s: mMonitor not initialized\n");
        return false;
    }
    int rc = udev_monitor_set_receive_buffer_size(mMonitor, size);
    if (rc != 0) {
        PXTRACE_ERROR("%s: udev_monitor_set_receive_buffer_size failed (%d)\n", rc);
        return false;
    }
    return true;
}

bool LxUdevMonitor::FilterAddMatchSubsystemDevtype(const char* subsystem, const char* devtype)
{
    if (mMonitor == nullptr) {
        PXTRACE_ERROR("%s: mMonitor not initialized\n");
        return false;
    }
    int rc = udev_monitor_filter_add_match_subsystem_devtype(mMonitor, subsystem, devtype);
    if (rc != 0) {
        PXTRACE_ERROR("%s: udev_monitor_filter_add_match_subsystem_devtype failed (%d)\n", rc);
        return false;
    }
    return true;
}

bool LxUdevMonitor::FilterAddMatchTag(const char* tag)
{
    if (mMonitor == nullptr) {
        PXTRACE_ERROR("%s: mMonitor not initialized\n");
        return false;
    }
    int rc = udev_monitor_filter_add_match_tag(mMonitor, tag);
    if (rc != 0) {
        PXTRACE_ERROR("%s: udev_monitor_filter_add_match_tag failed (%d)\n", rc);
        return false;
    }
    return true;
}

bool LxUdevMonitor::FilterUpdate()
{
    if (mMonitor == nullptr) {
        PXTRACE_ERROR("%s: mMonitor not initialized\n");
        return false;
    }
    int rc = udev_monitor_filter_update(mMonitor);
    if (rc != 0) {
        PXTRACE_ERROR("%s: udev_monitor_filter_update failed (%d)\n", rc);
        return false;
    }
    return true;
}

bool LxUdevMonitor::FilterRemove()
{
    if (mMonitor == nullptr) {
        PXTRACE_ERROR("%s: mMonitor not initialized\n");
        return false;
    }
    int rc = udev_monitor_filter_remove(mMonitor);
    if (rc != 0) {
        PXTRACE_ERROR("%s: udev_monitor_filter_remove failed (%d)\n", rc);
        return false;
    }
    return true;
}

udev_device* LxUdevMonitor::ReceiveDevice()
{
    if (mMonitor == nullptr) {
        PXTRACE_ERROR("%s: mMonitor not initialized\n");
        return nullptr;
    }
    return udev_monitor_receive_device(mMonitor);
}
