#include "HeaderChecks.h"

#include "Errors.h"
#include "Format.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <limits>
#include <map>
#include <vector>

namespace kxbvh
{
namespace
{
constexpr uint64_t kHuge = std::numeric_limits<uint64_t>::max();

uint64_t saturatingAdd(uint64_t a, uint64_t b)
{
    return a > kHuge - b ? kHuge : a + b;
}

uint64_t saturatingMultiply(uint64_t a, uint64_t b)
{
    return b != 0 && a > kHuge / b ? kHuge : a * b;
}

/// The leading decimal digits of a word, as assimp reads counts, but saturating where
/// assimp would wrap around. False when the word does not start with a digit.
bool parseCount(const std::string& word, uint64_t& count)
{
    if (word.empty() || !std::isdigit(static_cast<unsigned char>(word[0])))
        return false;
    count = 0;
    for (size_t i = 0; i < word.size() && std::isdigit(static_cast<unsigned char>(word[i])); ++i)
        count = saturatingAdd(saturatingMultiply(count, 10), uint64_t(word[i] - '0'));
    return true;
}

std::vector<std::string> splitWords(const std::string& line)
{
    std::vector<std::string> words;
    size_t at = 0;
    while (true)
    {
        at = line.find_first_not_of(" \t", at);
        if (at == std::string::npos)
            return words;
        const size_t end = line.find_first_of(" \t", at);
        words.push_back(line.substr(at, end - at));
        at = end;
    }
}

InputError invalid(const std::string& path, const char* format, const std::string& problem)
{
    return InputError("'" + path + "' is not a valid " + format + " file: " + problem);
}

// ---- PLY

/// Reads a file line by line, where assimp's PLY reader ends lines: at '\n' and at '\r'.
class LineReader
{
public:
    explicit LineReader(const std::string& path) : mFile(path, std::ios::binary) {}

    /// Keeps the first kKept bytes of the line, enough for any header keyword.
    bool next(std::string& line)
    {
        line.clear();
        std::streambuf* buffer = mFile.rdbuf();
        if (!mFile || !buffer)
            return false;
        bool any = false;
        for (int c; (c = buffer->sbumpc()) != std::char_traits<char>::eof();)
        {
            ++mOffset;
            any = true;
            if (c == '\n' || c == '\r')
                return true;
            if (line.size() < kKept)
                line += static_cast<char>(c);
        }
        return any;
    }

    /// Bytes consumed so far, line ends included.
    uint64_t offset() const { return mOffset; }

private:
    static constexpr size_t kKept = 256;
    std::ifstream mFile;
    uint64_t mOffset = 0;
};

/// Assimp ends the end_header keyword at a space, tab, form feed, NUL or the line's end;
/// anything else (end_headerx, END_HEADER) leaves it searching.
bool isEndHeader(const std::string& line)
{
    const size_t start = line.find_first_not_of(" \t");
    static const std::string keyword = "end_header";
    if (start == std::string::npos || line.compare(start, keyword.size(), keyword) != 0)
        return false;
    const size_t after = start + keyword.size();
    return after == line.size() || line[after] == ' ' || line[after] == '\t' || line[after] == '\f' ||
           line[after] == '\0';
}

/// Bytes of a binary scalar; 0 for a type assimp does not know, which keeps the estimate a
/// lower bound.
uint64_t binarySize(const std::string& type)
{
    static const std::map<std::string, uint64_t> sizes = {
        {"char", 1},  {"int8", 1},   {"uchar", 1},  {"uint8", 1},   {"short", 2}, {"int16", 2},
        {"ushort", 2}, {"uint16", 2}, {"int", 4},    {"int32", 4},   {"uint", 4},  {"uint32", 4},
        {"float", 4}, {"float32", 4}, {"double", 8}, {"float64", 8}};
    const auto found = sizes.find(type);
    return found == sizes.end() ? 0 : found->second;
}

struct PlyElement
{
    std::string name;
    uint64_t count = 0;
    uint64_t asciiBytes = 0;   // the least one element takes as text: a digit and a space per value
    uint64_t binaryBytes = 0;  // the least in binary: its scalars and the lengths of its lists
};

bool startsLikePly(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    char head[3] = {};
    int c;
    while ((c = file.get()) == '\n' || c == '\r')
        ;
    head[0] = static_cast<char>(c);
    file.read(head + 1, 2);
    return file && std::tolower(head[0]) == 'p' && std::tolower(head[1]) == 'l' && std::tolower(head[2]) == 'y';
}

std::string describeElements(const std::vector<PlyElement>& elements)
{
    std::string text;
    for (const PlyElement& element : elements)
        if (element.count > 0)
            text += (text.empty() ? "" : ", ") + groupDigits(element.count) + " '" + element.name + "'";
    return text;
}

// ---- OFF

bool endsWithOff(const std::string& path)
{
    if (path.size() < 4 || path[path.size() - 4] != '.')
        return false;
    std::string extension = path.substr(path.size() - 3);
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return extension == "off";
}

/// The words of the file's first bytes, '#' comments left out, each with the offset just
/// past it.
std::vector<std::pair<std::string, uint64_t>> leadingWords(const std::string& path, size_t count)
{
    std::ifstream file(path, std::ios::binary);
    std::vector<std::pair<std::string, uint64_t>> words;
    std::string word;
    uint64_t offset = 0;
    constexpr uint64_t kScanned = 1 << 16;
    for (int c; words.size() < count && offset < kScanned && (c = file.get()) != std::char_traits<char>::eof();)
    {
        ++offset;
        if (c == '#' && word.empty())
        {
            while ((c = file.get()) != std::char_traits<char>::eof() && c != '\n' && c != '\r')
                ++offset;
            ++offset;
            continue;
        }
        if (std::isspace(c))
        {
            if (!word.empty())
                words.emplace_back(word, offset - 1);
            word.clear();
        }
        else
            word += static_cast<char>(c);
    }
    if (!word.empty() && words.size() < count)
        words.emplace_back(word, offset);
    return words;
}

/// OFF, COFF, NOFF, STOFF, 4OFF, nOFF and their combinations, in that order of prefixes.
bool isOffKeyword(const std::string& word, bool& hasDimension)
{
    std::string rest = word;
    for (const char* prefix : {"ST", "C", "N", "4", "n"})
        if (rest.compare(0, std::char_traits<char>::length(prefix), prefix) == 0 && rest.size() > 3)
        {
            hasDimension = hasDimension || std::string(prefix) == "n";
            rest = rest.substr(std::char_traits<char>::length(prefix));
        }
    return rest == "OFF";
}
} // namespace

void checkPlyHeader(const std::string& path, uint64_t fileSize)
{
    if (!startsLikePly(path))
        return;
    LineReader reader(path);
    std::string line;
    do
        if (!reader.next(line))
            return;
    while (line.empty());
    enum class Format { eUnknown, eAscii, eBinary } format = Format::eUnknown;
    std::vector<PlyElement> elements;
    std::vector<std::string> names;
    while (true)
    {
        if (!reader.next(line))
            throw invalid(path, "PLY", "its header has no end_header line");
        if (isEndHeader(line))
            break;
        const std::vector<std::string> words = splitWords(line);
        if (words.size() >= 2 && words[0] == "format")
            format = words[1] == "ascii" ? Format::eAscii
                     : words[1] == "binary_little_endian" || words[1] == "binary_big_endian" ? Format::eBinary
                                                                                           : Format::eUnknown;
        else if (words.size() >= 3 && words[0] == "element")
        {
            PlyElement element;
            element.name = words[1];
            // Assimp's reader overruns its heap when an element is declared twice.
            if (std::find(names.begin(), names.end(), element.name) != names.end())
                throw invalid(path, "PLY", "its header declares the element '" + element.name.substr(0, 40) +
                                               "' twice");
            names.push_back(element.name);
            if (parseCount(words[2], element.count))
                elements.push_back(element);
        }
        else if (words.size() >= 3 && words[0] == "property" && !elements.empty())
        {
            PlyElement& element = elements.back();
            element.asciiBytes += 2;
            element.binaryBytes += binarySize(words[1] == "list" ? words[2] : words[1]);
        }
    }
    if (format == Format::eUnknown)
        return;  // assimp refuses the file at once
    uint64_t needed = 0;
    for (const PlyElement& element : elements)
        needed = saturatingAdd(needed, saturatingMultiply(element.count, format == Format::eAscii
                                                                             ? element.asciiBytes
                                                                             : element.binaryBytes));
    // The last value of a text file needs no space after it.
    if (format == Format::eAscii && needed > 0)
        --needed;
    const uint64_t remaining = fileSize - std::min(fileSize, reader.offset());
    if (needed > remaining)
        throw invalid(path, "PLY",
                      "its header declares " + describeElements(elements) + " elements, at least " +
                          groupDigits(needed) + " bytes, but only " +
                          groupDigits(remaining) + " follow it");
}

void checkOffHeader(const std::string& path, uint64_t fileSize)
{
    const auto words = leadingWords(path, 4);
    if (words.empty())
        return;
    bool hasDimension = false;
    size_t next = 0;
    if (isOffKeyword(words[0].first, hasDimension))
        ++next;
    else if (!endsWithOff(path))
        return;
    uint64_t dimensions = 3;
    if (hasDimension && (next >= words.size() || !parseCount(words[next++].first, dimensions)))
        return;
    uint64_t vertices = 0, faces = 0;
    if (next + 1 >= words.size() || !parseCount(words[next].first, vertices) ||
        !parseCount(words[next + 1].first, faces))
        return;
    // A coordinate takes a digit and a space, and a face at least its length and a space.
    uint64_t needed = saturatingAdd(saturatingMultiply(saturatingMultiply(vertices, dimensions), 2),
                                    saturatingMultiply(faces, 2));
    if (needed > 0)
        --needed;
    const uint64_t remaining = fileSize - std::min(fileSize, words[next + 1].second);
    if (needed > remaining)
        throw invalid(path, "OFF",
                      "its header declares " + groupDigits(vertices) + " vertices and " + groupDigits(faces) +
                          " faces, at least " + groupDigits(needed) +
                          " bytes, but only " + groupDigits(remaining) + " follow it");
}

// ---- GLB

namespace
{
uint32_t littleEndian32(const unsigned char* bytes)
{
    return uint32_t(bytes[0]) | uint32_t(bytes[1]) << 8 | uint32_t(bytes[2]) << 16 | uint32_t(bytes[3]) << 24;
}
} // namespace

void checkGlbHeader(const std::string& path, uint64_t fileSize)
{
    // Both versions: magic, version, total length, then the length of the JSON scene that
    // follows the first 20 bytes; version 2 puts a binary chunk of its own length after it.
    std::ifstream file(path, std::ios::binary);
    unsigned char header[20];
    if (!file.read(reinterpret_cast<char*>(header), sizeof header) || std::string(header, header + 4) != "glTF")
        return;
    const uint64_t total = littleEndian32(header + 8);
    const uint64_t scene = littleEndian32(header + 12);
    if (total < sizeof header)
        throw invalid(path, "GLB",
                      "its header declares " + groupDigits(total) + " bytes in all, fewer than the header itself");
    if (total > fileSize)
        throw invalid(path, "GLB",
                      "its header declares " + groupDigits(total) + " bytes in all, but the file has " +
                          groupDigits(fileSize));
    if (scene > total - sizeof header)
        throw invalid(path, "GLB",
                      "its scene declares " + groupDigits(scene) + " bytes, but only " +
                          groupDigits(total - sizeof header) + " follow it");
    const uint64_t binary = sizeof header + ((scene + 3) & ~uint64_t(3));
    unsigned char chunk[4];
    if (littleEndian32(header + 4) != 2 || binary + 8 > total || !file.seekg(std::streamoff(binary)) ||
        !file.read(reinterpret_cast<char*>(chunk), sizeof chunk))
        return;
    const uint64_t length = littleEndian32(chunk);
    if (length > total - binary - 8)
        throw invalid(path, "GLB",
                      "its binary chunk declares " + groupDigits(length) + " bytes, but only " +
                          groupDigits(total - binary - 8) + " follow it");
}
} // namespace kxbvh
