// What a udev monitor notificator reports, and the interface through which it
// reports it.
#pragma once

// The udev actions a notificator recognises, in the order their names are
// matched. The values are part of the interface (callbacks switch on them).
enum LxPnPNotificatorAction {
    Action_add = 0,
    Action_remove = 1,
    Action_change = 2,
    Action_online = 3,
    Action_offline = 4
};

// Receiver of device change notifications. PnPAction runs on the
// notificator's monitor thread; syspath is valid only during the call.
// Nothing is ever deleted through this interface, so its destructor is
// neither virtual nor public.
class LxPnPNotificatorCallbackInterface {
public:
    virtual void PnPAction(LxPnPNotificatorAction action, const char* syspath) = 0;

protected:
    ~LxPnPNotificatorCallbackInterface() = default;
};
