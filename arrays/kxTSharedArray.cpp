#include "kxTSharedArray.h"

#include "kxArrayElement.h"

#include <algorithm>
#include <cstddef>
#include <memory>
#include <new>

namespace kx
{
namespace
{
// Array-new must refuse a negative count with std::bad_array_new_length, but g++ reports
// std::bad_alloc instead for element types with a destructor (the Wm4 matrices, vectors,
// planes, quaternions), so the count is checked here to give every type the same failure.
template <typename T>
T* kxNewArray(int quantity)
{
    if (quantity < 0)
        throw std::bad_array_new_length();
    return new T[quantity];
}

// Filled from source when there is one.
template <typename T>
T* kxDuplicate(const T* source, int quantity)
{
    T* copy = kxNewArray<T>(quantity);
    if (source)
        std::copy(source, source + quantity, copy);
    return copy;
}
} // namespace

template <typename T>
const kxRtti kxTSharedArray<T>::TYPE(kxArrayElement<T>::Name, &kxObject::TYPE);

template <typename T>
kxTSharedArray<T>::kxTSharedArray(const kxTSharedArray& other) : kxObject(), mQuantity(0), mData(nullptr)
{
    if (this == &other)
        return;
    mQuantity = other.mQuantity;
    if (other.mData)
        mData = kxDuplicate(other.mData, other.mQuantity);
}

template <typename T>
kxTSharedArray<T>::~kxTSharedArray()
{
    delete[] mData;
}

template <typename T>
kxTSharedArray<T>& kxTSharedArray<T>::operator=(const kxTSharedArray& other)
{
    if (this == &other)
        return *this;
    // Copy before releasing, so a failed allocation leaves this array intact.
    T* copy = other.mData ? kxDuplicate(other.mData, other.mQuantity) : nullptr;
    delete[] mData;
    mData = copy;
    mQuantity = other.mQuantity;
    return *this;
}

template <typename T>
const kxRtti& kxTSharedArray<T>::GetType() const
{
    return TYPE;
}

template <typename T>
void kxTSharedArray<T>::Load(kxBaseStream& stream)
{
    kxObject::Load(stream);
    // A short object part would otherwise let its bytes be taken for the quantity.
    if (stream.Failed())
        return;
    int quantity = 0;
    if (!stream.readle(4, 1, &quantity))
        return;
    // A quantity the stream cannot hold is refused before anything is allocated for it:
    // a few bytes of a scene file must not ask for gigabytes. A negative one fails in
    // kxNewArray as it always has.
    if (quantity >= 0 && !kxElementsRemain<T>(stream, static_cast<size_t>(quantity)))
        return;
    std::unique_ptr<T[]> data(kxNewArray<T>(quantity));
    if (!kxReadElements(stream, data.get(), static_cast<size_t>(quantity)))
        return;
    mQuantity = quantity;
    mData = data.release();
}

template <typename T>
void kxTSharedArray<T>::PostLink(kxBaseStream& stream)
{
    kxObject::PostLink(stream);
}

template <typename T>
void kxTSharedArray<T>::Save(kxBaseStream& stream) const
{
    kxObject::Save(stream);
    const int quantity = mQuantity;
    stream.writele(4, 1, &quantity);
    if (quantity > 0)
        kxWriteElements(stream, mData, static_cast<size_t>(quantity));
}

template <typename T>
bool kxTSharedArray<T>::Equals(const kxRttiInterface* other) const
{
    if (!other || !other->IsDerived(TYPE) || !kxRttiInterface::Equals(other))
        return false;
    const kxTSharedArray* array = static_cast<const kxTSharedArray*>(other);
    if (array->mQuantity != mQuantity)
        return false;
    for (int i = 0; i < mQuantity; ++i)
        if (!kxElementsClose(mData[i], array->mData[i]))
            return false;
    return true;
}

template <typename T>
bool kxTSharedArray<T>::Clone(kxRttiInterface*& target) const
{
    if (target && !target->IsDerived(TYPE))
        return false;
    // Allocated first so that a failed allocation leaves no half-made target behind.
    std::unique_ptr<T[]> copy(kxDuplicate(mData, mQuantity));
    if (!target)
        target = new kxTSharedArray;
    if (!kxRttiInterface::Clone(target))
        return false;
    kxTSharedArray* clone = static_cast<kxTSharedArray*>(target);
    clone->mQuantity = mQuantity;
    clone->mData = copy.release();
    return true;
}

template <typename T>
kxObject* kxTSharedArray<T>::GetObjectByName(const std::string& name)
{
    return kxObject::GetObjectByName(name);
}

template <typename T>
void kxTSharedArray<T>::GetAllObjectsByName(const std::string& name, std::vector<kxObject*>& objects)
{
    kxObject::GetAllObjectsByName(name, objects);
}

template <typename T>
kxObject* kxTSharedArray<T>::GetObjectByID(unsigned int id)
{
    return kxObject::GetObjectByID(id);
}

template <typename T>
void kxTSharedArray<T>::SetName(const std::string&)
{
}

template <typename T>
const std::string& kxTSharedArray<T>::GetName() const
{
    return kxRttiInterface::sEmptyString;
}

template <typename T>
kxObject* kxTSharedArray<T>::Factory(kxBaseStream& stream)
{
    std::unique_ptr<kxTSharedArray> array(new kxTSharedArray);
    array->Load(stream);
    return array.release();
}

template <typename T>
void kxTSharedArray<T>::RegisterFactory()
{
    kxRttiInterface::RegisterFactoryFunction(std::string(TYPE.GetName()), &Factory);
}

template <typename T>
void kxTSharedArray<T>::UnRegisterFactory()
{
    kxRttiInterface::UnregisterFactoryFunction(std::string(TYPE.GetName()));
}

template class kxTSharedArray<float>;
template class kxTSharedArray<double>;
template class kxTSharedArray<int>;
template class kxTSharedArray<Wm4::ColorRGBA>;
template class kxTSharedArray<Wm4::ColorRGB>;
template class kxTSharedArray<Wm4::Matrix2<float>>;
template class kxTSharedArray<Wm4::Matrix2<double>>;
template class kxTSharedArray<Wm4::Matrix3<float>>;
template class kxTSharedArray<Wm4::Matrix3<double>>;
template class kxTSharedArray<Wm4::Matrix4<float>>;
template class kxTSharedArray<Wm4::Matrix4<double>>;
template class kxTSharedArray<Wm4::Plane3<float>>;
template class kxTSharedArray<Wm4::Plane3<double>>;
template class kxTSharedArray<Wm4::Quaternion<float>>;
template class kxTSharedArray<Wm4::Quaternion<double>>;
template class kxTSharedArray<Wm4::Vector3<float>>;
template class kxTSharedArray<Wm4::Vector3<double>>;
} // namespace kx
