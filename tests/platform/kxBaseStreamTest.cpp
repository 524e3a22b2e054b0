#include "TestThing.h"

#include "kxPointer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace
{
using Bytes = std::vector<unsigned char>;

// Registers a factory under the name TestThing for the scope of a test.
struct Registration
{
    explicit Registration(kx::kxRttiInterface::FactoryFunction f)
    {
        kx::kxRttiInterface::RegisterFactoryFunction("TestThing", f);
    }
    ~Registration() { kx::kxRttiInterface::UnregisterFactoryFunction("TestThing"); }
};

// Loads like TestThing, then refuses to link.
struct BrokenLink : TestThing
{
    void PostLink(kx::kxBaseStream&) override { throw std::logic_error("cannot link"); }
};
} // namespace

TEST(BaseStream, WritesLittleEndianElementsLengthPrefixedStringsAndObjectParts)
{
    const uint8_t b = 0xAB;
    const uint16_t h = 0x1234;
    const uint32_t w = 0x89ABCDEFu;
    const uint64_t q = 0x0102030405060708ull;
    kx::kxBaseStream stream;
    stream.writele(1, 1, &b);
    stream.writele(2, 1, &h);
    stream.writele(4, 1, &w);
    stream.writele(8, 1, &q);
    stream.writeString("h\xC3\xA9llo");
    stream.writeString("");
    const Bytes golden = {0xAB, 0x34, 0x12, 0xEF, 0xCD, 0xAB, 0x89, 0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01,
                          6,    0,    0,    0,    'h',  0xC3, 0xA9, 'l',  'l',  'o',  0,    0,    0,    0};
    EXPECT_EQ(stream.GetBuffer(), golden);

    // The type name, the object part (name, id), then the object's own data.
    TestThing thing;
    thing.SetName("ab");
    thing.mSmall = 0x0102;
    thing.mValue = 1.0;
    stream.SetBuffer({});
    stream.SaveObject(thing);
    auto id = [&thing](int k) { return Bytes::value_type(thing.GetID() >> 8 * k); };
    const Bytes object = {9,     0,     0,     0,     'T',  'e',  's', 't', 'T', 'h', 'i', 'n', 'g', 2, 0, 0, 0,
                          'a',   'b',   id(0), id(1), id(2), id(3), 0x02, 0x01, 0, 0, 0, 0, 0, 0, 0xF0, 0x3F};
    EXPECT_EQ(stream.GetBuffer(), object);
}

TEST(BaseStream, RandomElementsStringsAndObjectsRoundTripThroughAFile)
{
    Registration registration(&TestThing::Factory<TestThing>);
    std::mt19937_64 rng(17);
    kx::kxBaseStream stream;
    std::vector<std::pair<size_t, Bytes>> written;
    std::vector<TestThing> things(100);
    for (TestThing& thing : things)
    {
        const size_t size = size_t(1) << (rng() % 4);
        Bytes data(size * (rng() % 20));
        for (unsigned char& c : data)
            c = static_cast<unsigned char>(rng());
        written.emplace_back(size, data);
        thing.SetName(std::string(data.begin(), data.end()));
        thing.mSmall = static_cast<uint16_t>(rng());
        thing.mValue = std::ldexp(double(rng() >> 11), -int(rng() % 60));
        stream.writele(size, data.size() / size, data.data());
        stream.SaveObject(thing);
    }
    const std::string path = ::testing::TempDir() + "kxBaseStreamTest.bin";
    ASSERT_TRUE(stream.SaveToFile(path));
    const Bytes saved = stream.GetBuffer();
    stream.SetBuffer({});
    ASSERT_TRUE(stream.LoadFromFile(path));
    EXPECT_EQ(stream.GetBuffer(), saved);
    std::remove(path.c_str());

    for (size_t i = 0; i < things.size(); ++i)
    {
        const auto& [size, data] = written[i];
        Bytes back(data.size() + 1, 0x5A);
        ASSERT_TRUE(stream.readle(size, data.size() / size, back.data()));
        EXPECT_EQ(Bytes(back.begin(), back.end() - 1), data);
        EXPECT_EQ(back.back(), 0x5A) << "read past the requested elements";
        kx::kxPointer<kx::kxObject> loaded(stream.LoadObject());
        ASSERT_TRUE(loaded.get() && loaded->IsExactly(TestThing::TYPE));
        const TestThing& thing = static_cast<const TestThing&>(*loaded);
        EXPECT_EQ(thing.GetName(), things[i].GetName());
        EXPECT_EQ(thing.mSmall, things[i].mSmall);
        EXPECT_EQ(thing.mValue, things[i].mValue);
        EXPECT_EQ(thing.mPostLinks, 1);
        EXPECT_NE(thing.GetID(), things[i].GetID()) << "a loaded object keeps its own id";
    }
    EXPECT_EQ(stream.GetRemaining(), 0u);

    EXPECT_FALSE(stream.LoadFromFile(path));
    EXPECT_EQ(stream.GetBuffer(), saved) << "a failed load keeps the content";
    EXPECT_FALSE(stream.SaveToFile(::testing::TempDir() + "no-such-folder/x.bin"));
}

TEST(BaseStream, ShortReadsTouchNothing)
{
    kx::kxBaseStream stream;
    stream.SetBuffer(Bytes{1, 2, 3});
    uint32_t untouched = 0xDEADBEEF;
    EXPECT_FALSE(stream.readle(4, 1, &untouched));
    EXPECT_EQ(untouched, 0xDEADBEEFu);
    EXPECT_TRUE(stream.Failed());
    EXPECT_EQ(stream.GetPosition(), 0u);
    uint8_t three[3];
    EXPECT_FALSE(stream.readle(3, 1, three)) << "only 1, 2, 4 and 8 byte elements exist";
    std::string text = "kept";
    stream.SetBuffer(Bytes{5, 0, 0, 0, 'a', 'b'});
    EXPECT_FALSE(stream.Failed()) << "new content clears the failure";
    EXPECT_FALSE(stream.readString(text));
    EXPECT_EQ(text, "kept");
    EXPECT_EQ(stream.GetPosition(), 0u);
}

TEST(BaseStream, TruncatedOrUnloadableObjectsLoadNullAndLeakNothing)
{
    kx::kxBaseStream stream;
    {
        TestThing thing;
        thing.SetName("named");
        stream.SaveObject(thing);
    }
    const Bytes whole = stream.GetBuffer();
    {
        Registration registration(&TestThing::Factory<TestThing>);
        for (size_t length = 0; length < whole.size(); ++length)
        {
            stream.SetBuffer(Bytes(whole.begin(), whole.begin() + std::ptrdiff_t(length)));
            EXPECT_EQ(stream.LoadObject(), nullptr) << "length " << length;
            EXPECT_EQ(TestThing::msLive, 0) << "length " << length;
        }
        stream.SetBuffer(whole);
        kx::kxPointer<kx::kxObject> loaded(stream.LoadObject());
        EXPECT_NE(loaded.get(), nullptr);
    }
    stream.SetBuffer(whole);
    EXPECT_EQ(stream.LoadObject(), nullptr) << "nothing is registered under TestThing";

    auto throwing = [](kx::kxBaseStream& s) -> kx::kxObject* {
        const std::unique_ptr<kx::kxObject> thing(TestThing::Factory<TestThing>(s));
        throw std::runtime_error("refused");
    };
    auto none = [](kx::kxBaseStream&) -> kx::kxObject* { return nullptr; };
    for (kx::kxRttiInterface::FactoryFunction factory : {+throwing, &TestThing::Factory<BrokenLink>, +none})
    {
        Registration registration(factory);
        stream.SetBuffer(whole);
        EXPECT_EQ(stream.LoadObject(), nullptr);
        EXPECT_EQ(TestThing::msLive, 0);
    }
}
