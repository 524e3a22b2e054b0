// Compiled, with the transformation's source, without NDEBUG: Wild Magic's inline
// functions keep their assertions here, as in a debug build or a client's copy of them.
#ifdef NDEBUG
#error "this test must be compiled without NDEBUG"
#endif

#include "kxGenericTransformation.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>

namespace
{
template <typename Real>
class TransformationWithAssertions : public ::testing::Test
{
};
using Reals = ::testing::Types<float, double>;
TYPED_TEST_SUITE(TransformationWithAssertions, Reals);

template <typename Real>
bool hasNaN(const Wm4::Vector3<Real>& v)
{
    return std::isnan(v[0]) || std::isnan(v[1]) || std::isnan(v[2]);
}
} // namespace

// A NaN anywhere in the linear part of a homogeneous matrix, in either convention: the
// decomposition gives up and keeps the matrix as given, bit for bit, in general form.
// Every operation then runs on it without stopping at an assertion.
TYPED_TEST(TransformationWithAssertions, NaNInputsRunThroughEveryOperationWithoutAnAssertion)
{
    using T = kx::kxGenericTransformation<TypeParam>;
    using M4 = typename T::Matrix4;
    using V3 = typename T::Vector3;
    const TypeParam nan = std::numeric_limits<TypeParam>::quiet_NaN();
    std::mt19937 rng(17);
    std::uniform_real_distribution<TypeParam> entry(-2, 2);
    for (bool rowVectors : {true, false})
        for (int cell = 0; cell < 10; ++cell)
        {
            SCOPED_TRACE(testing::Message() << (rowVectors ? "row" : "column") << " vectors, cell " << cell);
            M4 h(true);
            for (int r = 0; r < 3; ++r)
                for (int c = 0; c < 3; ++c)
                    h[r][c] = entry(rng);
            // Cells 0 to 8 poison one entry, cell 9 all of them.
            for (int k = 0; k < 9; ++k)
                if (k == cell || cell == 9)
                    h[k / 3][k % 3] = nan;
            T t;
            t.FromHomogeneousMatrix(h, rowVectors);
            ASSERT_FALSE(t.IsRSMatrix() || t.IsFinite());
            for (int j = 0; j < 3; ++j)
                for (int i = 0; i < 3; ++i)
                {
                    const TypeParam given = rowVectors ? h[j][i] : h[i][j];
                    ASSERT_EQ(0, std::memcmp(&given, &t.GetMatrix()[i][j], sizeof(TypeParam))) << i << ", " << j;
                }

            const V3 p(entry(rng), entry(rng), entry(rng));
            T inverse, product;
            t.Inverse(inverse);
            product.Product(t, inverse);
            EXPECT_TRUE(hasNaN(t.ApplyForward(p, true)) && hasNaN(product.ApplyForward(p, false)));
            EXPECT_FALSE(inverse.IsFinite());
            // Counted singular or not, the NaN reaches the inverse map or leaves it zero.
            const V3 back = t.ApplyInverse(p, true);
            EXPECT_TRUE(hasNaN(back) || back == V3::ZERO);
            EXPECT_TRUE(hasNaN(t.ApplyForward(typename T::Plane3(p, TypeParam(1))).Normal));
            // A normal that cannot be normalised comes back as zero.
            EXPECT_EQ(V3::ZERO, t.ApplyNormal(p));
        }

    // NaN translations and scales in RS form.
    T rs;
    rs.SetScale(V3(nan, 2, 3));
    rs.SetTranslate(V3(1, nan, 0));
    M4 h;
    rs.GetHomogeneous(h);
    T decomposed;
    decomposed.FromHomogeneousMatrix(h, true);
    EXPECT_FALSE(decomposed.IsFinite());
    EXPECT_TRUE(hasNaN(rs.ApplyInverse(V3(1, 1, 1), true)) && hasNaN(rs.InvertVector(V3(1, 1, 1))));
    EXPECT_EQ(V3::ZERO, rs.ApplyNormal(V3(0, 0, 1)));
}
