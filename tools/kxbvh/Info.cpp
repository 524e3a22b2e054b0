#include "Info.h"

#include "Format.h"
#include "MemoryMeter.h"
#include "Stats.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <iostream>

namespace kxbvh
{
namespace
{
struct Report
{
    const Mesh& mesh;
    const BuildOptions& build;
    const BuildTimes& times;
    BinaryStats bvh;
    QbvhStats qbvh;
};

nlohmann::ordered_json point(const float* xyz)
{
    return nlohmann::ordered_json::array({xyz[0], xyz[1], xyz[2]});
}

void printJson(const Report& r)
{
    nlohmann::ordered_json out;
    out["mesh"] = {{"source", r.mesh.name},
                   {"triangles", r.mesh.triangles},
                   {"vertices", r.mesh.vertices},
                   {"bounds", {{"min", point(r.mesh.bounds.min)}, {"max", point(r.mesh.bounds.max)}}},
                   {"seconds", r.mesh.seconds}};
    out["build"] = {{"builder", builderName(r.build.builder)},
                    {"leaf_size", r.build.builder != Builder::eSah ? nlohmann::ordered_json(r.build.leafSize)
                                                                   : nlohmann::ordered_json()},
                    {"seconds",
                     {{"container", r.times.container},
                      {"binary", r.times.binary},
                      {"qbvh", r.times.collapse},
                      {"total", r.times.total()}}},
                    {"peak_bytes", r.times.peaksMeasured ? nlohmann::ordered_json{{"container", r.times.containerPeak},
                                                                                 {"binary", r.times.binaryPeak},
                                                                                 {"qbvh", r.times.collapsePeak},
                                                                                 {"total", r.times.peak()}}
                                                         : nlohmann::ordered_json()}};
    out["bvh"] = {{"nodes", r.bvh.nodes},
                  {"tree_nodes", r.bvh.treeNodes},
                  {"leaves", r.bvh.leaves},
                  {"min_leaf", r.bvh.minLeaf},
                  {"max_leaf", r.bvh.maxLeaf},
                  {"avg_leaf", r.bvh.avgLeaf},
                  {"largest_leaf_depth", r.bvh.largestLeafDepth},
                  {"depth", r.bvh.depth},
                  {"sah_cost", r.bvh.sahCost},
                  {"memory_bytes", r.bvh.memoryBytes},
                  {"references", r.bvh.references}};
    out["qbvh"] = {{"nodes", r.qbvh.nodes},
                   {"groups", r.qbvh.groups},
                   {"sah_cost", r.qbvh.sahCost},
                   {"memory_bytes", r.qbvh.memoryBytes},
                   {"equations_bytes_per_triangle", double(r.qbvh.equationBytes) / r.mesh.triangles}};
    out["memory"] = {{"total_bytes", r.qbvh.memoryBytes},
                     {"bytes_per_triangle", double(r.qbvh.memoryBytes) / r.mesh.triangles}};
    std::cout << out.dump(2) << std::endl;
}

void row(const char* label, const std::string& value, const std::string& note = "")
{
    std::printf("  %-18s %14s%s%s\n", label, value.c_str(), note.empty() ? "" : "   ", note.c_str());
}

std::string boxText(const kxBBox& box)
{
    return "(" + formatFloat(box.min[0]) + ", " + formatFloat(box.min[1]) + ", " + formatFloat(box.min[2]) + ") to (" +
           formatFloat(box.max[0]) + ", " + formatFloat(box.max[1]) + ", " + formatFloat(box.max[2]) + ")";
}

void printText(const Report& r)
{
    std::printf("%s\n", r.mesh.name.c_str());
    row("triangles", groupDigits(r.mesh.triangles));
    row("vertices", groupDigits(r.mesh.vertices));
    std::printf("  %-18s %s\n", "bounds", boxText(r.mesh.bounds).c_str());

    if (r.build.builder == Builder::eLinear)
        std::printf("\nbuild: linear builder, leaves of at most %u triangles\n", r.build.leafSize);
    else if (r.build.builder == Builder::eHq)
        std::printf("\nbuild: high-quality builder (spatial splits, laid out for four-wide nodes), leaves of at most "
                    "%u triangles\n",
                    r.build.leafSize);
    else
        std::printf("\nbuild: binned SAH builder\n");
    const bool peaks = r.times.peaksMeasured;
    const auto peak = [peaks](uint64_t bytes) { return peaks ? "peak memory " + formatBytes(bytes) : std::string(); };
    row("boxing triangles", formatSeconds(r.times.container), peak(r.times.containerPeak));
    row("binary BVH", formatSeconds(r.times.binary), peak(r.times.binaryPeak));
    row("QBVH collapse", formatSeconds(r.times.collapse), peak(r.times.collapsePeak));
    row("total", formatSeconds(r.times.total()),
        formatRate(r.mesh.triangles / r.times.total()) + " triangles/s" +
            (peaks ? ", peak memory " + formatBytes(r.times.peak()) : std::string(", peak memory not counted in this build")));

    std::printf("\nbinary BVH\n");
    row("nodes", groupDigits(uint64_t(r.bvh.nodes)),
        uint32_t(r.bvh.nodes) == r.bvh.treeNodes ? "" : groupDigits(r.bvh.treeNodes) + " left after leaf fusing");
    char leafNote[96];
    std::snprintf(leafNote, sizeof leafNote, "%d to %d triangles, %.2f on average", r.bvh.minLeaf, r.bvh.maxLeaf,
                  r.bvh.avgLeaf);
    row("leaves", groupDigits(uint64_t(r.bvh.leaves)), leafNote);
    row("largest leaf depth", std::to_string(r.bvh.largestLeafDepth),
        "tree depth " + std::to_string(r.bvh.depth));
    char cost[32];
    std::snprintf(cost, sizeof cost, "%.2f", r.bvh.sahCost);
    row("SAH cost", cost, "triangle tests per ray through the root box (a node visit counts 4)");
    row("memory", formatBytes(r.bvh.memoryBytes));
    char share[64];
    std::snprintf(share, sizeof share, "%.3f per triangle", double(r.bvh.references) / r.mesh.triangles);
    row("references", groupDigits(r.bvh.references), share);

    std::printf("\nQBVH (four-wide, vertices and equations)\n");
    row("nodes", groupDigits(r.qbvh.nodes));
    row("triangle groups", groupDigits(r.qbvh.groups), "of four");
    std::snprintf(cost, sizeof cost, "%.2f", r.qbvh.sahCost);
    row("SAH cost", cost, "node visits and group tests per ray through the root box");
    char perTriangle[48];
    std::snprintf(perTriangle, sizeof perTriangle, "%.1f bytes per triangle",
                  double(r.qbvh.memoryBytes) / r.mesh.triangles);
    row("memory", formatBytes(r.qbvh.memoryBytes), perTriangle);
    std::snprintf(perTriangle, sizeof perTriangle, "%.1f bytes per triangle",
                  double(r.qbvh.equationBytes) / r.mesh.triangles);
    row("with rays only", formatBytes(r.qbvh.equationBytes), perTriangle);
}
} // namespace

void runInfo(const InfoOptions& options)
{
    const Mesh mesh = openMesh(options.source);
    BuildOptions build = options.build;
    build.heap = programHeap();
    Hierarchy hierarchy;
    buildHierarchy(mesh, build, hierarchy);
    const Report report{mesh, build, hierarchy.times, binaryStats(hierarchy.bvh),
                        qbvhStats(hierarchy.qbvh)};
    if (options.json)
        printJson(report);
    else
        printText(report);
}
} // namespace kxbvh
