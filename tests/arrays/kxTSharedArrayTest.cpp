#include "kxAllocationWatch.h"
#include "kxTSharedArray.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "element storage is compared with stream bytes");

namespace
{
// Every element is stored as its scalars in stream order, so tests look at that storage.
template <typename T> struct ScalarOf { using type = float; };
template <> struct ScalarOf<double> { using type = double; };
template <> struct ScalarOf<int> { using type = int; };
template <template <typename> class W> struct ScalarOf<W<double>> { using type = double; };
template <typename T>
using Scalar = typename ScalarOf<T>::type;
template <typename T>
constexpr int kScalars = static_cast<int>(sizeof(T) / sizeof(Scalar<T>));

template <typename T>
Scalar<T>* scalars(T& element)
{
    return reinterpret_cast<Scalar<T>*>(&element);
}

template <typename T>
kx::kxTSharedArray<T>* randomArray(std::mt19937& rng, int quantity)
{
    T* data = new T[quantity];
    for (int i = 0; i < quantity; ++i)
        for (int k = 0; k < kScalars<T>; ++k)
            if constexpr (std::is_integral<Scalar<T>>::value)
                scalars(data[i])[k] = static_cast<int>(rng());
            else
                scalars(data[i])[k] = std::uniform_real_distribution<Scalar<T>>(-100, 100)(rng);
    return new kx::kxTSharedArray<T>(quantity, data);
}

template <typename T>
bool equal(std::initializer_list<T> a, std::initializer_list<T> b)
{
    const kx::kxTSharedArray<T> first(int(a.size()), new T[a.size()]), second(int(b.size()), new T[b.size()]);
    std::copy(a.begin(), a.end(), first.GetData());
    std::copy(b.begin(), b.end(), second.GetData());
    return first.Equals(&second);
}

template <typename T>
bool sameElements(const kx::kxTSharedArray<T>& a, const kx::kxTSharedArray<T>& b)
{
    return a.GetQuantity() == b.GetQuantity() &&
           (a.GetQuantity() <= 0 || std::memcmp(a.GetData(), b.GetData(), a.GetQuantity() * sizeof(T)) == 0);
}

// A type name (when given), an unnamed object part and a quantity, then the bytes given.
std::vector<unsigned char> streamBytes(const std::string& typeName, uint32_t id, int32_t quantity,
                                       const void* data = nullptr, size_t size = 0)
{
    std::vector<unsigned char> bytes;
    auto word = [&](uint32_t value) {
        for (int b = 0; b < 4; ++b)
            bytes.push_back(static_cast<unsigned char>(value >> (8 * b)));
    };
    if (!typeName.empty())
    {
        word(static_cast<uint32_t>(typeName.size()));
        for (char c : typeName)
            bytes.push_back(static_cast<unsigned char>(c));
    }
    word(0);
    word(id);
    word(static_cast<uint32_t>(quantity));
    const auto* begin = static_cast<const unsigned char*>(data);
    bytes.insert(bytes.end(), begin, begin + size);
    return bytes;
}

// A subclass whose type record derives from the float array's.
class TaggedFloatArray : public kx::kxFloatArray
{
public:
    static const kx::kxRtti TYPE;
    using kx::kxFloatArray::kxFloatArray;
    const kx::kxRtti& GetType() const override { return TYPE; }
};
const kx::kxRtti TaggedFloatArray::TYPE("TaggedFloatArray", &kx::kxFloatArray::TYPE);

template <typename T>
class SharedArray : public ::testing::Test
{
};
using AllElementTypes =
    ::testing::Types<float, double, int, Wm4::ColorRGBA, Wm4::ColorRGB, Wm4::Matrix2<float>, Wm4::Matrix2<double>,
                     Wm4::Matrix3<float>, Wm4::Matrix3<double>, Wm4::Matrix4<float>, Wm4::Matrix4<double>,
                     Wm4::Plane3<float>, Wm4::Plane3<double>, Wm4::Quaternion<float>, Wm4::Quaternion<double>,
                     Wm4::Vector3<float>, Wm4::Vector3<double>>;
TYPED_TEST_SUITE(SharedArray, AllElementTypes);
} // namespace

TYPED_TEST(SharedArray, RandomArraysRoundTripThroughTheRegisteredFactoryAsTheirScalars)
{
    using Array = kx::kxTSharedArray<TypeParam>;
    Array::RegisterFactory();
    std::mt19937 rng(7);
    for (int quantity : {0, 1, 17})
    {
        kx::kxPointer<Array> original = randomArray<TypeParam>(rng, quantity);
        kx::kxBaseStream stream;
        stream.SaveObject(*original);
        EXPECT_EQ(streamBytes(Array::TYPE.GetName(), original->GetID(), quantity, original->GetData(),
                              quantity * sizeof(TypeParam)),
                  stream.GetBuffer());
        kx::kxPointer<kx::kxObject> loaded = stream.LoadObject();
        ASSERT_NE(nullptr, loaded.get());
        EXPECT_EQ(0u, stream.GetRemaining());
        ASSERT_TRUE(loaded->IsExactly(Array::TYPE));
        const Array& copy = static_cast<const Array&>(*loaded);
        EXPECT_TRUE(sameElements(*original, copy));
        // A stream quantity of 0 still gives a (zero-length) allocation.
        EXPECT_NE(nullptr, copy.GetData());
        EXPECT_TRUE(original->Equals(&copy) && copy.Equals(original));
    }
    Array::UnRegisterFactory();
    EXPECT_EQ(nullptr, kx::kxRttiInterface::FindFactoryFunction(Array::TYPE.GetName()));
    Array::RegisterFactory();
}

TYPED_TEST(SharedArray, EveryTruncationFailsWithoutAnObjectOrALeak)
{
    using Array = kx::kxTSharedArray<TypeParam>;
    Array::RegisterFactory();
    std::mt19937 rng(11);
    kx::kxPointer<Array> original = randomArray<TypeParam>(rng, 3);
    kx::kxBaseStream full;
    full.SaveObject(*original);
    const std::vector<unsigned char>& bytes = full.GetBuffer();
    const size_t objectStart = 4 + std::strlen(Array::TYPE.GetName());
    for (size_t length = 0; length < bytes.size(); ++length)
    {
        kx::kxBaseStream stream;
        stream.SetBuffer(std::vector<unsigned char>(bytes.begin(), bytes.begin() + length));
        {
            const kxtest::AllocationWatch watch;
            EXPECT_EQ(nullptr, kx::kxPointer<kx::kxObject>(stream.LoadObject()).get()) << "length " << length;
            EXPECT_EQ(0u, watch.arrayAllocations()) << "length " << length;
        }
        if (length < objectStart)
            continue;
        stream.SetBuffer(std::vector<unsigned char>(bytes.begin() + objectStart, bytes.begin() + length));
        Array fresh;
        const kxtest::AllocationWatch watch;
        EXPECT_NO_THROW(fresh.Load(stream)) << "length " << length;
        EXPECT_TRUE(stream.Failed() && fresh.GetQuantity() == 0 && fresh.GetData() == nullptr) << "length " << length;
        EXPECT_EQ(0u, watch.arrayAllocations()) << "length " << length;
    }
}

// The stream holds three elements after its quantity. Every quantity it can hold loads
// that many; every larger one, up to far more bytes than the stream has and the largest
// an int can say, loads nothing and allocates nothing for the elements.
TYPED_TEST(SharedArray, AQuantityBeyondTheStreamLoadsNullWithoutAllocatingForIt)
{
    using Array = kx::kxTSharedArray<TypeParam>;
    Array::RegisterFactory();
    std::mt19937 rng(13);
    const int held = 3;
    kx::kxPointer<Array> elements = randomArray<TypeParam>(rng, held);
    auto bytesFor = [&](int32_t quantity) {
        return streamBytes(Array::TYPE.GetName(), 1, quantity, elements->GetData(), held * sizeof(TypeParam));
    };
    std::vector<int32_t> quantities;
    const auto farBeyond = static_cast<int32_t>(4 * bytesFor(0).size());
    for (int32_t quantity = 0; quantity <= farBeyond; ++quantity)
        quantities.push_back(quantity);
    for (int32_t quantity : {1 << 20, 1 << 27, 100000000, 1 << 30, INT_MAX})
        quantities.push_back(quantity);
    for (int32_t quantity : quantities)
    {
        kx::kxBaseStream stream;
        stream.SetBuffer(bytesFor(quantity));
        const kxtest::AllocationWatch watch;
        const kx::kxPointer<kx::kxObject> loaded = stream.LoadObject();
        if (quantity <= held)
        {
            ASSERT_NE(nullptr, loaded.get()) << "quantity " << quantity;
            const Array& array = static_cast<const Array&>(*loaded);
            ASSERT_EQ(quantity, array.GetQuantity());
            ASSERT_EQ(0, std::memcmp(elements->GetData(), array.GetData(), quantity * sizeof(TypeParam)));
            ASSERT_EQ(1u, watch.arrayAllocations());
            continue;
        }
        ASSERT_EQ(nullptr, loaded.get()) << "quantity " << quantity;
        ASSERT_TRUE(stream.Failed()) << "quantity " << quantity;
        ASSERT_EQ(0u, watch.arrayAllocations()) << "quantity " << quantity;
        // The object and its type name, nothing in proportion to the quantity.
        ASSERT_LT(watch.largestRequest(), 1024u) << "quantity " << quantity;
    }
}

TEST(SharedArrayStream, NegativeQuantitiesAndShortObjectPartsLoadNothing)
{
    kx::kxFloatArray::RegisterFactory();
    const std::vector<unsigned char> padding(128);
    for (int32_t quantity : {-1, INT_MIN})
    {
        kx::kxBaseStream stream;
        stream.SetBuffer(streamBytes("kxFloatArray", 1, quantity, padding.data(), padding.size()));
        const kxtest::AllocationWatch watch;
        EXPECT_EQ(nullptr, kx::kxPointer<kx::kxObject>(stream.LoadObject()).get());
        stream.SetBuffer(streamBytes("", 1, quantity, padding.data(), padding.size()));
        kx::kxFloatArray fresh;
        EXPECT_THROW(fresh.Load(stream), std::bad_array_new_length);
        EXPECT_TRUE(fresh.GetQuantity() == 0 && fresh.GetData() == nullptr);
        EXPECT_EQ(0u, watch.arrayAllocations());
    }
    // An object part that runs short: its name length must not be read again as -1 elements.
    kx::kxBaseStream stream;
    stream.SetBuffer({0xFF, 0xFF, 0xFF, 0xFF, 'a', 'b'});
    kx::kxFloatArray fresh;
    EXPECT_NO_THROW(fresh.Load(stream));
    EXPECT_TRUE(stream.Failed());
    EXPECT_EQ(nullptr, fresh.GetData());
}

TEST(SharedArrayStream, GoldenBytesOfAFourAndAnEightByteTypeAndOnlyTheActiveQuantityIsSaved)
{
    kx::kxFloatArray floats(3, new float[3]{1.0f, -2.5f, 7.0f});
    float* allocation = floats.GetData();
    floats.SetActiveQuantity(2);
    EXPECT_EQ(allocation, floats.GetData());
    kx::kxPlane3dArray planes(1, new Wm4::Plane3<double>[1]);
    planes[0] = Wm4::Plane3<double>(Wm4::Vector3<double>(1.0, 0.0, -2.0), 0.5);
    kx::kxBaseStream stream;
    floats.Save(stream);
    planes.Save(stream);
    const uint32_t a = floats.GetID(), b = planes.GetID();
    const std::vector<unsigned char> expected = {
        0, 0, 0, 0, uint8_t(a), uint8_t(a >> 8), uint8_t(a >> 16), uint8_t(a >> 24), 2, 0, 0, 0,
        0x00, 0x00, 0x80, 0x3F, 0x00, 0x00, 0x20, 0xC0,
        0, 0, 0, 0, uint8_t(b), uint8_t(b >> 8), uint8_t(b >> 16), uint8_t(b >> 24), 1, 0, 0, 0,
        0, 0, 0, 0, 0, 0, 0xF0, 0x3F, 0, 0, 0, 0, 0, 0, 0, 0,
        0, 0, 0, 0, 0, 0, 0, 0xC0, 0, 0, 0, 0, 0, 0, 0xE0, 0x3F};
    EXPECT_EQ(expected, stream.GetBuffer());
}

TEST(SharedArrayEquals, MatricesAndColoursCompareEveryScalarIntsExactly)
{
    // Vectors and quaternions compare by squared distance: the randomised test below.
    EXPECT_FALSE(equal({Wm4::Matrix2<float>(1, 2, 3, 4)}, {Wm4::Matrix2<float>(1, 2.0005f, 3, 4)}));
    EXPECT_FALSE(equal({Wm4::ColorRGB(0.5f, 0.5f, 0.5f)}, {Wm4::ColorRGB(0.5f, 0.5005f, 0.5f)}));
    EXPECT_TRUE(equal({5, -7, 0x7FFFFFFF}, {5, -7, 0x7FFFFFFF}));
    EXPECT_FALSE(equal({5, -7, 0x7FFFFFFF}, {5, -7, 0x7FFFFFFE}));
    // Float differences are formed in float and compared with 1e-6 in double: 1e-6f lies
    // just below 1e-6, the next float above it.
    EXPECT_TRUE(equal({0.0f}, {1e-6f}));
    EXPECT_FALSE(equal({0.0f}, {std::nextafter(1e-6f, 1.0f)}));
    EXPECT_FALSE(equal({0.0}, {1e-6}));
    EXPECT_TRUE(equal({0.0}, {std::nextafter(1e-6, 0.0)}));
}

// Pairs whose squared distance lies within a few rounding steps of 1e-6 are decided as
// the sum formed in the element's own precision says, which differs from the sum formed
// in a wider precision often enough to tell the two apart.
TEST(SharedArrayEquals, VectorsAndQuaternionsSumSquaredDistancesInTheElementPrecision)
{
    auto check = [](auto element) {
        using T = decltype(element);
        using Real = Scalar<T>;
        using Wider = std::conditional_t<std::is_same<Real, float>::value, double, long double>;
        std::mt19937 rng(3);
        std::normal_distribution<double> direction(0.0, 1.0);
        int decisive = 0, equals = 0;
        for (int trial = 0; trial < 20000; ++trial)
        {
            double offset[kScalars<T>], length = 0.0;
            for (double& o : offset)
            {
                o = direction(rng);
                length += o * o;
            }
            T a, b;
            Real sum = 0;
            Wider widerSum = 0;
            for (int k = 0; k < kScalars<T>; ++k)
            {
                scalars(a)[k] = std::uniform_real_distribution<Real>(-0.01, 0.01)(rng);
                scalars(b)[k] = scalars(a)[k] + static_cast<Real>(offset[k] * 1e-3 / std::sqrt(length));
                const Real d = scalars(a)[k] - scalars(b)[k];
                const Wider wd = static_cast<Wider>(scalars(a)[k]) - static_cast<Wider>(scalars(b)[k]);
                sum += d * d;
                widerSum += wd * wd;
            }
            const bool expected = static_cast<double>(sum) < 1e-6;
            decisive += expected != (widerSum < static_cast<Wider>(1e-6));
            equals += expected;
            ASSERT_EQ(expected, equal({a}, {b})) << "trial " << trial;
            ASSERT_EQ(expected, equal({b}, {a})) << "trial " << trial;
        }
        EXPECT_GT(decisive, 0);
        EXPECT_GT(equals, 2000);
        EXPECT_LT(equals, 18000);
    };
    check(Wm4::Vector3<float>());
    check(Wm4::Vector3<double>());
    check(Wm4::Quaternion<float>());
    check(Wm4::Quaternion<double>());
}

TEST(SharedArrayEquals, RejectsNullOtherTypesAndOtherQuantitiesButAcceptsDerivedTypes)
{
    const kx::kxFloatArray array(2, new float[2]{1.0f, 2.0f});
    const kx::kxDoubleArray doubles(2, new double[2]{1.0, 2.0});
    kx::kxFloatArray longer(3, new float[3]{1.0f, 2.0f, 99.0f});
    const TaggedFloatArray tagged(2, new float[2]{1.0f, 2.0f});
    EXPECT_FALSE(array.Equals(nullptr) || array.Equals(&doubles) || array.Equals(&longer) || longer.Equals(&array));
    longer.SetActiveQuantity(2);
    EXPECT_TRUE(array.Equals(&array) && array.Equals(&longer) && array.Equals(&tagged) && tagged.Equals(&array));
}

TEST(SharedArrayCopy, CopiesAssignmentsAndClonesAreDeepAndLeaveTheBaseAlone)
{
    std::mt19937 rng(5);
    kx::kxPointer<kx::kxMatrix3dArray> original = randomArray<Wm4::Matrix3<double>>(rng, 4);
    const kx::kxMatrix3dArray copy(*original);
    EXPECT_TRUE(sameElements(*original, copy) && original->GetData() != copy.GetData());
    EXPECT_TRUE(original->GetID() != copy.GetID() && copy.GetReferences() == 0);
    // A null array copies as null with its quantity.
    const kx::kxMatrix3dArray hollowMatrices(3, nullptr), hollowCopy(hollowMatrices);
    EXPECT_TRUE(hollowCopy.GetQuantity() == 3 && hollowCopy.GetData() == nullptr);
    kx::kxPointer<kx::kxMatrix3dArray> target = randomArray<Wm4::Matrix3<double>>(rng, 2);
    const unsigned int id = target->GetID();
    *target = *original;
    *target = *target.get();
    EXPECT_TRUE(sameElements(*original, *target) && original->GetData() != target->GetData());
    EXPECT_TRUE(target->GetID() == id && target->GetReferences() == 1);

    kx::kxRttiInterface* cloned = nullptr;
    ASSERT_TRUE(original->Clone(cloned));
    kx::kxPointer<kx::kxObject> owner = static_cast<kx::kxObject*>(cloned);
    ASSERT_TRUE(cloned->IsExactly(kx::kxMatrix3dArray::TYPE));
    const auto& clone = static_cast<const kx::kxMatrix3dArray&>(*cloned);
    EXPECT_TRUE(sameElements(*original, clone) && original->GetData() != clone.GetData());
    kx::kxMatrix3fArray otherType;
    cloned = &otherType;
    EXPECT_FALSE(original->Clone(cloned));
    EXPECT_EQ(0, otherType.GetQuantity());

    // An existing target of a derived type is filled; a null source still gets an allocation.
    // The array the target held before is the caller's to release.
    const kx::kxFloatArray hollow(3, nullptr), floats(2, new float[2]{4.0f, 5.0f});
    TaggedFloatArray tagged;
    kx::kxRttiInterface* existing = &tagged;
    ASSERT_TRUE(hollow.Clone(existing) && existing == &tagged);
    float* previous = tagged.GetData();
    EXPECT_TRUE(tagged.GetQuantity() == 3 && previous != nullptr);
    ASSERT_TRUE(floats.Clone(existing));
    EXPECT_TRUE(tagged.Equals(&floats));
    delete[] previous;

    // An impossible count fails before a new target is made, so nothing is left behind.
    original->SetActiveQuantity(-1);
    cloned = nullptr;
    EXPECT_THROW(original->Clone(cloned), std::bad_array_new_length);
    EXPECT_EQ(nullptr, cloned);
}
