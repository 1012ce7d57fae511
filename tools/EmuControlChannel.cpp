#include "EmuControlChannel.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "EmuActionScheduler.h"

namespace karvexemu {

EmuControlChannel::EmuControlChannel(EmuActionScheduler& scheduler) : mScheduler(scheduler) {}

EmuControlChannel::~EmuControlChannel()
{
    Close();
}

bool EmuControlChannel::Open(const std::string& path)
{
    struct stat st;
    if (::stat(path.c_str(), &st) == 0) {
        if (!S_ISFIFO(st.st_mode)) {
            std::fprintf(stderr, "karvex-emu: --control %s exists and is not a FIFO\n", path.c_str());
            return false;
        }
    } else if (::mkfifo(path.c_str(), 0600) != 0) {
        std::fprintf(stderr, "karvex-emu: cannot create FIFO %s: %s\n", path.c_str(), std::strerror(errno));
        return false;
    } else {
        mCreated = true;
    }
    mPath = path;
    // Read and write: the FIFO never reports end-of-file when a writer closes it.
    mFifo = ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (mFifo < 0 || ::pipe2(mStopPipe, O_CLOEXEC) != 0) {
        std::fprintf(stderr, "karvex-emu: cannot open FIFO %s: %s\n", path.c_str(), std::strerror(errno));
        Close();
        return false;
    }
    mThread = std::thread([this] { Run(); });
    return true;
}

void EmuControlChannel::Close()
{
    if (mThread.joinable()) {
        (void)!::write(mStopPipe[1], "x", 1);
        mThread.join();
    }
    for (int* fd : {&mFifo, &mStopPipe[0], &mStopPipe[1]}) {
        if (*fd >= 0)
            ::close(*fd);
        *fd = -1;
    }
    if (mCreated)
        ::unlink(mPath.c_str());
    mCreated = false;
}

void EmuControlChannel::Run()
{
    std::string pending;
    for (;;) {
        pollfd fds[2] = {{mFifo, POLLIN, 0}, {mStopPipe[0], POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            return;
        }
        if (fds[1].revents != 0)
            return;
        char buf[256];
        const ssize_t n = ::read(mFifo, buf, sizeof buf);
        if (n <= 0)
            continue;
        pending.append(buf, static_cast<size_t>(n));
        for (size_t eol; (eol = pending.find('\n')) != std::string::npos;) {
            Execute(pending.substr(0, eol));
            pending.erase(0, eol + 1);
        }
    }
}

void EmuControlChannel::Execute(const std::string& line)
{
    std::istringstream in(line);
    std::string verb;
    unsigned a = 0, b = 0;
    in >> verb;
    bool ok = true;
    if (verb.empty()) {
        return;
    } else if (verb == "start") {
        mScheduler.Start();
    } else if (verb == "unplug" && (in >> a)) {
        ok = mScheduler.Unplug(a);
    } else if (verb == "plug" && (in >> a)) {
        ok = mScheduler.Plug(a);
    } else if (verb == "pin" && (in >> a >> b) && a < 16 && b <= 1) {
        mScheduler.SetInputLevel(a, b == 1);
    } else {
        ok = false;
    }
    if (!ok)
        std::fprintf(stderr, "karvex-emu: control: cannot do '%s'\n", line.c_str());
}

} // namespace karvexemu
