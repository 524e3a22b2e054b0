#include "kxCancelInterface.h"

#include <gtest/gtest.h>

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

TEST(CancelInterface, CancelRunsUpAThreeLevelChainButNeverDown)
{
    char rootFlag = 0, middleFlag = 0, leafFlag = 0;
    kx::kxCancelInterfaceProxy root(&rootFlag, nullptr, nullptr);
    kx::kxCancelInterfaceProxy middle(&middleFlag, &root, nullptr);
    kx::kxCancelInterfaceProxy leaf(&leafFlag, &middle, nullptr);
    EXPECT_FALSE(leaf.shouldCancel());
    middle.cancel();
    EXPECT_EQ(rootFlag, 1);
    EXPECT_EQ(middleFlag, 1);
    EXPECT_EQ(leafFlag, 0);
    EXPECT_TRUE(leaf.shouldCancel()) << "children see a cancel through their parent";
    rootFlag = middleFlag = 0;
    EXPECT_FALSE(leaf.shouldCancel()) << "nothing was copied down";
    leaf.cancel();
    EXPECT_EQ(rootFlag + middleFlag + leafFlag, 3);

    // The same with the proxies' own flag bytes.
    kx::kxCancelInterfaceProxy ownRoot, ownMiddle(&ownRoot), ownLeaf(&ownMiddle);
    EXPECT_FALSE(ownLeaf.shouldCancel());
    ownLeaf.cancel();
    EXPECT_TRUE(ownRoot.shouldCancel());
}

TEST(CancelInterface, SourcesAnswerFlagFirstThenParentThenTheAdditionalOneWhichIsNeverWritten)
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
    additional.answer = false;
    additional.asked = 0;
    parentFlag = 1;
    EXPECT_TRUE(proxy.shouldCancel());
    EXPECT_EQ(additional.asked, 0);

    // Read-only proxies: any non-zero byte answers before the parent is asked.
    EXPECT_FALSE(kx::kxCancelInterfaceProxyReadOnly().shouldCancel());
    char readOnlyFlag = 0;
    CountingSource grandParent;
    const kx::kxCancelInterfaceProxyReadOnly readOnly(&readOnlyFlag, &grandParent);
    kx::kxCancelInterfaceProxy over(nullptr, &readOnly);
    grandParent.answer = true;
    EXPECT_TRUE(over.shouldCancel());
    grandParent.answer = false;
    grandParent.asked = 0;
    readOnlyFlag = 7;
    EXPECT_TRUE(over.shouldCancel());
    EXPECT_EQ(grandParent.asked, 0);
    readOnlyFlag = 0;
    over.cancel();
    EXPECT_TRUE(over.shouldCancel());
    EXPECT_EQ(readOnlyFlag, 0) << "a cancel leaves an additional source alone";
    EXPECT_FALSE(readOnly.shouldCancel());
}
