#include "TestThing.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace
{
using Bytes = std::vector<unsigned char>;

// Registers a factory under a name for the scope of a test.
class Registration
{
public:
    Registration(const std::string& name, kx::kxRttiInterface::FactoryFunction factory) : mName(name)
    {
        kx::kxRttiInterface::RegisterFactoryFunction(name, factory);
    }
    ~Registration() { kx::kxRttiInterface::UnregisterFactoryFunction(mName); }

private:
    std::string mName;
};

kx::kxObject* throwingFactory(kx::kxBaseStream& stream)
{
    std::unique_ptr<TestThing> thing(new TestThing);
    thing->Load(stream);
    throw std::runtime_error("refused");
}

// Loads like TestThing but its PostLink throws, after the object exists.
class BrokenLink : public TestThing
{
public:
    static const kx::kxRtti TYPE;
    const kx::kxRtti& GetType() const override { return TYPE; }
    void PostLink(kx::kxBaseStream&) override { throw std::logic_error("cannot link"); }
    static kx::kxObject* Factory(kx::kxBaseStream& stream)
    {
        BrokenLink* object = new BrokenLink;
        object->Load(stream);
        return object;
    }
};
const kx::kxRtti BrokenLink::TYPE("BrokenLink", &TestThing::TYPE);

Bytes savedThing(uint16_t small, double value, const std::string& name)
{
    TestThing thing;
    thing.SetName(name);
    thing.mSmall = small;
    thing.mValue = value;
    kx::kxBaseStream stream;
    stream.SaveObject(thing);
    return stream.GetBuffer();
}
} // namespace

TEST(BaseStream, WritesEveryElementSizeLittleEndian)
{
    const uint8_t b = 0xAB;
    const uint16_t h = 0x1234;
    const uint32_t w = 0x89ABCDEFu;
    const uint64_t q = 0x0102030405060708ull;
    const float f = 1.0f;
    const double d = -2.0;
    kx::kxBaseStream stream;
    stream.writele(1, 1, &b);
    stream.writele(2, 1, &h);
    stream.writele(4, 1, &w);
    stream.writele(8, 1, &q);
    stream.writele(4, 1, &f);
    stream.writele(8, 1, &d);
    const Bytes golden = {0xAB, 0x34, 0x12, 0xEF, 0xCD, 0xAB, 0x89, 0x08, 0x07, 0x06, 0x05, 0x04, 0x03,
                          0x02, 0x01, 0x00, 0x00, 0x80, 0x3F, 0, 0, 0, 0, 0, 0, 0x00, 0xC0};
    EXPECT_EQ(stream.GetBuffer(), golden);

    uint8_t b2 = 0;
    uint16_t h2 = 0;
    uint32_t w2 = 0;
    uint64_t q2 = 0;
    float f2 = 0;
    double d2 = 0;
    EXPECT_TRUE(stream.readle(1, 1, &b2) && stream.readle(2, 1, &h2) && stream.readle(4, 1, &w2) &&
                stream.readle(8, 1, &q2) && stream.readle(4, 1, &f2) && stream.readle(8, 1, &d2));
    EXPECT_EQ(b2, b);
    EXPECT_EQ(h2, h);
    EXPECT_EQ(w2, w);
    EXPECT_EQ(q2, q);
    EXPECT_EQ(f2, f);
    EXPECT_EQ(d2, d);
    EXPECT_EQ(stream.GetRemaining(), 0u);
}

TEST(BaseStream, RandomArraysRoundTripAndShortReadsTouchNothing)
{
    std::mt19937_64 rng(17);
    const size_t sizes[4] = {1, 2, 4, 8};
    kx::kxBaseStream stream;
    std::vector<std::pair<size_t, Bytes>> written;
    for (int i = 0; i < 200; ++i)
    {
        const size_t size = sizes[rng() % 4];
        const size_t count = rng() % 20;
        Bytes data(size * count);
        for (unsigned char& c : data)
            c = static_cast<unsigned char>(rng());
        stream.writele(size, count, data.data());
        written.emplace_back(size, data);
    }
    for (const auto& [size, data] : written)
    {
        Bytes back(data.size() + 1, 0x5A);
        ASSERT_TRUE(stream.readle(size, data.size() / size, back.data()));
        EXPECT_TRUE(std::equal(data.begin(), data.end(), back.begin()));
        EXPECT_EQ(back.back(), 0x5A) << "read past the requested elements";
    }
    EXPECT_EQ(stream.GetRemaining(), 0u);
    EXPECT_TRUE(stream.readle(4, 0, nullptr));

    // Three bytes left: a 4-byte read fails, writes nothing and keeps the position.
    stream.SetBuffer(Bytes{1, 2, 3});
    uint32_t untouched = 0xDEADBEEF;
    EXPECT_FALSE(stream.readle(4, 1, &untouched));
    EXPECT_EQ(untouched, 0xDEADBEEFu);
    EXPECT_TRUE(stream.Failed());
    EXPECT_EQ(stream.GetPosition(), 0u);
    uint8_t three[3];
    EXPECT_FALSE(stream.readle(3, 1, three)) << "only 1, 2, 4 and 8 byte elements exist";
    stream.Rewind();
    EXPECT_FALSE(stream.Failed());
    EXPECT_TRUE(stream.readle(1, 3, three));
    EXPECT_EQ(three[2], 3);
}

TEST(BaseStream, StringsAreALengthThenTheirBytes)
{
    kx::kxBaseStream stream;
    stream.writeString("h\xC3\xA9llo");
    stream.writeString("");
    const Bytes golden = {6, 0, 0, 0, 'h', 0xC3, 0xA9, 'l', 'l', 'o', 0, 0, 0, 0};
    EXPECT_EQ(stream.GetBuffer(), golden);
    std::string first = "x", second = "y";
    EXPECT_TRUE(stream.readString(first));
    EXPECT_TRUE(stream.readString(second));
    EXPECT_EQ(first, "h\xC3\xA9llo");
    EXPECT_EQ(second, "");

    // A length that promises more than is there.
    stream.SetBuffer(Bytes{5, 0, 0, 0, 'a', 'b'});
    std::string text = "kept";
    EXPECT_FALSE(stream.readString(text));
    EXPECT_EQ(text, "kept");
}

TEST(BaseStream, SavedObjectsLoadBackThroughTheirFactory)
{
    Registration registration("TestThing", &TestThing::Factory);
    std::mt19937_64 rng(23);
    kx::kxBaseStream stream;
    std::vector<TestThing*> originals;
    for (int i = 0; i < 20; ++i)
    {
        TestThing* thing = new TestThing;
        thing->SetName(std::string(size_t(i % 4), char('a' + i)));
        thing->mSmall = static_cast<uint16_t>(rng());
        thing->mValue = std::ldexp(double(rng() >> 11), -int(rng() % 60));
        stream.SaveObject(*thing);
        originals.push_back(thing);
    }
    for (TestThing* original : originals)
    {
        kx::kxPointer<kx::kxObject> loaded(stream.LoadObject());
        ASSERT_NE(loaded.get(), nullptr);
        ASSERT_TRUE(loaded->IsExactly(TestThing::TYPE));
        const TestThing& thing = static_cast<const TestThing&>(*loaded);
        EXPECT_EQ(thing.GetName(), original->GetName());
        EXPECT_EQ(thing.mSmall, original->mSmall);
        EXPECT_EQ(thing.mValue, original->mValue);
        EXPECT_EQ(thing.mPostLinks, 1);
        delete original;
    }
    EXPECT_EQ(stream.GetRemaining(), 0u);
    EXPECT_EQ(TestThing::msLive, 0);
}

TEST(BaseStream, SaveObjectWritesTypeNameThenObjectPartThenPayload)
{
    TestThing thing;
    thing.mSmall = 0x0102;
    thing.mValue = 1.0;
    kx::kxBaseStream stream;
    stream.SaveObject(thing);
    const unsigned int id = thing.GetID();
    const auto idByte = [id](int shift) { return static_cast<unsigned char>(id >> shift & 0xFF); };
    const Bytes golden = {9, 0, 0, 0, 'T', 'e', 's', 't', 'T', 'h', 'i', 'n', 'g', // type name
                          0, 0, 0, 0, idByte(0), idByte(8), idByte(16), idByte(24),     // object part
                          0x02, 0x01, 0, 0, 0, 0, 0, 0, 0xF0, 0x3F};                    // 0x0102, 1.0
    EXPECT_EQ(stream.GetBuffer(), golden);
}

TEST(BaseStream, EveryTruncationLoadsNothingAndLeaksNothing)
{
    Registration registration("TestThing", &TestThing::Factory);
    const Bytes whole = savedThing(7, 3.5, "named");
    for (size_t length = 0; length < whole.size(); ++length)
    {
        kx::kxBaseStream stream;
        stream.SetBuffer(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length)));
        EXPECT_EQ(stream.LoadObject(), nullptr) << "length " << length;
        EXPECT_EQ(TestThing::msLive, 0) << "length " << length;
    }
    kx::kxBaseStream stream;
    stream.SetBuffer(whole);
    kx::kxPointer<kx::kxObject> loaded(stream.LoadObject());
    EXPECT_NE(loaded.get(), nullptr);
}

TEST(BaseStream, UnknownTypesAndFailingFactoriesLoadNull)
{
    const Bytes saved = savedThing(1, 2.0, "");
    kx::kxBaseStream stream;
    stream.SetBuffer(saved);
    EXPECT_EQ(stream.LoadObject(), nullptr) << "nothing is registered under TestThing";
    {
        Registration registration("TestThing", &throwingFactory);
        stream.SetBuffer(saved);
        EXPECT_EQ(stream.LoadObject(), nullptr);
        EXPECT_EQ(TestThing::msLive, 0);
    }
    {
        Registration registration("TestThing", &BrokenLink::Factory);
        stream.SetBuffer(saved);
        EXPECT_EQ(stream.LoadObject(), nullptr);
        EXPECT_EQ(TestThing::msLive, 0);
    }
    {
        Registration registration("TestThing", [](kx::kxBaseStream&) -> kx::kxObject* { return nullptr; });
        stream.SetBuffer(saved);
        EXPECT_EQ(stream.LoadObject(), nullptr);
    }
}

TEST(BaseStream, FilesHoldExactlyTheBuffer)
{
    Registration registration("TestThing", &TestThing::Factory);
    const Bytes saved = savedThing(0xBEEF, -0.25, "on disk");
    kx::kxBaseStream out;
    out.SetBuffer(saved);
    const std::string path = ::testing::TempDir() + "kxBaseStreamTest.bin";
    ASSERT_TRUE(out.SaveToFile(path));

    kx::kxBaseStream in;
    in.writeString("replaced");
    ASSERT_TRUE(in.LoadFromFile(path));
    EXPECT_EQ(in.GetBuffer(), saved);
    kx::kxPointer<kx::kxObject> loaded(in.LoadObject());
    ASSERT_NE(loaded.get(), nullptr);
    EXPECT_EQ(static_cast<TestThing&>(*loaded).mSmall, 0xBEEF);
    EXPECT_EQ(loaded->GetName(), "on disk");
    std::remove(path.c_str());

    EXPECT_FALSE(in.LoadFromFile(path));
    EXPECT_EQ(in.GetBuffer(), saved) << "a failed load keeps the content";
    EXPECT_FALSE(out.SaveToFile(::testing::TempDir() + "no-such-folder/x.bin"));
}
