#include "ArrayTestElements.h"

#include "kxVertexBuffer.h"

#include <algorithm>
#include <cmath>
#include <initializer_list>

using namespace arraytest;

namespace
{
template <typename T>
kx::kxTSharedArray<T> ArrayOf(std::initializer_list<T> values)
{
    T* data = new T[values.size()];
    std::copy(values.begin(), values.end(), data);
    return kx::kxTSharedArray<T>(static_cast<int>(values.size()), data);
}

template <typename T>
bool Equal(std::initializer_list<T> a, std::initializer_list<T> b)
{
    const kx::kxTSharedArray<T> first = ArrayOf(a);
    const kx::kxTSharedArray<T> second = ArrayOf(b);
    return first.Equals(&second);
}

template <typename Real>
Real Ulps(Real value, int steps)
{
    for (int i = 0; i < steps; ++i)
        value = std::nextafter(value, std::numeric_limits<Real>::infinity());
    return value;
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
class SharedArraySquaredDistance : public ::testing::Test
{
};
typedef ::testing::Types<Wm4::Vector3<float>, Wm4::Vector3<double>, Wm4::Quaternion<float>, Wm4::Quaternion<double>>
    SquaredDistanceTypes;
TYPED_TEST_SUITE(SharedArraySquaredDistance, SquaredDistanceTypes);
} // namespace

TEST(SharedArrayEquals, VectorsAndQuaternionsUseSquaredDistanceIntsExactnessOthersEveryScalar)
{
    typedef Wm4::Vector3<float> V;
    EXPECT_TRUE(Equal({V(1, 2, 3), V(-4, 5, 0)}, {V(1, 2, 3), V(-4, 5, 0.0005f)}));
    EXPECT_FALSE(Equal({V(1, 2, 3), V(-4, 5, 0)}, {V(1, 2, 3), V(-4, 5, 0.001f)}));
    // 5.001f - 5 is 0.00099993 in float: the stored difference is what counts.
    EXPECT_TRUE(Equal({V(1, 2, 3), V(-4, 5, 0)}, {V(1, 2, 3), V(-4, 5.001f, 0)}));
    // 0.0006 on each axis: every coordinate is close, the distance is not.
    EXPECT_FALSE(Equal({V(1, 2, 3)}, {V(1.0006f, 2.0006f, 3.0006f)}));

    typedef Wm4::Quaternion<double> Q;
    EXPECT_TRUE(Equal({Q(1, 0, 0, 0)}, {Q(1, 0.0005, 0, 0.0005)}));
    EXPECT_FALSE(Equal({Q(1, 0, 0, 0)}, {Q(1, 0.0006, 0.0006, 0.0006)}));

    typedef Wm4::Matrix2<float> M;
    EXPECT_FALSE(Equal({M(1, 2, 3, 4)}, {M(1, 2.0005f, 3, 4)}));
    EXPECT_TRUE(Equal({M(1, 2, 3, 4)}, {M(1, 2, 3, Ulps(4.0f, 2))}));
    EXPECT_FALSE(Equal({M(1, 2, 3, 4)}, {M(1, 2, 3, Ulps(4.0f, 3))}));
    EXPECT_FALSE(Equal({Wm4::ColorRGB(0.5f, 0.5f, 0.5f)}, {Wm4::ColorRGB(0.5f, 0.5005f, 0.5f)}));

    EXPECT_TRUE(Equal({5, -7, 0x7FFFFFFF}, {5, -7, 0x7FFFFFFF}));
    EXPECT_FALSE(Equal({5, -7, 0x7FFFFFFF}, {5, -7, 0x7FFFFFFE}));
}

TEST(SharedArrayEquals, FloatDifferencesAreComparedWithOneMillionthInDouble)
{
    // 1e-6f lies just below 1e-6: equal in double, not when compared with 1e-6f.
    EXPECT_TRUE(Equal({0.0f}, {1e-6f}));
    EXPECT_FALSE(Equal({0.0f}, {Ulps(1e-6f, 1)}));
    // Near 1 a float step is about 1.19e-7: eight steps are within 1e-6, nine are not.
    EXPECT_TRUE(Equal({1.0f}, {Ulps(1.0f, 8)}));
    EXPECT_FALSE(Equal({1.0f}, {Ulps(1.0f, 9)}));
    typedef Wm4::Plane3<float> P;
    EXPECT_TRUE(Equal({P(Wm4::Vector3<float>(0, 0, 1), 0.0f)}, {P(Wm4::Vector3<float>(0, 0, 1), 1e-6f)}));

    EXPECT_FALSE(Equal({0.0}, {1e-6}));
    EXPECT_TRUE(Equal({0.0}, {std::nextafter(1e-6, 0.0)}));
}

// Pairs whose squared distance lies within a few rounding steps of 1e-6 are decided as
// the sum formed in the element's own precision says, which differs from the sum formed
// in a wider precision often enough to tell the two apart.
TYPED_TEST(SharedArraySquaredDistance, BoundaryCasesFollowTheSumInTheElementPrecision)
{
    typedef typename Element<TypeParam>::Scalar Scalar;
    typedef typename std::conditional<std::is_same<Scalar, float>::value, double, long double>::type Wider;
    std::mt19937 rng(3);
    std::uniform_real_distribution<Scalar> position(-0.01, 0.01);
    std::normal_distribution<double> direction(0.0, 1.0);
    const int trials = 20000;
    int decisive = 0;
    int equal = 0;
    for (int trial = 0; trial < trials; ++trial)
    {
        double offset[ScalarCount<TypeParam>];
        double length = 0.0;
        for (double& o : offset)
        {
            o = direction(rng);
            length += o * o;
        }
        TypeParam a, b;
        Scalar* x = ScalarsOf(a);
        Scalar* y = ScalarsOf(b);
        Scalar sum = 0;
        Wider widerSum = 0;
        for (int k = 0; k < ScalarCount<TypeParam>; ++k)
        {
            x[k] = position(rng);
            y[k] = x[k] + static_cast<Scalar>(offset[k] * 1e-3 / std::sqrt(length));
            const Scalar d = x[k] - y[k];
            sum += d * d;
            const Wider wd = static_cast<Wider>(x[k]) - static_cast<Wider>(y[k]);
            widerSum += wd * wd;
        }
        const bool expected = static_cast<double>(sum) < 1e-6;
        decisive += expected != (widerSum < static_cast<Wider>(1e-6));
        equal += expected;

        const kx::kxTSharedArray<TypeParam> first(1, new TypeParam[1]{a});
        const kx::kxTSharedArray<TypeParam> second(1, new TypeParam[1]{b});
        ASSERT_EQ(expected, first.Equals(&second)) << "trial " << trial;
        ASSERT_EQ(expected, second.Equals(&first)) << "trial " << trial;
    }
    EXPECT_GT(decisive, 0);
    EXPECT_GT(equal, trials / 10);
    EXPECT_LT(equal, trials - trials / 10);
}

TEST(SharedArrayEquals, RejectsNullOtherTypesAndOtherQuantitiesButAcceptsDerivedTypes)
{
    const kx::kxFloatArray array = ArrayOf({1.0f, 2.0f});
    EXPECT_TRUE(array.Equals(&array));
    EXPECT_FALSE(array.Equals(nullptr));

    const kx::kxDoubleArray doubles = ArrayOf({1.0, 2.0});
    EXPECT_FALSE(array.Equals(&doubles));
    EXPECT_FALSE(doubles.Equals(&array));
    const kx::kxVertexBuffer vertices(2);
    EXPECT_FALSE(array.Equals(&vertices));

    kx::kxFloatArray longer = ArrayOf({1.0f, 2.0f, 99.0f});
    EXPECT_FALSE(array.Equals(&longer));
    EXPECT_FALSE(longer.Equals(&array));
    longer.SetActiveQuantity(2);
    EXPECT_TRUE(array.Equals(&longer));

    const TaggedFloatArray tagged(2, new float[2]{1.0f, 2.0f});
    EXPECT_TRUE(array.Equals(&tagged));
    EXPECT_TRUE(tagged.Equals(&array));

    const kx::kxFloatArray empty;
    const kx::kxFloatArray hollow(0, nullptr);
    EXPECT_TRUE(empty.Equals(&hollow));
}

TEST(SharedArrayCopy, CopiesAreDeepAndGetAFreshBase)
{
    std::mt19937 rng(5);
    kx::kxPointer<kx::kxMatrix3dArray> original = RandomArray<Wm4::Matrix3<double>>(rng, 4);
    const kx::kxMatrix3dArray copy(*original);
    ExpectSameElements(*original, copy);
    EXPECT_NE(original->GetData(), copy.GetData());
    EXPECT_NE(original->GetID(), copy.GetID());
    EXPECT_EQ(0, copy.GetReferences());

    const kx::kxMatrix3dArray hollow(3, nullptr);
    const kx::kxMatrix3dArray hollowCopy(hollow);
    EXPECT_EQ(3, hollowCopy.GetQuantity());
    EXPECT_EQ(nullptr, hollowCopy.GetData());
}

TEST(SharedArrayCopy, AssignmentReplacesTheElementsAndKeepsTheBase)
{
    std::mt19937 rng(6);
    kx::kxPointer<kx::kxVector3fArray> target = RandomArray<Wm4::Vector3<float>>(rng, 2);
    kx::kxPointer<kx::kxVector3fArray> source = RandomArray<Wm4::Vector3<float>>(rng, 5);
    const unsigned int id = target->GetID();

    *target = *source;
    ExpectSameElements(*source, *target);
    EXPECT_NE(source->GetData(), target->GetData());
    EXPECT_EQ(id, target->GetID());
    EXPECT_EQ(1, target->GetReferences());

    const Wm4::Vector3<float>* data = target->GetData();
    const kx::kxVector3fArray& alias = *target;
    *target = alias;
    EXPECT_EQ(data, target->GetData());
    ExpectSameElements(*source, *target);

    *target = kx::kxVector3fArray(3, nullptr);
    EXPECT_EQ(3, target->GetQuantity());
    EXPECT_EQ(nullptr, target->GetData());
}

TEST(SharedArrayClone, ClonesIntoANewArrayOrAnExistingOneOfAMatchingType)
{
    std::mt19937 rng(8);
    kx::kxPointer<kx::kxQuaternionfArray> original = RandomArray<Wm4::Quaternion<float>>(rng, 6);

    kx::kxRttiInterface* target = nullptr;
    ASSERT_TRUE(original->Clone(target));
    ASSERT_NE(nullptr, target);
    kx::kxPointer<kx::kxObject> owner = static_cast<kx::kxObject*>(target);
    ASSERT_TRUE(target->IsExactly(kx::kxQuaternionfArray::TYPE));
    const kx::kxQuaternionfArray& fresh = static_cast<const kx::kxQuaternionfArray&>(*target);
    ExpectSameElements(*original, fresh);
    EXPECT_NE(original->GetData(), fresh.GetData());

    kx::kxQuaternionfArray existing;
    target = &existing;
    ASSERT_TRUE(original->Clone(target));
    EXPECT_EQ(&existing, target);
    ExpectSameElements(*original, existing);

    kx::kxQuaterniondArray otherType;
    target = &otherType;
    EXPECT_FALSE(original->Clone(target));
    EXPECT_EQ(&otherType, target);
    EXPECT_EQ(0, otherType.GetQuantity());

    const kx::kxFloatArray floats = ArrayOf({3.0f, 4.0f});
    TaggedFloatArray tagged;
    target = &tagged;
    ASSERT_TRUE(floats.Clone(target));
    EXPECT_TRUE(tagged.Equals(&floats));

    // An impossible count fails before a new target is made, so nothing is left behind.
    original->SetActiveQuantity(-1);
    target = nullptr;
    EXPECT_THROW(original->Clone(target), std::bad_array_new_length);
    EXPECT_EQ(nullptr, target);
    EXPECT_THROW(kx::kxQuaternionfArray copy(*original), std::bad_array_new_length);
}

TEST(SharedArrayClone, HollowSourceStillAllocatesAndTheTargetsOldArrayIsLeftToTheCaller)
{
    const kx::kxFloatArray hollow(3, nullptr);
    kx::kxFloatArray target;
    kx::kxRttiInterface* pointer = &target;
    ASSERT_TRUE(hollow.Clone(pointer));
    EXPECT_EQ(3, target.GetQuantity());
    EXPECT_NE(nullptr, target.GetData());

    // Cloning is meant for fresh targets: the array held before stays the caller's.
    float* previous = target.GetData();
    const kx::kxFloatArray filled = ArrayOf({4.0f, 5.0f});
    ASSERT_TRUE(filled.Clone(pointer));
    EXPECT_NE(previous, target.GetData());
    EXPECT_TRUE(target.Equals(&filled));
    delete[] previous;
}

TEST(SharedArrayObject, HasNoNameOfItsOwnAndFindsItselfByTheEmptyNameAndItsID)
{
    kx::kxIntArray array = ArrayOf({1, 2});
    array.SetName("points");
    EXPECT_EQ(&kx::kxRttiInterface::sEmptyString, &array.GetName());
    kx::kxObject& object = array;
    EXPECT_EQ(&array, object.GetObjectByName(""));
    EXPECT_EQ(nullptr, object.GetObjectByName("points"));
    EXPECT_EQ(&array, object.GetObjectByID(array.GetID()));
    std::vector<kx::kxObject*> found;
    object.GetAllObjectsByName("", found);
    EXPECT_EQ(std::vector<kx::kxObject*>{&array}, found);
}
