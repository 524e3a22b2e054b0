#ifndef KXRTTI_H
#define KXRTTI_H

#include <string>

namespace kx
{
class kxBaseStream;
class kxObject;

/// A run-time type record: a name and the record of the base type.
class kxRtti
{
public:
    constexpr kxRtti(const char* name, const kxRtti* base) : mName(name), mBase(base) {}

    const char* GetName() const { return mName; }
    const kxRtti* GetBaseType() const { return mBase; }
    bool IsExactly(const kxRtti& type) const { return this == &type; }
    /// True when this type is type or derives from it.
    bool IsDerived(const kxRtti& type) const;

private:
    const char* mName;
    const kxRtti* mBase;
};

/// Root of the toolkit's object hierarchy: type records, tolerant comparison, cloning
/// and the registry of stream factories (type name -> function that loads an object).
/// Virtual operations are declared in the toolkit's slot order.
class kxRttiInterface
{
public:
    static const kxRtti TYPE;
    static const std::string sEmptyString;

    typedef kxObject* (*FactoryFunction)(kxBaseStream&);

    virtual ~kxRttiInterface();
    virtual const kxRtti& GetType() const;
    virtual void IncrementReferences() const = 0;
    virtual void DecrementReferences() const = 0;
    virtual int GetReferences() const = 0;
    virtual void Load(kxBaseStream& stream) = 0;
    virtual void PostLink(kxBaseStream& stream) = 0;
    virtual void Save(kxBaseStream& stream) const = 0;
    /// Base part of a comparison: true when other is not null.
    virtual bool Equals(const kxRttiInterface* other) const;
    /// Base part of a clone: true when target is not null.
    virtual bool Clone(kxRttiInterface*& target) const;

    bool IsExactly(const kxRtti& type) const { return GetType().IsExactly(type); }
    bool IsDerived(const kxRtti& type) const { return GetType().IsDerived(type); }

    /// Registers (or replaces) the factory for a type name; false when it replaced one.
    static bool RegisterFactoryFunction(const std::string& name, FactoryFunction factory);
    /// False when no factory was registered under the name.
    static bool UnregisterFactoryFunction(const std::string& name);
    /// Null when none is registered.
    static FactoryFunction FindFactoryFunction(const std::string& name);
};
} // namespace kx

#endif
