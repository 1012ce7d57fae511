// Hot-plug notification for hidraw devices of selected USB (VID, PID) pairs.
// An arrival passes when the hidraw device's USB device is in the filter
// list; a removal passes when the device node is in this notificator's own
// enumeration cache, which is refreshed after every event let through (the
// USB attributes of a vanished device can no longer be read). A record leaves
// the cache only with its own removal, so adapters leaving together are each
// reported once.
#pragma once

#include "karvex/karvex_api.h"
#include "liblinux/LxHidRawDeviceEnumerator.h"
#include "liblinux/LxPnPNotificator.h"
#include "libposix/PxMutex.h"
#include "libtb/TbUsbVidPid.h"

class LxHidRawPnPNotificator : public LxPnPNotificator {
public:
    LxHidRawPnPNotificator();
    // Stops the monitor thread first.
    ~LxHidRawPnPNotificator() override;

    // Joins the monitor thread and clears the filter.
    void Stop() override;

    // Fills the cache with the matching devices present now, then starts
    // watching the "hidraw" subsystem. vidPidList is not copied: it must
    // outlive the started state and must not change while started.
    // updateCacheOnRemove re-enumerates after each reported removal.
    // Returns TSTATUS_ALREADY_DONE (first filter kept), the enumeration's
    // status, or Start's status (the notificator is then stopped again).
    TSTATUS StartForHidRawDevices(LxPnPNotificatorCallbackInterface* callback, const TbUsbVidPidList* vidPidList,
                                  bool updateCacheOnRemove);

protected:
    // Runs on the monitor thread without mMutex: the cache and the filter are
    // changed by the owner only while no monitor thread exists.
    bool OnFilterDeviceInstance(LxUdevDevice& device, LxPnPNotificatorAction action) override;
    // Brings the cache up to date after an event let through; with
    // updateCacheOnRemove it keeps the records of adapters whose removal has
    // not been handled yet.
    TSTATUS RefreshCache();

    // Serialises StartForHidRawDevices and Stop; recursive because a failed
    // start stops again with it held.
    PxMutex mMutex;
    const TbUsbVidPidList* mVidPidList;
    LxHidRawDeviceEnumerator mEnumerator;
    bool mUpdateCacheOnRemove;
};
