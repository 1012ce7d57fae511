// A hidraw node served in-process, for benchmarks that want the wire to cost
// as little as possible.
//
// The benchmark binary defines open, close, read, write and ioctl itself.
// Symbols of the executable come first in the dynamic linker's search order,
// ahead of umockdev's preload library and the C library, so these wrappers see
// every call the unchanged libkarvex, libhidapi-hidraw and the benchmark make.
// A path registered with ServeNode (e.g. "/dev/hidraw0", the devnode udev
// reports for an emulated adapter of the umockdev testbed) opens one end of a
// SOCK_SEQPACKET socketpair, which keeps report boundaries and gives poll()
// the level-triggered POLLIN of hidraw; the other end belongs to an
// in-process BenchFirmware. The ioctls the library and hidapi issue are
// answered from the node's report descriptor. Everything else, udev
// enumeration of the testbed's sysfs included, goes on to umockdev and libc.
//
// Answers go to the descriptor that wrote the command (hidraw would copy
// every input report to every descriptor open on the node): so the library,
// hidapi and the hand-written client can share one node without waking one
// another. Pin events injected with Inject() go to every open descriptor.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kbench {

class BenchFirmware;

class BenchHidrawShim {
public:
    enum class AnswerMode {
        // The firmware answers inside write(): the answer is queued before
        // write() returns, as from an adapter with no latency at all.
        Inline,
        // A firmware thread per descriptor reads the command from the socket
        // and answers, as an adapter answers asynchronously over USB.
        FirmwareThread,
    };

    struct Node {
        std::string path;
        BenchFirmware* firmware = nullptr;
        std::vector<std::uint8_t> reportDescriptor;
        std::uint16_t vid = 0;
        std::uint16_t pid = 0;
        std::string name;
        std::string phys;
    };

    // Registers a node; call before any descriptor of that path is opened.
    // At most cMaxNodes nodes.
    static void ServeNode(const Node& node);
    // How descriptors opened from now on are answered.
    static void SetAnswerMode(AnswerMode mode);
    // With AnswerMode::FirmwareThread: each answer leaves this long after its
    // command arrived (0: at once), e.g. 250 for the round trip of a real
    // adapter at USB high speed.
    static void SetAnswerLatency(unsigned microseconds);

    // Sends one input report (as read() returns it) to every descriptor open
    // on the node. Returns how many took it; a descriptor whose socket is
    // full loses it (counted in Dropped()), as hidraw drops reports when its
    // queue is full.
    static unsigned Inject(const std::string& path, const std::uint8_t* report, std::size_t length);
    static std::uint64_t Dropped();
    // Descriptors served right now.
    static unsigned OpenCount();

    static constexpr unsigned cMaxNodes = 8;
};

} // namespace kbench
