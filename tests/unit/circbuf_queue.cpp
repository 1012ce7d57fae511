// Ring index controller and the fixed-slot message queue built on it.
#include <gtest/gtest.h>

#include <stdio.h>
#include <string.h>

#include <atomic>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "karvex_api_linux/KarvexStaticQueueLx.h"
#include "libposix/PxTrace.h"
#include "libtb/TbCircBufController.h"

#include "support/test_support.h"

using ktest::CaptureTrace;

namespace {

// True when out consists of exactly the given checking assertions, in order.
bool AreAssertions(const std::string& out, const char* file, std::vector<std::string> expressions)
{
    std::string pattern;
    for (const std::string& e : expressions)
        pattern += "\nASSERTION FAILED: \\(" + std::regex_replace(e, std::regex("[()]"), "\\$&") + "\\)\n  " + file +
                   "\\([0-9]+\\)\n";
    return std::regex_match(out, std::regex(pattern));
}

const char* kControllerFile = "libtb/TbCircBufController\\.cpp";
const char* kQueueFile = "karvex_api_linux/KarvexStaticQueueLx\\.cpp";

class QueueTest : public ::testing::Test {
protected:
    void SetUp() override { TPosixSetTraceMask(KARVEX_TRACE_ERROR); }
    void TearDown() override { TPosixSetTraceMask(KARVEX_TRACE_ERROR | KARVEX_TRACE_WARNING); }

    static std::string GetString(KarvexStaticQueue& q, unsigned int len)
    {
        char buf[64] = {0};
        if (!q.Get(buf, len))
            return "<empty>";
        return std::string(buf, len);
    }
};

typedef QueueTest CircBufTest;

// Reads until the producer is done and the queue is empty; false when a wait
// for the next message ran out.
bool Consume(KarvexStaticQueue& q, const std::atomic<bool>& done, std::vector<unsigned int>& received)
{
    for (;;) {
        unsigned int v;
        if (q.Get(&v, sizeof(v)))
            received.push_back(v);
        else if (done.load() && q.IsEmpty())
            return true;
        else if (!q.WaitWithTimeout(ktest::kWaitLimit.count())) // manual reset: a wake-up may find it empty
            return false;
    }
}

} // namespace

TEST_F(CircBufTest, PointersAdvanceAndWrap)
{
    unsigned char space[3 * 4];
    TbCircBufController c(space, 3, 4);
    EXPECT_TRUE(c.IsValid());
    EXPECT_EQ(3u, c.SlotCount());
    EXPECT_EQ(4u, c.SlotSize());
    EXPECT_TRUE(c.IsEmpty());
    EXPECT_FALSE(c.IsFull());
    EXPECT_EQ(nullptr, c.GetReadPointer());

    EXPECT_EQ(space, c.GetWritePointer());
    c.IncWritePointer();
    EXPECT_EQ(space + 4, c.GetWritePointer());
    c.IncWritePointer();
    c.IncWritePointer();
    EXPECT_TRUE(c.IsFull());
    EXPECT_EQ(nullptr, c.GetWritePointer());
    EXPECT_EQ(3u, c.SlotsUsed());
    EXPECT_EQ(0u, c.SlotsFree());

    // Advancing a full ring is refused after the assertion.
    std::string out = CaptureTrace([&] { c.IncWritePointer(); });
    EXPECT_TRUE(AreAssertions(out, kControllerFile, {"!IsFull()"})) << out;
    EXPECT_EQ(3u, c.SlotsUsed());

    EXPECT_EQ(space, c.GetReadPointer());
    c.IncReadPointer();
    EXPECT_EQ(space + 4, c.GetReadPointer());
    EXPECT_EQ(2u, c.SlotsUsed());
    // The write pointer wrapped to the start.
    EXPECT_EQ(space, c.GetWritePointer());
    c.IncWritePointer();
    c.IncReadPointer();
    c.IncReadPointer();
    EXPECT_EQ(space, c.GetReadPointer()); // wrapped as well
    c.IncReadPointer();
    EXPECT_TRUE(c.IsEmpty());
    out = CaptureTrace([&] { c.IncReadPointer(); });
    EXPECT_TRUE(AreAssertions(out, kControllerFile, {"!IsEmpty()"})) << out;
    EXPECT_EQ(0u, c.SlotsUsed());
    EXPECT_EQ(space + 4, c.GetWritePointer());
}

TEST_F(CircBufTest, UnattachedIsEmptyAndFullAttachResetDetachAndCopy)
{
    TbCircBufController c;
    EXPECT_FALSE(c.IsValid());
    EXPECT_TRUE(c.IsEmpty());
    EXPECT_TRUE(c.IsFull());
    EXPECT_EQ(nullptr, c.GetWritePointer());
    EXPECT_EQ(nullptr, c.GetReadPointer());
    EXPECT_EQ(0u, c.SlotsFree());
    std::string out = CaptureTrace([&] {
        c.IncWritePointer();
        c.IncReadPointer();
    });
    EXPECT_TRUE(AreAssertions(out, kControllerFile, {"!IsFull()", "!IsEmpty()"})) << out;
    EXPECT_EQ(0u, c.SlotsUsed());

    unsigned char space[2 * 8];
    c.AttachBufferSpace(space, 2, 8);
    c.IncWritePointer();
    TbCircBufController copy = c;
    EXPECT_EQ(1u, copy.SlotsUsed());
    EXPECT_EQ(space + 8, copy.GetWritePointer());
    c.Reset();
    EXPECT_TRUE(c.IsEmpty());
    EXPECT_EQ(space, c.GetWritePointer());
    EXPECT_EQ(1u, copy.SlotsUsed()); // copies are independent
    c.AttachBufferSpace(nullptr, 0, 0);
    EXPECT_FALSE(c.IsValid());
    EXPECT_TRUE(c.IsFull());
}

TEST_F(QueueTest, FullQueueRefusesTheNewMessageOrDropsTheOldest)
{
    KarvexStaticQueue q;
    ASSERT_EQ(TSTATUS_SUCCESS, q.Allocate(4, 2));
    EXPECT_EQ(2u, q.SlotCount());
    EXPECT_EQ(4u, q.SlotSize());
    EXPECT_FALSE(q.Event().IsSet());
    EXPECT_TRUE(q.Put("M1..", 4));
    EXPECT_TRUE(q.Event().IsSet());
    EXPECT_TRUE(q.Put("M2..", 4));
    EXPECT_TRUE(q.IsFull());
    EXPECT_FALSE(q.Put("M3..", 4));
    EXPECT_EQ("M1..", GetString(q, 4));
    EXPECT_TRUE(q.Event().IsSet());
    EXPECT_EQ("M2..", GetString(q, 4));
    EXPECT_FALSE(q.Event().IsSet());
    EXPECT_EQ("<empty>", GetString(q, 4));

    // Forced: false says the oldest message was dropped.
    EXPECT_TRUE(q.PutForceOverwrite("M1..", 4));
    EXPECT_TRUE(q.PutForceOverwrite("M2..", 4));
    EXPECT_FALSE(q.PutForceOverwrite("M3..", 4));
    EXPECT_EQ(2u, q.SlotsUsed());
    EXPECT_EQ("M2..", GetString(q, 4));
    EXPECT_EQ("M3..", GetString(q, 4));
    EXPECT_FALSE(q.Event().IsSet());
    EXPECT_TRUE(q.PutForceOverwrite("M4..", 4)); // not full any more: no drop
    EXPECT_EQ("M4..", GetString(q, 4));
}

TEST_F(QueueTest, EventFollowsTheMessagesNotTheGets)
{
    KarvexStaticQueue q;
    ASSERT_EQ(TSTATUS_SUCCESS, q.Allocate(4, 2));
    char buf[4];
    EXPECT_FALSE(q.WaitWithTimeout(10));
    EXPECT_FALSE(q.Get(buf, 4));
    EXPECT_FALSE(q.Event().IsSet());
    ASSERT_TRUE(q.Put("abcd", 4));
    EXPECT_TRUE(q.WaitWithTimeout(0));
    q.Wait();
    EXPECT_EQ("abcd", GetString(q, 4));
    EXPECT_FALSE(q.WaitWithTimeout(0));
    // A Get on an empty queue leaves a set event alone.
    q.SetEvent();
    EXPECT_FALSE(q.Get(buf, 4));
    EXPECT_TRUE(q.WaitWithTimeout(0));
}

TEST_F(QueueTest, QueueWithoutSlotsRefusesAndAsserts)
{
    KarvexStaticQueue q;
    EXPECT_FALSE(q.IsValid());
    EXPECT_TRUE(q.IsEmpty());
    std::string out = CaptureTrace([&] { EXPECT_FALSE(q.Put("abcd", 4)); });
    EXPECT_TRUE(AreAssertions(out, kQueueFile, {"mCircBuffer.IsValid()", "dataLength <= mCircBuffer.SlotSize()"}))
        << out;
    char buf[4];
    out = CaptureTrace([&] { EXPECT_FALSE(q.Get(buf, 4)); });
    EXPECT_TRUE(AreAssertions(out, kQueueFile, {"mCircBuffer.IsValid()", "dataBufferLength <= mCircBuffer.SlotSize()"}))
        << out;

    // Zero slots allocate no memory and leave the queue just as unusable.
    EXPECT_EQ(TSTATUS_SUCCESS, q.Allocate(16, 0));
    EXPECT_FALSE(q.IsValid());
    EXPECT_EQ(0u, q.SlotCount());
    out = CaptureTrace([&] {
        EXPECT_FALSE(q.Put("x", 1));
        EXPECT_FALSE(q.PutForceOverwrite("x", 1));
    });
    EXPECT_TRUE(AreAssertions(out, kQueueFile, {"mCircBuffer.IsValid()", "mCircBuffer.IsValid()"})) << out;
    EXPECT_FALSE(q.Event().IsSet());
    TPosixSetTraceMask(0);
    EXPECT_FALSE(q.Get(buf, 0));
}

TEST_F(QueueTest, ClearSecondAllocateFreeAndFailedAllocateDiscardMessages)
{
    KarvexStaticQueue q;
    ASSERT_EQ(TSTATUS_SUCCESS, q.Allocate(4, 3));
    ASSERT_TRUE(q.Put("aaaa", 4));
    ASSERT_TRUE(q.Put("bbbb", 4));
    q.Clear();
    EXPECT_TRUE(q.IsEmpty());
    EXPECT_FALSE(q.Event().IsSet());
    EXPECT_EQ(3u, q.SlotsFree());
    EXPECT_TRUE(q.Put("cccc", 4));
    EXPECT_EQ("cccc", GetString(q, 4));

    EXPECT_TRUE(q.Put("dddd", 4));
    ASSERT_EQ(TSTATUS_SUCCESS, q.Allocate(8, 5));
    EXPECT_TRUE(q.IsEmpty());
    EXPECT_EQ(5u, q.SlotsFree());
    EXPECT_EQ(8u, q.SlotSize());
    EXPECT_EQ("<empty>", GetString(q, 8));
    EXPECT_TRUE(q.Put("eeeeeeee", 8));
    EXPECT_EQ("eeeeeeee", GetString(q, 8));

    ASSERT_TRUE(q.Put("ffffffff", 8));
    q.Free();
    q.Free();
    EXPECT_FALSE(q.IsValid());
    EXPECT_TRUE(q.IsEmpty());
    EXPECT_EQ(0u, q.SlotCount());
    EXPECT_EQ(0u, q.SlotSize());

    // A failed allocation leaves the queue detached. More slot memory than
    // 32 bits can describe:
    ASSERT_EQ(TSTATUS_SUCCESS, q.Allocate(4, 2));
    ASSERT_TRUE(q.Put("abcd", 4));
    std::string out = CaptureTrace([&] { EXPECT_EQ(TSTATUS_NO_MEMORY, q.Allocate(0x10000, 0x10001)); });
    EXPECT_EQ("TSTATUS KarvexStaticQueue::Allocate(unsigned int, unsigned int): AllocateBuffer failed\n", out);
    EXPECT_FALSE(q.IsValid());
    EXPECT_TRUE(q.IsEmpty());
    EXPECT_EQ(0u, q.SlotCount());
    TPosixSetTraceMask(0);
    EXPECT_FALSE(q.Put("abcd", 4));
}

TEST_F(QueueTest, CopiesAreOfTheGivenLengthOnly)
{
    KarvexStaticQueue q;
    ASSERT_EQ(TSTATUS_SUCCESS, q.Allocate(4, 1));
    ASSERT_TRUE(q.Put("ABCD", 4));
    EXPECT_EQ("ABCD", GetString(q, 4));
    // A shorter message leaves the slot's old tail in place.
    ASSERT_TRUE(q.Put("xy", 2));
    EXPECT_EQ("xyCD", GetString(q, 4));
    // A shorter read leaves the caller's buffer tail alone.
    ASSERT_TRUE(q.Put("1234", 4));
    char buf[4] = {'-', '-', '-', '-'};
    ASSERT_TRUE(q.Get(buf, 2));
    EXPECT_EQ(0, memcmp(buf, "12--", 4));
}

TEST_F(QueueTest, OversizedMessageAssertsAndStaysInsideItsSlotNullDataAsserts)
{
    KarvexStaticQueue q;
    ASSERT_EQ(TSTATUS_SUCCESS, q.Allocate(4, 2));
    ASSERT_TRUE(q.Put("1111", 4));
    std::string out = CaptureTrace([&] { EXPECT_TRUE(q.Put("22223333", 8)); });
    EXPECT_TRUE(AreAssertions(out, kQueueFile, {"dataLength <= mCircBuffer.SlotSize()"})) << out;
    EXPECT_EQ("1111", GetString(q, 4));
    char big[8];
    memset(big, '-', sizeof(big));
    out = CaptureTrace([&] { EXPECT_TRUE(q.Get(big, 8)); });
    EXPECT_TRUE(AreAssertions(out, kQueueFile, {"dataBufferLength <= mCircBuffer.SlotSize()"})) << out;
    EXPECT_EQ(0, memcmp(big, "2222----", 8));

    out = CaptureTrace([&] { q.Put(nullptr, 0); });
    EXPECT_TRUE(AreAssertions(out, kQueueFile, {"NULL != data"})) << out;
    out = CaptureTrace([&] { q.Get(nullptr, 0); });
    EXPECT_TRUE(AreAssertions(out, kQueueFile, {"NULL != dataBuffer"})) << out;
}

// Many wraps of a small ring, in FIFO order, with spurious wake-ups.
TEST_F(QueueTest, ProducerAndConsumerThreadsLoseNothing)
{
    const unsigned int count = 5000;
    KarvexStaticQueue q;
    ASSERT_EQ(TSTATUS_SUCCESS, q.Allocate(sizeof(unsigned int), 4));
    std::atomic<bool> done{false};
    std::vector<unsigned int> received;
    bool consumed = false;
    std::thread consumer([&] { consumed = Consume(q, done, received); });
    for (unsigned int i = 0; i < count; i++) {
        while (!q.Put(&i, sizeof(i)))
            std::this_thread::yield();
        if (i % 500 == 0)
            q.SetEvent(); // spurious wake-ups must be harmless
    }
    done = true;
    q.SetEvent();
    consumer.join();
    ASSERT_TRUE(consumed) << "timed out waiting for a message";
    ASSERT_EQ(count, received.size());
    for (unsigned int i = 0; i < count; i++)
        ASSERT_EQ(i, received[i]);
}

TEST_F(QueueTest, OverwritingProducerKeepsOrderAndTheNewestMessage)
{
    const unsigned int count = 5000;
    KarvexStaticQueue q;
    ASSERT_EQ(TSTATUS_SUCCESS, q.Allocate(sizeof(unsigned int), 3));
    std::atomic<bool> done{false};
    unsigned int dropped = 0;
    std::thread producer([&] {
        for (unsigned int i = 0; i < count; i++)
            dropped += q.PutForceOverwrite(&i, sizeof(i)) ? 0 : 1;
        done = true;
        q.SetEvent();
    });
    std::vector<unsigned int> received;
    const bool consumed = Consume(q, done, received);
    producer.join();
    ASSERT_TRUE(consumed) << "timed out waiting for a message";
    ASSERT_FALSE(received.empty());
    for (size_t i = 1; i < received.size(); i++)
        ASSERT_LT(received[i - 1], received[i]);
    EXPECT_EQ(count - 1, received.back());
    EXPECT_EQ(count, received.size() + dropped);
}
