#ifndef KXBASESTREAM_H
#define KXBASESTREAM_H

#include <cstddef>
#include <string>
#include <vector>

namespace kx
{
class kxObject;

/// In-memory little-endian object stream. Writes append to the buffer; reads consume it
/// from a read position. A read that runs past the end reads nothing, returns false and
/// marks the stream failed until the next Rewind, SetBuffer or LoadObject.
class kxBaseStream
{
public:
    kxBaseStream() = default;

    /// Appends count elements of elementSize bytes (1, 2, 4 or 8), little-endian.
    void writele(size_t elementSize, size_t count, const void* data);
    /// Reads count elements; false (nothing written to data) when the stream runs out or
    /// elementSize is not 1, 2, 4 or 8.
    bool readle(size_t elementSize, size_t count, void* data);
    /// True when count elements of elementSize bytes are still to be read. Otherwise marks
    /// the stream failed, as a read past the end does, so that a reader refuses a declared
    /// count before allocating anything for it.
    bool checkRemaining(size_t elementSize, size_t count);

    /// 4-byte length, then the bytes.
    void writeString(const std::string& text);
    /// False, with the text and the read position untouched, when the declared length
    /// runs past the end; nothing is allocated for such a length.
    bool readString(std::string& text);

    /// Writes the object's type name as a string, then the object's Save.
    void SaveObject(const kxObject& object);
    /// Reads a type name, runs its registered factory, then PostLink. Returns a new object
    /// with no references, or null when the name is unknown, the data ends early or the
    /// factory throws (the stream's failed state tells which happened for short data).
    kxObject* LoadObject();

    const std::vector<unsigned char>& GetBuffer() const { return mBuffer; }
    /// Replaces the content and rewinds.
    void SetBuffer(std::vector<unsigned char> buffer);
    bool SaveToFile(const std::string& path) const;
    /// Replaces the content with the file's bytes and rewinds; false when unreadable.
    bool LoadFromFile(const std::string& path);

    void Rewind();
    size_t GetPosition() const { return mPosition; }
    /// Bytes between the read position and the end.
    size_t GetRemaining() const { return mBuffer.size() - mPosition; }
    bool Failed() const { return mFailed; }

private:
    std::vector<unsigned char> mBuffer;
    size_t mPosition = 0;
    bool mFailed = false;
};
} // namespace kx

#endif
