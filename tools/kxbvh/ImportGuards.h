// What assimp may do while it reads one file: how much memory it may take, and where its
// own messages go.
#ifndef KXBVH_IMPORTGUARDS_H
#define KXBVH_IMPORTGUARDS_H

#include <sys/resource.h>

#include <cstdint>

namespace kxbvh
{
/// Lets the address space grow by at most the budget while the object lives, so that a
/// file declaring absurd sizes makes the reader fail with std::bad_alloc instead of taking
/// the machine's memory. A budget of 0 sets no limit, and neither does a build with
/// AddressSanitizer, whose shadow memory reserves terabytes of addresses up front. A
/// limit the user set lower stays.
class ReadMemoryLimit
{
public:
    explicit ReadMemoryLimit(uint64_t budget);
    ~ReadMemoryLimit();
    ReadMemoryLimit(const ReadMemoryLimit&) = delete;
    ReadMemoryLimit& operator=(const ReadMemoryLimit&) = delete;

    bool active() const { return mActive; }

private:
    rlimit mSaved{};
    bool mActive = false;
};

/// Assimp and the libraries it bundles print to the standard streams themselves. While the
/// object lives their output goes nowhere, or, when shown, to standard error together with
/// assimp's log, so that standard output stays the tool's.
class ReaderOutput
{
public:
    explicit ReaderOutput(bool show);
    ~ReaderOutput();
    ReaderOutput(const ReaderOutput&) = delete;
    ReaderOutput& operator=(const ReaderOutput&) = delete;

private:
    int mSavedOut = -1;
    int mSavedErr = -1;
    bool mLogging = false;
};
} // namespace kxbvh

#endif
