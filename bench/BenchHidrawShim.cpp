#include "BenchHidrawShim.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/hidraw.h>
#include <linux/input.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <mutex>
#include <thread>
#include <ctime>

#include "BenchFirmware.h"

namespace kbench {

namespace {

constexpr int cMaxFd = 4096;
constexpr unsigned cMaxConnectionsPerNode = 8;
constexpr std::size_t cMaxReport = 16384; // HID_MAX_BUFFER_SIZE

struct Connection;

struct ServedNode {
    BenchHidrawShim::Node config;
    std::mutex mutex; // guards connections
    Connection* connections[cMaxConnectionsPerNode] = {};
};

struct Connection {
    ServedNode* node = nullptr;
    int appFd = -1;
    int firmwareFd = -1;
    bool threaded = false;
    std::thread firmwareThread;
};

ServedNode gNodes[BenchHidrawShim::cMaxNodes];
std::atomic<unsigned> gNodeCount{0};
std::atomic<Connection*> gByFd[cMaxFd];
std::atomic<BenchHidrawShim::AnswerMode> gAnswerMode{BenchHidrawShim::AnswerMode::Inline};
std::atomic<unsigned> gLatencyUs{0};
std::atomic<std::uint64_t> gDropped{0};
std::atomic<unsigned> gOpenCount{0};

template <typename Fn>
Fn Next(const char* name)
{
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

using OpenFn = int (*)(const char*, int, ...);
using CloseFn = int (*)(int);
using ReadFn = ssize_t (*)(int, void*, size_t);
using WriteFn = ssize_t (*)(int, const void*, size_t);
using IoctlFn = int (*)(int, unsigned long, ...);

inline Connection* Served(int fd)
{
    if (fd < 0 || fd >= cMaxFd)
        return nullptr;
    return gByFd[fd].load(std::memory_order_acquire);
}

void SendAnswer(int firmwareFd, const std::uint8_t* reply, std::size_t length)
{
    if (syscall(SYS_sendto, firmwareFd, reply, length, MSG_DONTWAIT | MSG_NOSIGNAL, nullptr, 0) < 0)
        gDropped.fetch_add(1, std::memory_order_relaxed);
}

// Sleeps until `latencyUs` after `since` (CLOCK_MONOTONIC).
void SleepUntil(const timespec& since, unsigned latencyUs)
{
    timespec due = since;
    due.tv_nsec += static_cast<long>(latencyUs % 1000000) * 1000;
    due.tv_sec += latencyUs / 1000000 + due.tv_nsec / 1000000000;
    due.tv_nsec %= 1000000000;
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &due, nullptr) == EINTR) {
    }
}

void FirmwareThreadRoutine(Connection* c)
{
    // Wake-ups as close to the due time as the timer allows.
    prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    std::uint8_t command[cMaxReport];
    std::uint8_t reply[BenchFirmware::cInputReportBytes];
    for (;;) {
        const long n = syscall(SYS_read, c->firmwareFd, command, sizeof command);
        if (n <= 0) {
            if (n < 0 && errno == EINTR)
                continue;
            return; // the application closed its end
        }
        const unsigned latency = gLatencyUs.load(std::memory_order_relaxed);
        if (latency > 0) {
            timespec received;
            clock_gettime(CLOCK_MONOTONIC, &received);
            SleepUntil(received, latency);
        }
        const std::size_t r = c->node->config.firmware->Process(command, static_cast<std::size_t>(n), reply);
        if (r > 0)
            SendAnswer(c->firmwareFd, reply, r);
    }
}

// -1 with errno on failure; -2 when the path is not served.
int OpenServed(const char* path, int flags)
{
    ServedNode* node = nullptr;
    const unsigned count = gNodeCount.load(std::memory_order_acquire);
    for (unsigned i = 0; i < count; ++i) {
        if (gNodes[i].config.path == path) {
            node = &gNodes[i];
            break;
        }
    }
    if (node == nullptr)
        return -2;
    int sv[2];
    const int type = SOCK_SEQPACKET | SOCK_CLOEXEC;
    if (socketpair(AF_UNIX, type, 0, sv) != 0)
        return -1;
    if (flags & O_NONBLOCK)
        fcntl(sv[0], F_SETFL, O_NONBLOCK);
    if (sv[0] >= cMaxFd) {
        syscall(SYS_close, sv[0]);
        syscall(SYS_close, sv[1]);
        errno = EMFILE;
        return -1;
    }
    auto* c = new Connection;
    c->node = node;
    c->appFd = sv[0];
    c->firmwareFd = sv[1];
    c->threaded = gAnswerMode.load() == BenchHidrawShim::AnswerMode::FirmwareThread;
    {
        std::lock_guard<std::mutex> lock(node->mutex);
        bool placed = false;
        for (auto& slot : node->connections) {
            if (slot == nullptr) {
                slot = c;
                placed = true;
                break;
            }
        }
        if (!placed) {
            syscall(SYS_close, sv[0]);
            syscall(SYS_close, sv[1]);
            delete c;
            errno = EMFILE;
            return -1;
        }
    }
    if (c->threaded)
        c->firmwareThread = std::thread(FirmwareThreadRoutine, c);
    gByFd[sv[0]].store(c, std::memory_order_release);
    gOpenCount.fetch_add(1);
    return sv[0];
}

int CloseServed(int fd)
{
    Connection* c = gByFd[fd].exchange(nullptr);
    if (c == nullptr) {
        errno = EBADF;
        return -1;
    }
    {
        std::lock_guard<std::mutex> lock(c->node->mutex);
        for (auto& slot : c->node->connections)
            if (slot == c)
                slot = nullptr;
    }
    syscall(SYS_close, c->appFd);
    if (c->firmwareThread.joinable())
        c->firmwareThread.join(); // it reads end-of-file now
    syscall(SYS_close, c->firmwareFd);
    delete c;
    gOpenCount.fetch_sub(1);
    return 0;
}

ssize_t WriteServed(Connection* c, const void* buf, size_t n)
{
    if (n > cMaxReport) {
        errno = EINVAL;
        return -1;
    }
    if (c->threaded)
        return syscall(SYS_write, c->appFd, buf, n);
    std::uint8_t reply[BenchFirmware::cInputReportBytes];
    const std::size_t r = c->node->config.firmware->Process(static_cast<const std::uint8_t*>(buf), n, reply);
    if (r > 0)
        SendAnswer(c->firmwareFd, reply, r);
    return static_cast<ssize_t>(n);
}

int CopyString(const std::string& text, void* arg, unsigned length)
{
    if (length == 0)
        return 0;
    const unsigned n = text.size() + 1 < length ? static_cast<unsigned>(text.size() + 1) : length;
    std::memcpy(arg, text.c_str(), n);
    return static_cast<int>(n);
}

int IoctlServed(Connection* c, unsigned long request, void* arg)
{
    const BenchHidrawShim::Node& node = c->node->config;
    if (arg == nullptr) {
        errno = EFAULT;
        return -1;
    }
    if (request == HIDIOCGRDESCSIZE) {
        *static_cast<int*>(arg) = static_cast<int>(node.reportDescriptor.size());
        return 0;
    }
    if (request == HIDIOCGRDESC) {
        auto* d = static_cast<hidraw_report_descriptor*>(arg);
        if (d->size > HID_MAX_DESCRIPTOR_SIZE - 1) {
            errno = EINVAL;
            return -1;
        }
        const std::size_t n = d->size < node.reportDescriptor.size() ? d->size : node.reportDescriptor.size();
        std::memcpy(d->value, node.reportDescriptor.data(), n);
        return 0;
    }
    if (request == HIDIOCGRAWINFO) {
        auto* info = static_cast<hidraw_devinfo*>(arg);
        info->bustype = BUS_USB;
        info->vendor = static_cast<__s16>(node.vid);
        info->product = static_cast<__s16>(node.pid);
        return 0;
    }
    if (_IOC_TYPE(request) == 'H' && _IOC_DIR(request) == _IOC_READ) {
        if (_IOC_NR(request) == 0x04)
            return CopyString(node.name, arg, _IOC_SIZE(request));
        if (_IOC_NR(request) == 0x05)
            return CopyString(node.phys, arg, _IOC_SIZE(request));
    }
    errno = EINVAL;
    return -1;
}

} // namespace

void BenchHidrawShim::ServeNode(const Node& node)
{
    const unsigned index = gNodeCount.load();
    if (index >= cMaxNodes)
        return;
    gNodes[index].config = node;
    gNodeCount.store(index + 1, std::memory_order_release);
}

void BenchHidrawShim::SetAnswerMode(AnswerMode mode)
{
    gAnswerMode.store(mode);
}

void BenchHidrawShim::SetAnswerLatency(unsigned microseconds)
{
    gLatencyUs.store(microseconds);
}

unsigned BenchHidrawShim::Inject(const std::string& path, const std::uint8_t* report, std::size_t length)
{
    const unsigned count = gNodeCount.load(std::memory_order_acquire);
    for (unsigned i = 0; i < count; ++i) {
        if (gNodes[i].config.path != path)
            continue;
        unsigned delivered = 0;
        std::lock_guard<std::mutex> lock(gNodes[i].mutex);
        for (Connection* c : gNodes[i].connections) {
            if (c == nullptr)
                continue;
            if (syscall(SYS_sendto, c->firmwareFd, report, length, MSG_DONTWAIT | MSG_NOSIGNAL, nullptr, 0) < 0)
                gDropped.fetch_add(1, std::memory_order_relaxed);
            else
                ++delivered;
        }
        return delivered;
    }
    return 0;
}

std::uint64_t BenchHidrawShim::Dropped()
{
    return gDropped.load();
}

unsigned BenchHidrawShim::OpenCount()
{
    return gOpenCount.load();
}

} // namespace kbench

// ---- The wrappers --------------------------------------------------------------

using namespace kbench;

extern "C" int open(const char* path, int flags, ...)
{
    mode_t mode = 0;
    if (flags & (O_CREAT | O_TMPFILE)) {
        va_list ap;
        va_start(ap, flags);
        mode = static_cast<mode_t>(va_arg(ap, int));
        va_end(ap);
    }
    if (std::strncmp(path, "/dev/hidraw", 11) == 0) {
        const int fd = OpenServed(path, flags);
        if (fd != -2)
            return fd;
    }
    static const OpenFn next = Next<OpenFn>("open");
    return next(path, flags, mode);
}

extern "C" int open64(const char* path, int flags, ...)
{
    mode_t mode = 0;
    if (flags & (O_CREAT | O_TMPFILE)) {
        va_list ap;
        va_start(ap, flags);
        mode = static_cast<mode_t>(va_arg(ap, int));
        va_end(ap);
    }
    if (std::strncmp(path, "/dev/hidraw", 11) == 0) {
        const int fd = OpenServed(path, flags);
        if (fd != -2)
            return fd;
    }
    static const OpenFn next = Next<OpenFn>("open64");
    return next(path, flags, mode);
}

extern "C" int close(int fd)
{
    if (Served(fd) != nullptr)
        return CloseServed(fd);
    static const CloseFn next = Next<CloseFn>("close");
    return next(fd);
}

extern "C" ssize_t read(int fd, void* buf, size_t n)
{
    if (Served(fd) != nullptr)
        return syscall(SYS_read, fd, buf, n);
    static const ReadFn next = Next<ReadFn>("read");
    return next(fd, buf, n);
}

extern "C" ssize_t write(int fd, const void* buf, size_t n)
{
    if (Connection* c = Served(fd))
        return WriteServed(c, buf, n);
    static const WriteFn next = Next<WriteFn>("write");
    return next(fd, buf, n);
}

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept
{
    va_list ap;
    va_start(ap, request);
    void* arg = va_arg(ap, void*);
    va_end(ap);
    if (Connection* c = Served(fd))
        return IoctlServed(c, request, arg);
    static const IoctlFn next = Next<IoctlFn>("ioctl");
    return next(fd, request, arg);
}
