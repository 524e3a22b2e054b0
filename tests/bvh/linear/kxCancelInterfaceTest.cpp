#include "kxCancelInterface.h"

#include <gtest/gtest.h>

TEST(CancelInterface, CancelRunsUpTheChainAndQueriesAskTheFlagThenTheParentThenTheAdditionalSource)
{
    struct CountingSource : kx::kxCancelInterfaceReadOnly
    {
        bool shouldCancel() const override { return ++asked, answer; }
        bool answer = false;
        mutable int asked = 0;
    } additional;
    char rootFlag = 0, middleFlag = 0, leafFlag = 0, readOnlyFlag = 0;
    kx::kxCancelInterfaceProxy root(&rootFlag, nullptr, nullptr), middle(&middleFlag, &root, nullptr);
    kx::kxCancelInterfaceProxy leaf(&leafFlag, &middle, &additional);
    EXPECT_FALSE(leaf.shouldCancel());
    EXPECT_EQ(additional.asked, 1);
    middle.cancel();
    EXPECT_TRUE(rootFlag == 1 && middleFlag == 1 && leafFlag == 0) << "a cancel runs up, never down";
    EXPECT_TRUE(leaf.shouldCancel());
    EXPECT_EQ(additional.asked, 1) << "asked although the parent had answered";
    rootFlag = middleFlag = 0;
    additional.answer = true;
    EXPECT_TRUE(leaf.shouldCancel());
    EXPECT_EQ(leafFlag, 0) << "reporting a cancel must not set the proxy's own flag";

    // Read-only proxies answer from their byte before asking their parent; writable ones
    // default to a flag byte of their own.
    EXPECT_FALSE(kx::kxCancelInterfaceProxyReadOnly().shouldCancel());
    const kx::kxCancelInterfaceProxyReadOnly readOnly(&readOnlyFlag, &additional);
    kx::kxCancelInterfaceProxy ownRoot(nullptr, &readOnly), ownLeaf(&ownRoot);
    EXPECT_TRUE(ownLeaf.shouldCancel());
    readOnlyFlag = 7;
    EXPECT_TRUE(readOnly.shouldCancel());
    EXPECT_EQ(additional.asked, 3) << "asked although the flag was set";
    readOnlyFlag = 0;
    additional.answer = false;
    EXPECT_FALSE(ownLeaf.shouldCancel());
    ownLeaf.cancel();
    EXPECT_TRUE(ownRoot.shouldCancel());
}
