#include "Image.h"

#include "Errors.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#define STB_IMAGE_WRITE_IMPLEMENTATION
#define STBI_WRITE_NO_STDIO
#include <stb/stb_image_write.h>

static_assert(sizeof(kxbvh::Rgba) == 4, "pixels are handed to the PNG writer as packed RGBA bytes");

namespace kxbvh
{
namespace
{
OutputError cannotWrite(const std::string& path, const char* reason)
{
    return OutputError("cannot write '" + path + "': " + reason);
}

void appendToFile(void* context, void* data, int size)
{
    std::fwrite(data, 1, static_cast<size_t>(size), static_cast<std::FILE*>(context));
}
} // namespace

void checkWritable(const std::string& path)
{
    struct stat info;
    if (stat(path.c_str(), &info) == 0)
    {
        if (S_ISDIR(info.st_mode))
            throw cannotWrite(path, "it is a directory");
        if (access(path.c_str(), W_OK) != 0)
            throw cannotWrite(path, std::strerror(errno));
        return;
    }
    const size_t slash = path.find_last_of('/');
    const std::string folder = slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
    if (stat(folder.c_str(), &info) != 0)
        throw cannotWrite(path, ("folder '" + folder + "': " + std::strerror(errno)).c_str());
    if (!S_ISDIR(info.st_mode))
        throw cannotWrite(path, ("'" + folder + "' is not a directory").c_str());
    if (access(folder.c_str(), W_OK) != 0)
        throw cannotWrite(path, ("folder '" + folder + "': " + std::strerror(errno)).c_str());
}

void writePng(const Image& image, const std::string& path)
{
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (!file)
        throw cannotWrite(path, std::strerror(errno));
    const int encoded = stbi_write_png_to_func(appendToFile, file, image.width(), image.height(), 4, image.data(),
                                               image.width() * 4);
    const bool writeFailed = std::ferror(file) != 0;
    const int writeErrno = errno;
    const bool closeFailed = std::fclose(file) != 0;
    if (!encoded)
        throw cannotWrite(path, "the PNG encoder ran out of memory");
    if (writeFailed || closeFailed)
        throw cannotWrite(path, std::strerror(writeFailed ? writeErrno : errno));
}
} // namespace kxbvh
