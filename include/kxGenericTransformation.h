#ifndef KXGENERICTRANSFORMATION_H
#define KXGENERICTRANSFORMATION_H

#include "Wm4Foundation.h"

namespace kx
{
/// Affine map y = M·(S∘x) + T of 3D space. In RS form M is a rotation and the per-axis
/// scale S applies; otherwise M is a general linear map that already holds any scaling and
/// S is ignored (it may hold a stale value, which keeps the identity flag false). Cached
/// flags pick the short path of every operation. A plain value: copy it freely; distinct
/// objects may be used from distinct threads, one object is not synchronised. Inputs are
/// not checked: NaN and infinities pass through.
template <typename Real>
class kxGenericTransformation
{
public:
    typedef Wm4::Matrix3<Real> Matrix3;
    typedef Wm4::Matrix4<Real> Matrix4;
    typedef Wm4::Vector3<Real> Vector3;
    typedef Wm4::Plane3<Real> Plane3;

    /// The identity, all three flags set.
    kxGenericTransformation();

    /// Back to the identity, all three flags set.
    void MakeIdentity();
    /// Scale (1,1,1), uniform flag set; the identity flag is left as it was, so call
    /// recomputeIsIdentity() if the result may now be the identity.
    void MakeUnitScale();

    bool IsIdentity() const { return mIsIdentity; }
    bool IsRSMatrix() const { return mIsRSMatrix; }
    /// RS form with three equal scales.
    bool IsUniformScale() const { return mIsRSMatrix && mIsUniformScale; }
    /// False when any of the fifteen stored values is NaN or infinite.
    bool IsFinite() const;

    /// Stores a rotation and enters RS form; the uniform flag is kept.
    void SetRotate(const Matrix3& rotate);
    /// Stores a general linear map and leaves RS form; the scale field is kept but unused.
    void SetMatrix(const Matrix3& matrix);
    void SetTranslate(const Vector3& translate);
    /// Stores the scale; uniform when the three values compare equal.
    void SetScale(const Vector3& scale);
    void SetUniformScale(Real scale);

    /// Changing the matrix through this reference does not update any flag.
    Matrix3& GetRotate() { return mMatrix; }
    const Matrix3& GetRotate() const { return mMatrix; }
    const Matrix3& GetMatrix() const { return mMatrix; }
    const Vector3& GetTranslate() const { return mTranslate; }
    const Vector3& GetScale() const { return mScale; }
    Real GetUniformScale() const { return mScale[0]; }

    /// The largest |scale| in RS form unless all three are exactly 1; otherwise the
    /// max-row-sum norm of the matrix (so a pure rotation gives its row-sum norm, not 1).
    Real GetNorm() const;

    /// The identity returns p bit for bit, whatever withTranslation says.
    Vector3 ApplyForward(const Vector3& p, bool withTranslation) const;
    /// Per-element ApplyForward of in[0..count-1] into out; nothing when count <= 0.
    /// in and out must not overlap unless they are the same array.
    void ApplyForward(int count, const Vector3* in, Vector3* out, bool withTranslation) const;
    /// Inverse map. A zero uniform scale gives (MAX_REAL, MAX_REAL, MAX_REAL); a zero among
    /// unequal scales gives infinities and NaN; a matrix counted singular gives zero.
    Vector3 ApplyInverse(const Vector3& p, bool withTranslation) const;
    /// Batch inverse, always removing the translation; unlike the single call it has no
    /// zero test for a uniform scale.
    void ApplyInverse(int count, const Vector3* in, Vector3* out) const;
    /// The inverse of the linear part.
    Vector3 InvertVector(const Vector3& v) const;

    /// Image of the plane {x : n·x = c}. In uniform RS form the normal is only rotated and
    /// keeps its length; otherwise it comes out unit length.
    Plane3 ApplyForward(const Plane3& plane) const;
    /// Image of a surface normal through the inverse transpose, unit length, or zero when
    /// it cannot be normalised.
    Vector3 ApplyNormal(const Vector3& normal) const;

    /// The 4×4 matrix in row-vector convention (p·H): rows 0..2 hold the columns of M
    /// (scaled in RS form), row 3 holds the translation.
    void GetHomogeneous(Matrix4& out) const;
    /// Replaces this with a decomposition of h into rotation × scale + translation, or a
    /// general matrix when that fails. rowVectorConvention true reads the layout that
    /// GetHomogeneous writes; false reads its transpose. Translations shorter than 1e-3
    /// are dropped, and so are translations with a NaN component; a reflection becomes a
    /// negative first scale. A NaN in the linear part keeps it as a general matrix.
    void FromHomogeneousMatrix(const Matrix4& h, bool rowVectorConvention);

    /// Exact equality of all fifteen values and of the three flags.
    bool operator==(const kxGenericTransformation& o) const;
    bool operator!=(const kxGenericTransformation& o) const { return !(*this == o); }
    /// Tolerant equality (1e-6), flags ignored.
    bool Equals(const kxGenericTransformation& o) const;

    /// Identity flag from the values: translate == 0 and scale == 1 by floating-point
    /// equality, matrix bit for bit equal to the identity (a -0 entry is not).
    void recomputeIsIdentity();

    /// this = a∘b (b first). this must be neither a nor b. In the general case the scale
    /// field of this is not written. A non-uniform axis scale a composed with a uniform
    /// rotation b stays in RS form as b.M·diag(a.s·b.s), which is not a∘b.
    void Product(const kxGenericTransformation& a, const kxGenericTransformation& b);
    /// out = the inverse of this. A matrix counted singular (determinant 0, below
    /// ZERO_TOLERANCE, or negative and not close to -1) gives a zero linear part.
    void Inverse(kxGenericTransformation& out) const;

private:
    Matrix3 mMatrix;
    Vector3 mTranslate;
    Vector3 mScale;
    bool mIsIdentity;
    bool mIsRSMatrix;
    bool mIsUniformScale;
};

extern template class kxGenericTransformation<float>;
extern template class kxGenericTransformation<double>;
} // namespace kx

#endif
