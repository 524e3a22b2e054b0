#ifndef KXPOINTER_H
#define KXPOINTER_H

#include <utility>

namespace kx
{
/// Intrusive smart pointer over the reference count of kxObject.
template <typename T>
class kxPointer
{
public:
    kxPointer(T* object = nullptr) : mObject(object)
    {
        if (mObject)
            mObject->IncrementReferences();
    }
    kxPointer(const kxPointer& other) : kxPointer(other.mObject) {}
    kxPointer(kxPointer&& other) noexcept : mObject(other.mObject) { other.mObject = nullptr; }
    ~kxPointer()
    {
        if (mObject)
            mObject->DecrementReferences();
    }

    kxPointer& operator=(T* object)
    {
        if (object != mObject)
        {
            if (object)
                object->IncrementReferences();
            T* old = mObject;
            mObject = object;
            if (old)
                old->DecrementReferences();
        }
        return *this;
    }
    kxPointer& operator=(const kxPointer& other) { return *this = other.mObject; }
    kxPointer& operator=(kxPointer&& other) noexcept
    {
        std::swap(mObject, other.mObject);
        return *this;
    }

    T* get() const { return mObject; }
    T& operator*() const { return *mObject; }
    T* operator->() const { return mObject; }
    operator T*() const { return mObject; }

private:
    T* mObject;
};
} // namespace kx

#endif
