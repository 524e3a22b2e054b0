#include "kxBaseStream.h"

#include "kxObject.h"

#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>

namespace kx
{
namespace
{
bool validElementSize(size_t size)
{
    return size == 1 || size == 2 || size == 4 || size == 8;
}

uint64_t loadNative(const unsigned char* p, size_t size)
{
    switch (size)
    {
    case 1: return *p;
    case 2: { uint16_t v; std::memcpy(&v, p, 2); return v; }
    case 4: { uint32_t v; std::memcpy(&v, p, 4); return v; }
    default: { uint64_t v; std::memcpy(&v, p, 8); return v; }
    }
}

void storeNative(unsigned char* p, size_t size, uint64_t v)
{
    switch (size)
    {
    case 1: *p = static_cast<unsigned char>(v); break;
    case 2: { const uint16_t w = static_cast<uint16_t>(v); std::memcpy(p, &w, 2); break; }
    case 4: { const uint32_t w = static_cast<uint32_t>(v); std::memcpy(p, &w, 4); break; }
    default: std::memcpy(p, &v, 8); break;
    }
}
// Deletes an object that nobody holds yet.
void discard(kxObject* object)
{
    if (object && object->GetReferences() == 0)
        delete object;
}
} // namespace

void kxBaseStream::writele(size_t elementSize, size_t count, const void* data)
{
    if (!validElementSize(elementSize) || count == 0)
        return;
    const unsigned char* in = static_cast<const unsigned char*>(data);
    const size_t start = mBuffer.size();
    mBuffer.resize(start + elementSize * count);
    unsigned char* out = mBuffer.data() + start;
    // Values are composed byte by byte from their numeric value, so the stream is
    // little-endian whatever the host order.
    for (size_t e = 0; e < count; ++e, in += elementSize)
    {
        uint64_t v = loadNative(in, elementSize);
        for (size_t b = 0; b < elementSize; ++b, v >>= 8)
            *out++ = static_cast<unsigned char>(v & 0xFF);
    }
}

bool kxBaseStream::checkRemaining(size_t elementSize, size_t count)
{
    // Divided rather than multiplied, so that no count can overflow the test.
    if (elementSize == 0 || count <= GetRemaining() / elementSize)
        return true;
    mFailed = true;
    return false;
}

bool kxBaseStream::readle(size_t elementSize, size_t count, void* data)
{
    if (!validElementSize(elementSize))
    {
        mFailed = true;
        return false;
    }
    if (!checkRemaining(elementSize, count))
        return false;
    unsigned char* out = static_cast<unsigned char*>(data);
    const unsigned char* in = mBuffer.data() + mPosition;
    for (size_t e = 0; e < count; ++e, out += elementSize)
    {
        uint64_t v = 0;
        for (size_t b = elementSize; b-- > 0;)
            v = (v << 8) | in[b];
        storeNative(out, elementSize, v);
        in += elementSize;
    }
    mPosition += elementSize * count;
    return true;
}

void kxBaseStream::writeString(const std::string& text)
{
    const uint32_t length = static_cast<uint32_t>(text.size());
    writele(4, 1, &length);
    mBuffer.insert(mBuffer.end(), text.begin(), text.end());
}

bool kxBaseStream::readString(std::string& text)
{
    const size_t start = mPosition;
    uint32_t length = 0;
    if (!readle(4, 1, &length))
        return false;
    if (!checkRemaining(1, length))
    {
        mPosition = start;
        return false;
    }
    text.assign(reinterpret_cast<const char*>(mBuffer.data() + mPosition), length);
    mPosition += length;
    return true;
}

void kxBaseStream::SaveObject(const kxObject& object)
{
    writeString(object.GetType().GetName());
    object.Save(*this);
}

kxObject* kxBaseStream::LoadObject()
{
    mFailed = false;
    std::string typeName;
    if (!readString(typeName))
        return nullptr;
    kxRttiInterface::FactoryFunction factory = kxRttiInterface::FindFactoryFunction(typeName);
    if (!factory)
        return nullptr;

    kxObject* object = nullptr;
    try
    {
        object = factory(*this);
        if (object && !mFailed)
            object->PostLink(*this);
    }
    catch (...)
    {
        // A factory that throws has released what it allocated; PostLink may throw
        // after the object exists.
        discard(object);
        return nullptr;
    }
    if (!object || mFailed)
    {
        discard(object);
        return nullptr;
    }
    return object;
}

void kxBaseStream::SetBuffer(std::vector<unsigned char> buffer)
{
    mBuffer = std::move(buffer);
    Rewind();
}

bool kxBaseStream::SaveToFile(const std::string& path) const
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out)
        return false;
    out.write(reinterpret_cast<const char*>(mBuffer.data()), static_cast<std::streamsize>(mBuffer.size()));
    out.close();
    return static_cast<bool>(out);
}

bool kxBaseStream::LoadFromFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return false;
    std::vector<unsigned char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad())
        return false;
    SetBuffer(std::move(bytes));
    return true;
}

void kxBaseStream::Rewind()
{
    mPosition = 0;
    mFailed = false;
}
} // namespace kx
