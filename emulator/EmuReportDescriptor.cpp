#include "EmuReportDescriptor.h"

#include "EmuHidDevice.h"

#include <algorithm>
#include <map>

namespace kemu {

namespace {

void AppendCount(std::vector<std::uint8_t>& d, unsigned count)
{
    if (count <= 0xFF) {
        d.insert(d.end(), {0x95, static_cast<std::uint8_t>(count)});
    } else {
        d.insert(d.end(), {0x96, static_cast<std::uint8_t>(count & 0xFF), static_cast<std::uint8_t>((count >> 8) & 0xFF)});
    }
}

} // namespace

std::vector<std::uint8_t> AdapterReportDescriptor(unsigned inputLength, unsigned outputLength, unsigned reportId)
{
    std::vector<std::uint8_t> d = {
        0x06, 0x00, 0xFF, // Usage Page (Vendor Defined 0xFF00)
        0x09, 0x01,       // Usage (0x01)
        0xA1, 0x01,       // Collection (Application)
    };
    if (reportId != 0)
        d.insert(d.end(), {0x85, static_cast<std::uint8_t>(reportId)}); // Report ID
    d.insert(d.end(), {
                          0x15, 0x00,       // Logical Minimum (0)
                          0x26, 0xFF, 0x00, // Logical Maximum (255)
                          0x75, 0x08,       // Report Size (8)
                      });
    if (inputLength != 0) {
        AppendCount(d, inputLength);
        d.insert(d.end(), {0x09, 0x01, 0x81, 0x02}); // Usage (0x01), Input (Data,Var,Abs)
    }
    if (outputLength != 0) {
        AppendCount(d, outputLength);
        d.insert(d.end(), {0x09, 0x01, 0x91, 0x02}); // Usage (0x01), Output (Data,Var,Abs)
    }
    d.push_back(0xC0); // End Collection
    return d;
}

EmuReportLayout ScanReportDescriptor(const std::vector<std::uint8_t>& descriptor)
{
    struct Globals {
        std::uint32_t reportSize = 0;
        std::uint32_t reportCount = 0;
        std::uint8_t reportId = 0;
    };
    Globals globals;
    std::vector<Globals> stack;
    std::map<std::uint8_t, std::uint64_t> inputBits;
    std::map<std::uint8_t, std::uint64_t> outputBits;
    EmuReportLayout layout;

    std::size_t pos = 0;
    while (pos < descriptor.size()) {
        const std::uint8_t prefix = descriptor[pos++];
        if (prefix == 0xFE) { // long item: size, tag, data
            if (pos >= descriptor.size())
                break;
            pos += 2u + descriptor[pos];
            continue;
        }
        static const std::size_t cSizes[4] = {0, 1, 2, 4};
        const std::size_t size = cSizes[prefix & 0x03];
        if (pos + size > descriptor.size())
            break;
        std::uint32_t value = 0;
        for (std::size_t i = 0; i < size; ++i)
            value |= static_cast<std::uint32_t>(descriptor[pos + i]) << (8 * i);
        pos += size;
        const unsigned type = (prefix >> 2) & 0x03;
        const unsigned tag = prefix >> 4;
        if (type == 1) { // global
            switch (tag) {
            case 7: globals.reportSize = value; break;
            case 8:
                globals.reportId = static_cast<std::uint8_t>(value);
                layout.numbered = true;
                break;
            case 9: globals.reportCount = value; break;
            case 10: stack.push_back(globals); break;
            case 11:
                if (!stack.empty()) {
                    globals = stack.back();
                    stack.pop_back();
                }
                break;
            default: break;
            }
        } else if (type == 0 && (tag == 8 || tag == 9)) { // Input / Output main items
            auto& bits = tag == 8 ? inputBits : outputBits;
            bits[globals.reportId] += static_cast<std::uint64_t>(globals.reportSize) * globals.reportCount;
        }
    }
    for (const auto& entry : inputBits) {
        const std::size_t bytes = static_cast<std::size_t>((entry.second + 7) / 8);
        if (bytes > layout.inputBytes) {
            layout.inputBytes = bytes;
            layout.inputReportId = entry.first;
        }
    }
    for (const auto& entry : outputBits)
        layout.outputBytes = std::max(layout.outputBytes, static_cast<std::size_t>((entry.second + 7) / 8));
    return layout;
}

} // namespace kemu
