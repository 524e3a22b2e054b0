// kxGenericTransformation for float and double: a program of operations decoded from the
// input runs on three transformations, and after each one every const operation runs on
// decoded points, planes and normals. Checked: batches agree with single calls bit for
// bit, the identity returns points unchanged, a recomputed identity flag matches the
// values, finite transformations equal themselves and their copies.
//
// Input: the precision (low bit of the first byte), then operations until the input ends:
// an operation byte, the transformation it works on (byte), and its values.
#include "kxFuzz.h"

#include "kxGenericTransformation.h"

#include <cmath>
#include <cstring>
#include <vector>

namespace
{
using kxfuzz::Input;

constexpr int kMaxOperations = 64;
constexpr int kBatch = 5;

template <typename Real>
Real value(Input& in);
template <>
float value<float>(Input& in)
{
    return in.real();
}
template <>
double value<double>(Input& in)
{
    return in.realDouble();
}

template <typename Real>
bool same(const Wm4::Vector3<Real>& a, const Wm4::Vector3<Real>& b)
{
    // NaN payloads are not part of any contract; NaN matches NaN.
    for (int i = 0; i < 3; ++i)
        if (!(std::memcmp(&a[i], &b[i], sizeof(Real)) == 0 || (std::isnan(a[i]) && std::isnan(b[i]))))
            return false;
    return true;
}

template <typename Real>
struct Program
{
    typedef kx::kxGenericTransformation<Real> Transformation;
    typedef typename Transformation::Vector3 Vector3;
    typedef typename Transformation::Matrix3 Matrix3;
    typedef typename Transformation::Matrix4 Matrix4;
    typedef typename Transformation::Plane3 Plane3;

    Input& in;
    Transformation slots[3];
    bool trusted[3] = {true, true, true};

    Vector3 vector()
    {
        const Real x = value<Real>(in), y = value<Real>(in), z = value<Real>(in);
        return Vector3(x, y, z);
    }

    Matrix3 matrix3()
    {
        Matrix3 m;
        // A rotation about one axis now and then, so that the RS paths see real rotations.
        if (in.byte() & 1)
        {
            const Real angle = value<Real>(in);
            m.MakeRotation(vector(), angle);
            return m;
        }
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 3; ++c)
                m[r][c] = value<Real>(in);
        return m;
    }

    Matrix4 matrix4()
    {
        Matrix4 m;
        for (int r = 0; r < 4; ++r)
            for (int c = 0; c < 4; ++c)
                m[r][c] = value<Real>(in);
        return m;
    }

    // Translation and scale by floating-point equality, the matrix bit for bit.
    static bool identityValues(const Transformation& x)
    {
        for (int i = 0; i < 3; ++i)
            if (!(x.GetTranslate()[i] == Real(0) && x.GetScale()[i] == Real(1)))
                return false;
        return std::memcmp(&x.GetMatrix(), &Matrix3::IDENTITY, sizeof(Matrix3)) == 0;
    }

    void step(int op, int target)
    {
        Transformation& x = slots[target];
        const Transformation& a = slots[(target + 1) % 3];
        const Transformation& b = slots[(target + 2) % 3];
        switch (op)
        {
        case 0: x.MakeIdentity(); break;
        case 1: x.MakeUnitScale(); break;
        case 2: x.SetRotate(matrix3()); break;
        case 3: x.SetMatrix(matrix3()); break;
        case 4: x.SetTranslate(vector()); break;
        case 5: x.SetScale(vector()); break;
        case 6: x.SetUniformScale(value<Real>(in)); break;
        case 7: x.Product(a, b); break;
        case 8: x.Product(a, a); break;
        case 9: a.Inverse(x); break;
        case 10:
        {
            const Matrix4 h = matrix4();
            x.FromHomogeneousMatrix(h, in.byte() & 1);
            break;
        }
        case 11:
        {
            Matrix4 h;
            a.GetHomogeneous(h);
            x.FromHomogeneousMatrix(h, true);
            break;
        }
        case 12:
        {
            const int row = in.byte() % 3, column = in.byte() % 3;
            x.GetRotate()[row][column] = value<Real>(in);
            break;
        }
        default:
            x.recomputeIsIdentity();
            KX_FUZZ_CHECK(x.IsIdentity() == identityValues(x), "the identity flag is %d for %s values",
                          x.IsIdentity(), identityValues(x) ? "identity" : "other");
            break;
        }
        // MakeUnitScale and writes through GetRotate leave the identity flag as it was, and
        // Product and Inverse copy a flag from their operands; everything else recomputes it.
        const bool trustedA = trusted[(target + 1) % 3], trustedB = trusted[(target + 2) % 3];
        switch (op)
        {
        case 1: case 12: trusted[target] = false; break;
        case 7: trusted[target] = trustedA && trustedB; break;
        case 8: case 9: trusted[target] = trustedA; break;
        default: trusted[target] = true; break;
        }
        if (trusted[target])
            KX_FUZZ_CHECK(x.IsIdentity() == identityValues(x), "operation %d leaves the identity flag %d", op,
                          x.IsIdentity());
    }

    void apply(const Transformation& x)
    {
        Vector3 points[kBatch];
        for (Vector3& p : points)
            p = vector();
        const bool withTranslation = in.byte() & 1;

        Vector3 forward[kBatch], inverse[kBatch];
        x.ApplyForward(kBatch, points, forward, withTranslation);
        x.ApplyInverse(kBatch, points, inverse);
        const bool zeroUniformScale = x.IsUniformScale() && !x.IsIdentity() && x.GetUniformScale() == Real(0);
        for (int i = 0; i < kBatch; ++i)
        {
            KX_FUZZ_CHECK(same(forward[i], x.ApplyForward(points[i], withTranslation)),
                          "batch and single ApplyForward differ");
            if (!zeroUniformScale)
                KX_FUZZ_CHECK(same(inverse[i], x.ApplyInverse(points[i], true)),
                              "batch and single ApplyInverse differ");
            KX_FUZZ_CHECK(same(x.InvertVector(points[i]), x.ApplyInverse(points[i], false)),
                          "InvertVector and ApplyInverse without translation differ");
            if (x.IsIdentity())
                KX_FUZZ_CHECK(same(forward[i], points[i]) && same(inverse[i], points[i]),
                              "the identity moves a point");
        }
        // In place, as a caller may do.
        Vector3 inPlace[kBatch];
        std::copy(points, points + kBatch, inPlace);
        x.ApplyForward(kBatch, inPlace, inPlace, withTranslation);
        for (int i = 0; i < kBatch; ++i)
            KX_FUZZ_CHECK(same(inPlace[i], forward[i]), "ApplyForward in place differs");
        x.ApplyForward(0, points, forward, withTranslation);
        x.ApplyInverse(-1, points, inverse);

        const Vector3 normal = vector();
        const Real constant = value<Real>(in);
        const Plane3 plane = x.ApplyForward(Plane3(normal, constant));
        if (x.IsIdentity())
            KX_FUZZ_CHECK(same(plane.Normal, normal), "the identity moves a plane");
        (void)x.ApplyNormal(normal);
        (void)x.GetNorm();
        Matrix4 h;
        x.GetHomogeneous(h);

        if (x.IsFinite())
        {
            KX_FUZZ_CHECK(x == x && x.Equals(x), "a finite transformation differs from itself");
            const Transformation copy = x;
            KX_FUZZ_CHECK(copy == x && copy.Equals(x), "a copy differs");
        }
    }

    void run()
    {
        for (int n = 0; n < kMaxOperations && !in.empty(); ++n)
        {
            const int op = in.byte() % 14;
            const int target = in.byte() % 3;
            step(op, target);
            apply(slots[target]);
        }
    }
};
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Input in(data, size);
    if (in.byte() & 1)
        Program<double>{in, {}}.run();
    else
        Program<float>{in, {}}.run();
    return 0;
}
