#include "TestThing.h"

#include "kxPointer.h"
#include "kxRtti.h"

#include <gtest/gtest.h>

#include <utility>

const kx::kxRtti TestThing::TYPE("TestThing", &kx::kxObject::TYPE);
int TestThing::msLive = 0;

TEST(Rtti, IsDerivedWalksTheBaseChain)
{
    const kx::kxRtti* chain[3] = {&kx::kxRttiInterface::TYPE, &kx::kxObject::TYPE, &TestThing::TYPE};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            EXPECT_EQ(chain[i]->IsDerived(*chain[j]), i >= j) << chain[i]->GetName() << " / " << chain[j]->GetName();
}

TEST(Object, PointersCountReferencesAndDeleteAtZero)
{
    TestThing* raw = new TestThing;
    {
        kx::kxPointer<TestThing> a(raw);
        kx::kxPointer<TestThing> b = a;
        kx::kxPointer<TestThing> c(std::move(b));
        EXPECT_EQ(b.get(), nullptr);
        EXPECT_EQ(raw->GetReferences(), 2) << "a move keeps the count";
        a = nullptr;
        c = c;
        EXPECT_EQ(raw->GetReferences(), 1) << "self-assignment of the last reference keeps the object";
        c = new TestThing;
        EXPECT_EQ(TestThing::msLive, 1) << "reassigning released the last reference";
    }
    EXPECT_EQ(TestThing::msLive, 0);
}
