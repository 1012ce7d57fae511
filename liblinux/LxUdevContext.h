// Owns one reference on a libudev context (udev*).
#pragma once

struct udev;

class LxUdevContext {
public:
    LxUdevContext();
    ~LxUdevContext();
    LxUdevContext(const LxUdevContext&) = delete;
    LxUdevContext& operator=(const LxUdevContext&) = delete;

    // Creates the context; a second call is a traced no-op that succeeds.
    bool Init();
    // Drops the reference; safe to repeat.
    void Deinit();
    void Ref();
    void Unref();
    bool IsInitialized();
    udev* GetContext();

    void* GetUserdata();
    void SetUserdata(void* userdata);

private:
    udev* mContext;
};
