#include "TestThing.h"

#include "kxPointer.h"
#include "kxRtti.h"

#include <gtest/gtest.h>

#include <set>
#include <utility>

const kx::kxRtti TestThing::TYPE("TestThing", &kx::kxObject::TYPE);
const kx::kxRtti TestSubThing::TYPE("TestSubThing", &TestThing::TYPE);
int TestThing::msLive = 0;

TEST(Rtti, IsDerivedWalksTheBaseChainAndIsExactlyDoesNot)
{
    const kx::kxRtti* chain[4] = {&kx::kxRttiInterface::TYPE, &kx::kxObject::TYPE, &TestThing::TYPE,
                                  &TestSubThing::TYPE};
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j)
        {
            EXPECT_EQ(chain[i]->IsDerived(*chain[j]), i >= j) << chain[i]->GetName() << " / " << chain[j]->GetName();
            EXPECT_EQ(chain[i]->IsExactly(*chain[j]), i == j);
        }
    EXPECT_FALSE(kx::kxController::TYPE.IsDerived(TestThing::TYPE));
    EXPECT_TRUE(kx::kxController::TYPE.IsDerived(kx::kxObject::TYPE));
    EXPECT_STREQ(TestSubThing::TYPE.GetName(), "TestSubThing");

    TestSubThing sub;
    const kx::kxRttiInterface& asBase = sub;
    EXPECT_TRUE(asBase.IsDerived(TestThing::TYPE));
    EXPECT_FALSE(asBase.IsExactly(TestThing::TYPE));
    EXPECT_TRUE(asBase.Equals(&sub));
    EXPECT_FALSE(asBase.Equals(nullptr));
    kx::kxRttiInterface* target = nullptr;
    EXPECT_FALSE(asBase.Clone(target));
    target = &sub;
    EXPECT_TRUE(asBase.Clone(target));
    EXPECT_TRUE(kx::kxRttiInterface::sEmptyString.empty());
}

TEST(Rtti, FactoryRegistryRegistersReplacesFindsAndRemoves)
{
    auto other = [](kx::kxBaseStream&) -> kx::kxObject* { return nullptr; };
    EXPECT_EQ(kx::kxRttiInterface::FindFactoryFunction("RegistryProbe"), nullptr);
    EXPECT_TRUE(kx::kxRttiInterface::RegisterFactoryFunction("RegistryProbe", &TestThing::Factory));
    EXPECT_EQ(kx::kxRttiInterface::FindFactoryFunction("RegistryProbe"), &TestThing::Factory);
    EXPECT_FALSE(kx::kxRttiInterface::RegisterFactoryFunction("RegistryProbe", other));
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
        EXPECT_EQ(raw->GetReferences(), 1);
        kx::kxPointer<TestThing> b = a;
        EXPECT_EQ(raw->GetReferences(), 2);
        kx::kxPointer<TestThing> c(std::move(b));
        EXPECT_EQ(raw->GetReferences(), 2);
        EXPECT_EQ(b.get(), nullptr);
        c = c; // self-assignment keeps the count
        EXPECT_EQ(raw->GetReferences(), 2);
        a = nullptr;
        EXPECT_EQ(raw->GetReferences(), 1);
        EXPECT_EQ(TestThing::msLive, 1);
        EXPECT_EQ(c->GetType().GetName(), std::string("TestThing"));
        EXPECT_EQ(&*c, raw);
    }
    EXPECT_EQ(TestThing::msLive, 0);

    kx::kxPointer<TestThing> holder(new TestThing);
    holder = new TestThing; // the first one goes
    EXPECT_EQ(TestThing::msLive, 1);
    holder = nullptr;
    EXPECT_EQ(TestThing::msLive, 0);

    TestThing* manual = new TestThing;
    manual->IncrementReferences();
    manual->IncrementReferences();
    manual->DecrementReferences();
    EXPECT_EQ(TestThing::msLive, 1);
    manual->DecrementReferences();
    EXPECT_EQ(TestThing::msLive, 0);
}

TEST(Object, IdsAreUniqueAndLookupsAnswerForThisObjectOnly)
{
    std::set<unsigned int> ids;
    kx::kxObject objects[50];
    for (kx::kxObject& o : objects)
        EXPECT_TRUE(ids.insert(o.GetID()).second);

    kx::kxObject& o = objects[7];
    o.SetName("seven");
    EXPECT_EQ(o.GetName(), "seven");
    EXPECT_EQ(o.GetObjectByName("seven"), &o);
    EXPECT_EQ(o.GetObjectByName("eight"), nullptr);
    EXPECT_EQ(o.GetObjectByID(o.GetID()), &o);
    EXPECT_EQ(o.GetObjectByID(objects[8].GetID()), nullptr);
    std::vector<kx::kxObject*> found;
    o.GetAllObjectsByName("seven", found);
    o.GetAllObjectsByName("none", found);
    EXPECT_EQ(found, std::vector<kx::kxObject*>{&o});
}

TEST(Object, ObjectPartIsNameLengthNameBytesThenId)
{
    kx::kxObject unnamed;
    kx::kxBaseStream stream;
    unnamed.Save(stream);
    const unsigned int id = unnamed.GetID();
    const auto idByte = [](unsigned int value, int shift) { return static_cast<unsigned char>(value >> shift & 0xFF); };
    EXPECT_EQ(stream.GetBuffer(), (std::vector<unsigned char>{0, 0, 0, 0, idByte(id, 0), idByte(id, 8),
                                                              idByte(id, 16), idByte(id, 24)}));

    kx::kxObject named;
    named.SetName("ab");
    kx::kxBaseStream second;
    named.Save(second);
    const unsigned int nid = named.GetID();
    EXPECT_EQ(second.GetBuffer(), (std::vector<unsigned char>{2, 0, 0, 0, 'a', 'b', idByte(nid, 0), idByte(nid, 8),
                                                              idByte(nid, 16), idByte(nid, 24)}));

    // Loading takes the name; the loading object keeps its own id.
    kx::kxObject loaded;
    loaded.Load(second);
    EXPECT_EQ(loaded.GetName(), "ab");
    EXPECT_NE(loaded.GetID(), nid);
    EXPECT_EQ(second.GetRemaining(), 0u);
    EXPECT_FALSE(second.Failed());
}
