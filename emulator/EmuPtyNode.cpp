#include "EmuPtyNode.h"

#include <fcntl.h>
#include <pty.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kemu {

namespace {

[[noreturn]] void Fail(const char* what, const std::string& detail)
{
    std::fprintf(stderr, "kemu: %s %s failed: %s\n", what, detail.c_str(), std::strerror(errno));
    std::abort();
}

void MakeRaw(int fd)
{
    termios t;
    if (tcgetattr(fd, &t) == 0) {
        cfmakeraw(&t);
        tcsetattr(fd, TCSANOW, &t);
    }
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    fcntl(fd, F_SETFD, FD_CLOEXEC);
}

} // namespace

EmuPtyNode::~EmuPtyNode()
{
    Destroy();
}

void EmuPtyNode::Create(const std::string& linkPath, unsigned int mode)
{
    Destroy();
    char name[256] = {};
    if (openpty(&mMaster, &mSlave, name, nullptr, nullptr) != 0)
        Fail("openpty", "");
    MakeRaw(mMaster);
    MakeRaw(mSlave);
    mSlaveName = name;
    mLinkPath = linkPath;
    mReadable = false;
    SetMode(mode);
    unlink(mLinkPath.c_str());
    if (symlink(mSlaveName.c_str(), mLinkPath.c_str()) != 0)
        Fail("symlink", mLinkPath);
}

void EmuPtyNode::Destroy()
{
    if (!mLinkPath.empty())
        unlink(mLinkPath.c_str());
    mLinkPath.clear();
    // Closing the master hangs up the slave for every process that has it
    // open: poll then reports POLLERR|POLLHUP, as for an unplugged device.
    if (mMaster >= 0)
        close(mMaster);
    if (mSlave >= 0)
        close(mSlave);
    mMaster = mSlave = -1;
    mSlaveName.clear();
    mReadable = false;
}

void EmuPtyNode::SetMode(unsigned int mode)
{
    if (!mSlaveName.empty() && chmod(mSlaveName.c_str(), static_cast<mode_t>(mode & 07777)) != 0)
        Fail("chmod", mSlaveName);
}

void EmuPtyNode::SetReadable(bool readable)
{
    if (mMaster < 0 || readable == mReadable)
        return;
    if (readable) {
        const char token = 'r';
        // The test process may be full of signals (the storm tests): a
        // write interrupted before it moved the byte is simply repeated.
        ssize_t n;
        do
            n = write(mMaster, &token, 1);
        while (n < 0 && errno == EINTR);
        if (n != 1)
            Fail("token write on", mSlaveName);
    } else {
        DropInput();
    }
    mReadable = readable;
}

void EmuPtyNode::DropInput()
{
    // TCIFLUSH also discards a byte still on its way through the terminal's
    // flip buffer, so no stale token can arrive after this.
    tcflush(mSlave, TCIFLUSH);
    char buf[64];
    for (;;) {
        const ssize_t n = read(mSlave, buf, sizeof buf);
        if (n > 0 || (n < 0 && errno == EINTR))
            continue;
        break;
    }
}

} // namespace kemu
