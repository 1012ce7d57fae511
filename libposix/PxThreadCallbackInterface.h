// What a PxThread runs. Nothing is ever deleted through this interface.
#pragma once

class PxThreadCallbackInterface {
public:
    virtual void* ThreadRoutine() = 0;

protected:
    ~PxThreadCallbackInterface() = default;
};
