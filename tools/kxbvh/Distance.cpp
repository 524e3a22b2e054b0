#include "Distance.h"

#include "Errors.h"
#include "Format.h"
#include "Image.h"
#include "Interrupt.h"
#include "Parallel.h"
#include "Progress.h"
#include "Stopwatch.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace kxbvh
{
namespace
{
constexpr unsigned kNone = 0xFFFFFFFFu;
constexpr size_t kChunk = 4096;

enum class Format
{
    eNone,
    eCsv,
    ePly
};

Format outputFormat(const std::string& path)
{
    if (path.empty())
        return Format::eNone;
    std::string extension = path.substr(path.find_last_of('.') == std::string::npos ? path.size()
                                                                                     : path.find_last_of('.'));
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (extension == ".csv")
        return Format::eCsv;
    if (extension == ".ply")
        return Format::ePly;
    throw InputError("--output: '" + path + "' must end in .csv (distance per point) or .ply (points coloured by "
                                            "distance)");
}

struct Summary
{
    uint64_t found = 0;
    double min = 0.0, sum = 0.0, sumOfSquares = 0.0, max = -1.0;
    size_t farthest = 0;
};

Summary summarise(const std::vector<PointDistance>& answers)
{
    Summary s;
    s.min = std::numeric_limits<double>::infinity();
    for (size_t i = 0; i < answers.size(); ++i)
    {
        if (answers[i].triangle == kNone)
            continue;
        const double d = answers[i].distance;
        ++s.found;
        s.min = std::min(s.min, d);
        s.sum += d;
        s.sumOfSquares += d * d;
        if (d > s.max)
        {
            s.max = d;
            s.farthest = i;
        }
    }
    return s;
}

/// Blue (on the surface) through cyan, green and yellow to red (the largest distance).
void ramp(float t, uint8_t rgb[3])
{
    static const float stops[5][3] = {{0, 0, 255}, {0, 255, 255}, {0, 255, 0}, {255, 255, 0}, {255, 0, 0}};
    const float x = std::clamp(t, 0.0f, 1.0f) * 4.0f;
    const int i = std::min(static_cast<int>(x), 3);
    const float f = x - float(i);
    for (int c = 0; c < 3; ++c)
        rgb[c] = static_cast<uint8_t>(std::lround(stops[i][c] + f * (stops[i + 1][c] - stops[i][c])));
}

class OutputFile
{
public:
    explicit OutputFile(const std::string& path) : mPath(path), mFile(std::fopen(path.c_str(), "wb"))
    {
        if (!mFile)
            throw OutputError("cannot write '" + path + "': " + std::strerror(errno));
    }
    ~OutputFile()
    {
        if (mFile)
            std::fclose(mFile);
    }
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    std::FILE* get() { return mFile; }

    void close()
    {
        const bool failed = std::ferror(mFile) != 0;
        const int error = errno;
        const bool closeFailed = std::fclose(mFile) != 0;
        mFile = nullptr;
        if (failed || closeFailed)
            throw OutputError("cannot write '" + mPath + "': " + std::strerror(failed ? error : errno));
    }

private:
    std::string mPath;
    std::FILE* mFile;
};

void writeCsv(const std::string& path, const std::vector<Wm4::Vector3<float>>& points,
              const std::vector<PointDistance>& answers)
{
    OutputFile file(path);
    std::fputs("x,y,z,distance,triangle,closest_x,closest_y,closest_z\n", file.get());
    for (size_t i = 0; i < points.size(); ++i)
    {
        const Wm4::Vector3<float>& p = points[i];
        const PointDistance& a = answers[i];
        if (a.triangle == kNone)
            std::fprintf(file.get(), "%.9g,%.9g,%.9g,,,,,\n", p[0], p[1], p[2]);
        else
            std::fprintf(file.get(), "%.9g,%.9g,%.9g,%.9g,%u,%.9g,%.9g,%.9g\n", p[0], p[1], p[2], a.distance,
                         a.triangle, a.closest[0], a.closest[1], a.closest[2]);
    }
    file.close();
}

/// Binary PLY: position, colour by distance (grey beyond the largest distance searched)
/// and the distance itself (-1 there).
void writePly(const std::string& path, const std::vector<Wm4::Vector3<float>>& points,
              const std::vector<PointDistance>& answers, double largest)
{
    OutputFile file(path);
    std::fprintf(file.get(),
                 "ply\nformat binary_little_endian 1.0\ncomment distances to a mesh by kxbvh\nelement vertex %zu\n"
                 "property float x\nproperty float y\nproperty float z\nproperty uchar red\nproperty uchar green\n"
                 "property uchar blue\nproperty float distance\nend_header\n",
                 points.size());
    for (size_t i = 0; i < points.size(); ++i)
    {
        unsigned char record[19];
        std::memcpy(record, &points[i][0], 12);
        const bool found = answers[i].triangle != kNone;
        if (found)
            ramp(largest > 0.0 ? float(answers[i].distance / largest) : 0.0f, record + 12);
        else
            record[12] = record[13] = record[14] = 128;
        const float distance = found ? answers[i].distance : -1.0f;
        std::memcpy(record + 15, &distance, 4);
        std::fwrite(record, 1, sizeof record, file.get());
    }
    file.close();
}

std::string triple(const Wm4::Vector3<float>& p)
{
    return "(" + formatFloat(p[0]) + ", " + formatFloat(p[1]) + ", " + formatFloat(p[2]) + ")";
}
} // namespace

std::vector<PointDistance> measureDistances(const kxQBVH& qbvh, const std::vector<Wm4::Vector3<float>>& points,
                                            float maxDistance, unsigned threads, double& seconds)
{
    std::vector<PointDistance> answers(points.size());
    const size_t chunks = (points.size() + kChunk - 1) / kChunk;
    Progress progress("measuring " + groupDigits(points.size()) + " distances", chunks);
    Stopwatch clock;
    parallelFor(threads, chunks, [&](size_t chunk) {
        const size_t end = std::min(points.size(), (chunk + 1) * kChunk);
        for (size_t i = chunk * kChunk; i < end; ++i)
        {
            PointDistance& a = answers[i];
            a.distance = maxDistance;
            Wm4::Vector2<float> barycentric;
            if (!qbvh.findClosestPoint(points[i], a.distance, a.closest, barycentric, a.triangle))
                a.triangle = kNone;
        }
        progress.advance();
    });
    seconds = clock.lap();
    throwIfInterrupted("measuring distances");
    return answers;
}

void runDistance(const DistanceOptions& options)
{
    const Format format = outputFormat(options.output);
    if (format != Format::eNone)
        checkWritable(options.output);
    const Mesh mesh = openMesh(options.source);
    const std::vector<Wm4::Vector3<float>> points = loadPointFile(options.points, options.source.read);
    Hierarchy hierarchy;
    buildHierarchy(mesh, options.build, hierarchy);
    const unsigned threads = resolveThreads(options.threads);
    double seconds = 0.0;
    const std::vector<PointDistance> answers =
        measureDistances(hierarchy.qbvh, points, options.maxDistance, threads, seconds);
    const Summary s = summarise(answers);
    if (format == Format::eCsv)
        writeCsv(options.output, points, answers);
    else if (format == Format::ePly)
        writePly(options.output, points, answers, s.max);

    std::printf("%s: %s triangles, BVH built in %s\n%s: %s points\n", mesh.name.c_str(),
                groupDigits(mesh.triangles).c_str(), formatSeconds(hierarchy.times.total()).c_str(),
                options.points.c_str(), groupDigits(points.size()).c_str());
    std::printf("measured in %s on %u thread%s = %s points/s\n", formatSeconds(seconds).c_str(), threads,
                threads == 1 ? "" : "s", formatRate(double(points.size()) / std::max(seconds, 1e-9)).c_str());
    const uint64_t beyond = points.size() - s.found;
    std::printf("  count  %s", groupDigits(s.found).c_str());
    if (beyond > 0)
        std::printf("   (%s farther than --max %s)", groupDigits(beyond).c_str(),
                    formatFloat(options.maxDistance).c_str());
    std::printf("\n");
    if (s.found > 0)
    {
        const PointDistance& far = answers[s.farthest];
        std::printf("  min    %.9g\n  mean   %.9g\n  RMS    %.9g\n  max    %.9g   at point %zu %s, nearest triangle "
                    "%u at %s\n",
                    s.min, s.sum / double(s.found), std::sqrt(s.sumOfSquares / double(s.found)), s.max, s.farthest,
                    triple(points[s.farthest]).c_str(), far.triangle, triple(far.closest).c_str());
    }
    if (format != Format::eNone)
        std::printf("wrote %s\n", options.output.c_str());
}
} // namespace kxbvh
