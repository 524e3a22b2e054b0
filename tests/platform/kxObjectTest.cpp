#include "kxBaseStream.h"
#include "kxObject.h"
#include "kxPointer.h"
#include "kxRtti.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

namespace
{
// An object that counts its live instances, so tests see leaks directly.
class TestThing : public kx::kxObject
{
public:
    static const kx::kxRtti TYPE;
    static int msLive;

    TestThing() { ++msLive; }
    ~TestThing() override { --msLive; }
    const kx::kxRtti& GetType() const override { return TYPE; }
    void PostLink(kx::kxBaseStream&) override { ++mPostLinks; }

    template <class T>
    static kx::kxObject* Factory(kx::kxBaseStream& stream)
    {
        T* thing = new T;
        thing->Load(stream);
        return thing;
    }

    int mPostLinks = 0;
};
const kx::kxRtti TestThing::TYPE("TestThing", &kx::kxObject::TYPE);
int TestThing::msLive = 0;

// Loads like TestThing, then refuses to link.
struct BrokenLink : TestThing
{
    void PostLink(kx::kxBaseStream&) override { throw std::logic_error("cannot link"); }
};
} // namespace

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

TEST(BaseStream, ObjectsLoadThroughTheirFactoryOnceLinkedAndUnloadableOnesLeakNothing)
{
    kx::kxBaseStream stream;
    stream.SaveObject(TestThing());
    const std::vector<unsigned char> whole = stream.GetBuffer();
    auto throwing = [](kx::kxBaseStream& s) -> kx::kxObject* {
        const std::unique_ptr<kx::kxObject> thing(TestThing::Factory<TestThing>(s));
        throw std::runtime_error("refused");
    };
    auto none = [](kx::kxBaseStream&) -> kx::kxObject* { return nullptr; };
    for (kx::kxRttiInterface::FactoryFunction factory :
         {&TestThing::Factory<TestThing>, +throwing, &TestThing::Factory<BrokenLink>, +none})
    {
        const bool loads = factory == &TestThing::Factory<TestThing>;
        // Only the first registration is new; the others replace it.
        EXPECT_EQ(kx::kxRttiInterface::RegisterFactoryFunction("TestThing", factory), loads);
        EXPECT_EQ(kx::kxRttiInterface::FindFactoryFunction("TestThing"), factory);
        stream.SetBuffer(whole);
        kx::kxPointer<kx::kxObject> loaded(stream.LoadObject());
        if (loads)
            EXPECT_TRUE(loaded.get() && static_cast<TestThing&>(*loaded).mPostLinks == 1 && !stream.GetRemaining());
        else
            EXPECT_EQ(loaded.get(), nullptr);
        loaded = nullptr;
        EXPECT_EQ(TestThing::msLive, 0);
    }
    EXPECT_TRUE(kx::kxRttiInterface::UnregisterFactoryFunction("TestThing"));
    EXPECT_FALSE(kx::kxRttiInterface::UnregisterFactoryFunction("TestThing"));
    stream.SetBuffer(whole);
    EXPECT_EQ(stream.LoadObject(), nullptr) << "nothing is registered under TestThing";
}
