#include "liblinux/LxUdevQueue.h"

#include <libudev.h>

LxUdevQueue::LxUdevQueue(udev_queue* queue) : mQueue(queue) {}

LxUdevQueue::~LxUdevQueue()
{
    Unref();
}

void LxUdevQueue::Deinit()
{
    if (mQueue != nullptr) {
        udev_queue_unref(mQueue);
        mQueue = nullptr;
    }
}

void LxUdevQueue::Ref()
{
    udev_queue_ref(mQueue);
}

void LxUdevQueue::Unref()
{
    udev_queue_unref(mQueue);
}

bool LxUdevQueue::IsInitialized()
{
    return mQueue != nullptr;
}
