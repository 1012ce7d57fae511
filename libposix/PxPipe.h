// Self-pipe used to wake a thread that sleeps in poll(): the stopper writes
// one byte, the worker sees its read end become readable and drains it.
#pragma once

#include <sys/types.h>

class PxPipe {
public:
    PxPipe();
    ~PxPipe();

    // 0 or -errno. nonBlocking puts both ends into O_NONBLOCK mode.
    int Create(bool nonBlocking);
    // 1 or -errno.
    ssize_t WriteChar(char c);
    // Drains the pipe one byte at a time; returns the number of bytes read.
    int ReadDummy();
    void CloseReadEnd();
    void CloseWriteEnd();
    void Close();
    int GetReadEnd() const { return mPipeFileDescriptors[0]; }
    int GetWriteEnd() const { return mPipeFileDescriptors[1]; }

    PxPipe(const PxPipe&) = delete;
    PxPipe& operator=(const PxPipe&) = delete;

private:
    int mPipeFileDescriptors[2];
};
