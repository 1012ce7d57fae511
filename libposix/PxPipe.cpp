#include "libposix/PxPipe.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

PxPipe::PxPipe()
{
    mPipeFileDescriptors[0] = -1;
    mPipeFileDescriptors[1] = -1;
}

PxPipe::~PxPipe()
{
    Close();
}

int PxPipe::Create(bool nonBlocking)
{
    // A pipe that is still open would otherwise leak its descriptors.
    Close();
    if (pipe(mPipeFileDescriptors) != 0) {
        int err = errno;
        mPipeFileDescriptors[0] = -1;
        mPipeFileDescriptors[1] = -1;
        return -err;
    }
    if (nonBlocking) {
        if (fcntl(mPipeFileDescriptors[0], F_SETFL, O_NONBLOCK) != 0 ||
            fcntl(mPipeFileDescriptors[1], F_SETFL, O_NONBLOCK) != 0) {
            int err = errno;
            Close();
            return -err;
        }
    }
    return 0;
}

ssize_t PxPipe::WriteChar(char c)
{
    ssize_t n = write(mPipeFileDescriptors[1], &c, 1);
    if (n < 0)
        return -errno;
    return n;
}

int PxPipe::ReadDummy()
{
    if (mPipeFileDescriptors[0] == -1)
        return 0;
    int count = 0;
    char c;
    while (read(mPipeFileDescriptors[0], &c, 1) > 0)
        count++;
    return count;
}

void PxPipe::CloseReadEnd()
{
    if (mPipeFileDescriptors[0] != -1) {
        close(mPipeFileDescriptors[0]);
        mPipeFileDescriptors[0] = -1;
    }
}

void PxPipe::CloseWriteEnd()
{
    if (mPipeFileDescriptors[1] != -1) {
        close(mPipeFileDescriptors[1]);
        mPipeFileDescriptors[1] = -1;
    }
}

void PxPipe::Close()
{
    CloseWriteEnd();
    CloseReadEnd();
}
