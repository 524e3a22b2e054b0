#ifndef TESTTHING_H
#define TESTTHING_H

#include "kxBaseStream.h"
#include "kxObject.h"

// An object that counts its live instances, so tests see leaks directly.
class TestThing : public kx::kxObject
{
public:
    static const kx::kxRtti TYPE;
    static int msLive;

    TestThing() { ++msLive; }
    ~TestThing() override { --msLive; }
    const kx::kxRtti& GetType() const override { return TYPE; }
    void PostLink(kx::kxBaseStream&) override { ++mPostLinks; }

    template <class T>
    static kx::kxObject* Factory(kx::kxBaseStream& stream)
    {
        T* thing = new T;
        thing->Load(stream);
        return thing;
    }

    int mPostLinks = 0;
};

#endif
