#include "kxGenericTransformation.h"

#include <cfloat>
#include <cmath>
#include <cstddef>
#include <cstring>

namespace kx
{
namespace
{
// Tolerance of the equality and decomposition tests, compared in double for both types.
const double kTolerance = 1e-6;

template <typename Real>
bool withinLargestDouble(Real v)
{
    const double d = v;
    return d >= -DBL_MAX && d <= DBL_MAX;
}

template <typename Real>
bool isIdentityBits(const Wm4::Matrix3<Real>& m)
{
    // Bitwise on purpose: a -0 entry must not count as the identity.
    return std::memcmp(static_cast<const Real*>(m), static_cast<const Real*>(Wm4::Matrix3<Real>::IDENTITY),
                       9 * sizeof(Real)) == 0;
}

template <typename Real>
bool nearIdentity(const Wm4::Matrix3<Real>& m)
{
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c)
            if (!(std::fabs(m[r][c] - (r == c ? Real(1) : Real(0))) < kTolerance))
                return false;
    return true;
}

// Mᵀ·v, summed in the order of the row-vector product.
template <typename Real>
Wm4::Vector3<Real> transposeTimes(const Wm4::Matrix3<Real>& m, const Wm4::Vector3<Real>& v)
{
    return v * m;
}

template <typename Real>
Wm4::Vector3<Real> componentProduct(const Wm4::Vector3<Real>& a, const Wm4::Vector3<Real>& b)
{
    return Wm4::Vector3<Real>(a[0] * b[0], a[1] * b[1], a[2] * b[2]);
}

// 1/s per axis through a single reciprocal in double; no zero test: a zero scale gives an
// infinity on its own axis and NaN (0 times infinity) on the others.
template <typename Real>
Wm4::Vector3<Real> reciprocalScales(const Wm4::Vector3<Real>& s)
{
    const double x = s[0], y = s[1], z = s[2];
    const double d = 1.0 / (z * (x * y));
    return Wm4::Vector3<Real>(static_cast<Real>(z * y * d), static_cast<Real>(z * x * d),
                              static_cast<Real>(x * y * d));
}

template <typename Real>
Real adjugate(const Wm4::Matrix3<Real>& m, Wm4::Matrix3<Real>& adj)
{
    adj[0][0] = m[1][1] * m[2][2] - m[1][2] * m[2][1];
    adj[0][1] = m[0][2] * m[2][1] - m[0][1] * m[2][2];
    adj[0][2] = m[0][1] * m[1][2] - m[0][2] * m[1][1];
    adj[1][0] = m[1][2] * m[2][0] - m[1][0] * m[2][2];
    adj[1][1] = m[0][0] * m[2][2] - m[0][2] * m[2][0];
    adj[1][2] = m[0][2] * m[1][0] - m[0][0] * m[1][2];
    adj[2][0] = m[1][0] * m[2][1] - m[1][1] * m[2][0];
    adj[2][1] = m[0][1] * m[2][0] - m[0][0] * m[2][1];
    adj[2][2] = m[0][0] * m[1][1] - m[0][1] * m[1][0];
    return m[0][0] * adj[0][0] + m[0][1] * adj[1][0] + m[0][2] * adj[2][0];
}

// The tolerance test is signed on purpose: every negative determinant not close to -1
// counts as singular, like a tiny positive one.
template <typename Real>
Wm4::Matrix3<Real> invert3(const Wm4::Matrix3<Real>& m, Real* determinant = nullptr)
{
    Wm4::Matrix3<Real> adj;
    const Real det = adjugate(m, adj);
    if (determinant)
        *determinant = det;
    if (det == Real(0))
        return Wm4::Matrix3<Real>::ZERO;
    const Real invDet = Real(1) / det;
    const Real tolerance = Wm4::Math<Real>::ZERO_TOLERANCE;
    if (det < tolerance && std::fabs(Real(1) / invDet - invDet) > tolerance)
        return Wm4::Matrix3<Real>::ZERO;
    adj *= invDet;
    return adj;
}

// Wild Magic's Length without its assertion: Sqrt returns 0 for a NaN square, but asserts
// first wherever NDEBUG is not defined (a debug build, or a client's copy of the inline
// function). Otherwise it calls std::sqrt, so results stay the same bit for bit.
template <typename Real>
Real lengthOrZero(const Wm4::Vector3<Real>& v)
{
    const Real squared = v[0] * v[0] + v[1] * v[1] + v[2] * v[2];
    return squared >= Real(0) ? std::sqrt(squared) : Real(0);
}

template <typename Real>
Wm4::Vector3<Real> unitOrZero(const Wm4::Vector3<Real>& v)
{
    const Real length = lengthOrZero(v);
    const Real invLength = Real(1) / length;
    if (length == Real(0) || static_cast<double>(invLength) > DBL_MAX)
        return Wm4::Vector3<Real>(Real(0), Real(0), Real(0));
    return v * invLength;
}

// Adding a zero translation would turn -0 into +0, so the translation is skipped, not zeroed.
template <typename Real, typename Linear>
void applyEach(int count, const Wm4::Vector3<Real>* in, Wm4::Vector3<Real>* out, bool withTranslation,
               const Wm4::Vector3<Real>& translate, Linear linear)
{
    if (withTranslation)
        for (int i = 0; i < count; ++i)
            out[i] = linear(in[i]) + translate;
    else
        for (int i = 0; i < count; ++i)
            out[i] = linear(in[i]);
}
} // namespace

template <typename Real>
kxGenericTransformation<Real>::kxGenericTransformation()
    : mMatrix(Matrix3::IDENTITY), mTranslate(Vector3::ZERO), mScale(Vector3::ONE), mIsIdentity(true),
      mIsRSMatrix(true), mIsUniformScale(true)
{
}

template <typename Real>
void kxGenericTransformation<Real>::MakeIdentity()
{
    *this = kxGenericTransformation();
}

template <typename Real>
void kxGenericTransformation<Real>::MakeUnitScale()
{
    mScale = Vector3::ONE;
    mIsUniformScale = true;
}

template <typename Real>
bool kxGenericTransformation<Real>::IsFinite() const
{
    for (int i = 0; i < 3; ++i)
        if (!withinLargestDouble(mTranslate[i]))
            return false;
    for (int i = 0; i < 3; ++i)
        if (!withinLargestDouble(mScale[i]))
            return false;
    for (int i = 0; i < 9; ++i)
        if (!withinLargestDouble(static_cast<const Real*>(mMatrix)[i]))
            return false;
    return true;
}

template <typename Real>
void kxGenericTransformation<Real>::SetRotate(const Matrix3& rotate)
{
    mMatrix = rotate;
    mIsRSMatrix = true;
    recomputeIsIdentity();
}

template <typename Real>
void kxGenericTransformation<Real>::SetMatrix(const Matrix3& matrix)
{
    mMatrix = matrix;
    mIsRSMatrix = false;
    mIsUniformScale = false;
    recomputeIsIdentity();
}

template <typename Real>
void kxGenericTransformation<Real>::SetTranslate(const Vector3& translate)
{
    mTranslate = translate;
    recomputeIsIdentity();
}

template <typename Real>
void kxGenericTransformation<Real>::SetScale(const Vector3& scale)
{
    mScale = scale;
    mIsUniformScale = scale[1] == scale[0] && scale[0] == scale[2];
    recomputeIsIdentity();
}

template <typename Real>
void kxGenericTransformation<Real>::SetUniformScale(Real scale)
{
    mScale = Vector3(scale, scale, scale);
    mIsUniformScale = true;
    recomputeIsIdentity();
}

template <typename Real>
Real kxGenericTransformation<Real>::GetNorm() const
{
    if (mIsRSMatrix)
    {
        Real lo = std::fabs(mScale[0]), hi = lo;
        for (int i = 1; i < 3; ++i)
        {
            const Real a = std::fabs(mScale[i]);
            if (a < lo)
                lo = a;
            if (a > hi)
                hi = a;
        }
        if (lo != Real(1) || hi != Real(1))
            return hi;
    }
    Real norm = 0;
    for (int r = 0; r < 3; ++r)
    {
        const Real sum = std::fabs(mMatrix[r][0]) + std::fabs(mMatrix[r][1]) + std::fabs(mMatrix[r][2]);
        if (sum > norm)
            norm = sum;
    }
    return norm;
}

template <typename Real>
typename kxGenericTransformation<Real>::Vector3 kxGenericTransformation<Real>::ApplyForward(const Vector3& p,
                                                                                            bool withTranslation) const
{
    if (mIsIdentity)
        return p;
    Vector3 q = mIsRSMatrix ? mMatrix * componentProduct(mScale, p) : mMatrix * p;
    if (withTranslation)
        q += mTranslate;
    return q;
}

template <typename Real>
void kxGenericTransformation<Real>::ApplyForward(int count, const Vector3* in, Vector3* out,
                                                 bool withTranslation) const
{
    if (count <= 0)
        return;
    if (mIsIdentity)
    {
        const size_t bytes = static_cast<size_t>(count) * sizeof(Vector3);
        Wm4::System::Memcpy(out, bytes, in, bytes);
        return;
    }
    if (mIsRSMatrix)
        applyEach(count, in, out, withTranslation, mTranslate,
                  [this](const Vector3& p) { return mMatrix * componentProduct(mScale, p); });
    else
        applyEach(count, in, out, withTranslation, mTranslate, [this](const Vector3& p) { return mMatrix * p; });
}

template <typename Real>
typename kxGenericTransformation<Real>::Vector3 kxGenericTransformation<Real>::InvertVector(const Vector3& v) const
{
    if (mIsIdentity)
        return v;
    if (!mIsRSMatrix)
        return invert3(mMatrix) * v;
    const Vector3 q = transposeTimes(mMatrix, v);
    if (!mIsUniformScale)
        return componentProduct(q, reciprocalScales(mScale));
    if (mScale[0] == Real(0))
        return Vector3(Wm4::Math<Real>::MAX_REAL, Wm4::Math<Real>::MAX_REAL, Wm4::Math<Real>::MAX_REAL);
    return q * (Real(1) / mScale[0]);
}

template <typename Real>
typename kxGenericTransformation<Real>::Vector3 kxGenericTransformation<Real>::ApplyInverse(const Vector3& p,
                                                                                            bool withTranslation) const
{
    if (mIsIdentity)
        return p;
    return InvertVector(withTranslation ? p - mTranslate : p);
}

template <typename Real>
void kxGenericTransformation<Real>::ApplyInverse(int count, const Vector3* in, Vector3* out) const
{
    if (count <= 0)
        return;
    if (mIsIdentity)
    {
        const size_t bytes = static_cast<size_t>(count) * sizeof(Vector3);
        Wm4::System::Memcpy(out, bytes, in, bytes);
        return;
    }
    if (!mIsRSMatrix)
    {
        const Matrix3 inverse = invert3(mMatrix);
        for (int i = 0; i < count; ++i)
            out[i] = inverse * (in[i] - mTranslate);
    }
    else if (mIsUniformScale)
    {
        // No zero test here, unlike the single call: a zero scale gives infinities or NaN.
        const Real invScale = Real(1) / mScale[0];
        for (int i = 0; i < count; ++i)
            out[i] = transposeTimes(mMatrix, in[i] - mTranslate) * invScale;
    }
    else
    {
        const Vector3 factors = reciprocalScales(mScale);
        for (int i = 0; i < count; ++i)
            out[i] = componentProduct(transposeTimes(mMatrix, in[i] - mTranslate), factors);
    }
}

template <typename Real>
typename kxGenericTransformation<Real>::Plane3 kxGenericTransformation<Real>::ApplyForward(const Plane3& plane) const
{
    if (mIsIdentity)
        return plane;
    Vector3 n;
    if (mIsRSMatrix)
    {
        if (mIsUniformScale)
        {
            n = mMatrix * plane.Normal;
            return Plane3(n, mScale[0] * plane.Constant + n.Dot(mTranslate));
        }
        n = mMatrix * componentProduct(plane.Normal, reciprocalScales(mScale));
    }
    else
    {
        n = plane.Normal * invert3(mMatrix);
    }
    const Real length = std::sqrt(n.Dot(n));
    n = n * (Real(1) / length);
    return Plane3(n, plane.Constant / length + n.Dot(mTranslate));
}

template <typename Real>
typename kxGenericTransformation<Real>::Vector3 kxGenericTransformation<Real>::ApplyNormal(const Vector3& normal) const
{
    kxGenericTransformation inverse;
    Inverse(inverse);
    const Matrix3 m = inverse.mIsRSMatrix ? inverse.mMatrix.TimesDiagonal(inverse.mScale) : inverse.mMatrix;
    const Vector3 n = transposeTimes(m, normal);
    const Real length = std::sqrt(n.Dot(n));
    if (length != Real(0))
    {
        const Real invLength = Real(1) / length;
        if (static_cast<double>(invLength) <= DBL_MAX)
            return n * invLength;
    }
    return Vector3(Real(0), Real(0), Real(0));
}

template <typename Real>
void kxGenericTransformation<Real>::GetHomogeneous(Matrix4& out) const
{
    for (int j = 0; j < 3; ++j)
    {
        for (int i = 0; i < 3; ++i)
            out[j][i] = mIsRSMatrix ? mMatrix[i][j] * mScale[j] : mMatrix[i][j];
        out[j][3] = Real(0);
    }
    out[3][0] = mTranslate[0];
    out[3][1] = mTranslate[1];
    out[3][2] = mTranslate[2];
    out[3][3] = Real(1);
}

template <typename Real>
void kxGenericTransformation<Real>::FromHomogeneousMatrix(const Matrix4& h, bool rowVectorConvention)
{
    Vector3 c[3], u[3];
    for (int j = 0; j < 3; ++j)
        c[j] = rowVectorConvention ? Vector3(h[j][0], h[j][1], h[j][2]) : Vector3(h[0][j], h[1][j], h[2][j]);
    const Vector3 t = rowVectorConvention ? Vector3(h[3][0], h[3][1], h[3][2]) : Vector3(h[0][3], h[1][3], h[2][3]);

    for (int j = 0; j < 3; ++j)
        u[j] = unitOrZero(c[j]);

    Real det;
    const Matrix3 qInverse = invert3(Matrix3(u[0], u[1], u[2], true), &det);
    bool orthogonal = true;
    for (int i = 0; i < 3; ++i)
    {
        const Vector3 d = Vector3(qInverse[i][0], qInverse[i][1], qInverse[i][2]) - u[i];
        if (!(d.SquaredLength() < kTolerance))
            orthogonal = false;
    }

    bool accepted = false, uniform = true;
    Real s[3] = {Real(1), Real(1), Real(1)};
    if (orthogonal)
    {
        if (det < Real(0))
            u[0] = -u[0];
        for (int j = 0; j < 3; ++j)
            s[j] = u[j].Dot(c[j]);
        // Signed on purpose: negative cross terms always pass.
        accepted = true;
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j)
                if (i != j && !(u[i].Dot(c[j]) < kTolerance))
                    accepted = false;
        uniform = std::fabs(s[1] - s[0]) < kTolerance && std::fabs(s[2] - s[1]) < kTolerance;
    }

    MakeIdentity();
    // Shorter translations are dropped on purpose.
    if (t.SquaredLength() >= kTolerance)
        SetTranslate(t);

    const Matrix3 linear(c[0], c[1], c[2], true);
    if (!accepted)
    {
        SetMatrix(linear);
        return;
    }
    if (nearIdentity(linear))
        return;
    const Matrix3 rotation(u[0], u[1], u[2], true);
    if (!nearIdentity(rotation))
        SetRotate(rotation);
    if (!uniform)
        SetScale(Vector3(s[0], s[1], s[2]));
    else if (std::fabs(s[0] - Real(1)) > kTolerance)
        SetUniformScale(s[0]);
}

template <typename Real>
bool kxGenericTransformation<Real>::operator==(const kxGenericTransformation& o) const
{
    for (int i = 0; i < 9; ++i)
        if (static_cast<const Real*>(mMatrix)[i] != static_cast<const Real*>(o.mMatrix)[i])
            return false;
    for (int i = 0; i < 3; ++i)
        if (mTranslate[i] != o.mTranslate[i] || mScale[i] != o.mScale[i])
            return false;
    return mIsIdentity == o.mIsIdentity && mIsRSMatrix == o.mIsRSMatrix && mIsUniformScale == o.mIsUniformScale;
}

template <typename Real>
bool kxGenericTransformation<Real>::Equals(const kxGenericTransformation& o) const
{
    for (int i = 0; i < 9; ++i)
        if (!(std::fabs(static_cast<const Real*>(mMatrix)[i] - static_cast<const Real*>(o.mMatrix)[i]) < kTolerance))
            return false;
    return (mTranslate - o.mTranslate).SquaredLength() < kTolerance &&
           (mScale - o.mScale).SquaredLength() < kTolerance;
}

template <typename Real>
void kxGenericTransformation<Real>::recomputeIsIdentity()
{
    // Translate and scale by floating-point equality, the matrix bit for bit: this mixed
    // test decides which short paths later operations take.
    mIsIdentity = mTranslate[0] == Real(0) && mTranslate[1] == Real(0) && mTranslate[2] == Real(0) &&
                  mScale[0] == Real(1) && mScale[1] == Real(1) && mScale[2] == Real(1) && isIdentityBits(mMatrix);
}

template <typename Real>
void kxGenericTransformation<Real>::Product(const kxGenericTransformation& a, const kxGenericTransformation& b)
{
    if (a.mIsIdentity)
    {
        *this = b;
        return;
    }
    if (b.mIsIdentity)
    {
        *this = a;
        return;
    }
    if (a.mIsRSMatrix && b.mIsRSMatrix)
    {
        bool rs = true;
        if (a.mIsUniformScale)
        {
            mMatrix = a.mMatrix * b.mMatrix;
            mTranslate = (a.mMatrix * b.mTranslate) * a.mScale[0] + a.mTranslate;
            mScale = componentProduct(a.mScale, b.mScale);
        }
        else if (isIdentityBits(a.mMatrix) && b.mIsUniformScale)
        {
            // Keeps RS form although a's non-uniform scale does not commute with b's
            // rotation: the result is b.M·diag(a.s·b.s), not a∘b. Required behaviour.
            mMatrix = b.mMatrix;
            mScale = a.mScale * b.mScale[0];
            mTranslate = componentProduct(a.mScale, b.mTranslate) + a.mTranslate;
        }
        else if (isIdentityBits(a.mMatrix) && isIdentityBits(b.mMatrix))
        {
            mMatrix = Matrix3::IDENTITY;
            mScale = componentProduct(a.mScale, b.mScale);
            mTranslate = componentProduct(a.mScale, b.mTranslate) + a.mTranslate;
        }
        else
        {
            rs = false;
        }
        if (rs)
        {
            mIsRSMatrix = true;
            mIsUniformScale = mScale[1] == mScale[0] && mScale[0] == mScale[2];
            recomputeIsIdentity();
            return;
        }
    }

    const Matrix3 ma = a.mIsRSMatrix ? a.mMatrix.TimesDiagonal(a.mScale) : a.mMatrix;
    const Matrix3 mb = b.mIsRSMatrix ? b.mMatrix.TimesDiagonal(b.mScale) : b.mMatrix;
    // The scale field is left as it was; a stale value keeps the identity flag false.
    mMatrix = ma * mb;
    recomputeIsIdentity();
    mIsRSMatrix = false;
    mIsUniformScale = false;
    mTranslate = ma * b.mTranslate + a.mTranslate;
    recomputeIsIdentity();
}

template <typename Real>
void kxGenericTransformation<Real>::Inverse(kxGenericTransformation& out) const
{
    if (mIsIdentity)
    {
        out = *this;
        return;
    }
    kxGenericTransformation r;
    if (!mIsRSMatrix)
    {
        r.mMatrix = invert3(mMatrix);
        r.mIsRSMatrix = false;
        r.mIsUniformScale = false;
        r.mTranslate = -(r.mMatrix * mTranslate);
    }
    else if (mIsUniformScale)
    {
        const Real inv = Real(1) / mScale[0];
        r.mMatrix = mMatrix.Transpose();
        r.mScale = Vector3(inv, inv, inv);
        r.mTranslate = -((r.mMatrix * mTranslate) * inv);
    }
    else if (std::fabs(mScale[1]) == std::fabs(mScale[0]) && std::fabs(mScale[2]) == std::fabs(mScale[0]))
    {
        const Real inv = Real(1) / std::fabs(mScale[0]);
        const Matrix3 transpose = mMatrix.Transpose();
        Matrix3 scaled;
        r.mMatrix = transpose;
        int negatives = 0;
        for (int i = 0; i < 3; ++i)
        {
            const Real invScale = Real(1) / mScale[i];
            for (int k = 0; k < 3; ++k)
                scaled[i][k] = invScale * transpose[i][k];
            if (mScale[i] < Real(0))
            {
                ++negatives;
                for (int k = 0; k < 3; ++k)
                    r.mMatrix[i][k] = -r.mMatrix[i][k];
            }
        }
        r.mTranslate = -(scaled * mTranslate);
        // An odd count leaves a reflection in the rows; moving it into the first scale
        // keeps the matrix a rotation.
        if (negatives % 2 == 1)
        {
            for (int k = 0; k < 3; ++k)
                r.mMatrix[k][0] = -r.mMatrix[k][0];
            r.mScale = Vector3(-inv, inv, inv);
            r.mIsUniformScale = false;
        }
        else
        {
            r.mScale = Vector3(inv, inv, inv);
        }
    }
    else
    {
        // A full product on purpose: an infinite reciprocal meets the zeros and spreads NaN.
        const Matrix3 d(Real(1) / mScale[0], Real(1) / mScale[1], Real(1) / mScale[2]);
        r.mMatrix = d * mMatrix.Transpose();
        r.mIsRSMatrix = false;
        r.mIsUniformScale = false;
        r.mTranslate = -(r.mMatrix * mTranslate);
    }
    r.recomputeIsIdentity();
    out = r;
}

template class kxGenericTransformation<float>;
template class kxGenericTransformation<double>;
} // namespace kx
