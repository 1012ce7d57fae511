#include "liblinux/LxHidRawPnPNotificator.h"

#include <stdlib.h>

#include "libposix/PxTrace.h"

LxHidRawPnPNotificator::LxHidRawPnPNotificator() : mMutex(true), mVidPidList(nullptr), mUpdateCacheOnRemove(true)
{
}

LxHidRawPnPNotificator::~LxHidRawPnPNotificator()
{
    LxHidRawPnPNotificator::Stop();
}

void LxHidRawPnPNotificator::Stop()
{
    PxMutexLock lock(mMutex);
    LxPnPNotificator::Stop();
    mVidPidList = nullptr;
}

TSTATUS LxHidRawPnPNotificator::StartForHidRawDevices(LxPnPNotificatorCallbackInterface* callback,
                                                      const TbUsbVidPidList* vidPidList, bool updateCacheOnRemove)
{
    PxMutexLock lock(mMutex);

    if (IsStarted()) {
        PXTRACE_ERROR("%s: already started\n");
        return TSTATUS_ALREADY_DONE;
    }

    mVidPidList = vidPidList;
    mUpdateCacheOnRemove = updateCacheOnRemove;

    // The cache describes the devices present when watching begins, so that
    // the removal of one of them is recognised.
    TSTATUS rc = mEnumerator.EnumerateHidRawDevices(vidPidList);
    if (rc != TSTATUS_SUCCESS) {
        PXTRACE_ERROR("%s: EnumerateHidRawDevices failed, err = 0x%08X\n", static_cast<unsigned int>(rc));
        return rc;
    }

    rc = Start(callback, "hidraw", nullptr);
    if (rc != TSTATUS_SUCCESS) {
        PXTRACE_ERROR("%s: Start failed, err = 0x%08X\n", static_cast<unsigned int>(rc));
        Stop();
        return rc;
    }
    return TSTATUS_SUCCESS;
}

TSTATUS LxHidRawPnPNotificator::RefreshCache()
{
    if (!mUpdateCacheOnRemove) {
        // Removals leave the cache alone; an arrival rebuilds it outright.
        return mEnumerator.EnumerateHidRawDevices(mVidPidList);
    }
    // udev sends "remove" only after the node has left sysfs, so a fresh
    // enumeration no longer lists adapters whose removal is still queued
    // behind this event (a hub unplugged, a composite adapter). Their records
    // are kept until their own event takes them out; every other record is
    // replaced by what the enumeration found. A failed enumeration leaves the
    // cache as it was.
    LxHidRawDeviceEnumerator fresh;
    const TSTATUS rc = fresh.EnumerateHidRawDevices(mVidPidList);
    if (rc == TSTATUS_SUCCESS)
        mEnumerator.MergeFrom(fresh);
    return rc;
}

bool LxHidRawPnPNotificator::OnFilterDeviceInstance(LxUdevDevice& device, LxPnPNotificatorAction action)
{
    if (mVidPidList == nullptr)
        return true;

    switch (action) {
    case Action_add:
    case Action_online: {
        const char* devnode = device.GetDevnode();
        LxUdevDevice usbDevice;
        const char* vidText = nullptr;
        const char* pidText = nullptr;
        const bool haveParent = usbDevice.InitWithGetParentWithSubsystemDevtype(device, "usb", "usb_device");
        if (haveParent) {
            vidText = usbDevice.GetSysattrValue("idVendor");
            pidText = usbDevice.GetSysattrValue("idProduct");
        }
        if (!haveParent || vidText == nullptr || pidText == nullptr) {
            // An adapter that arrived and left again before this event was
            // handled has no sysfs entry any more. A refresh made for an
            // earlier event may have seen it; then its removal will be
            // reported from the cache, and so its arrival is reported too.
            unsigned index = 0;
            if (devnode != nullptr && mUpdateCacheOnRemove &&
                mEnumerator.FindIndexForDevicePath(devnode, index) == TSTATUS_SUCCESS)
                return true;
            if (!haveParent)
                PXTRACE_ERROR("%s: InitWithGetParentWithSubsystemDevtype usb_device failed\n");
            else
                PXTRACE_ERROR("%s: can not get VID/PID\n");
            return false;
        }
        const T_UINT16 vid = static_cast<T_UINT16>(strtol(vidText, nullptr, 16));
        const T_UINT16 pid = static_cast<T_UINT16>(strtol(pidText, nullptr, 16));

        bool hit = false;
        for (const TbUsbVidPid& entry : *mVidPidList) {
            if (entry.mVid == vid && entry.mPid == pid) {
                hit = true;
                break;
            }
        }
        if (!hit) {
            PXTRACE_INFO("%s: ignoring HID device VID=0x%04X PID=0x%04X because it's not in the filter list\n",
                         static_cast<unsigned int>(vid), static_cast<unsigned int>(pid));
            return false;
        }

        TSTATUS rc = RefreshCache();
        if (rc != TSTATUS_SUCCESS)
            PXTRACE_ERROR("%s: EnumerateHidRawDevices (add) failed, err = 0x%08X\n", static_cast<unsigned int>(rc));
        // Reported even when the cache could not be refreshed.
        return true;
    }

    case Action_remove:
    case Action_offline: {
        // The device is gone: only its node path, looked up in the cache as
        // it was before this event, tells whether it was one of ours.
        const char* devnode = device.GetDevnode();
        unsigned index = 0;
        TSTATUS rc = TSTATUS_OBJECT_NOT_FOUND;
        if (devnode != nullptr)
            rc = mEnumerator.FindIndexForDevicePath(devnode, index);
        if (rc != TSTATUS_SUCCESS) {
            PXTRACE_INFO("%s: FindIndexForDevicePath('%.1024s') failed, err = 0x%08X, ignore device\n",
                         devnode != nullptr ? devnode : "(null)", static_cast<unsigned int>(rc));
            return false;
        }
        if (!mUpdateCacheOnRemove)
            return true;
        // This adapter is reported now and leaves the cache; the others keep
        // their records (see RefreshCache).
        mEnumerator.RemoveDevicePath(devnode);
        rc = RefreshCache();
        if (rc != TSTATUS_SUCCESS)
            PXTRACE_ERROR("%s: EnumerateHidRawDevices (remove) failed, err = 0x%08X\n",
                          static_cast<unsigned int>(rc));
        return true;
    }

    default: {
        const char* devnode = device.GetDevnode();
        PXTRACE_WARN("%s: ignore unknown action %d for device '%.1024s'\n", static_cast<int>(action),
                     devnode != nullptr ? devnode : "(null)");
        return false;
    }
    }
}
