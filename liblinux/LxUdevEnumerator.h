// Owns one reference on a libudev device enumeration (udev_enumerate*).
#pragma once

struct udev_enumerate;
struct udev_list_entry;
class LxUdevContext;

class LxUdevEnumerator {
public:
    LxUdevEnumerator();
    ~LxUdevEnumerator();
    LxUdevEnumerator(const LxUdevEnumerator&) = delete;
    LxUdevEnumerator& operator=(const LxUdevEnumerator&) = delete;

    bool Init(LxUdevContext& ctx);
    void Deinit();
    void Ref();
    void Unref();
    bool IsInitialized();

    // Pass-throughs: libudev's result (0 or a negative error number) unchanged.
    int AddMatchSubsystem(const char* subsys);
    int AddMatchProperty(const char* property, const char* value);
    int AddMatchSysattr(const char* sysattr, const char* value);
    int ScanDevices();
    int ScanSubsystems();
    // First entry of the scan result; the list belongs to this enumerator and
    // is valid until it is rescanned or released.
    udev_list_entry* GetListEntry();

private:
    udev_enumerate* mEnumerator;
};
