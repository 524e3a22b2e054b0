#ifndef KXTSHAREDARRAY_H
#define KXTSHAREDARRAY_H

#include "Wm4Foundation.h"
#include "kxBaseStream.h"
#include "kxObject.h"

#include <string>
#include <vector>

namespace kx
{
/// A reference-counted scene object owning a plain array of T, streamable through
/// kxBaseStream and loadable by type name through the factory registry. Provided for the
/// seventeen element types named by the typedefs below; other T do not link.
///
/// The array is allocated with array-new and released with array-delete by the
/// destructor. The object has no name of its own: SetName is ignored and GetName is
/// always empty. Not thread-safe beyond the reference count of kxObject.
template <typename T>
class kxTSharedArray : public kxObject
{
public:
    static const kxRtti TYPE;

    /// Quantity 0, null data.
    kxTSharedArray() : mQuantity(0), mData(nullptr) {}
    /// Adopts data (from array-new, or null); quantity is not checked against it.
    kxTSharedArray(int quantity, T* data) : mQuantity(quantity), mData(data) {}
    /// Deep copy of quantity and elements; the base part (name, id, references) is new.
    /// A null source array gives a null array with the source's quantity.
    kxTSharedArray(const kxTSharedArray& other);
    ~kxTSharedArray() override;
    /// Deep copy; the base part is kept. Self-assignment does nothing.
    kxTSharedArray& operator=(const kxTSharedArray& other);

    const kxRtti& GetType() const override;

    /// Reads what Save writes into a fresh object; an array held before is not released.
    /// A negative quantity throws std::bad_array_new_length before any element is read.
    /// A quantity whose elements need more bytes than the stream still holds allocates
    /// nothing and counts as a short stream: the stream is left failed and the object
    /// keeps its quantity and data. A quantity the stream holds but that cannot be
    /// allocated throws std::bad_alloc.
    void Load(kxBaseStream& stream) override;
    void PostLink(kxBaseStream& stream) override;
    /// Object part, 4-byte signed quantity, then quantity elements scalar by scalar,
    /// little-endian. Elements must be readable for the whole quantity.
    void Save(kxBaseStream& stream) const override;
    /// True for an array of the same element type (or derived) whose base part compares
    /// equal, with the same quantity and every element within the element type's
    /// tolerance. Elements of both arrays must be readable for the whole quantity.
    bool Equals(const kxRttiInterface* other) const override;
    /// Copies into target, or into a new array (owned by the caller) when target is null.
    /// False when target is not of this type. The target always gets a new allocation of
    /// quantity elements, even when this array's data is null; an array it held before is
    /// not released.
    bool Clone(kxRttiInterface*& target) const override;

    kxObject* GetObjectByName(const std::string& name) override;
    void GetAllObjectsByName(const std::string& name, std::vector<kxObject*>& objects) override;
    kxObject* GetObjectByID(unsigned int id) override;
    void SetName(const std::string& name) override;
    const std::string& GetName() const override;

    int GetQuantity() const { return mQuantity; }
    T* GetData() const { return mData; }
    operator const T*() const { return mData; }
    operator T*() { return mData; }
    /// Not bounds-checked.
    const T& operator[](int i) const { return mData[i]; }
    T& operator[](int i) { return mData[i]; }
    /// Sets how many elements are in use (saved, compared, copied) without touching the
    /// allocation; not checked against it.
    void SetActiveQuantity(int quantity) { mQuantity = quantity; }

    /// Makes an array and loads it from the stream; what Load throws passes through and
    /// the array is released.
    static kxObject* Factory(kxBaseStream& stream);
    /// Registers Factory under TYPE's name.
    static void RegisterFactory();
    static void UnRegisterFactory();

protected:
    int mQuantity;
    T* mData;
};

extern template class kxTSharedArray<float>;
extern template class kxTSharedArray<double>;
extern template class kxTSharedArray<int>;
extern template class kxTSharedArray<Wm4::ColorRGBA>;
extern template class kxTSharedArray<Wm4::ColorRGB>;
extern template class kxTSharedArray<Wm4::Matrix2<float>>;
extern template class kxTSharedArray<Wm4::Matrix2<double>>;
extern template class kxTSharedArray<Wm4::Matrix3<float>>;
extern template class kxTSharedArray<Wm4::Matrix3<double>>;
extern template class kxTSharedArray<Wm4::Matrix4<float>>;
extern template class kxTSharedArray<Wm4::Matrix4<double>>;
extern template class kxTSharedArray<Wm4::Plane3<float>>;
extern template class kxTSharedArray<Wm4::Plane3<double>>;
extern template class kxTSharedArray<Wm4::Quaternion<float>>;
extern template class kxTSharedArray<Wm4::Quaternion<double>>;
extern template class kxTSharedArray<Wm4::Vector3<float>>;
extern template class kxTSharedArray<Wm4::Vector3<double>>;

typedef kxTSharedArray<float> kxFloatArray;
typedef kxTSharedArray<double> kxDoubleArray;
typedef kxTSharedArray<int> kxIntArray;
typedef kxTSharedArray<Wm4::ColorRGBA> kxColorRGBAArray;
typedef kxTSharedArray<Wm4::ColorRGB> kxColorRGBArray;
typedef kxTSharedArray<Wm4::Matrix2<float>> kxMatrix2fArray;
typedef kxTSharedArray<Wm4::Matrix2<double>> kxMatrix2dArray;
typedef kxTSharedArray<Wm4::Matrix3<float>> kxMatrix3fArray;
typedef kxTSharedArray<Wm4::Matrix3<double>> kxMatrix3dArray;
typedef kxTSharedArray<Wm4::Matrix4<float>> kxMatrix4fArray;
typedef kxTSharedArray<Wm4::Matrix4<double>> kxMatrix4dArray;
typedef kxTSharedArray<Wm4::Plane3<float>> kxPlane3fArray;
typedef kxTSharedArray<Wm4::Plane3<double>> kxPlane3dArray;
typedef kxTSharedArray<Wm4::Quaternion<float>> kxQuaternionfArray;
typedef kxTSharedArray<Wm4::Quaternion<double>> kxQuaterniondArray;
typedef kxTSharedArray<Wm4::Vector3<float>> kxVector3fArray;
typedef kxTSharedArray<Wm4::Vector3<double>> kxVector3dArray;
} // namespace kx

#endif
