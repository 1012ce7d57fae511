// The device node of an emulated hidraw device: a symlink in the testbed's
// /dev to the slave side of a pseudo terminal.
//
// Under the umockdev preload, read, write and ioctl on the opened node are
// forwarded to our handler, but poll() reaches the real file. The pseudo
// terminal gives poll() the behaviour of hidraw: one "token" byte sits in its
// input while input reports are queued (level-triggered POLLIN), and closing
// the master side hangs up every open descriptor, which then polls
// POLLERR|POLLHUP as an unplugged hidraw node does. The mode of the node is
// the mode of the terminal's slave device, a real file whose permission bits
// open() checks.
//
// Not thread-safe; the owner serialises all calls.
#pragma once

#include <string>

namespace kemu {

class EmuPtyNode {
public:
    EmuPtyNode() = default;
    ~EmuPtyNode();
    EmuPtyNode(const EmuPtyNode&) = delete;
    EmuPtyNode& operator=(const EmuPtyNode&) = delete;

    // Creates the terminal and the symlink at linkPath (a real path).
    void Create(const std::string& linkPath, unsigned int mode);
    // Removes the symlink and hangs up the terminal. Safe when not created.
    void Destroy();
    bool IsCreated() const { return mMaster >= 0; }

    // POLLIN for every open descriptor on (true) or off (false).
    void SetReadable(bool readable);
    void SetMode(unsigned int mode);

private:
    void DropInput();

    std::string mLinkPath;
    std::string mSlaveName;
    int mMaster = -1;
    int mSlave = -1;
    bool mReadable = false;
};

} // namespace kemu
