// What karvex-emu was asked for on its command line, and the emulated
// adapters it built from it. Plain data shared by main and the scheduler.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "emulator/EmuAdapterFirmware.h"
#include "emulator/EmuEeprom.h"
#include "emulator/EmuHidDevice.h"

namespace karvexemu {

struct EepromOption {
    unsigned bus = 0;
    unsigned address = 0x50;
    std::vector<std::uint8_t> image; // empty: erased (0xFF)
    std::string file;
};

struct ToggleOption {
    unsigned pin = 0;
    unsigned periodMs = 0;
};

struct ReplugOption {
    unsigned adapter = 0;
    unsigned delayMs = 0;
    unsigned downMs = 500;
};

struct Options {
    unsigned adapters = 1;
    std::vector<std::string> serials;
    std::vector<EepromOption> eeproms;
    std::vector<ToggleOption> toggles;
    std::vector<ReplugOption> replugs;
    std::string control; // FIFO path of the control channel; empty: none
    bool verbose = false;
    std::vector<char*> command;
};

struct Adapter {
    // Owned by the test bed.
    kemu::EmuHidDevice* device = nullptr;
    std::unique_ptr<kemu::EmuAdapterFirmware> firmware;
    std::vector<std::shared_ptr<kemu::EmuEeprom>> eeproms;
};

} // namespace karvexemu
