// The main of a fuzz target built without libFuzzer: runs the target once on every file
// named, or inside a folder named, so that the seed corpora are regression tests in every
// build. Exits non-zero when it finds no input at all.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace
{
std::vector<std::filesystem::path> inputs(const std::filesystem::path& path)
{
    std::vector<std::filesystem::path> files;
    if (std::filesystem::is_directory(path))
    {
        for (const auto& entry : std::filesystem::directory_iterator(path))
            if (entry.is_regular_file())
                files.push_back(entry.path());
        std::sort(files.begin(), files.end());
    }
    else if (std::filesystem::is_regular_file(path))
        files.push_back(path);
    return files;
}
} // namespace

int main(int argc, char** argv)
{
    size_t replayed = 0;
    for (int i = 1; i < argc; ++i)
    {
        const std::vector<std::filesystem::path> files = inputs(argv[i]);
        if (files.empty())
        {
            std::fprintf(stderr, "%s: no inputs in '%s'\n", argv[0], argv[i]);
            return 2;
        }
        for (const std::filesystem::path& file : files)
        {
            std::ifstream in(file, std::ios::binary);
            const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            if (!in.eof() && in.fail())
            {
                std::fprintf(stderr, "%s: cannot read '%s'\n", argv[0], file.c_str());
                return 2;
            }
            // Named first, so that a crash shows which input did it.
            std::fprintf(stderr, "%s\n", file.c_str());
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
            ++replayed;
        }
    }
    if (replayed == 0)
    {
        std::fprintf(stderr, "usage: %s CORPUS-FOLDER-OR-FILE...\n", argv[0]);
        return 2;
    }
    std::printf("%zu inputs replayed\n", replayed);
    return 0;
}
