#include "kxRtti.h"

#include <map>
#include <mutex>

namespace kx
{
const kxRtti kxRttiInterface::TYPE("kxRttiInterface", nullptr);
const std::string kxRttiInterface::sEmptyString;

namespace
{
struct FactoryRegistry
{
    std::mutex mutex;
    std::map<std::string, kxRttiInterface::FactoryFunction> functions;
};

FactoryRegistry& registry()
{
    static FactoryRegistry instance;
    return instance;
}
} // namespace

bool kxRtti::IsDerived(const kxRtti& type) const
{
    for (const kxRtti* t = this; t; t = t->mBase)
        if (t == &type)
            return true;
    return false;
}

kxRttiInterface::~kxRttiInterface() = default;

const kxRtti& kxRttiInterface::GetType() const
{
    return TYPE;
}

bool kxRttiInterface::Equals(const kxRttiInterface* other) const
{
    return other != nullptr;
}

bool kxRttiInterface::Clone(kxRttiInterface*& target) const
{
    return target != nullptr;
}

bool kxRttiInterface::RegisterFactoryFunction(const std::string& name, FactoryFunction factory)
{
    FactoryRegistry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    return r.functions.insert_or_assign(name, factory).second;
}

bool kxRttiInterface::UnregisterFactoryFunction(const std::string& name)
{
    FactoryRegistry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    return r.functions.erase(name) != 0;
}

kxRttiInterface::FactoryFunction kxRttiInterface::FindFactoryFunction(const std::string& name)
{
    FactoryRegistry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = r.functions.find(name);
    return it == r.functions.end() ? nullptr : it->second;
}
} // namespace kx
