#include "kxCancelInterface.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace
{
// A read-only source that counts how often it is asked.
class CountingSource : public kx::kxCancelInterfaceReadOnly
{
public:
    bool shouldCancel() const override
    {
        ++asked;
        return answer;
    }
    bool answer = false;
    mutable int asked = 0;
};
} // namespace

TEST(CancelInterface, ReadOnlyProxyReadsItsFlagThenItsParent)
{
    const kx::kxCancelInterfaceProxyReadOnly nothing;
    EXPECT_FALSE(nothing.shouldCancel());

    char flag = 0;
    CountingSource parent;
    const kx::kxCancelInterfaceProxyReadOnly proxy(&flag, &parent);
    EXPECT_FALSE(proxy.shouldCancel());
    EXPECT_EQ(parent.asked, 1);
    parent.answer = true;
    EXPECT_TRUE(proxy.shouldCancel());

    // A set flag answers without asking the parent; any non-zero byte counts.
    parent.answer = false;
    parent.asked = 0;
    flag = 7;
    EXPECT_TRUE(proxy.shouldCancel());
    EXPECT_EQ(parent.asked, 0);

    const kx::kxCancelInterfaceProxyReadOnly parentOnly(nullptr, &proxy);
    EXPECT_TRUE(parentOnly.shouldCancel());
    flag = 0;
    EXPECT_FALSE(parentOnly.shouldCancel());
}

TEST(CancelInterface, CancelRunsUpAThreeLevelChainButNotDown)
{
    kx::kxCancelInterfaceProxy root;
    kx::kxCancelInterfaceProxy middle(&root);
    kx::kxCancelInterfaceProxy leaf(&middle);
    EXPECT_FALSE(root.shouldCancel());
    EXPECT_FALSE(middle.shouldCancel());
    EXPECT_FALSE(leaf.shouldCancel());

    leaf.cancel();
    EXPECT_TRUE(leaf.shouldCancel());
    EXPECT_TRUE(middle.shouldCancel());
    EXPECT_TRUE(root.shouldCancel());

    // With the caller's flag bytes the chain's state can be read directly.
    char rootFlag = 0, middleFlag = 0, leafFlag = 0;
    kx::kxCancelInterfaceProxy r(&rootFlag, nullptr, nullptr);
    kx::kxCancelInterfaceProxy m(&middleFlag, &r, nullptr);
    kx::kxCancelInterfaceProxy l(&leafFlag, &m, nullptr);
    m.cancel();
    EXPECT_EQ(rootFlag, 1);
    EXPECT_EQ(middleFlag, 1);
    EXPECT_EQ(leafFlag, 0) << "a cancel never runs down to children";
    EXPECT_TRUE(l.shouldCancel()) << "but children see it through their parent";
    l.cancel();
    EXPECT_EQ(leafFlag, 1);
}

TEST(CancelInterface, CancellingOnlyTheParentLeavesTheChildFlagClear)
{
    char parentFlag = 0, childFlag = 0;
    kx::kxCancelInterfaceProxy parent(&parentFlag, nullptr, nullptr);
    kx::kxCancelInterfaceProxy child(&childFlag, &parent, nullptr);
    EXPECT_FALSE(child.shouldCancel());
    parent.cancel();
    EXPECT_EQ(parentFlag, 1);
    EXPECT_EQ(childFlag, 0);
    EXPECT_TRUE(child.shouldCancel());
    // Clearing the parent's byte clears the child's answer: nothing was copied down.
    parentFlag = 0;
    EXPECT_FALSE(child.shouldCancel());
}

TEST(CancelInterface, AdditionalSourceIsConsultedLastAndNeverWritten)
{
    CountingSource additional;
    char parentFlag = 0, flag = 0;
    kx::kxCancelInterfaceProxy parent(&parentFlag, nullptr, nullptr);
    kx::kxCancelInterfaceProxy proxy(&flag, &parent, &additional);

    EXPECT_FALSE(proxy.shouldCancel());
    EXPECT_EQ(additional.asked, 1);
    additional.answer = true;
    EXPECT_TRUE(proxy.shouldCancel());
    EXPECT_EQ(flag, 0) << "reporting a cancel must not set the proxy's own flag";

    // Own flag and parent come first: the additional source is not asked once they say yes.
    additional.answer = false;
    additional.asked = 0;
    parentFlag = 1;
    EXPECT_TRUE(proxy.shouldCancel());
    EXPECT_EQ(additional.asked, 0);
    parentFlag = 0;

    // cancel() on a proxy built over a read-only proxy leaves that proxy's byte alone.
    char readOnlyFlag = 0;
    const kx::kxCancelInterfaceProxyReadOnly readOnly(&readOnlyFlag);
    kx::kxCancelInterfaceProxy over(nullptr, &readOnly);
    over.cancel();
    EXPECT_TRUE(over.shouldCancel());
    EXPECT_EQ(readOnlyFlag, 0);
    EXPECT_FALSE(readOnly.shouldCancel());
}

TEST(CancelInterface, ACancelFromAnotherThreadIsSeenByThePollingThread)
{
    kx::kxCancelInterfaceProxy root;
    kx::kxCancelInterfaceProxy worker(&root);
    std::thread canceller([&root] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        root.cancel();
    });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    bool seen = false;
    while (!seen && std::chrono::steady_clock::now() < deadline)
        seen = worker.shouldCancel();
    canceller.join();
    EXPECT_TRUE(seen);
}
