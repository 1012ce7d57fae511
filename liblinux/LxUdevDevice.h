// Owns one reference on a libudev device (udev_device*).
#pragma once

struct udev_device;
class LxUdevContext;

class LxUdevDevice {
public:
    // Adopts dev without taking a reference: the wrapper takes over the one
    // reference the caller holds (as handed out by udev_monitor_receive_device).
    // Null makes an uninitialised wrapper.
    explicit LxUdevDevice(udev_device* dev = nullptr);
    ~LxUdevDevice();
    LxUdevDevice(const LxUdevDevice&) = delete;
    LxUdevDevice& operator=(const LxUdevDevice&) = delete;

    bool InitFromSyspath(LxUdevContext& ctx, const char* syspath);
    // Looks up the nearest ancestor of childDevice with the given subsystem and
    // device type and takes a reference of its own on it, so this wrapper may
    // outlive the child's. An uninitialised child is reported and returns true
    // with this wrapper left uninitialised (its getters then return null).
    bool InitWithGetParentWithSubsystemDevtype(LxUdevDevice& childDevice, const char* subsystem, const char* devtype);
    void Deinit();
    void Ref();
    void Unref();
    bool IsInitialized();

    // Strings owned by the device, valid while this wrapper holds it; null
    // when the wrapper is empty or the value does not exist.
    const char* GetSysattrValue(const char* sysattr);
    const char* GetSyspath();
    const char* GetDevpath();
    const char* GetDevnode();
    const char* GetAction();
    const char* GetSubsystem();
    const char* GetDevtype();

private:
    udev_device* mDevice;
};
