// Adapts a member function "void T::Fn(LxPnPNotificatorAction, const char*)"
// to LxPnPNotificatorCallbackInterface, so that an object can receive device
// change notifications without deriving from the interface.
#pragma once

#include "liblinux/LxPnPNotificatorCallbackInterface.h"

template <typename T>
class LxPnPNotificatorCallbackForwarderT : public LxPnPNotificatorCallbackInterface {
public:
    typedef void (T::*MemberFnPtr)(LxPnPNotificatorAction action, const char* syspath);

    LxPnPNotificatorCallbackForwarderT() : mObjectPtr(nullptr), mFnPtr(nullptr) {}

    void Init(T* objectPtr, MemberFnPtr memberFnPtr)
    {
        mObjectPtr = objectPtr;
        mFnPtr = memberFnPtr;
    }

    void PnPAction(LxPnPNotificatorAction action, const char* syspath) override
    {
        (mObjectPtr->*mFnPtr)(action, syspath);
    }

private:
    T* mObjectPtr;
    MemberFnPtr mFnPtr;
};
