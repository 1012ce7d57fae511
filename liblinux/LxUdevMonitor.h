// Owns one reference on a libudev netlink monitor (udev_monitor*).
#pragma once

struct udev_device;
struct udev_monitor;
class LxUdevContext;

class LxUdevMonitor {
public:
    LxUdevMonitor();
    // Drops the reference (the object is going away, the pointer is left as is).
    ~LxUdevMonitor();
    LxUdevMonitor(const LxUdevMonitor&) = delete;
    LxUdevMonitor& operator=(const LxUdevMonitor&) = delete;

    bool InitFromNetLink(LxUdevContext& ctx, const char* name);
    // Events after udev has processed them (rules applied, nodes created).
    bool InitFromNetLinkUdev(LxUdevContext& ctx);
    // Raw kernel events.
    bool InitFromNetLinkKernel(LxUdevContext& ctx);
    void Deinit();
    void Ref();
    void Unref();
    bool IsInitialized();

    bool EnableReceiving();
    // The monitor's socket for poll; -1 without a monitor.
    int GetFd();
    bool SetReceiveBufferSize(int size);
    bool FilterAddMatchSubsystemDevtype(const char* subsystem, const char* devtype);
    bool FilterAddMatchTag(const char* tag);
    bool FilterUpdate();
    bool FilterRemove();
    // The next event's device with a reference for the caller (wrap it in an
    // LxUdevDevice), or null.
    udev_device* ReceiveDevice();

private:
    udev_monitor* mMonitor;
};
