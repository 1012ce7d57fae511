// The intrusive list (every operation, the misuse it reports and refuses)
// and the (VID, PID) filter list.
#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "libtb/TbDList.h"
#include "libtb/TbUsbVidPid.h"
#include "support/test_support.h"

using ktest::CaptureTrace;
using ktest::CountOf;

namespace {

struct Node {
    explicit Node(int v) : mValue(v) {}
    int mValue;
    TbDListEntry<Node> mLink; // deliberately not the first member
};

typedef TbDListX<Node, &Node::mLink> NodeList;

// Values head to tail, checked against the walk tail to head and the links.
std::vector<int> Values(const NodeList& list)
{
    std::vector<int> forward;
    for (Node* n = list.Next(nullptr); n != nullptr; n = list.Next(n)) {
        EXPECT_TRUE(list.IsInList(n));
        forward.push_back(n->mValue);
    }
    std::vector<int> backward;
    for (Node* n = list.Prev(nullptr); n != nullptr; n = list.Prev(n))
        backward.insert(backward.begin(), n->mValue);
    EXPECT_EQ(forward, backward);
    EXPECT_EQ(forward.empty(), list.IsEmpty());
    EXPECT_EQ(list.Head() == nullptr, list.Tail() == nullptr);
    return forward;
}

// Empties a list so that its destructor finds nothing left.
void Drain(NodeList& list)
{
    while (list.RemoveHead() != nullptr) {
    }
}

std::regex AssertionRe(const std::string& expr)
{
    std::string escaped = std::regex_replace(expr, std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)");
    return std::regex("\nASSERTION FAILED: \\(" + escaped + "\\)\n  libtb/TbDList\\.h\\([0-9]+\\)\n");
}

bool HasAssertion(const std::string& out, const std::string& expr)
{
    return std::regex_search(out, AssertionRe(expr));
}

} // namespace

TEST(TbDList, InsertTailAndHeadKeepOrderAndLinks)
{
    NodeList list;
    Node a(1), b(2), c(3);
    EXPECT_TRUE(list.IsEmpty());
    EXPECT_EQ(nullptr, list.Next(nullptr));
    EXPECT_EQ(nullptr, list.Prev(nullptr));
    EXPECT_FALSE(list.IsInList(&a));
    EXPECT_FALSE(list.IsInList(nullptr));

    list.InsertTail(&b);
    EXPECT_EQ(&b, list.Head());
    EXPECT_EQ(&b, list.Tail());
    EXPECT_EQ(nullptr, b.mLink.mNext);
    EXPECT_EQ(nullptr, b.mLink.mPrev);
    list.InsertTail(&c);
    list.InsertHead(&a);
    EXPECT_EQ((std::vector<int>{1, 2, 3}), Values(list));
    EXPECT_EQ(&a, list.Head());
    EXPECT_EQ(&c, list.Tail());
    EXPECT_EQ(&b, a.mLink.mNext);
    EXPECT_EQ(&a, b.mLink.mPrev);
    EXPECT_TRUE(b.mLink.IsLinked());
    Drain(list);

    // Null positions insert at the head (after) and the tail (before).
    Node d(4), e(5), f(6);
    list.InsertAfter(nullptr, &b);
    list.InsertBefore(nullptr, &e);
    list.InsertBefore(&b, &a); // new head
    list.InsertAfter(&b, &c);  // middle
    list.InsertAfter(&c, &d);  // middle
    list.InsertAfter(&e, &f);  // new tail
    EXPECT_EQ((std::vector<int>{1, 2, 3, 4, 5, 6}), Values(list));
    EXPECT_EQ(&a, list.Head());
    EXPECT_EQ(&f, list.Tail());
    Drain(list);
}

TEST(TbDList, RemoveOperationsUnlinkAndClearTheEntry)
{
    NodeList list;
    Node a(1), b(2), c(3), d(4);
    for (Node* n : {&a, &b, &c, &d})
        list.InsertTail(n);

    EXPECT_EQ(&b, list.Remove(&b));
    EXPECT_FALSE(b.mLink.IsLinked());
    EXPECT_EQ(nullptr, b.mLink.mNext);
    EXPECT_EQ(nullptr, b.mLink.mPrev);
    EXPECT_EQ((std::vector<int>{1, 3, 4}), Values(list));

    EXPECT_EQ(&a, list.RemoveHead());
    EXPECT_FALSE(a.mLink.IsLinked());
    EXPECT_EQ(nullptr, c.mLink.mPrev);
    EXPECT_EQ(&d, list.RemoveTail());
    EXPECT_EQ(nullptr, c.mLink.mNext);
    EXPECT_EQ((std::vector<int>{3}), Values(list));

    // Removing the only element empties head and tail.
    EXPECT_EQ(&c, list.Remove(&c));
    EXPECT_TRUE(list.IsEmpty());
    EXPECT_EQ(nullptr, list.Tail());
    EXPECT_EQ(nullptr, list.RemoveHead());
    EXPECT_EQ(nullptr, list.RemoveTail());

    // A removed element can be inserted again.
    list.InsertTail(&b);
    list.InsertTail(&a);
    EXPECT_EQ((std::vector<int>{2, 1}), Values(list));
    EXPECT_EQ(&b, list.RemoveHead());
    EXPECT_EQ(&a, list.RemoveHead());
    EXPECT_TRUE(list.IsEmpty());
}

TEST(TbDList, AppendListMovesEveryElement)
{
    NodeList first, second;
    Node a(1), b(2), c(3), d(4);
    first.InsertTail(&a);
    first.InsertTail(&b);
    second.InsertTail(&c);
    second.InsertTail(&d);

    first.AppendList(second);
    EXPECT_EQ((std::vector<int>{1, 2, 3, 4}), Values(first));
    EXPECT_TRUE(second.IsEmpty());
    EXPECT_EQ(nullptr, second.Tail());
    EXPECT_TRUE(first.IsInList(&c));
    EXPECT_FALSE(second.IsInList(&c));
    // Removing a moved element from its new list works.
    EXPECT_EQ(&c, first.Remove(&c));
    EXPECT_EQ((std::vector<int>{1, 2, 4}), Values(first));

    // Empty onto non-empty and non-empty onto empty.
    first.AppendList(second);
    EXPECT_EQ((std::vector<int>{1, 2, 4}), Values(first));
    second.AppendList(first);
    EXPECT_EQ((std::vector<int>{1, 2, 4}), Values(second));
    EXPECT_TRUE(first.IsEmpty());
    EXPECT_TRUE(second.IsInList(&d));
    Drain(second);
}

TEST(TbDList, MisuseIsReportedAndRefused)
{
    NodeList list, other;
    Node a(1), b(2), stranger(9);
    list.InsertTail(&a);
    list.InsertTail(&b);

    std::string out = CaptureTrace(KARVEX_TRACE_ERROR, [&] {
        list.InsertTail(&a);        // already linked here
        other.InsertHead(&b);       // linked in another list
        other.InsertTail(&b);
        EXPECT_EQ(nullptr, other.Remove(&a)); // not in this list
        EXPECT_EQ(nullptr, list.Remove(&stranger));
        list.InsertAfter(&stranger, &stranger); // neither position nor element usable
        list.InsertBefore(&stranger, &b);
    });
    EXPECT_EQ(4u, CountOf(out, "ASSERTION FAILED: (!ne->IsLinked())"));
    EXPECT_EQ(4u, CountOf(out, "ASSERTION FAILED: (IsInList("));
    EXPECT_TRUE(HasAssertion(out, "!ne->IsLinked()")) << out;
    // Both lists are unchanged.
    EXPECT_EQ((std::vector<int>{1, 2}), Values(list));
    EXPECT_TRUE(other.IsEmpty());
    EXPECT_FALSE(stranger.mLink.IsLinked());

    // With the error class off nothing is printed, and still nothing changes.
    out = CaptureTrace(0, [&] { list.InsertTail(&a); });
    EXPECT_EQ("", out);
    EXPECT_EQ((std::vector<int>{1, 2}), Values(list));
    Drain(list);
}

TEST(TbDList, DestroyingLinkedElementsAndNonEmptyListsIsReported)
{
    std::string out = CaptureTrace(KARVEX_TRACE_ERROR, [&] {
        NodeList list; // destroyed after the node: it only compares pointers
        Node n(1);
        list.InsertTail(&n);
    });
    EXPECT_TRUE(HasAssertion(out, "!IsLinked()")) << out;
    EXPECT_TRUE(HasAssertion(out, "NULL==mHead")) << out;
    EXPECT_TRUE(HasAssertion(out, "NULL==mTail")) << out;
    // In that order: element first, then the list.
    EXPECT_LT(out.find("!IsLinked()"), out.find("NULL==mHead"));
    EXPECT_LT(out.find("NULL==mHead"), out.find("NULL==mTail"));

    out = CaptureTrace(KARVEX_TRACE_ERROR, [&] {
        NodeList list;
        Node n(1);
        list.InsertTail(&n);
        list.Remove(&n);
    });
    EXPECT_EQ("", out);
}

// The pair is laid out as two 16-bit fields, nothing more.
static_assert(sizeof(TbUsbVidPid) == 4, "a (VID, PID) pair is four bytes");

TEST(TbUsbVidPid, ListKeepsOrderAndDuplicatesAndMatchesBothFields)
{
    TbUsbVidPidList list;
    EXPECT_FALSE(list.IsVidPidContained(0, 0));
    list.AddVidPid(0x1209, 0x7A01);
    list.AddVidPid(0x1209, 0x7A02);
    list.AddVidPid(0x1209, 0x7A01);
    list.AddVidPid(0x046D, 0xC077);
    ASSERT_EQ(4u, list.size());
    EXPECT_EQ(0x7A02, list[1].mPid);
    EXPECT_EQ(0x046D, list[3].mVid);

    EXPECT_TRUE(list.IsVidPidContained(0x1209, 0x7A02));
    EXPECT_TRUE(list.IsVidPidContained(0x046D, 0xC077));
    EXPECT_FALSE(list.IsVidPidContained(0x1209, 0xC077)); // VID of one, PID of another
    EXPECT_FALSE(list.IsVidPidContained(0x046D, 0x7A01));
    EXPECT_FALSE(list.IsVidPidContained(0x7A01, 0x1209));

    list.RemoveVidPid(0x1209, 0x7A01);
    ASSERT_EQ(2u, list.size());
    EXPECT_EQ(0x7A02, list[0].mPid);
    EXPECT_EQ(0xC077, list[1].mPid);
    EXPECT_FALSE(list.IsVidPidContained(0x1209, 0x7A01));
    list.RemoveVidPid(0x1234, 0x5678); // absent: nothing happens
    EXPECT_EQ(2u, list.size());
}
