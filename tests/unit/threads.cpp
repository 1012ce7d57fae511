// Threads, mutexes, condition variables and events.
#include <gtest/gtest.h>

#include <errno.h>

#include <atomic>
#include <thread>
#include <vector>

#include "libposix/PxThread.h"

#include "support/test_support.h"

namespace {

// A thread object whose routine blocks until released, so that tests control
// exactly when it ends.
class PxThreadTest : public ::testing::Test {
protected:
    PxThreadTest() { mForwarder.Init(this, &PxThreadTest::Routine); }

    void* Routine()
    {
        mStarted.Set();
        mGate.Wait();
        mRuns++;
        return mResult;
    }

    PxEvent mGate{false};
    PxManualResetEvent mStarted;
    void* mResult = nullptr;
    std::atomic<int> mRuns{0};
    PxThreadCallbackForwarderT<PxThreadTest> mForwarder;
    PxThread mThread;
};

} // namespace

TEST_F(PxThreadTest, JoinReturnsTheResultAndASecondCreateWaitsForIt)
{
    int token = 0;
    mResult = &token;
    ASSERT_EQ(0, mThread.Create(&mForwarder, nullptr));
    EXPECT_EQ(-1, mThread.Create(&mForwarder, nullptr)); // still running: refused, nothing started
    mGate.Set();
    void* value = nullptr;
    EXPECT_EQ(0, mThread.Join(&value, -1));
    EXPECT_EQ(&token, value);
    EXPECT_EQ(1, mRuns.load());
    EXPECT_EQ(0, mThread.Join(nullptr, -1)); // joined: the object is idle again

    // After the join the object can run a new thread.
    mGate.Set();
    ASSERT_EQ(0, mThread.Create(&mForwarder, nullptr));
    ASSERT_EQ(0, mThread.Join(nullptr, -1));
    EXPECT_EQ(2, mRuns.load());
}

TEST_F(PxThreadTest, TimedJoinOfRunningThreadTimesOutAndLeavesItJoinable)
{
    ASSERT_EQ(0, mThread.Create(&mForwarder, nullptr));
    ASSERT_TRUE(mStarted.WaitWithTimeout(ktest::kWaitLimit.count())) << "timed out waiting for the routine to start";
    EXPECT_TRUE(mThread.IsRunning());
    EXPECT_EQ(ETIMEDOUT, mThread.Join(nullptr, 0));
    EXPECT_EQ(ETIMEDOUT, mThread.Join(nullptr, 20));
    EXPECT_EQ(-1, mThread.Create(&mForwarder, nullptr)); // still the same thread

    mGate.Set();
    EXPECT_EQ(0, mThread.Join(nullptr, -1));
    EXPECT_EQ(1, mRuns.load());
}

TEST_F(PxThreadTest, JoinOfNoThreadOrAFinishedOneReturnsAtOnce)
{
    EXPECT_EQ(0, mThread.Join(nullptr, -1));
    EXPECT_EQ(0, mThread.Join(nullptr, 0));
    EXPECT_FALSE(mThread.IsRunning());
    mGate.Set();
    ASSERT_EQ(0, mThread.Create(&mForwarder, nullptr));
    // Once the routine has returned, a zero time-out must succeed.
    KT_WAIT_FOR(!mThread.IsRunning(), "the routine to return");
    EXPECT_EQ(0, mThread.Join(nullptr, 0));
    EXPECT_EQ(0, mThread.Join(nullptr, 0));
}

TEST_F(PxThreadTest, CreateFailureReturnsNegatedErrorAndStaysIdle)
{
    pthread_attr_t attr;
    ASSERT_EQ(0, pthread_attr_init(&attr));
    // A stack far beyond any address space makes pthread_create fail.
    ASSERT_EQ(0, pthread_attr_setstacksize(&attr, static_cast<size_t>(1) << 62));
    int rc = mThread.Create(&mForwarder, &attr);
    pthread_attr_destroy(&attr);
    EXPECT_LT(rc, 0);
    EXPECT_NE(-1, rc);
    EXPECT_EQ(0, mThread.Join(nullptr, -1));
    mGate.Set();
    ASSERT_EQ(0, mThread.Create(&mForwarder, nullptr));
    EXPECT_EQ(0, mThread.Join(nullptr, -1));
}

TEST(PxMutexTest, RecursiveMutexCanBeReentered)
{
    PxMutex mutex(true);
    mutex.Lock();
    EXPECT_TRUE(mutex.TryLock());
    mutex.Unlock();
    mutex.Unlock();
    // Held by another thread: TryLock fails there.
    mutex.Lock();
    bool otherGotIt = true;
    std::thread([&] { otherGotIt = mutex.TryLock(); }).join();
    EXPECT_FALSE(otherGotIt);
    mutex.Unlock();
    std::thread([&] {
        otherGotIt = mutex.TryLock();
        if (otherGotIt)
            mutex.Unlock();
    }).join();
    EXPECT_TRUE(otherGotIt);
}

TEST(PxConditionTest, TimedWaitReportsTimeoutAndSignal)
{
    PxMutex mutex(true);
    PxCondition cond;
    mutex.Lock();
    EXPECT_EQ(ETIMEDOUT, cond.WaitWithTimeout(mutex, 0));
    EXPECT_EQ(ETIMEDOUT, cond.WaitWithTimeout(mutex, 15));
    mutex.Unlock();

    bool flag = false;
    std::thread signaller([&] {
        PxMutexLock lock(mutex);
        flag = true;
        cond.Signal();
    });
    {
        PxMutexLock lock(mutex);
        while (!flag)
            ASSERT_NE(EINVAL, cond.WaitWithTimeout(mutex, 10000));
    }
    signaller.join();
}

TEST(PxEventTest, ManualResetStaysSetAutoResetReleasesOneWaitPerSet)
{
    PxEvent autoEvent(true);
    PxManualResetEvent manual;
    EXPECT_FALSE(autoEvent.WaitWithTimeout(0));
    EXPECT_FALSE(autoEvent.WaitWithTimeout(20));
    EXPECT_FALSE(manual.WaitWithTimeout(1));
    EXPECT_FALSE(manual.IsSet());

    manual.Set();
    EXPECT_TRUE(manual.WaitWithTimeout(0));
    EXPECT_TRUE(manual.WaitWithTimeout(0));
    manual.Wait();
    EXPECT_TRUE(manual.IsSet());
    manual.Reset();
    EXPECT_FALSE(manual.IsSet());
    EXPECT_FALSE(manual.WaitWithTimeout(0));

    autoEvent.Set();
    EXPECT_TRUE(autoEvent.IsSet());
    EXPECT_TRUE(autoEvent.WaitWithTimeout(0));
    EXPECT_FALSE(autoEvent.IsSet());
    EXPECT_FALSE(autoEvent.WaitWithTimeout(0));
    autoEvent.Set();
    autoEvent.Wait();
    EXPECT_FALSE(autoEvent.IsSet());
}

TEST(PxEventTest, SetWakesABlockedWaiterAndManualEventStaysSet)
{
    PxManualResetEvent event;
    std::atomic<bool> woke{false};
    std::atomic<pid_t> tid{0};
    std::thread waiter([&] {
        tid = ktest::ThreadId();
        woke = event.WaitWithTimeout(ktest::kWaitLimit.count());
    });
    KT_WAIT_FOR(tid.load() != 0, "the waiter to start");
    EXPECT_TRUE(ktest::WaitUntilBlocked(tid.load())) << "timed out waiting for the waiter to block";
    event.Set();
    waiter.join();
    EXPECT_TRUE(woke.load());
    // Every later wait returns at once.
    EXPECT_TRUE(event.IsSet());
    std::thread([&] { woke = event.WaitWithTimeout(0); }).join();
    EXPECT_TRUE(woke.load());
}

TEST(PxEventTest, AutoResetHandsEachSetToExactlyOneWaiter)
{
    PxEvent event(true);
    std::atomic<int> released{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; i++) {
        waiters.emplace_back([&] {
            if (event.WaitWithTimeout(ktest::kWaitLimit.count()))
                released++;
        });
    }
    // Each Set releases one waiter; a Set made before any waiter sleeps is
    // kept in the flag, so three Sets release exactly three waits.
    for (int i = 0; i < 3; i++) {
        event.Set();
        if (!ktest::WaitUntil([&] { return released.load() >= i + 1; })) {
            ADD_FAILURE() << "timed out waiting for set " << i << " to release a waiter";
            break; // the waiters end by their own time-out
        }
    }
    for (std::thread& t : waiters)
        t.join();
    EXPECT_EQ(3, released.load());
    EXPECT_FALSE(event.IsSet());
}
