// Threads, mutexes, condition variables and events.
#include <gtest/gtest.h>

#include <errno.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "libposix/PxThread.h"

namespace {

// A worker whose routine blocks until released, so that tests control
// exactly when it ends.
class GatedWorker {
public:
    GatedWorker() : mGate(false), mResult(nullptr) {}

    void* Routine()
    {
        mStarted.Set();
        mGate.Wait();
        mRuns++;
        return mResult;
    }

    PxEvent mGate;
    PxManualResetEvent mStarted;
    void* mResult;
    std::atomic<int> mRuns{0};
};

// Waits for a condition that other threads make true; gives up (and the
// caller fails) instead of hanging when a wake-up was lost.
template <typename Pred>
bool EventuallyTrue(Pred pred)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!pred()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::yield();
    }
    return true;
}

} // namespace

TEST(PxThreadTest, JoinWithoutThreadReturnsZeroAtOnce)
{
    PxThread thread;
    EXPECT_EQ(0, thread.Join(nullptr, -1));
    EXPECT_EQ(0, thread.Join(nullptr, 0));
    EXPECT_FALSE(thread.IsRunning());
}

TEST(PxThreadTest, ForwarderRunsTheMemberFunctionAndJoinReturnsItsResult)
{
    GatedWorker worker;
    int token = 0;
    worker.mResult = &token;
    PxThreadCallbackForwarderT<GatedWorker> forwarder;
    forwarder.Init(&worker, &GatedWorker::Routine);
    PxThread thread;
    ASSERT_EQ(0, thread.Create(&forwarder, nullptr));
    worker.mGate.Set();
    void* value = nullptr;
    EXPECT_EQ(0, thread.Join(&value, -1));
    EXPECT_EQ(&token, value);
    EXPECT_EQ(1, worker.mRuns.load());
    // Joined: the object is idle again.
    EXPECT_EQ(0, thread.Join(nullptr, -1));
}

TEST(PxThreadTest, TimedJoinOfRunningThreadTimesOutAndLeavesItJoinable)
{
    GatedWorker worker;
    PxThreadCallbackForwarderT<GatedWorker> forwarder;
    forwarder.Init(&worker, &GatedWorker::Routine);
    PxThread thread;
    ASSERT_EQ(0, thread.Create(&forwarder, nullptr));
    ASSERT_TRUE(worker.mStarted.WaitWithTimeout(10000));
    EXPECT_TRUE(thread.IsRunning());

    EXPECT_EQ(ETIMEDOUT, thread.Join(nullptr, 0));
    EXPECT_EQ(110, thread.Join(nullptr, 20));
    // Still the same thread: a second Create is refused.
    EXPECT_EQ(-1, thread.Create(&forwarder, nullptr));

    worker.mGate.Set();
    EXPECT_EQ(0, thread.Join(nullptr, -1));
    EXPECT_EQ(1, worker.mRuns.load());
}

TEST(PxThreadTest, TimedJoinOfFinishedThreadJoinsWithoutWaiting)
{
    GatedWorker worker;
    worker.mGate.Set();
    PxThreadCallbackForwarderT<GatedWorker> forwarder;
    forwarder.Init(&worker, &GatedWorker::Routine);
    PxThread thread;
    ASSERT_EQ(0, thread.Create(&forwarder, nullptr));
    // The routine has returned once the worker's thread event is set; a zero
    // time-out must then succeed. Poll the public state until it has.
    ASSERT_TRUE(EventuallyTrue([&] { return !thread.IsRunning(); }));
    EXPECT_EQ(0, thread.Join(nullptr, 0));
    EXPECT_EQ(0, thread.Join(nullptr, 0));
}

TEST(PxThreadTest, CreateTwiceRefusesTheSecondAndStartsNothing)
{
    GatedWorker worker;
    PxThreadCallbackForwarderT<GatedWorker> forwarder;
    forwarder.Init(&worker, &GatedWorker::Routine);
    PxThread thread;
    ASSERT_EQ(0, thread.Create(&forwarder, nullptr));
    EXPECT_EQ(-1, thread.Create(&forwarder, nullptr));
    worker.mGate.Set();
    ASSERT_EQ(0, thread.Join(nullptr, -1));
    EXPECT_EQ(1, worker.mRuns.load());

    // After the join the object can run a new thread.
    worker.mGate.Set();
    ASSERT_EQ(0, thread.Create(&forwarder, nullptr));
    ASSERT_EQ(0, thread.Join(nullptr, -1));
    EXPECT_EQ(2, worker.mRuns.load());
}

TEST(PxThreadTest, CreateFailureReturnsNegatedErrorAndStaysIdle)
{
    GatedWorker worker;
    PxThreadCallbackForwarderT<GatedWorker> forwarder;
    forwarder.Init(&worker, &GatedWorker::Routine);
    pthread_attr_t attr;
    ASSERT_EQ(0, pthread_attr_init(&attr));
    // A stack far beyond any address space makes pthread_create fail.
    ASSERT_EQ(0, pthread_attr_setstacksize(&attr, static_cast<size_t>(1) << 62));
    PxThread thread;
    int rc = thread.Create(&forwarder, &attr);
    pthread_attr_destroy(&attr);
    EXPECT_LT(rc, 0);
    EXPECT_NE(-1, rc);
    EXPECT_EQ(0, thread.Join(nullptr, -1));
    worker.mGate.Set();
    ASSERT_EQ(0, thread.Create(&forwarder, nullptr));
    EXPECT_EQ(0, thread.Join(nullptr, -1));
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

TEST(PxEventTest, TimeoutOnUnsetEvent)
{
    PxEvent autoEvent(true);
    PxManualResetEvent manualEvent;
    EXPECT_FALSE(autoEvent.WaitWithTimeout(0));
    EXPECT_FALSE(autoEvent.WaitWithTimeout(20));
    EXPECT_FALSE(manualEvent.WaitWithTimeout(1));
    EXPECT_FALSE(manualEvent.IsSet());
}

TEST(PxEventTest, ManualResetStaysSetUntilReset)
{
    PxManualResetEvent event;
    event.Set();
    EXPECT_TRUE(event.IsSet());
    EXPECT_TRUE(event.WaitWithTimeout(0));
    EXPECT_TRUE(event.WaitWithTimeout(0));
    event.Wait();
    EXPECT_TRUE(event.IsSet());
    event.Reset();
    EXPECT_FALSE(event.IsSet());
    EXPECT_FALSE(event.WaitWithTimeout(0));
}

TEST(PxEventTest, AutoResetReleasesOneWaitPerSet)
{
    PxEvent event(true);
    event.Set();
    EXPECT_TRUE(event.IsSet());
    EXPECT_TRUE(event.WaitWithTimeout(0));
    EXPECT_FALSE(event.IsSet());
    EXPECT_FALSE(event.WaitWithTimeout(0));
    event.Set();
    event.Wait();
    EXPECT_FALSE(event.IsSet());
}

TEST(PxEventTest, SetWakesABlockedWaiterAndManualEventStaysSet)
{
    PxManualResetEvent event;
    PxManualResetEvent waiting;
    std::atomic<bool> woke{false};
    std::thread waiter([&] {
        waiting.Set();
        woke = event.WaitWithTimeout(30000);
    });
    ASSERT_TRUE(waiting.WaitWithTimeout(10000));
    event.Set();
    waiter.join();
    EXPECT_TRUE(woke.load());
    // Every later wait returns at once.
    EXPECT_TRUE(event.IsSet());
    std::thread later([&] { woke = event.WaitWithTimeout(0); });
    later.join();
    EXPECT_TRUE(woke.load());
}

TEST(PxEventTest, AutoResetHandsEachSetToExactlyOneWaiter)
{
    PxEvent event(true);
    std::atomic<int> released{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; i++) {
        waiters.emplace_back([&] {
            if (event.WaitWithTimeout(30000))
                released++;
        });
    }
    // Each Set releases one waiter; a Set made before any waiter sleeps is
    // kept in the flag, so three Sets release exactly three waits.
    for (int i = 0; i < 3; i++) {
        event.Set();
        if (!EventuallyTrue([&] { return released.load() >= i + 1; })) {
            ADD_FAILURE() << "set " << i << " released no waiter";
            break; // the waiters end by their own time-out
        }
    }
    for (std::thread& t : waiters)
        t.join();
    EXPECT_EQ(3, released.load());
    EXPECT_FALSE(event.IsSet());
}
