#include "liblinux/LxHidRawDeviceEnumeratorInfo.h"

#include <cstring>

LxHidRawDeviceEnumeratorInfo::LxHidRawDeviceEnumeratorInfo()
{
    Reset();
}

void LxHidRawDeviceEnumeratorInfo::Reset()
{
    std::memset(mDevicePath, 0, sizeof(mDevicePath));
    mVID = 0;
    mPID = 0;
    mBcdDevice = 0;
    std::memset(mManufacturer, 0, sizeof(mManufacturer));
    std::memset(mProduct, 0, sizeof(mProduct));
    std::memset(mSerial, 0, sizeof(mSerial));
    std::memset(mInterface, 0, sizeof(mInterface));
    mInterfaceNumber = 0;
}
