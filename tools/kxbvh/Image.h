// An 8-bit RGBA picture and its PNG file.
#ifndef KXBVH_IMAGE_H
#define KXBVH_IMAGE_H

#include <cstdint>
#include <string>
#include <vector>

namespace kxbvh
{
struct Rgba
{
    uint8_t r = 0, g = 0, b = 0, a = 0;
};

class Image
{
public:
    /// Every pixel transparent black.
    Image(int width, int height) : mWidth(width), mHeight(height), mPixels(static_cast<size_t>(width) * height) {}

    int width() const { return mWidth; }
    int height() const { return mHeight; }
    Rgba& at(int x, int y) { return mPixels[static_cast<size_t>(y) * mWidth + x]; }
    const Rgba& at(int x, int y) const { return mPixels[static_cast<size_t>(y) * mWidth + x]; }
    const uint8_t* data() const { return &mPixels.data()->r; }

private:
    int mWidth;
    int mHeight;
    std::vector<Rgba> mPixels;
};

/// Fails early, before long work, when path cannot be created (missing folder, a
/// folder in its place, no permission). Throws OutputError.
void checkWritable(const std::string& path);

/// Writes the picture as a PNG. Throws OutputError naming the path and the reason.
void writePng(const Image& image, const std::string& path);
} // namespace kxbvh

#endif
