#include "TestThing.h"

#include "kxPointer.h"
#include "kxRtti.h"

#include <gtest/gtest.h>

#include <utility>

const kx::kxRtti TestThing::TYPE("TestThing", &kx::kxObject::TYPE);
int TestThing::msLive = 0;

TEST(Rtti, IsDerivedWalksTheBaseChainAndIsExactlyDoesNot)
{
    const kx::kxRtti* chain[3] = {&kx::kxRttiInterface::TYPE, &kx::kxObject::TYPE, &TestThing::TYPE};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
        {
            EXPECT_EQ(chain[i]->IsDerived(*chain[j]), i >= j) << chain[i]->GetName() << " / " << chain[j]->GetName();
            EXPECT_EQ(chain[i]->IsExactly(*chain[j]), i == j);
        }
    const TestThing thing;
    const kx::kxRttiInterface& asBase = thing;
    EXPECT_TRUE(asBase.IsDerived(kx::kxObject::TYPE));
    EXPECT_TRUE(asBase.IsExactly(TestThing::TYPE));
}

TEST(Rtti, FactoryRegistryRegistersReplacesFindsAndRemoves)
{
    auto other = [](kx::kxBaseStream&) -> kx::kxObject* { return nullptr; };
    EXPECT_EQ(kx::kxRttiInterface::FindFactoryFunction("RegistryProbe"), nullptr);
    EXPECT_TRUE(kx::kxRttiInterface::RegisterFactoryFunction("RegistryProbe", &TestThing::Factory<TestThing>));
    EXPECT_EQ(kx::kxRttiInterface::FindFactoryFunction("RegistryProbe"), &TestThing::Factory<TestThing>);
    EXPECT_FALSE(kx::kxRttiInterface::RegisterFactoryFunction("RegistryProbe", other)) << "a replacement";
    EXPECT_EQ(kx::kxRttiInterface::FindFactoryFunction("RegistryProbe"), other);
    EXPECT_EQ(kx::kxRttiInterface::FindFactoryFunction("RegistryProbe2"), nullptr);
    EXPECT_TRUE(kx::kxRttiInterface::UnregisterFactoryFunction("RegistryProbe"));
    EXPECT_FALSE(kx::kxRttiInterface::UnregisterFactoryFunction("RegistryProbe"));
    EXPECT_EQ(kx::kxRttiInterface::FindFactoryFunction("RegistryProbe"), nullptr);
}

TEST(Object, ReferencesDeleteAtZeroThroughPointersAndByHand)
{
    ASSERT_EQ(TestThing::msLive, 0);
    TestThing* raw = new TestThing;
    EXPECT_EQ(raw->GetReferences(), 0);
    {
        kx::kxPointer<TestThing> a(raw);
        kx::kxPointer<TestThing> b = a;
        EXPECT_EQ(raw->GetReferences(), 2);
        kx::kxPointer<TestThing> c(std::move(b));
        EXPECT_EQ(b.get(), nullptr);
        EXPECT_EQ(raw->GetReferences(), 2) << "a move keeps the count";
        a = nullptr;
        c = c;
        EXPECT_EQ(raw->GetReferences(), 1) << "self-assignment of the last reference keeps the object";
        EXPECT_EQ(TestThing::msLive, 1);
        c = new TestThing;
        EXPECT_EQ(TestThing::msLive, 1) << "reassigning released the last reference";
    }
    EXPECT_EQ(TestThing::msLive, 0);

    TestThing* manual = new TestThing;
    manual->IncrementReferences();
    manual->IncrementReferences();
    manual->DecrementReferences();
    EXPECT_EQ(TestThing::msLive, 1);
    manual->DecrementReferences();
    EXPECT_EQ(TestThing::msLive, 0);
}
