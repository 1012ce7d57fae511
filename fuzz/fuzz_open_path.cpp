// libFuzzer target: the open path of the device object with an untrusted
// adapter. The input is the adapter's HID report descriptor; an emulated
// adapter (umockdev testbed plus the emulated firmware) hands it to the
// library through the hidraw ioctls and answers the commands. Each input runs
// KarvexDevice::Open, one command when the open succeeds, and Close.
//
// Needs the umockdev preload: run it under umockdev-wrapper (scripts/run-fuzz.sh
// does). One testbed and one emulated adapter serve the whole run; only the
// descriptor changes between inputs.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "EmuAdapterFirmware.h"
#include "EmuHidDevice.h"
#include "EmuReportDescriptor.h"
#include "EmuTestbed.h"
#include "karvex/karvex_api.h"
#include "karvex_api_linux/KarvexDeviceEnumeratorLx.h"
#include "karvex_api_linux/KarvexDeviceLx.h"

namespace {

// Largest report hidraw moves; the library refuses longer ones.
constexpr std::size_t cMaxReportBytes = 16384;

struct Bench {
    kemu::EmuTestbed testbed;
    kemu::EmuHidDevice* hid = nullptr;
    std::unique_ptr<kemu::EmuAdapterFirmware> firmware;
    KarvexDeviceEnumerator enumerator;
    unsigned index = 0;
};

// Lives for the whole process (still reachable at exit, so not a leak).
Bench* gBench = nullptr;

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // libFuzzer reports on stderr; the library traces on stdout.
    if (std::freopen("/dev/null", "w", stdout) == nullptr)
        return 0;
    if (!kemu::EmuTestbed::InMockEnvironment()) {
        std::fprintf(stderr, "fuzz_open_path: run under umockdev-wrapper\n");
        std::exit(1);
    }
    TPosixSetTraceMask(0);
    gBench = new Bench;
    gBench->hid = &gBench->testbed.AddDevice(kemu::AdapterConfig());
    gBench->firmware = std::make_unique<kemu::EmuAdapterFirmware>(*gBench->hid);
    if (gBench->enumerator.EnumerateHidRawDevices(nullptr) != TSTATUS_SUCCESS ||
        gBench->enumerator.FindIndexForDevicePath(gBench->hid->DevNode().c_str(), gBench->index) !=
            TSTATUS_SUCCESS) {
        std::fprintf(stderr, "fuzz_open_path: emulated adapter not enumerated\n");
        std::exit(1);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    // The kernel hands out at most 4096 descriptor bytes.
    if (size > 4096)
        return 0;
    const std::vector<std::uint8_t> descriptor(data, data + size);
    gBench->hid->SetReportDescriptor(descriptor);

    // The emulated firmware sizes its answers by its own reading of the
    // descriptor (it steps over 4-byte items correctly, the library's parser
    // does not, so the two can disagree). Where it would build answers beyond
    // what hidraw can carry, it stays silent: the library refuses such
    // descriptors before it sends anything, and when it does not, it sees
    // the time-out of an adapter that never answers.
    const kemu::EmuReportLayout layout = kemu::ScanReportDescriptor(descriptor);
    kemu::EmuAdapterFirmware::Faults faults;
    faults.noAnswer = layout.inputBytes > cMaxReportBytes || layout.outputBytes > cMaxReportBytes;
    gBench->firmware->SetFaults(faults);

    // Now and then every trace class, so that the formatting runs as well.
    TPosixSetTraceMask((size % 8) == 7 ? 0x7F : 0);

    KarvexDevice device;
    const TSTATUS st = device.Open(gBench->enumerator, gBench->index);
    if ((st == TSTATUS_SUCCESS) != device.IsOpen())
        __builtin_trap();
    if (st == TSTATUS_SUCCESS) {
        KARVEX_GPIOMode mode = GPIOMode_Input;
        (void)device.GetPinMode(1, mode);
        device.Close();
        if (device.IsOpen())
            __builtin_trap();
    }
    TPosixSetTraceMask(0);
    return 0;
}
