#ifndef KXOBJECT_H
#define KXOBJECT_H

#include "kxPointer.h"
#include "kxRtti.h"

#include <atomic>
#include <string>
#include <vector>

namespace kx
{
class kxController;

/// Reference-counted, named scene object with a unique id. A new object has no
/// references; DecrementReferences deletes it when the count drops to zero.
/// On a stream its part is the name (4-byte little-endian length, bytes), then the id
/// (4 bytes).
class kxObject : public kxRttiInterface
{
public:
    static const kxRtti TYPE;

    kxObject();
    ~kxObject() override;
    kxObject(const kxObject&) = delete;
    kxObject& operator=(const kxObject&) = delete;

    const kxRtti& GetType() const override;
    void IncrementReferences() const override;
    void DecrementReferences() const override;
    int GetReferences() const override;
    /// Reads the object part; a short stream leaves the stream in its failed state.
    void Load(kxBaseStream& stream) override;
    void PostLink(kxBaseStream& stream) override;
    void Save(kxBaseStream& stream) const override;

    virtual int GetControllerQuantity() const;
    /// Null when i is out of range.
    virtual kxController* GetController(int i) const;
    virtual void SetControllerQuantity(int quantity);
    virtual void SetController(int i, kxController* controller);
    /// Appends the controller unless it is attached already.
    virtual void AttachController(kxController* controller);
    virtual void DetachController(kxController* controller);
    virtual void DetachAllControllers();

    /// This object when its name matches, else null.
    virtual kxObject* GetObjectByName(const std::string& name);
    virtual void GetAllObjectsByName(const std::string& name, std::vector<kxObject*>& objects);
    /// This object when its id matches, else null.
    virtual kxObject* GetObjectByID(unsigned int id);

    virtual void SetName(const std::string& name);
    virtual const std::string& GetName() const;
    /// Prints type, name, id and reference count to standard output, indented.
    virtual void debugObject(int indent) const;

    unsigned int GetID() const { return mID; }

private:
    mutable std::atomic<int> mReferences;
    std::string mName;
    unsigned int mID;
    std::vector<kxPointer<kxController>> mControllers;
};

/// A controller is an object attached to another object; the stand-in keeps no behaviour.
class kxController : public kxObject
{
public:
    static const kxRtti TYPE;
    const kxRtti& GetType() const override;
};
} // namespace kx

#endif
