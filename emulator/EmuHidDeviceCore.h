// The state of one emulated hidraw device that umockdev's handler thread
// works on: input report queues, the device node, faults, the write hook.
//
// umockdev calls our signal handlers on a GLib worker thread of its own. Each
// signal connection holds a shared_ptr to the core, released by GLib only
// after the last handler invocation has returned, so a handler can never run
// on a destroyed core; EmuHidDevice keeps one more reference. After the
// device is destroyed the core answers like an unplugged device.
//
// Input reports follow hidraw: every open descriptor has its own queue of up
// to 63 reports and gets a copy of each report (a full queue drops new
// reports); reports queued while no descriptor is open wait for the next one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "EmuHidDevice.h"
#include "EmuPtyNode.h"

typedef struct _UMockdevIoctlBase UMockdevIoctlBase;
typedef struct _UMockdevIoctlClient UMockdevIoctlClient;

namespace kemu {

// ThreadSanitizer cannot see GLib's futex-based hand-offs between our threads
// and umockdev's worker thread. Taking one process-wide mutex after setting
// up and at the start of every handler gives it the happens-before edge.
void EmuPublish();

class EmuHidDeviceCore {
public:
    // What the hidraw ioctls report about the device.
    struct Identity {
        std::uint32_t bustype = 0;
        std::uint16_t vendor = 0;
        std::uint16_t product = 0;
        std::string name; // HIDIOCGRAWNAME
        std::string phys; // HIDIOCGRAWPHYS
        std::string uniq; // HIDIOCGRAWUNIQ
    };

    static constexpr std::size_t cQueueCapacity = 63; // hidraw's ring of 64 keeps one slot free
    static constexpr std::size_t cMaxWrite = 16384;   // HID_MAX_BUFFER_SIZE
    static constexpr std::uint32_t cMaxDescriptorRequest = 4095; // HID_MAX_DESCRIPTOR_SIZE - 1

    explicit EmuHidDeviceCore(std::vector<std::uint8_t> reportDescriptor);
    ~EmuHidDeviceCore();
    EmuHidDeviceCore(const EmuHidDeviceCore&) = delete;
    EmuHidDeviceCore& operator=(const EmuHidDeviceCore&) = delete;

    // Connects the umockdev handler's signals to this core.
    static void ConnectSignals(UMockdevIoctlBase* handler, const std::shared_ptr<EmuHidDeviceCore>& core);

    // Plug state (test thread). Plugged creates the node at nodePath (a real
    // path in the testbed) after the handler has been attached; Unplugged
    // removes it, hangs up open descriptors and forgets all queued input.
    void Plugged(const Identity& identity, const std::string& nodePath);
    void Unplugged();

    void Inject(const std::uint8_t* data, std::size_t length);
    std::size_t Pending();
    void ClearInput();
    // Descriptors open on the node, also those that died with an unplug.
    std::size_t OpenDescriptors();

    void SetWriteHook(EmuHidDevice::WriteHook hook);

    void FailIoctl(unsigned long request, int errnum);
    void FailReads(int errnum);
    void FailWrites(int errnum);
    void OverrideDescriptorSize(std::optional<int> size);
    void SetReportDescriptor(const std::vector<std::uint8_t>& descriptor);
    std::vector<std::uint8_t> ReportDescriptor() const;
    void SetNodeMode(unsigned int mode);

    std::uint64_t WriteCount() const;
    std::uint64_t ReadCount() const;

private:
    using Report = std::vector<std::uint8_t>;
    struct Client {
        std::uint64_t id;
        UMockdevIoctlClient* handle; // our reference
        std::deque<Report> reports;
    };

    static int OnIoctl(UMockdevIoctlBase* handler, UMockdevIoctlClient* client, void* data);
    static int OnRead(UMockdevIoctlBase* handler, UMockdevIoctlClient* client, void* data);
    static int OnWrite(UMockdevIoctlBase* handler, UMockdevIoctlClient* client, void* data);
    static void OnClientConnected(UMockdevIoctlBase* handler, UMockdevIoctlClient* client, void* data);

    void HandleIoctl(UMockdevIoctlClient* client);
    void HandleRead(UMockdevIoctlClient* client);
    void HandleWrite(UMockdevIoctlClient* client);
    void ClientConnected(UMockdevIoctlClient* client);

    // With mMutex held.
    Client* FindClient(std::uint64_t id);
    // umockdev tells nobody when a descriptor is closed; its connection
    // shows it. Forgets closed descriptors (and their queues).
    void PruneClosed();
    void UpdateReadable();

    mutable std::mutex mMutex;
    bool mPlugged = false;
    Identity mIdentity;
    EmuPtyNode mNode;
    unsigned int mNodeMode = 0666;
    std::uint64_t mNextClientId = 1;
    std::vector<Client> mClients;             // descriptors of the present plug
    std::vector<UMockdevIoctlClient*> mDead; // descriptors that saw an unplug
    std::deque<Report> mBacklog;
    std::vector<std::uint8_t> mDescriptor;
    std::optional<int> mDescriptorSizeOverride;
    std::vector<std::pair<unsigned long, int>> mIoctlFaults;
    int mReadFault = 0;
    int mWriteFault = 0;
    std::uint64_t mWriteCount = 0;
    std::uint64_t mReadCount = 0;

    // Held while the hook runs, so that replacing the hook waits for a call
    // in progress; recursive, so that the hook may replace itself.
    std::recursive_mutex mHookMutex;
    EmuHidDevice::WriteHook mHook;
};

} // namespace kemu
