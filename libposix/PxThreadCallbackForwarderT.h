// Adapts a member function "void* T::Fn()" to PxThreadCallbackInterface, so
// that an object can run one of its own methods as a thread without
// deriving from the interface.
#pragma once

#include "libposix/PxThreadCallbackInterface.h"

template <typename T>
class PxThreadCallbackForwarderT : public PxThreadCallbackInterface {
public:
    typedef void* (T::*MemberFnPtr)();

    PxThreadCallbackForwarderT() : mObjectPtr(nullptr), mFnPtr(nullptr) {}

    void Init(T* objectPtr, MemberFnPtr memberFnPtr)
    {
        mObjectPtr = objectPtr;
        mFnPtr = memberFnPtr;
    }

    void* ThreadRoutine() override { return (mObjectPtr->*mFnPtr)(); }

private:
    T* mObjectPtr;
    MemberFnPtr mFnPtr;
};
