#include "kxGenericTransformation.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

namespace
{
template <typename Real> using Xf = kx::kxGenericTransformation<Real>;
template <typename Real> using V3 = Wm4::Vector3<Real>;
template <typename Real> using M3 = Wm4::Matrix3<Real>;
template <typename Real> using M4 = Wm4::Matrix4<Real>;

// Error allowed per unit of the magnitude bound of an operation.
template <typename Real>
constexpr double kEps = 8.0 * std::numeric_limits<Real>::epsilon();

enum Kind
{
    kIdentity, kRotation, kUniformPositive, kUniformNegative, kAxisScale, kNonUniformPositive, kMixedSigns,
    kEqualMagnitudeMixedSigns, kGeneralUnitDeterminant, kGeneralUnimodular, kKindCount
};

template <typename Real>
Real uniform(std::mt19937& rng, double lo, double hi)
{
    return Real(std::uniform_real_distribution<double>(lo, hi)(rng));
}

template <typename Real>
V3<Real> randomVector(std::mt19937& rng, double range)
{
    return V3<Real>(uniform<Real>(rng, -range, range), uniform<Real>(rng, -range, range),
                    uniform<Real>(rng, -range, range));
}

template <typename Real>
M3<Real> randomRotation(std::mt19937& rng)
{
    const V3<Real> v = randomVector<Real>(rng, 1.0);
    Wm4::Quaternion<Real> q(uniform<Real>(rng, -1, 1), v[0], v[1], v[2]);
    q.Normalize();
    M3<Real> r;
    q.ToRotationMatrix(r);
    return r;
}

template <typename Real>
Xf<Real> randomTransformation(int kind, std::mt19937& rng)
{
    Xf<Real> t;
    if (kind == kIdentity)
        return t;
    auto sign = [&] { return rng() % 2 ? Real(-1) : Real(1); };
    t.SetTranslate(randomVector<Real>(rng, 10.0));
    const Real a = uniform<Real>(rng, 0.5, 2.0), b = uniform<Real>(rng, 0.5, 2.0), c = uniform<Real>(rng, 0.5, 2.0);
    if (kind == kGeneralUnitDeterminant)
        t.SetMatrix(randomRotation<Real>(rng) * M3<Real>(a, b, 1 / (a * b)) * randomRotation<Real>(rng));
    else if (kind == kGeneralUnimodular) // integers, determinant +-1: the inverse is exact
        t.SetMatrix(M3<Real>(sign(), sign() * (1 + rng() % 2), Real(rng() % 3), 0, 1, sign(), 0, 0, 1));
    else if (kind != kAxisScale)
        t.SetRotate(randomRotation<Real>(rng));

    if (kind == kUniformPositive || kind == kUniformNegative)
        t.SetUniformScale(kind == kUniformNegative ? -a : a);
    else if (kind == kNonUniformPositive)
        t.SetScale(V3<Real>(a, b, c));
    else if (kind == kAxisScale || kind == kMixedSigns || kind == kEqualMagnitudeMixedSigns)
    {
        const bool equal = kind == kEqualMagnitudeMixedSigns;
        V3<Real> s;
        do
            s = V3<Real>(a * sign(), (equal ? a : b) * sign(), (equal ? a : c) * sign());
        while (kind != kAxisScale && (s[0] > 0) == (s[1] > 0) && (s[1] > 0) == (s[2] > 0));
        t.SetScale(s);
    }
    return t;
}

// Calls check(kind, t, rng) for `trials` random transformations of every kind.
template <typename Real, typename Check>
void forEachRandom(unsigned seed, int trials, Check check)
{
    std::mt19937 rng(seed);
    for (int kind = 0; kind < kKindCount; ++kind)
        for (int trial = 0; trial < trials; ++trial)
        {
            SCOPED_TRACE("kind " + std::to_string(kind) + " trial " + std::to_string(trial));
            check(kind, randomTransformation<Real>(kind, rng), rng);
        }
}

template <typename Real>
double maxAbs(const V3<Real>& v)
{
    return std::max(std::fabs(double(v[0])), std::max(std::fabs(double(v[1])), std::fabs(double(v[2]))));
}

// Max-row-sum norm of the effective linear map, read back through the homogeneous matrix.
template <typename Real>
double linearNorm(const Xf<Real>& t)
{
    M4<Real> h;
    t.GetHomogeneous(h);
    double norm = 0;
    for (int i = 0; i < 3; ++i)
        norm = std::max(norm, std::fabs(double(h[0][i])) + std::fabs(double(h[1][i])) + std::fabs(double(h[2][i])));
    return norm;
}

// Magnitude that bounds the rounding of mapping points of size <= 10 through t and back.
template <typename Real>
double roundTripBound(const Xf<Real>& t)
{
    Xf<Real> inverse;
    t.Inverse(inverse);
    return (1 + linearNorm(t)) * (1 + linearNorm(inverse)) * (11 + maxAbs(t.GetTranslate()));
}

template <typename Real>
void expectNear(const V3<Real>& got, const V3<Real>& want, double magnitude)
{
    EXPECT_LE(maxAbs(V3<Real>(got - want)), kEps<Real> * magnitude) << "got " << got << " want " << want;
}

template <typename Real>
bool sameBits(const V3<Real>& a, const V3<Real>& b)
{
    return std::memcmp(&a, &b, sizeof(a)) == 0;
}

template <typename Real>
class GenericTransformation : public ::testing::Test
{
};
using RealTypes = ::testing::Types<float, double>;
TYPED_TEST_SUITE(GenericTransformation, RealTypes);
} // namespace

TYPED_TEST(GenericTransformation, RandomTransformationsRoundTripPointsPlanesNormalsAndHomogeneousMatrices)
{
    using Real = TypeParam;
    forEachRandom<Real>(11, 20, [](int kind, const Xf<Real>& t, std::mt19937& rng) {
        const double bound = roundTripBound(t);
        Xf<Real> inverse;
        t.Inverse(inverse);
        const V3<Real>& s = t.GetScale();
        const int negatives = (s[0] < 0) + (s[1] < 0) + (s[2] < 0);
        if (kind == kEqualMagnitudeMixedSigns)
        {
            // Equal magnitudes stay in RS form; an odd count of reflections moves into the
            // first scale, an even count cancels.
            EXPECT_TRUE(inverse.IsRSMatrix());
            EXPECT_EQ(inverse.IsUniformScale(), negatives % 2 == 0);
            EXPECT_EQ(inverse.GetScale()[0] < 0, negatives % 2 == 1);
            EXPECT_NEAR(inverse.GetMatrix().Determinant(), 1.0, 1e-5);
        }
        std::vector<V3<Real>> p(16), y(16), back(16), linear(16);
        for (auto& v : p)
            v = randomVector<Real>(rng, 10.0);
        t.ApplyForward(16, p.data(), y.data(), true);
        t.ApplyForward(16, p.data(), linear.data(), false);
        t.ApplyInverse(16, y.data(), back.data());
        for (int i = 0; i < 16; ++i)
        {
            EXPECT_TRUE(sameBits(y[i], t.ApplyForward(p[i], true)));
            EXPECT_TRUE(sameBits(linear[i], t.ApplyForward(p[i], false)));
            EXPECT_TRUE(sameBits(back[i], t.ApplyInverse(y[i], true)));
            expectNear(back[i], p[i], bound);
            expectNear(inverse.ApplyForward(y[i], true), p[i], bound);
            expectNear(t.InvertVector(linear[i]), p[i], bound);
        }

        // A plane through the points and its normal stay fitted to the mapped points.
        V3<Real> n = randomVector<Real>(rng, 1.0);
        n.Normalize();
        const V3<Real> u = n.UnitCross(randomVector<Real>(rng, 1.0)), v = n.Cross(u);
        const Wm4::Plane3<Real> plane(n, uniform<Real>(rng, -5.0, 5.0)), mapped = t.ApplyForward(plane);
        const V3<Real> normal = t.ApplyNormal(n);
        EXPECT_NEAR(mapped.Normal.Length(), 1.0, kEps<Real> * bound);
        EXPECT_NEAR(normal.Length(), 1.0, kEps<Real> * bound);
        for (int i = 0; i < 4; ++i)
        {
            const V3<Real> inPlane = u * uniform<Real>(rng, -5.0, 5.0) + v * uniform<Real>(rng, -5.0, 5.0);
            EXPECT_NEAR(mapped.DistanceTo(t.ApplyForward(n * plane.Constant + inPlane, true)), 0.0,
                        kEps<Real> * bound * 4);
            EXPECT_NEAR(normal.Dot(t.ApplyForward(inPlane, false)), 0.0, kEps<Real> * bound);
        }

        // Both matrix conventions decompose alike; mirrors of an RS form land in the first scale.
        M4<Real> h, hBack;
        t.GetHomogeneous(h);
        const Wm4::Vector4<Real> row = Wm4::Vector4<Real>(p[0][0], p[0][1], p[0][2], Real(1)) * h;
        expectNear(V3<Real>(row[0], row[1], row[2]), y[0], bound);
        Xf<Real> fromRows, fromColumns;
        fromRows.FromHomogeneousMatrix(h, true);
        fromColumns.FromHomogeneousMatrix(h.Transpose(), false);
        EXPECT_TRUE(fromRows == fromColumns);
        fromRows.GetHomogeneous(hBack);
        for (int i = 0; i < 16; ++i)
            EXPECT_NEAR(static_cast<const Real*>(hBack)[i], static_cast<const Real*>(h)[i], 1e-5);
        if (!t.IsRSMatrix() || negatives == 0)
        {
            EXPECT_TRUE(fromRows.Equals(t));
            EXPECT_EQ(fromRows.IsRSMatrix(), t.IsRSMatrix());
            return;
        }
        const V3<Real>& r = fromRows.GetScale();
        EXPECT_TRUE(fromRows.IsRSMatrix());
        EXPECT_EQ(r[0] < 0, negatives % 2 == 1);
        EXPECT_TRUE(r[1] > 0 && r[2] > 0);
        for (int i = 0; i < 3; ++i)
            EXPECT_NEAR(std::fabs(r[i]), std::fabs(s[i]), 1e-5);
    });
}

TYPED_TEST(GenericTransformation, ProductAppliesTheSecondThenTheFirstExceptTheAxisScaleShortcut)
{
    using Real = TypeParam;
    forEachRandom<Real>(12, 4, [](int kindA, const Xf<Real>& a, std::mt19937& rng) {
        for (int kindB = 0; kindB < kKindCount; ++kindB)
        {
            const Xf<Real> b = randomTransformation<Real>(kindB, rng);
            Xf<Real> c = randomTransformation<Real>(rng() % kKindCount, rng);
            c.Product(a, b);
            // A non-uniform axis scale after a uniform rotation stays in RS form with the
            // two linear parts swapped.
            const bool shortcut = kindA == kAxisScale && b.IsUniformScale();
            const V3<Real> origin = a.ApplyForward(b.ApplyForward(V3<Real>::ZERO, true), true);
            const double bound = (1 + linearNorm(a)) * (1 + linearNorm(b)) *
                                 (11 + maxAbs(a.GetTranslate()) + maxAbs(b.GetTranslate()));
            double deviation = 0;
            for (int i = 0; i < 8; ++i)
            {
                const V3<Real> p = randomVector<Real>(rng, 10.0);
                const V3<Real> composed = a.ApplyForward(b.ApplyForward(p, true), true);
                deviation = std::max(deviation, maxAbs(V3<Real>(c.ApplyForward(p, true) - composed)));
                expectNear(c.ApplyForward(p, true),
                           shortcut ? b.ApplyForward(a.ApplyForward(p, false), false) + origin : composed, bound);
            }
            EXPECT_TRUE(!shortcut || kindB == kIdentity || deviation > 1e-2);
            EXPECT_TRUE(!(a.IsRSMatrix() && b.IsRSMatrix() && a.IsUniformScale()) || c.IsRSMatrix());
        }
    });
}

TYPED_TEST(GenericTransformation, TheIdentityPassesBitsThroughAndItsTestComparesTheMatrixBitwise)
{
    using Real = TypeParam;
    const Real nan = std::numeric_limits<Real>::quiet_NaN(), tiny = std::numeric_limits<Real>::denorm_min();
    const V3<Real> in[2] = {V3<Real>(Real(-0.0), Real(1.5), tiny), V3<Real>(nan, -1 / tiny, Real(-0.0))};
    Xf<Real> t;
    V3<Real> out[2];
    EXPECT_TRUE(sameBits(t.ApplyForward(in[1], true), in[1]) && sameBits(t.ApplyInverse(in[1], true), in[1]));
    t.ApplyForward(2, in, out, true);
    EXPECT_EQ(std::memcmp(in, out, sizeof(in)), 0);
    std::memset(static_cast<void*>(out), 0x5a, sizeof(out));
    t.ApplyInverse(2, in, out);
    EXPECT_EQ(std::memcmp(in, out, sizeof(in)), 0);

    M3<Real> negativeZero = M3<Real>::IDENTITY;
    negativeZero[0][1] = Real(-0.0);
    t.SetRotate(negativeZero);
    EXPECT_FALSE(t.IsIdentity());
    t.SetRotate(M3<Real>::IDENTITY);
    t.SetTranslate(V3<Real>(Real(-0.0), Real(0), Real(-0.0)));
    EXPECT_TRUE(t.IsIdentity());
    // MakeUnitScale leaves the flag stale until asked.
    t.SetUniformScale(Real(2));
    t.MakeUnitScale();
    EXPECT_TRUE(!t.IsIdentity() && t.IsUniformScale());
    t.recomputeIsIdentity();
    EXPECT_TRUE(t.IsIdentity());
}

TYPED_TEST(GenericTransformation, AGeneralProductKeepsTheTargetsStaleScaleAndSoIsNotTheIdentity)
{
    using Real = TypeParam;
    const V3<Real> p(Real(1.25), Real(-3), Real(0.5));
    Xf<Real> a, b, product, identity, copy;
    a.SetMatrix(M3<Real>(Real(2), Real(4), Real(0.5)));
    b.SetMatrix(M3<Real>(Real(0.5), Real(0.25), Real(2)));
    product.SetUniformScale(Real(2));
    product.Product(a, b);
    EXPECT_TRUE(product.GetMatrix() == M3<Real>::IDENTITY && product.GetTranslate() == V3<Real>::ZERO);
    EXPECT_TRUE(product.GetScale() == V3<Real>(Real(2), Real(2), Real(2)));
    EXPECT_FALSE(product.IsIdentity() || product.IsRSMatrix());
    EXPECT_TRUE(sameBits(product.ApplyForward(p, true), p));
    M4<Real> h;
    product.GetHomogeneous(h);
    EXPECT_TRUE(h == M4<Real>(false));
    // An identity side is a plain copy, stale scale and flags included.
    copy.Product(identity, product);
    EXPECT_TRUE(copy == product);
}

TYPED_TEST(GenericTransformation, NormIsTheRowSumAndZeroOrNegativeDeterminantsInvertToFixedValues)
{
    using Real = TypeParam;
    Xf<Real> t, inverse;
    t.SetRotate(M3<Real>(V3<Real>::UNIT_Z, Real(std::atan(1.0))));
    EXPECT_NEAR(t.GetNorm(), std::sqrt(2.0), 1e-6);
    t.SetScale(V3<Real>(Real(2), Real(-3), Real(1)));
    EXPECT_EQ(t.GetNorm(), Real(3));
    // The reciprocal matrix of unequal scales is a full product: -0.5 * 0 + 0 * 1 + 0 * 0 is
    // +0 where scaling a row would give -0.
    t.SetScale(V3<Real>(Real(-2), Real(4), Real(8)));
    t.SetRotate(M3<Real>::IDENTITY);
    t.Inverse(inverse);
    EXPECT_FALSE(std::signbit(inverse.GetMatrix()[0][1]));

    // A zero uniform scale inverts to MAX_REAL singly but not in batches.
    t.SetRotate(M3<Real>(V3<Real>::UNIT_X, Real(0.3)));
    t.SetTranslate(V3<Real>(Real(1), Real(2), Real(3)));
    t.SetUniformScale(Real(0));
    const Real big = Wm4::Math<Real>::MAX_REAL;
    const V3<Real> p(Real(4), Real(-5), Real(6)), maxReal(big, big, big);
    EXPECT_TRUE(sameBits(t.ApplyInverse(p, true), maxReal) && sameBits(t.InvertVector(p), maxReal));
    V3<Real> out;
    t.ApplyInverse(1, &p, &out);
    EXPECT_FALSE(std::isfinite(out[0]) || std::isfinite(out[1]) || std::isfinite(out[2]));
    // A zero among unequal scales: an infinity on its own axis, 0 times infinity (NaN) on
    // the others, singly and in batches.
    t.SetRotate(M3<Real>::IDENTITY);
    t.SetScale(V3<Real>(Real(0), Real(2), Real(4)));
    for (const V3<Real>& back : {t.ApplyInverse(p, false), t.InvertVector(p)})
        EXPECT_TRUE(std::isinf(back[0]) && std::isnan(back[1]) && std::isnan(back[2]));
    t.ApplyInverse(1, &p, &out);
    EXPECT_TRUE(std::isinf(out[0]) && std::isnan(out[1]) && std::isnan(out[2]));

    // Negative determinants are singular unless close to -1.
    for (Real first : {Real(-2), Real(-0.5), Wm4::Math<Real>::ZERO_TOLERANCE / 2, Real(-1), Real(0.5)})
    {
        t.SetMatrix(M3<Real>(first, Real(1), Real(1)));
        t.Inverse(inverse);
        const bool invertible = first == Real(-1) || first == Real(0.5);
        EXPECT_TRUE(inverse.GetMatrix() == (invertible ? M3<Real>(1 / first, Real(1), Real(1)) : M3<Real>::ZERO))
            << first;
        EXPECT_TRUE(t.ApplyInverse(p, false) == (invertible ? V3<Real>(p[0] / first, p[1], p[2]) : V3<Real>::ZERO));
    }
}

TYPED_TEST(GenericTransformation, DecompositionDropsTinyTranslationsAndNearIdentitiesAndPassesNegativeShear)
{
    using Real = TypeParam;
    Xf<Real> t;
    for (bool rows : {true, false})
    {
        M4<Real> h(false);
        (rows ? h[3][0] : h[0][3]) = Real(0.0005);
        t.FromHomogeneousMatrix(h, rows);
        EXPECT_TRUE(t.IsIdentity() && t.GetTranslate() == V3<Real>::ZERO);
        (rows ? h[3][1] : h[1][3]) = Real(0.0011);
        t.FromHomogeneousMatrix(h, rows);
        EXPECT_TRUE(t.GetTranslate() == V3<Real>(Real(0.0005), Real(0.0011), Real(0)));
        // Its length is no number, so it is not long enough either.
        (rows ? h[3][2] : h[2][3]) = std::numeric_limits<Real>::quiet_NaN();
        t.FromHomogeneousMatrix(h, rows);
        EXPECT_TRUE(t.IsIdentity() && t.GetTranslate() == V3<Real>::ZERO);
    }
    // Within 1e-6 of the identity a linear part is dropped, even with unequal scales.
    M4<Real> almost(false);
    almost[0][0] = Real(1 + 8e-7);
    almost[1][1] = Real(1 - 8e-7);
    t.FromHomogeneousMatrix(almost, true);
    EXPECT_TRUE(t.IsIdentity());
    // The cross-term test has no absolute value: a slightly negative shear passes as RS.
    for (Real shear : {Real(-5e-4), Real(5e-4)})
    {
        M4<Real> sheared(false);
        sheared[1][0] = shear;
        t.FromHomogeneousMatrix(sheared, true);
        EXPECT_EQ(t.IsRSMatrix(), shear < 0);
        EXPECT_NEAR(t.GetMatrix()[0][1], shear, 1e-6);
    }
}

TYPED_TEST(GenericTransformation, EqualsToleratesAMillionthAndIgnoresFlagsWhileTheOperatorIsExact)
{
    using Real = TypeParam;
    Xf<Real> a, b;
    b.SetMatrix(M3<Real>::IDENTITY);
    EXPECT_TRUE(a.Equals(b) && !(a == b));
    // Matrices compare per entry, translations by squared distance.
    for (Real offset : {Real(5e-7), Real(2e-6)})
    {
        b.SetMatrix(M3<Real>(Real(1), offset, Real(0), Real(0), Real(1), Real(0), Real(0), Real(0), Real(1)));
        EXPECT_EQ(a.Equals(b), offset < Real(1e-6));
        b.SetMatrix(M3<Real>::IDENTITY);
        b.SetTranslate(V3<Real>(offset * Real(550), Real(0), Real(0)));
        EXPECT_EQ(a.Equals(b), offset < Real(1e-6)); // distances 2.75e-4 and 1.1e-3
    }
}
