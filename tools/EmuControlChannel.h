// karvex-emu's control channel (--control=FIFO): a script writes one command
// a line into a named pipe and the emulator acts on it at once, so a test
// unplugs, replugs or flips a pin when it is ready instead of at a fixed time.
#pragma once

#include <string>
#include <thread>

namespace karvexemu {

class EmuActionScheduler;

class EmuControlChannel {
public:
    explicit EmuControlChannel(EmuActionScheduler& scheduler);
    ~EmuControlChannel();
    EmuControlChannel(const EmuControlChannel&) = delete;
    EmuControlChannel& operator=(const EmuControlChannel&) = delete;

    // Creates the FIFO at path (an existing FIFO is used as it is) and starts
    // reading it; false, with the reason on stderr, when it cannot.
    bool Open(const std::string& path);
    // Ends the reader thread and removes a FIFO Open created.
    void Close();

private:
    void Run();
    void Execute(const std::string& line);

    EmuActionScheduler& mScheduler;
    std::string mPath;
    bool mCreated = false;
    int mFifo = -1;
    int mStopPipe[2] = {-1, -1};
    std::thread mThread;
};

} // namespace karvexemu
