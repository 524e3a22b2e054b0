#include "kxObject.h"

#include "kxBaseStream.h"

#include <algorithm>
#include <cstdint>
#include <iostream>

namespace kx
{
const kxRtti kxObject::TYPE("kxObject", &kxRttiInterface::TYPE);
const kxRtti kxController::TYPE("kxController", &kxObject::TYPE);

namespace
{
std::atomic<unsigned int> gNextID{1};
}

kxObject::kxObject() : mReferences(0), mID(gNextID.fetch_add(1)) {}

kxObject::~kxObject() = default;

const kxRtti& kxObject::GetType() const
{
    return TYPE;
}

void kxObject::IncrementReferences() const
{
    mReferences.fetch_add(1);
}

void kxObject::DecrementReferences() const
{
    if (mReferences.fetch_sub(1) == 1)
        delete this;
}

int kxObject::GetReferences() const
{
    return mReferences.load();
}

void kxObject::Load(kxBaseStream& stream)
{
    std::string name;
    uint32_t id = 0;
    if (!stream.readString(name) || !stream.readle(4, 1, &id))
        return;
    mName = name;
}

void kxObject::PostLink(kxBaseStream&) {}

void kxObject::Save(kxBaseStream& stream) const
{
    stream.writeString(GetName());
    const uint32_t id = mID;
    stream.writele(4, 1, &id);
}

int kxObject::GetControllerQuantity() const
{
    return static_cast<int>(mControllers.size());
}

kxController* kxObject::GetController(int i) const
{
    return i >= 0 && i < GetControllerQuantity() ? mControllers[static_cast<size_t>(i)].get() : nullptr;
}

void kxObject::SetControllerQuantity(int quantity)
{
    mControllers.resize(static_cast<size_t>(std::max(quantity, 0)));
}

void kxObject::SetController(int i, kxController* controller)
{
    if (i >= 0 && i < GetControllerQuantity())
        mControllers[static_cast<size_t>(i)] = controller;
}

void kxObject::AttachController(kxController* controller)
{
    if (!controller)
        return;
    for (const kxPointer<kxController>& c : mControllers)
        if (c.get() == controller)
            return;
    mControllers.emplace_back(controller);
}

void kxObject::DetachController(kxController* controller)
{
    mControllers.erase(std::remove_if(mControllers.begin(), mControllers.end(),
                                      [controller](const kxPointer<kxController>& c) { return c.get() == controller; }),
                       mControllers.end());
}

void kxObject::DetachAllControllers()
{
    mControllers.clear();
}

kxObject* kxObject::GetObjectByName(const std::string& name)
{
    return name == GetName() ? this : nullptr;
}

void kxObject::GetAllObjectsByName(const std::string& name, std::vector<kxObject*>& objects)
{
    if (name == GetName())
        objects.push_back(this);
}

kxObject* kxObject::GetObjectByID(unsigned int id)
{
    return id == mID ? this : nullptr;
}

void kxObject::SetName(const std::string& name)
{
    mName = name;
}

const std::string& kxObject::GetName() const
{
    return mName;
}

void kxObject::debugObject(int indent) const
{
    std::cout << std::string(static_cast<size_t>(std::max(indent, 0)), ' ') << GetType().GetName() << " '"
              << GetName() << "' id " << mID << " references " << GetReferences() << '\n';
}

const kxRtti& kxController::GetType() const
{
    return TYPE;
}
} // namespace kx
