// What every fuzz target shares: typed values read from the fuzzer's bytes (biased
// towards the values that break geometry code), the same values written back for the seed
// corpora, and a check that stops the run loudly.
#ifndef KXFUZZ_H
#define KXFUZZ_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

/// A property that must hold; libFuzzer keeps the input that breaks it.
#define KX_FUZZ_CHECK(condition, ...)                                              \
    do                                                                             \
    {                                                                              \
        if (!(condition))                                                          \
            kxfuzz::checkFailed(__FILE__, __LINE__, #condition, __VA_ARGS__);      \
    } while (0)

namespace kxfuzz
{
/// Reports a failed check on standard error as it was when the program started (libFuzzer
/// and kxbvh's reader both move it away at times) and aborts.
[[noreturn]] void checkFailed(const char* file, int line, const char* condition, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

/// Reads values off the input front to back; past the end every read gives zero bytes,
/// so any input decodes to something.
class Input
{
public:
    Input(const uint8_t* data, size_t size) : mData(data), mSize(size) {}

    bool empty() const { return mPosition >= mSize; }
    size_t remaining() const { return empty() ? 0 : mSize - mPosition; }
    const uint8_t* rest() const { return mData + (empty() ? mSize : mPosition); }

    uint8_t byte() { return empty() ? 0 : mData[mPosition++]; }
    uint16_t u16();
    uint32_t u32();
    uint64_t u64();

    /// A float drawn mostly from the troublesome ones: signed zeros, NaN, infinities, the
    /// extremes, denormals, small integers (which repeat, making duplicates and degenerate
    /// triangles), scaled integers from 2^-140 to 2^115, and raw bit patterns.
    float real();
    /// The same for double, with double's extremes and raw patterns.
    double realDouble();

private:
    const uint8_t* mData;
    size_t mSize;
    size_t mPosition = 0;
};

/// Writes what Input reads, for the seed writer.
class Output
{
public:
    void byte(uint8_t value) { mBytes.push_back(value); }
    void u16(uint16_t value);
    void u32(uint32_t value);
    /// Exactly this value, read back by Input::real.
    void real(float value);
    void realDouble(double value);
    /// A small integer -56 .. 55 in one byte, read back by Input::real or realDouble.
    void smallInt(int value);
    void text(const std::string& value) { mBytes.insert(mBytes.end(), value.begin(), value.end()); }
    const std::vector<uint8_t>& bytes() const { return mBytes; }

private:
    std::vector<uint8_t> mBytes;
};

/// Installs a process-wide log with every level off: builders and queries log on paths
/// the fuzzer reaches all the time.
void silenceLog();
} // namespace kxfuzz

#endif
