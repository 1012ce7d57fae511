// Open devices and their handles: 16 bits of slot index, 16 bits of generation.
#pragma once

#include "karvex_api_linux/KarvexDeviceLx.h"
#include "libtb/TbHandleBasedContainerT.h"

class KarvexDeviceContainer : public TbHandleBasedContainerT<KarvexDevice, unsigned int> {
};
