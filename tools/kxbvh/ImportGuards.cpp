#include "ImportGuards.h"

#include <assimp/DefaultLogger.hpp>

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

#if defined(__SANITIZE_ADDRESS__)
#define KXBVH_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KXBVH_ADDRESS_SANITIZER 1
#endif
#endif

namespace kxbvh
{
#ifndef KXBVH_ADDRESS_SANITIZER
namespace
{
uint64_t addressSpaceInUse()
{
    uint64_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    return pages * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}
} // namespace
#endif

ReadMemoryLimit::ReadMemoryLimit(uint64_t budget)
{
#ifndef KXBVH_ADDRESS_SANITIZER
    const uint64_t inUse = addressSpaceInUse();
    if (budget == 0 || inUse == 0 || getrlimit(RLIMIT_AS, &mSaved) != 0)
        return;
    rlimit limited = mSaved;
    limited.rlim_cur = inUse + budget;
    if (limited.rlim_cur < inUse || (mSaved.rlim_cur != RLIM_INFINITY && limited.rlim_cur >= mSaved.rlim_cur))
        return;
    mActive = setrlimit(RLIMIT_AS, &limited) == 0;
#else
    (void)budget;
#endif
}

ReadMemoryLimit::~ReadMemoryLimit()
{
    if (mActive)
        setrlimit(RLIMIT_AS, &mSaved);
}

ReaderOutput::ReaderOutput(bool show)
{
    std::fflush(stdout);
    std::fflush(stderr);
    mSavedOut = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
    mSavedErr = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
    if (show)
    {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        Assimp::DefaultLogger::create("", Assimp::Logger::NORMAL, aiDefaultLogStream_STDERR);
        mLogging = true;
        return;
    }
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (nowhere < 0)
        return;
    dup2(nowhere, STDOUT_FILENO);
    dup2(nowhere, STDERR_FILENO);
    close(nowhere);
}

ReaderOutput::~ReaderOutput()
{
    if (mLogging)
        Assimp::DefaultLogger::kill();
    std::fflush(stdout);
    std::fflush(stderr);
    for (const auto& [saved, stream] : {std::pair<int, int>{mSavedOut, STDOUT_FILENO}, {mSavedErr, STDERR_FILENO}})
        if (saved >= 0)
        {
            dup2(saved, stream);
            close(saved);
        }
}
} // namespace kxbvh
