#ifndef KXCAPTURESTDOUT_H
#define KXCAPTURESTDOUT_H

#include <iostream>
#include <sstream>
#include <string>

namespace kxtest
{
/// Redirects std::cout into a string for as long as it lives.
class CaptureStdout
{
public:
    CaptureStdout() : mSaved(std::cout.rdbuf(mText.rdbuf())) {}
    ~CaptureStdout() { std::cout.rdbuf(mSaved); }
    CaptureStdout(const CaptureStdout&) = delete;
    CaptureStdout& operator=(const CaptureStdout&) = delete;

    std::string text() const { return mText.str(); }

private:
    std::ostringstream mText;
    std::streambuf* mSaved;
};
} // namespace kxtest

#endif
