#include "ArrayTestElements.h"

#include <climits>
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
    typedef kx::kxTSharedArray<T> Array;
    void SetUp() override { Array::RegisterFactory(); }
};
TYPED_TEST_SUITE(SharedArrayStream, AllElementTypes);
} // namespace

TYPED_TEST(SharedArrayStream, RandomArraysRoundTripThroughTheRegisteredFactory)
{
    typedef typename TestFixture::Array Array;
    EXPECT_STREQ(Element<TypeParam>::Name, Array::TYPE.GetName());
    EXPECT_EQ(&kx::kxObject::TYPE, Array::TYPE.GetBaseType());

    std::mt19937 rng(7);
    for (int quantity : {0, 1, 2, 17, 200})
    {
        kx::kxPointer<Array> original = RandomArray<TypeParam>(rng, quantity);
        kx::kxBaseStream stream;
        stream.SaveObject(*original);
        EXPECT_EQ(StreamBytes(Element<TypeParam>::Name, original->GetID(), quantity, original->GetData(),
                              quantity * sizeof(TypeParam)),
                  stream.GetBuffer());

        kx::kxPointer<kx::kxObject> loaded = stream.LoadObject();
        ASSERT_NE(nullptr, loaded.get());
        EXPECT_EQ(0u, stream.GetRemaining());
        ASSERT_TRUE(loaded->IsExactly(Array::TYPE));
        const Array& copy = static_cast<const Array&>(*loaded);
        ExpectSameElements(*original, copy);
        // A stream quantity of 0 still gives a (zero-length) allocation.
        EXPECT_NE(nullptr, copy.GetData());
        EXPECT_TRUE(original->Equals(&copy));
        EXPECT_TRUE(copy.Equals(original));
    }
}

TYPED_TEST(SharedArrayStream, EveryTruncationFailsWithoutAnObjectOrALeak)
{
    typedef typename TestFixture::Array Array;
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

TYPED_TEST(SharedArrayStream, NegativeQuantityThrowsBadArrayLengthFromLoadAndLoadsNoObject)
{
    typedef typename TestFixture::Array Array;
    const std::vector<unsigned char> padding(128);
    for (int32_t quantity : {-1, INT_MIN})
    {
        kx::kxBaseStream stream;
        stream.SetBuffer(StreamBytes(Element<TypeParam>::Name, 1, quantity, padding.data(), padding.size()));
        kx::kxPointer<kx::kxObject> loaded = stream.LoadObject();
        EXPECT_EQ(nullptr, loaded.get());

        stream.SetBuffer(StreamBytes("", 1, quantity, padding.data(), padding.size()));
        EXPECT_THROW(Array::Factory(stream), std::bad_array_new_length);

        stream.Rewind();
        Array fresh;
        EXPECT_THROW(fresh.Load(stream), std::bad_array_new_length);
        EXPECT_EQ(0, fresh.GetQuantity());
        EXPECT_EQ(nullptr, fresh.GetData());
    }
}

// Whether 2^31-1 floats can be reserved depends on the machine: the failure is either
// std::bad_alloc or a failed stream, and the array is left as it was.
TEST(SharedArrayStream, EnormousQuantityWithLittleDataFailsAndKeepsNoAllocation)
{
    kx::kxFloatArray::RegisterFactory();
    const float data[3] = {1.0f, 2.0f, 3.0f};
    kx::kxBaseStream stream;
    stream.SetBuffer(StreamBytes("kxFloatArray", 1, INT_MAX, data, sizeof data));
    kx::kxPointer<kx::kxObject> loaded = stream.LoadObject();
    EXPECT_EQ(nullptr, loaded.get());

    stream.SetBuffer(StreamBytes("", 1, INT_MAX, data, sizeof data));
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

TEST(SharedArrayStream, ObjectPartThatRunsShortIsNotReadAsTheQuantity)
{
    // The name length 0xFFFFFFFF, read again as the quantity, would be -1.
    kx::kxBaseStream stream;
    stream.SetBuffer({0xFF, 0xFF, 0xFF, 0xFF, 'a', 'b'});
    kx::kxDoubleArray fresh;
    EXPECT_NO_THROW(fresh.Load(stream));
    EXPECT_TRUE(stream.Failed());
    EXPECT_EQ(nullptr, fresh.GetData());
}

TEST(SharedArrayStream, FloatArrayIsNameObjectPartQuantityThenFourByteScalars)
{
    kx::kxFloatArray array(2, new float[2]{1.0f, -2.5f});
    kx::kxBaseStream stream;
    stream.SaveObject(array);
    const uint32_t id = array.GetID();
    const std::vector<unsigned char> expected = {
        12, 0, 0, 0, 'k', 'x', 'F', 'l', 'o', 'a', 't', 'A', 'r', 'r', 'a', 'y',
        0, 0, 0, 0, uint8_t(id), uint8_t(id >> 8), uint8_t(id >> 16), uint8_t(id >> 24),
        2, 0, 0, 0,
        0x00, 0x00, 0x80, 0x3F,
        0x00, 0x00, 0x20, 0xC0};
    EXPECT_EQ(expected, stream.GetBuffer());
}

TEST(SharedArrayStream, PlaneArrayIsNormalThenConstantInEightByteScalars)
{
    kx::kxPlane3dArray array(1, new Wm4::Plane3<double>[1]);
    array[0] = Wm4::Plane3<double>(Wm4::Vector3<double>(1.0, 0.0, -2.0), 0.5);
    kx::kxBaseStream stream;
    stream.SaveObject(array);
    const uint32_t id = array.GetID();
    const std::vector<unsigned char> expected = {
        14, 0, 0, 0, 'k', 'x', 'P', 'l', 'a', 'n', 'e', '3', 'd', 'A', 'r', 'r', 'a', 'y',
        0, 0, 0, 0, uint8_t(id), uint8_t(id >> 8), uint8_t(id >> 16), uint8_t(id >> 24),
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
    EXPECT_EQ(StreamBytes("", array.GetID(), 2, allocation, 2 * sizeof(int)), stream.GetBuffer());
    kx::kxIntArray loaded;
    loaded.Load(stream);
    ASSERT_EQ(2, loaded.GetQuantity());
    EXPECT_EQ(20, loaded[1]);
}

TEST(SharedArrayStream, UnregisteredTypeNameLoadsNothing)
{
    kx::kxColorRGBArray array(1, new Wm4::ColorRGB[1]);
    kx::kxBaseStream stream;
    stream.SaveObject(array);

    kx::kxColorRGBArray::UnRegisterFactory();
    kx::kxPointer<kx::kxObject> loaded = stream.LoadObject();
    EXPECT_EQ(nullptr, loaded.get());

    kx::kxColorRGBArray::RegisterFactory();
    EXPECT_EQ(&kx::kxColorRGBArray::Factory, kx::kxRttiInterface::FindFactoryFunction("kxColorRGBArray"));
    stream.Rewind();
    loaded = stream.LoadObject();
    EXPECT_NE(nullptr, loaded.get());
}
