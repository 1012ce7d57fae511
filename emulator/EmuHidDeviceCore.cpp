#include "EmuHidDeviceCore.h"

#include <linux/hidraw.h>
#include <sys/ioctl.h>
#include <umockdev.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>

namespace kemu {

namespace {

std::mutex gPublishMutex;

const char* const cClientIdKey = "kemu-client-id";

// What every signal connection owns: a reference that keeps the core alive
// until GLib has finished with the connection.
struct CoreRef {
    std::shared_ptr<EmuHidDeviceCore> core;
};

void FreeCoreRef(gpointer data, GClosure*)
{
    delete static_cast<CoreRef*>(data);
}

EmuHidDeviceCore& CoreOf(void* data)
{
    return *static_cast<CoreRef*>(data)->core;
}

std::uint64_t ClientId(UMockdevIoctlClient* client)
{
    return static_cast<std::uint64_t>(GPOINTER_TO_SIZE(g_object_get_data(G_OBJECT(client), cClientIdKey)));
}

// Copies a string the way hidraw's name/phys/uniq ioctls do: with its
// terminator, cut to the caller's size (then without terminator).
long CopyIoctlString(UMockdevIoctlData* arg, unsigned size, const std::string& text, int& err)
{
    std::size_t len = text.size() + 1;
    if (len > size)
        len = size;
    if (len == 0)
        return 0;
    GError* error = nullptr;
    UMockdevIoctlData* out = umockdev_ioctl_data_resolve(arg, 0, size, &error);
    if (out == nullptr) {
        if (error != nullptr)
            g_error_free(error);
        err = EFAULT;
        return -1;
    }
    std::memcpy(out->data, text.c_str(), len);
    g_object_unref(out);
    return static_cast<long>(len);
}

} // namespace

void EmuPublish()
{
    std::lock_guard<std::mutex> lock(gPublishMutex);
}

EmuHidDeviceCore::EmuHidDeviceCore(std::vector<std::uint8_t> reportDescriptor)
    : mDescriptor(std::move(reportDescriptor))
{
}

EmuHidDeviceCore::~EmuHidDeviceCore()
{
    for (auto& client : mClients)
        g_object_unref(client.handle);
    for (auto* client : mDead)
        g_object_unref(client);
}

void EmuHidDeviceCore::ConnectSignals(UMockdevIoctlBase* handler, const std::shared_ptr<EmuHidDeviceCore>& core)
{
    EmuPublish();
    g_signal_connect_data(handler, "handle-ioctl", G_CALLBACK(OnIoctl), new CoreRef{core}, FreeCoreRef,
                          static_cast<GConnectFlags>(0));
    g_signal_connect_data(handler, "handle-read", G_CALLBACK(OnRead), new CoreRef{core}, FreeCoreRef,
                          static_cast<GConnectFlags>(0));
    g_signal_connect_data(handler, "handle-write", G_CALLBACK(OnWrite), new CoreRef{core}, FreeCoreRef,
                          static_cast<GConnectFlags>(0));
    g_signal_connect_data(handler, "client-connected", G_CALLBACK(OnClientConnected), new CoreRef{core},
                          FreeCoreRef, static_cast<GConnectFlags>(0));
}

// ---- signal handlers (umockdev's worker thread) ----

int EmuHidDeviceCore::OnIoctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, void* data)
{
    EmuPublish();
    CoreOf(data).HandleIoctl(client);
    return TRUE;
}

int EmuHidDeviceCore::OnRead(UMockdevIoctlBase*, UMockdevIoctlClient* client, void* data)
{
    EmuPublish();
    CoreOf(data).HandleRead(client);
    return TRUE;
}

int EmuHidDeviceCore::OnWrite(UMockdevIoctlBase*, UMockdevIoctlClient* client, void* data)
{
    EmuPublish();
    CoreOf(data).HandleWrite(client);
    return TRUE;
}

void EmuHidDeviceCore::OnClientConnected(UMockdevIoctlBase*, UMockdevIoctlClient* client, void* data)
{
    EmuPublish();
    CoreOf(data).ClientConnected(client);
}

void EmuHidDeviceCore::ClientConnected(UMockdevIoctlClient* client)
{
    std::lock_guard<std::mutex> lock(mMutex);
    PruneClosed();
    g_object_ref(client);
    std::uint64_t id = 0; // 0: opened while unplugged, dead from the start
    if (mPlugged) {
        id = mNextClientId++;
        Client entry{id, client, {}};
        // The first descriptor takes what was sent while nobody listened.
        if (mClients.empty())
            entry.reports.swap(mBacklog);
        mClients.push_back(std::move(entry));
    } else {
        mDead.push_back(client);
    }
    g_object_set_data(G_OBJECT(client), cClientIdKey, GSIZE_TO_POINTER(static_cast<gsize>(id)));
}

void EmuHidDeviceCore::PruneClosed()
{
    const std::size_t before = mClients.size();
    for (auto it = mClients.begin(); it != mClients.end();) {
        if (umockdev_ioctl_client_get_connected(it->handle)) {
            ++it;
        } else {
            g_object_unref(it->handle);
            it = mClients.erase(it);
        }
    }
    for (auto it = mDead.begin(); it != mDead.end();) {
        if (umockdev_ioctl_client_get_connected(*it)) {
            ++it;
        } else {
            g_object_unref(*it);
            it = mDead.erase(it);
        }
    }
    if (mClients.size() != before)
        UpdateReadable();
}

EmuHidDeviceCore::Client* EmuHidDeviceCore::FindClient(std::uint64_t id)
{
    if (id == 0)
        return nullptr;
    for (auto& client : mClients) {
        if (client.id == id)
            return &client;
    }
    return nullptr;
}

void EmuHidDeviceCore::UpdateReadable()
{
    bool any = !mBacklog.empty();
    for (const auto& client : mClients)
        any = any || !client.reports.empty();
    mNode.SetReadable(any);
}

void EmuHidDeviceCore::HandleRead(UMockdevIoctlClient* client)
{
    UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
    const std::size_t capacity = arg->data_len > 0 ? static_cast<std::size_t>(arg->data_len) : 0;
    long result = -1;
    int err = 0;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        Client* c = FindClient(ClientId(client));
        if (c == nullptr) {
            err = EIO; // hidraw: the device is gone
        } else if (mReadFault != 0) {
            err = mReadFault;
        } else {
            // As hidraw_read(): one report per call, cut to the caller's
            // buffer (the rest is lost); a report that yields 0 bytes is
            // consumed and the next one is tried.
            while (result < 0 && err == 0) {
                if (c->reports.empty()) {
                    err = EAGAIN; // the library opens the node O_NONBLOCK
                    break;
                }
                Report report = std::move(c->reports.front());
                c->reports.pop_front();
                const std::size_t n = std::min(report.size(), capacity);
                if (n > 0) {
                    std::memcpy(arg->data, report.data(), n);
                    result = static_cast<long>(n);
                    ++mReadCount;
                }
            }
            UpdateReadable();
        }
    }
    umockdev_ioctl_client_complete(client, result, result < 0 ? err : 0);
}

void EmuHidDeviceCore::HandleWrite(UMockdevIoctlClient* client)
{
    UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
    const std::size_t length = arg->data_len > 0 ? static_cast<std::size_t>(arg->data_len) : 0;
    int err = 0;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (FindClient(ClientId(client)) == nullptr)
            err = ENODEV;
        else if (length < 2 || length > cMaxWrite) // as hidraw_send_report()
            err = EINVAL;
        else if (mWriteFault != 0)
            err = mWriteFault;
        else
            ++mWriteCount;
    }
    if (err == 0) {
        std::lock_guard<std::recursive_mutex> hookLock(mHookMutex);
        // A copy, so that the hook may replace itself while it runs.
        const EmuHidDevice::WriteHook hook = mHook;
        if (hook) {
            try {
                hook(arg->data, length);
            } catch (const std::exception& e) {
                std::fprintf(stderr, "kemu: write hook threw: %s\n", e.what());
            } catch (...) {
                std::fprintf(stderr, "kemu: write hook threw\n");
            }
        }
    }
    umockdev_ioctl_client_complete(client, err == 0 ? static_cast<long>(length) : -1, err);
}

void EmuHidDeviceCore::HandleIoctl(UMockdevIoctlClient* client)
{
    const unsigned long request = umockdev_ioctl_client_get_request(client);
    UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
    std::vector<std::uint8_t> descriptor;
    int descriptorSize = 0;
    Identity identity;
    int err = 0;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (FindClient(ClientId(client)) == nullptr) {
            err = ENODEV;
        } else {
            for (const auto& fault : mIoctlFaults) {
                const bool anySize = _IOC_SIZE(fault.first) == 0;
                const unsigned long mask = anySize ? ~(static_cast<unsigned long>(_IOC_SIZEMASK) << _IOC_SIZESHIFT) : ~0UL;
                if ((fault.first & mask) == (request & mask))
                    err = fault.second;
            }
        }
        descriptor = mDescriptor;
        descriptorSize = mDescriptorSizeOverride.value_or(static_cast<int>(mDescriptor.size()));
        identity = mIdentity;
    }
    if (err != 0) {
        umockdev_ioctl_client_complete(client, -1, err);
        return;
    }

    long result = 0;
    GError* error = nullptr;
    UMockdevIoctlData* out = nullptr;
    // The same decisions, in the same order, as hidraw_ioctl().
    if (request == HIDIOCGRDESCSIZE) {
        out = umockdev_ioctl_data_resolve(arg, 0, sizeof(int), &error);
        if (out != nullptr)
            std::memcpy(out->data, &descriptorSize, sizeof descriptorSize);
    } else if (request == HIDIOCGRDESC) {
        out = umockdev_ioctl_data_resolve(arg, 0, sizeof(hidraw_report_descriptor), &error);
        if (out != nullptr) {
            std::uint32_t size = 0;
            std::memcpy(&size, out->data, sizeof size);
            if (size > cMaxDescriptorRequest) {
                err = EINVAL;
            } else {
                const std::size_t n = std::min<std::size_t>(size, descriptor.size());
                if (n > 0)
                    std::memcpy(out->data + offsetof(hidraw_report_descriptor, value), descriptor.data(), n);
            }
        }
    } else if (request == HIDIOCGRAWINFO) {
        out = umockdev_ioctl_data_resolve(arg, 0, sizeof(hidraw_devinfo), &error);
        if (out != nullptr) {
            hidraw_devinfo info{};
            info.bustype = identity.bustype;
            info.vendor = static_cast<__s16>(identity.vendor);
            info.product = static_cast<__s16>(identity.product);
            std::memcpy(out->data, &info, sizeof info);
        }
    } else if (_IOC_TYPE(request) != 'H') {
        err = EINVAL;
    } else {
        const unsigned nr = _IOC_NR(request);
        const unsigned size = _IOC_SIZE(request);
        if (nr == 0x06 || nr == 0x07 || (nr >= 0x09 && nr <= 0x0C)) {
            // Feature/input/output report transfers: the adapter has no such
            // reports and stalls the control request.
            err = EPIPE;
        } else if (_IOC_DIR(request) != _IOC_READ) {
            err = EINVAL;
        } else if (nr == _IOC_NR(HIDIOCGRAWNAME(0))) {
            result = CopyIoctlString(arg, size, identity.name, err);
        } else if (nr == _IOC_NR(HIDIOCGRAWPHYS(0))) {
            result = CopyIoctlString(arg, size, identity.phys, err);
        } else if (nr == 0x08) { // HIDIOCGRAWUNIQ
            result = CopyIoctlString(arg, size, identity.uniq, err);
        } else {
            err = ENOTTY;
        }
    }
    if (error != nullptr) {
        g_error_free(error);
        err = EFAULT;
    } else if (out == nullptr && (request == HIDIOCGRDESCSIZE || request == HIDIOCGRDESC || request == HIDIOCGRAWINFO)) {
        err = EFAULT; // null pointer argument
    }
    if (out != nullptr)
        g_object_unref(out);
    umockdev_ioctl_client_complete(client, err != 0 ? -1 : result, err);
}

// ---- test side ----

void EmuHidDeviceCore::Plugged(const Identity& identity, const std::string& nodePath)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mIdentity = identity;
    for (auto& client : mClients)
        mDead.push_back(client.handle);
    mClients.clear();
    mBacklog.clear();
    mNode.Create(nodePath, mNodeMode);
    mPlugged = true;
    EmuPublish();
}

void EmuHidDeviceCore::Unplugged()
{
    std::lock_guard<std::mutex> lock(mMutex);
    mPlugged = false;
    for (auto& client : mClients) // open descriptors are dead from now on
        mDead.push_back(client.handle);
    mClients.clear();
    mBacklog.clear();
    mNode.Destroy();
}

void EmuHidDeviceCore::Inject(const std::uint8_t* data, std::size_t length)
{
    std::lock_guard<std::mutex> lock(mMutex);
    if (!mPlugged)
        return;
    PruneClosed();
    Report report(data, data + length);
    if (mClients.empty()) {
        if (mBacklog.size() < cQueueCapacity)
            mBacklog.push_back(std::move(report));
    } else {
        for (auto& client : mClients) {
            if (client.reports.size() < cQueueCapacity)
                client.reports.push_back(report);
        }
    }
    UpdateReadable();
}

std::size_t EmuHidDeviceCore::Pending()
{
    std::lock_guard<std::mutex> lock(mMutex);
    PruneClosed();
    std::size_t pending = mBacklog.size();
    for (const auto& client : mClients)
        pending = std::max(pending, client.reports.size());
    return pending;
}

void EmuHidDeviceCore::ClearInput()
{
    std::lock_guard<std::mutex> lock(mMutex);
    PruneClosed();
    mBacklog.clear();
    for (auto& client : mClients)
        client.reports.clear();
    UpdateReadable();
}

std::size_t EmuHidDeviceCore::OpenDescriptors()
{
    std::lock_guard<std::mutex> lock(mMutex);
    PruneClosed();
    return mClients.size() + mDead.size();
}

void EmuHidDeviceCore::SetWriteHook(EmuHidDevice::WriteHook hook)
{
    EmuHidDevice::WriteHook old;
    {
        std::lock_guard<std::recursive_mutex> hookLock(mHookMutex);
        old.swap(mHook);
        mHook = std::move(hook);
    }
    EmuPublish();
    // The old hook (and what it captured) dies here, outside the lock.
}

void EmuHidDeviceCore::FailIoctl(unsigned long request, int errnum)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mIoctlFaults.erase(std::remove_if(mIoctlFaults.begin(), mIoctlFaults.end(),
                                      [request](const std::pair<unsigned long, int>& f) { return f.first == request; }),
                       mIoctlFaults.end());
    if (errnum != 0)
        mIoctlFaults.emplace_back(request, errnum);
}

void EmuHidDeviceCore::FailReads(int errnum)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mReadFault = errnum;
}

void EmuHidDeviceCore::FailWrites(int errnum)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mWriteFault = errnum;
}

void EmuHidDeviceCore::OverrideDescriptorSize(std::optional<int> size)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mDescriptorSizeOverride = size;
}

void EmuHidDeviceCore::SetReportDescriptor(const std::vector<std::uint8_t>& descriptor)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mDescriptor = descriptor;
}

std::vector<std::uint8_t> EmuHidDeviceCore::ReportDescriptor() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mDescriptor;
}

void EmuHidDeviceCore::SetNodeMode(unsigned int mode)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mNodeMode = mode;
    mNode.SetMode(mode);
}

std::uint64_t EmuHidDeviceCore::WriteCount() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mWriteCount;
}

std::uint64_t EmuHidDeviceCore::ReadCount() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mReadCount;
}

} // namespace kemu
