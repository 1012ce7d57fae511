// libFuzzer target: the HID report descriptor parser over arbitrary bytes.
//
// The input is the descriptor itself (the seed corpus holds real-looking
// descriptors), copied into a heap block of exactly its size so that ASan
// sees any read past it. One input in four is parsed with every trace class
// on, so the formatting of each item's trace is exercised too; trace output
// goes to /dev/null.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>

#include "karvex/karvex_api.h"
#include "liblinux/HidReportDescriptorParser.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // libFuzzer reports on stderr; the library traces on stdout.
    if (std::freopen("/dev/null", "w", stdout) == nullptr)
        return 0;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    // A hidraw descriptor is at most 4096 bytes; larger inputs add nothing.
    if (size > 4096)
        return 0;
    TPosixSetTraceMask((size % 4) == 3 ? 0x7F : 0);

    std::unique_ptr<std::uint8_t[]> copy(new std::uint8_t[size]);
    if (size != 0)
        std::memcpy(copy.get(), data, size);

    HidReportDescriptorParser parser(copy.get(), static_cast<unsigned>(size));
    const bool ok = parser.Parse();

    // The queries answer from whatever was built, parsed or not.
    volatile std::uint32_t sink = 0;
    sink = sink + parser.MaxInputReportByteLength() + parser.MaxOutputReportByteLength() +
           parser.GetMaxReportSize(HidReportType_Feature) + (parser.IsNumberedInputReport() ? 1 : 0);
    for (unsigned type = HidReportType_Input; type <= HidReportType_Feature; ++type) {
        for (unsigned id = 0; id < 4; ++id) {
            HidReportType t = static_cast<HidReportType>(type);
            const std::uint32_t bits = parser.GetReportLengthInBitForCollection(parser.TopCollection(), t, id);
            HidReport* report = parser.LookupHidReport(t, id);
            // A report's total is the sum over the whole tree.
            if (report != nullptr && report->mSize != bits)
                __builtin_trap();
            if (report == nullptr && bits != 0)
                __builtin_trap();
            sink = sink + bits;
        }
    }
    sink = sink + static_cast<std::uint32_t>(std::strlen(
                      HidReportDescriptorParser::GetUsagePageStr(parser.CurrentGlobal().mUsagePage)));

    // Parsing again from scratch gives the same answers.
    const std::uint32_t in = parser.MaxInputReportByteLength();
    const std::uint32_t out = parser.MaxOutputReportByteLength();
    if (parser.Parse() != ok || parser.MaxInputReportByteLength() != in || parser.MaxOutputReportByteLength() != out)
        __builtin_trap();
    parser.Free();
    if (parser.MaxInputReportByteLength() != 0)
        __builtin_trap();
    (void)sink;
    return 0;
}
