// Self-pipe, millisecond sleep and timespec subtraction.
#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "libposix/PxPipe.h"
#include "libposix/PxTimeUtils.h"
#include "libposix/PxTrace.h"

#include "support/test_support.h"

using ktest::CaptureTrace;

namespace {

bool IsOpenDescriptor(int fd)
{
    return fcntl(fd, F_GETFD) != -1;
}

} // namespace

TEST(PxPipeTest, StartsClosedBlockingOrNotAndDrainsWhatWasWritten)
{
    PxPipe pipe;
    EXPECT_EQ(-1, pipe.GetReadEnd());
    EXPECT_EQ(-1, pipe.GetWriteEnd());
    EXPECT_EQ(0, pipe.ReadDummy());
    EXPECT_EQ(-EBADF, pipe.WriteChar('x'));

    ASSERT_EQ(0, pipe.Create(true));
    EXPECT_NE(0, fcntl(pipe.GetReadEnd(), F_GETFL) & O_NONBLOCK);
    EXPECT_NE(0, fcntl(pipe.GetWriteEnd(), F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(1, pipe.WriteChar('x'));
    EXPECT_EQ(1, pipe.WriteChar('x'));
    EXPECT_EQ(1, pipe.WriteChar('y'));
    EXPECT_EQ(3, pipe.ReadDummy());
    EXPECT_EQ(0, pipe.ReadDummy());
    // A full non-blocking pipe refuses with EAGAIN; all of it drains.
    ssize_t rc = 0;
    int written = 0;
    while ((rc = pipe.WriteChar('x')) == 1)
        written++;
    EXPECT_EQ(-EAGAIN, rc);
    EXPECT_EQ(written, pipe.ReadDummy());

    PxPipe blocking;
    ASSERT_EQ(0, blocking.Create(false));
    EXPECT_EQ(0, fcntl(blocking.GetReadEnd(), F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(1, blocking.WriteChar('x'));
    char c = 0;
    EXPECT_EQ(1, read(blocking.GetReadEnd(), &c, 1));
    EXPECT_EQ('x', c);
}

TEST(PxPipeTest, CloseEndsAndRecreate)
{
    PxPipe pipe;
    ASSERT_EQ(0, pipe.Create(true));
    int readEnd = pipe.GetReadEnd();
    int writeEnd = pipe.GetWriteEnd();
    pipe.CloseWriteEnd();
    EXPECT_EQ(-1, pipe.GetWriteEnd());
    EXPECT_FALSE(IsOpenDescriptor(writeEnd));
    EXPECT_EQ(readEnd, pipe.GetReadEnd());
    EXPECT_EQ(0, pipe.ReadDummy()); // end of file
    pipe.CloseWriteEnd();           // repeatable
    pipe.CloseReadEnd();
    EXPECT_FALSE(IsOpenDescriptor(readEnd));
    EXPECT_EQ(0, pipe.ReadDummy());
    pipe.Close();

    ASSERT_EQ(0, pipe.Create(true));
    EXPECT_EQ(1, pipe.WriteChar('x'));
    EXPECT_EQ(1, pipe.ReadDummy());
}

TEST(PxPipeTest, CreateOnOpenPipeDoesNotLeakAndDestructorCloses)
{
    int firstRead;
    int firstWrite;
    int secondRead;
    {
        PxPipe pipe;
        ASSERT_EQ(0, pipe.Create(true));
        firstRead = pipe.GetReadEnd();
        firstWrite = pipe.GetWriteEnd();
        ASSERT_EQ(0, pipe.Create(true));
        secondRead = pipe.GetReadEnd();
        EXPECT_TRUE(IsOpenDescriptor(secondRead));
        if (secondRead != firstRead && secondRead != firstWrite) {
            EXPECT_FALSE(IsOpenDescriptor(firstRead));
        }
    }
    EXPECT_FALSE(IsOpenDescriptor(secondRead));
    (void)firstWrite;
}

TEST(PxPipeTest, CreateFailureReturnsNegatedErrno)
{
    // With the descriptor table full, pipe() fails with EMFILE.
    struct rlimit saved;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &saved));
    struct rlimit low = saved;
    low.rlim_cur = 64;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &low));
    std::vector<int> fds;
    int fd;
    while ((fd = dup(0)) >= 0)
        fds.push_back(fd);
    PxPipe pipe;
    int rc = pipe.Create(true);
    for (int f : fds)
        close(f);
    setrlimit(RLIMIT_NOFILE, &saved);
    EXPECT_EQ(-EMFILE, rc);
    EXPECT_EQ(-1, pipe.GetReadEnd());
    EXPECT_EQ(-1, pipe.GetWriteEnd());
}

TEST(PxSleepTest, SleepsAtLeastTheGivenTime)
{
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(TSTATUS_SUCCESS, PxSleep(25));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(25));
    EXPECT_EQ(TSTATUS_SUCCESS, PxSleep(0));
}

namespace {
void NoOpSignalHandler(int)
{
}
} // namespace

TEST(PxSleepTest, SignalCutsTheSleepShortWithEintrAndATraceLine)
{
    struct sigaction sa;
    struct sigaction old;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = NoOpSignalHandler;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0; // no SA_RESTART: nanosleep must see EINTR
    ASSERT_EQ(0, sigaction(SIGUSR1, &sa, &old));

    TPosixSetTraceMask(KARVEX_TRACE_ERROR);
    std::atomic<bool> done{false};
    TSTATUS result = TSTATUS_SUCCESS;
    std::string out = CaptureTrace([&] {
        std::thread sleeper([&] {
            result = PxSleep(60000);
            done = true;
        });
        // A signal that arrives before the sleeper is inside nanosleep is
        // lost on the handler, so keep knocking until it returns.
        while (!done.load()) {
            pthread_kill(sleeper.native_handle(), SIGUSR1);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        sleeper.join();
    });
    sigaction(SIGUSR1, &old, nullptr);
    TPosixSetTraceMask(KARVEX_TRACE_ERROR | KARVEX_TRACE_WARNING);

    EXPECT_EQ(TSTATUS_LINUX_EINTR, result);
    EXPECT_EQ(static_cast<TSTATUS>(0xE0010004U), result);
    EXPECT_EQ(std::string("TSTATUS PxSleep(unsigned int): nanosleep failed (") + strerror(EINTR) + ")\n", out);
}

TEST(SubtractTimespecTest, BordersAndCarries)
{
    struct {
        timespec x, y;
        bool negative;
        timespec r;
    } const cases[] = {
        {{5, 100}, {3, 200}, false, {1, 999999900L}},
        {{3, 0}, {5, 0}, true, {-2, 0}},
        {{7, 500}, {7, 500}, false, {0, 0}},         // equal times: zero, not negative
        {{7, 501}, {7, 500}, false, {0, 1}},         // one nanosecond apart, both ways
        {{7, 500}, {7, 501}, true, {-1, 999999999L}},
        {{10, 0}, {9, 999999999L}, false, {0, 1}},   // borrow across a second boundary
        {{1, 2500000000L}, {1, 0}, false, {2, 500000000L}}, // non-normalised x carries
        {{1, 1000000000L}, {1, 0}, false, {0, 1000000000L}}, // exactly one second is left (strict test)
    };
    for (const auto& c : cases) {
        timespec r = {123, 456};
        EXPECT_EQ(c.negative, SubtractTimespec(c.x, c.y, r)) << c.x.tv_sec << "." << c.x.tv_nsec;
        EXPECT_EQ(c.r.tv_sec, r.tv_sec) << c.x.tv_sec << "." << c.x.tv_nsec;
        EXPECT_EQ(c.r.tv_nsec, r.tv_nsec) << c.x.tv_sec << "." << c.x.tv_nsec;
    }
}
