#include "kxAllocationWatch.h"
#include "kxBaseStream.h"
#include "kxObject.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

using Bytes = std::vector<unsigned char>;

TEST(BaseStream, WritesLittleEndianElementsAndLengthPrefixedStringsAndReadsThemBackWhole)
{
    const uint64_t q = 0x0102030405060708ull;
    kx::kxBaseStream stream;
    for (size_t size : {1, 2, 4, 8})
        stream.writele(size, 1, &q);
    stream.writeString("h\xC3\xA9llo");
    stream.writeString("");
    stream.writele(2, 3, &q);
    const Bytes golden = {8, 8, 7, 8, 7, 6, 5, 8, 7, 6, 5, 4, 3, 2, 1, 6,    0,    0,    0,   'h', 0xC3,
                          0xA9, 'l', 'l', 'o', 0, 0, 0, 0, 8, 7, 6, 5, 4, 3};
    EXPECT_EQ(stream.GetBuffer(), golden);

    const std::string path = ::testing::TempDir() + "kxBaseStreamTest.bin";
    ASSERT_TRUE(stream.SaveToFile(path));
    stream.SetBuffer({});
    ASSERT_TRUE(stream.LoadFromFile(path));
    std::remove(path.c_str());
    uint64_t back[4] = {};
    std::string text, empty = "x";
    uint16_t three[4] = {0, 0, 0, 0x5A5A};
    EXPECT_TRUE(stream.readle(1, 1, &back[0]) && stream.readle(2, 1, &back[1]) && stream.readle(4, 1, &back[2]) &&
                stream.readle(8, 1, &back[3]) && stream.readString(text) && stream.readString(empty) &&
                stream.readle(2, 3, three));
    EXPECT_TRUE(back[0] == 0x08 && back[1] == 0x0708 && back[2] == 0x05060708 && back[3] == q);
    EXPECT_TRUE(text == "h\xC3\xA9llo" && empty.empty() && three[2] == 0x0304 && three[3] == 0x5A5A);
    EXPECT_EQ(stream.GetRemaining(), 0u);
    EXPECT_FALSE(stream.LoadFromFile(path));
    EXPECT_EQ(stream.GetBuffer(), golden) << "a failed load keeps the content";
    EXPECT_FALSE(stream.SaveToFile(::testing::TempDir() + "no-such-folder/x.bin"));

    // Short reads touch nothing.
    stream.SetBuffer(Bytes{5, 0, 0, 0, 'a', 'b'});
    EXPECT_FALSE(stream.readle(8, 1, &back[0]));
    EXPECT_FALSE(stream.readle(3, 1, &back[0])) << "only 1, 2, 4 and 8 byte elements exist";
    EXPECT_FALSE(stream.readString(text));
    EXPECT_TRUE(back[0] == 0x08 && text == "h\xC3\xA9llo" && stream.GetPosition() == 0u && stream.Failed());
    stream.SetBuffer({});
    EXPECT_FALSE(stream.Failed()) << "new content clears the failure";
}

// A length word followed by a few bytes, for every length up to far beyond them and the
// largest the word can say: the string, a stored type name and an object's name.
TEST(BaseStream, DeclaredLengthsBeyondTheDataFailWithoutAllocatingForThem)
{
    const Bytes text = {'s', 'c', 'e', 'n', 'e', 0, 0, 0, 0};
    std::vector<uint32_t> lengths;
    for (uint32_t length = 0; length <= 4 * text.size(); ++length)
        lengths.push_back(length);
    for (uint32_t length : {1u << 20, 100000000u, 0x7FFFFFFFu, 0xFFFFFFFFu})
        lengths.push_back(length);
    for (uint32_t length : lengths)
    {
        kx::kxBaseStream stream;
        stream.writele(4, 1, &length);
        Bytes bytes = stream.GetBuffer();
        bytes.insert(bytes.end(), text.begin(), text.end());
        stream.SetBuffer(bytes);
        const kxtest::AllocationWatch watch;
        std::string read = "kept";
        const bool fits = length <= text.size();
        ASSERT_EQ(fits, stream.readString(read)) << "length " << length;
        ASSERT_EQ(fits ? std::string(text.begin(), text.begin() + length) : "kept", read);
        ASSERT_EQ(fits ? 4 + length : 0u, stream.GetPosition());
        ASSERT_EQ(!fits, stream.Failed());
        if (fits)
            continue;

        stream.Rewind();
        ASSERT_EQ(nullptr, stream.LoadObject()) << "type name of length " << length;
        stream.Rewind();
        kx::kxObject object;
        object.SetName("kept");
        object.Load(stream);
        ASSERT_TRUE(stream.Failed() && object.GetName() == "kept") << "name of length " << length;
        ASSERT_LT(watch.largestRequest(), 256u) << "length " << length;
    }

    kx::kxBaseStream stream;
    stream.SetBuffer(Bytes(10));
    EXPECT_TRUE(stream.checkRemaining(8, 1) && stream.checkRemaining(2, 5) && stream.checkRemaining(1000, 0));
    EXPECT_FALSE(stream.Failed());
    EXPECT_FALSE(stream.checkRemaining(1, SIZE_MAX)) << "the test must not overflow";
    EXPECT_TRUE(stream.Failed() && stream.GetPosition() == 0u);
    stream.Rewind();
    EXPECT_FALSE(stream.checkRemaining(SIZE_MAX / 2, 3));
    EXPECT_TRUE(stream.Failed());
}
