// Holds one reference on a libudev event queue handle (udev_queue*).
#pragma once

struct udev_queue;

class LxUdevQueue {
public:
    // Adopts queue (and the one reference that comes with it); null makes an
    // empty wrapper.
    explicit LxUdevQueue(udev_queue* queue = nullptr);
    // Drops the reference.
    ~LxUdevQueue();
    LxUdevQueue(const LxUdevQueue&) = delete;
    LxUdevQueue& operator=(const LxUdevQueue&) = delete;

    void Deinit();
    void Ref();
    void Unref();
    bool IsInitialized();

private:
    udev_queue* mQueue;
};
