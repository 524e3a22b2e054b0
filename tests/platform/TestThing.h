#ifndef TESTTHING_H
#define TESTTHING_H

#include "kxBaseStream.h"
#include "kxObject.h"

#include <cstdint>

// A streamable object that counts its live instances, so tests see leaks directly.
class TestThing : public kx::kxObject
{
public:
    static const kx::kxRtti TYPE;
    static int msLive;

    TestThing() { ++msLive; }
    ~TestThing() override { --msLive; }
    const kx::kxRtti& GetType() const override { return TYPE; }

    void Save(kx::kxBaseStream& stream) const override
    {
        kx::kxObject::Save(stream);
        stream.writele(2, 1, &mSmall);
        stream.writele(8, 1, &mValue);
    }
    void Load(kx::kxBaseStream& stream) override
    {
        kx::kxObject::Load(stream);
        stream.readle(2, 1, &mSmall);
        stream.readle(8, 1, &mValue);
    }
    void PostLink(kx::kxBaseStream&) override { ++mPostLinks; }

    template <class T>
    static kx::kxObject* Factory(kx::kxBaseStream& stream)
    {
        T* thing = new T;
        thing->Load(stream);
        return thing;
    }

    uint16_t mSmall = 0;
    double mValue = 0.0;
    int mPostLinks = 0;
};

#endif
