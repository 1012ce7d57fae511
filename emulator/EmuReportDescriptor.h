// Just enough HID report descriptor reading for the emulator: the lengths of
// the longest input and output reports and the input report ID, so that the
// emulated firmware can size its answers like the real adapter.
// (AdapterReportDescriptor(), which builds descriptors, is declared in
// EmuHidDevice.h.)
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kemu {

struct EmuReportLayout {
    std::size_t inputBytes = 0;  // longest input report, data bytes without the ID byte
    std::size_t outputBytes = 0; // longest output report, data bytes without the ID byte
    bool numbered = false;       // the descriptor declares report IDs
    std::uint8_t inputReportId = 0; // ID of the longest input report (0 when unnumbered)
};

// Tolerates truncated or odd descriptors: it reads what it can.
EmuReportLayout ScanReportDescriptor(const std::vector<std::uint8_t>& descriptor);

} // namespace kemu
