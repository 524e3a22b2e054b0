#include "kxCancelInterface.h"
#include "kxCapturingLog.h"
#include "kxRandomGeometry.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

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

namespace
{
// Consulted at the build's first poll: tells the other thread to cancel, then waits until
// the cancel has reached the flag. Relaxed on purpose: nothing here orders the flag's
// write before the build's next read of it, so a flag that is not itself atomic shows up
// as a data race under ThreadSanitizer.
struct CancelHandshake : kx::kxCancelInterfaceReadOnly
{
    bool shouldCancel() const override
    {
        started.store(true, std::memory_order_relaxed);
        while (__atomic_load_n(flag, __ATOMIC_RELAXED) == 0)
            std::this_thread::yield();
        return false;
    }
    const char* flag = nullptr;
    mutable std::atomic<bool> started{false};
};
} // namespace

// The build polls a read-only proxy of a caller's flag, or a writable proxy whose parent
// holds it, while another thread cancels through a writable proxy. The polls after the
// handshake see the cancel, so the build stops without finishing.
TEST(CancelInterface, ACancelFromAnotherThreadStopsALinearBuildInProgress)
{
    kx::kxCapturingLog quiet;
    quiet.install();
    const kxtest::BoxContainer boxes(kxtest::randomBoxes(5, 20000, kxtest::Layout::Uniform));
    for (bool throughParent : {false, true})
    {
        SCOPED_TRACE(throughParent ? "writable proxy polled" : "read-only proxy polled");
        char flag = 0;
        CancelHandshake handshake;
        handshake.flag = &flag;
        kx::kxCancelInterfaceProxy canceller(&flag, nullptr, nullptr);
        const kx::kxCancelInterfaceProxyReadOnly readOnly(&flag, &handshake);
        kx::kxCancelInterfaceProxy child(&canceller, &handshake);
        const kx::kxCancelInterfaceReadOnly* polled =
            throughParent ? static_cast<const kx::kxCancelInterfaceReadOnly*>(&child) : &readOnly;

        bool built = true;
        kxGenericBVH bvh;
        std::thread build([&] {
            kxLinearGenericBVHBuilder builder;
            built = builder.build(boxes, bvh, polled, 20);
        });
        while (!handshake.started.load(std::memory_order_relaxed))
            std::this_thread::yield();
        canceller.cancel();
        build.join();
        EXPECT_FALSE(built);
        EXPECT_TRUE(canceller.shouldCancel() && polled->shouldCancel());
    }
}
