#include "ArrayTestElements.h"

#include <climits>
#include <cstring>
#include <new>
#include <typeinfo>

using namespace arraytest;

namespace
{
typedef ::testing::Types<float, double, int, Wm4::ColorRGBA, Wm4::ColorRGB, Wm4::Matrix2<float>,
                         Wm4::Matrix2<double>, Wm4::Matrix3<float>, Wm4::Matrix3<double>, Wm4::Matrix4<float>,
                         Wm4::Matrix4<double>, Wm4::Plane3<float>, Wm4::Plane3<double>, Wm4::Quaternion<float>,
                         Wm4::Quaternion<double>, Wm4::Vector3<float>, Wm4::Vector3<double>>
    AllElementTypes;

template <typename T>
class SharedArrayStream : public ::testing::Test
{
protected:
    void SetUp() override { kx::kxTSharedArray<T>::RegisterFactory(); }
};
TYPED_TEST_SUITE(SharedArrayStream, AllElementTypes);

// What SaveObject must write for an unnamed array, built from the element accessors.
template <typename T>
std::vector<unsigned char> ExpectedStream(const kx::kxTSharedArray<T>& array)
{
    std::vector<unsigned char> bytes;
    AppendString(bytes, Element<T>::Name);
    AppendString(bytes, "");
    AppendLE(bytes, static_cast<uint32_t>(array.GetID()));
    AppendLE(bytes, static_cast<int32_t>(array.GetQuantity()));
    for (int i = 0; i < array.GetQuantity(); ++i)
        for (int k = 0; k < Element<T>::Count; ++k)
            AppendLE(bytes, Get(array[i], k));
    return bytes;
}

// A type name (when given), an unnamed object part and a quantity, followed by trailing
// zero bytes.
std::vector<unsigned char> StreamWithQuantity(const std::string& typeName, uint32_t id, int32_t quantity,
                                              size_t trailing)
{
    std::vector<unsigned char> bytes;
    if (!typeName.empty())
        AppendString(bytes, typeName);
    AppendString(bytes, "");
    AppendLE(bytes, id);
    AppendLE(bytes, quantity);
    bytes.resize(bytes.size() + trailing, 0);
    return bytes;
}
} // namespace

TYPED_TEST(SharedArrayStream, RandomArraysRoundTripThroughTheRegisteredFactory)
{
    typedef kx::kxTSharedArray<TypeParam> Array;
    EXPECT_STREQ(Element<TypeParam>::Name, Array::TYPE.GetName());
    EXPECT_EQ(&kx::kxObject::TYPE, Array::TYPE.GetBaseType());
    EXPECT_EQ(&Array::Factory, kx::kxRttiInterface::FindFactoryFunction(Element<TypeParam>::Name));

    std::mt19937 rng(7);
    for (int quantity : {0, 1, 2, 17, 200})
    {
        kx::kxPointer<Array> original = RandomArray<TypeParam>(rng, quantity);
        kx::kxBaseStream stream;
        stream.SaveObject(*original);
        ASSERT_EQ(ExpectedStream(*original), stream.GetBuffer()) << "quantity " << quantity;

        kx::kxPointer<kx::kxObject> loaded = stream.LoadObject();
        ASSERT_NE(nullptr, loaded.get());
        EXPECT_EQ(0u, stream.GetRemaining());
        ASSERT_TRUE(loaded->IsExactly(Array::TYPE));
        const Array& copy = static_cast<const Array&>(*loaded);
        ExpectSameElements(*original, copy);
        // Even an empty stream array gets its (zero-length) allocation.
        EXPECT_NE(nullptr, copy.GetData());
        EXPECT_TRUE(original->Equals(&copy));
        EXPECT_TRUE(copy.Equals(original));
    }
}

TYPED_TEST(SharedArrayStream, EveryTruncationFailsWithoutAnObjectOrALeak)
{
    typedef kx::kxTSharedArray<TypeParam> Array;
    std::mt19937 rng(11);
    kx::kxPointer<Array> original = RandomArray<TypeParam>(rng, 3);
    kx::kxBaseStream full;
    full.SaveObject(*original);
    const std::vector<unsigned char>& bytes = full.GetBuffer();
    const size_t objectStart = 4 + std::strlen(Element<TypeParam>::Name);

    for (size_t length = 0; length < bytes.size(); ++length)
    {
        kx::kxBaseStream stream;
        stream.SetBuffer(std::vector<unsigned char>(bytes.begin(), bytes.begin() + length));
        kx::kxPointer<kx::kxObject> loaded = stream.LoadObject();
        EXPECT_EQ(nullptr, loaded.get()) << "length " << length;
        if (length < objectStart)
            continue;

        stream.SetBuffer(std::vector<unsigned char>(bytes.begin() + objectStart, bytes.begin() + length));
        Array fresh;
        EXPECT_NO_THROW(fresh.Load(stream)) << "length " << length;
        EXPECT_TRUE(stream.Failed());
        EXPECT_EQ(0, fresh.GetQuantity());
        EXPECT_EQ(nullptr, fresh.GetData());
    }
}

TEST(SharedArrayStream, ObjectPartThatRunsShortIsNotReadAsTheQuantity)
{
    // A name length of 0xFFFFFFFF read again as the quantity would be -1.
    kx::kxBaseStream stream;
    stream.SetBuffer({0xFF, 0xFF, 0xFF, 0xFF, 'a', 'b'});
    kx::kxDoubleArray fresh;
    EXPECT_NO_THROW(fresh.Load(stream));
    EXPECT_TRUE(stream.Failed());
    EXPECT_EQ(0, fresh.GetQuantity());
    EXPECT_EQ(nullptr, fresh.GetData());
}

TEST(SharedArrayStream, FloatArrayIsWrittenAsNameObjectPartQuantityAndFourByteScalars)
{
    kx::kxFloatArray array(2, new float[2]{1.0f, -2.5f});
    kx::kxBaseStream stream;
    stream.SaveObject(array);
    const uint32_t id = array.GetID();
    const std::vector<unsigned char> expected = {
        12, 0, 0, 0, 'k', 'x', 'F', 'l', 'o', 'a', 't', 'A', 'r', 'r', 'a', 'y',
        0, 0, 0, 0,
        uint8_t(id), uint8_t(id >> 8), uint8_t(id >> 16), uint8_t(id >> 24),
        2, 0, 0, 0,
        0x00, 0x00, 0x80, 0x3F,
        0x00, 0x00, 0x20, 0xC0};
    EXPECT_EQ(expected, stream.GetBuffer());
}

TEST(SharedArrayStream, PlaneArrayIsWrittenAsNormalThenConstantInEightByteScalars)
{
    kx::kxPlane3dArray array(1, new Wm4::Plane3<double>[1]);
    array[0] = Wm4::Plane3<double>(Wm4::Vector3<double>(1.0, 0.0, -2.0), 0.5);
    kx::kxBaseStream stream;
    stream.SaveObject(array);
    const uint32_t id = array.GetID();
    const std::vector<unsigned char> expected = {
        14, 0, 0, 0, 'k', 'x', 'P', 'l', 'a', 'n', 'e', '3', 'd', 'A', 'r', 'r', 'a', 'y',
        0, 0, 0, 0,
        uint8_t(id), uint8_t(id >> 8), uint8_t(id >> 16), uint8_t(id >> 24),
        1, 0, 0, 0,
        0, 0, 0, 0, 0, 0, 0xF0, 0x3F,
        0, 0, 0, 0, 0, 0, 0, 0,
        0, 0, 0, 0, 0, 0, 0, 0xC0,
        0, 0, 0, 0, 0, 0, 0xE0, 0x3F};
    EXPECT_EQ(expected, stream.GetBuffer());
}

TEST(SharedArrayStream, ActiveQuantityNarrowsWhatIsSavedWhileTheAllocationStays)
{
    kx::kxIntArray array(5, new int[5]{10, 20, 30, 40, 50});
    int* allocation = array.GetData();
    array.SetActiveQuantity(2);
    EXPECT_EQ(allocation, array.GetData());

    kx::kxBaseStream stream;
    array.Save(stream);
    std::vector<unsigned char> expected = StreamWithQuantity("", array.GetID(), 2, 0);
    AppendLE(expected, 10);
    AppendLE(expected, 20);
    EXPECT_EQ(expected, stream.GetBuffer());

    kx::kxIntArray loaded;
    loaded.Load(stream);
    ASSERT_EQ(2, loaded.GetQuantity());
    EXPECT_EQ(10, loaded[0]);
    EXPECT_EQ(20, loaded[1]);
}

TYPED_TEST(SharedArrayStream, NegativeQuantityThrowsBadArrayLengthFromLoadAndLoadsNoObject)
{
    typedef kx::kxTSharedArray<TypeParam> Array;
    for (int32_t quantity : {-1, INT_MIN})
    {
        kx::kxBaseStream stream;
        stream.SetBuffer(StreamWithQuantity(Element<TypeParam>::Name, 1, quantity, 128));
        kx::kxPointer<kx::kxObject> loaded = stream.LoadObject();
        EXPECT_EQ(nullptr, loaded.get());

        stream.SetBuffer(StreamWithQuantity("", 1, quantity, 128));
        EXPECT_THROW(Array::Factory(stream), std::bad_array_new_length);

        stream.SetBuffer(StreamWithQuantity("", 1, quantity, 128));
        Array fresh;
        EXPECT_THROW(fresh.Load(stream), std::bad_array_new_length);
        EXPECT_EQ(0, fresh.GetQuantity());
        EXPECT_EQ(nullptr, fresh.GetData());
    }
}

// Whether 2^31-1 floats can be had depends on the machine; either way the failure is a
// standard exception or a failed stream, and the array is left as it was.
TEST(SharedArrayStream, EnormousQuantityWithLittleDataFailsAndKeepsNoAllocation)
{
    kx::kxFloatArray::RegisterFactory();
    kx::kxBaseStream stream;
    stream.SetBuffer(StreamWithQuantity("kxFloatArray", 1, INT_MAX, 12));
    kx::kxPointer<kx::kxObject> loaded = stream.LoadObject();
    EXPECT_EQ(nullptr, loaded.get());

    stream.SetBuffer(StreamWithQuantity("", 1, INT_MAX, 12));
    kx::kxFloatArray fresh;
    try
    {
        fresh.Load(stream);
        EXPECT_TRUE(stream.Failed());
    }
    catch (const std::bad_alloc& e)
    {
        EXPECT_EQ(typeid(std::bad_alloc), typeid(e));
    }
    EXPECT_EQ(0, fresh.GetQuantity());
    EXPECT_EQ(nullptr, fresh.GetData());
}

TEST(SharedArrayStream, UnregisteredTypeNameLoadsNothing)
{
    kx::kxColorRGBArray array(1, new Wm4::ColorRGB[1]);
    kx::kxBaseStream stream;
    stream.SaveObject(array);

    kx::kxColorRGBArray::UnRegisterFactory();
    EXPECT_EQ(nullptr, kx::kxRttiInterface::FindFactoryFunction("kxColorRGBArray"));
    kx::kxPointer<kx::kxObject> loaded = stream.LoadObject();
    EXPECT_EQ(nullptr, loaded.get());

    kx::kxColorRGBArray::RegisterFactory();
    stream.Rewind();
    loaded = stream.LoadObject();
    EXPECT_NE(nullptr, loaded.get());
}
