#ifndef KXSTANDARDOUTPUTCAPTURE_H
#define KXSTANDARDOUTPUTCAPTURE_H

#include <iostream>
#include <sstream>
#include <string>

/// Redirects std::cout into a string for its lifetime (printf output is not caught).
class kxStandardOutputCapture
{
public:
    kxStandardOutputCapture() : mPrevious(std::cout.rdbuf(mBuffer.rdbuf())) {}
    ~kxStandardOutputCapture() { std::cout.rdbuf(mPrevious); }

    std::string text() const { return mBuffer.str(); }

private:
    std::ostringstream mBuffer;
    std::streambuf* mPrevious;
};

#endif
