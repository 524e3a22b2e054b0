#include "Cli.h"

#include "Bench.h"
#include "Cull.h"
#include "Distance.h"
#include "Errors.h"
#include "Info.h"
#include "Progress.h"
#include "Render.h"
#include "Scene.h"

#include <kxCommonAddOnsVersion.h>
#include <kxLog.h>

#include <CLI/CLI.hpp>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <vector>

namespace kxbvh
{
namespace
{
const char* const kFooter = R"(
Without a MESH the built-in scene is used (a bumpy sphere and a torus over hilly ground,
about a million triangles; --triangles N changes its size).

A file that cannot be used (unreadable, not a mesh, no triangles, a header declaring more
than the file holds, more memory to read than --read-memory allows) gives one line on
standard error naming it, and exit status 2.

Examples:
  kxbvh info                          figures for the built-in scene
  kxbvh info bunny.ply --json         the same for a file, as JSON
  kxbvh render model.glb -o model.png
  kxbvh render --shade ao --samples 32 -o ao.png
  kxbvh cull --tile 16 -o tiles.png   which 16x16 pixel tiles see geometry
  kxbvh distance part.stl scan.ply -o deviation.ply
  kxbvh bench model.obj               build and ray speed, beside Embree)";

template <typename T>
CLI::Validator oneOf(const std::map<std::string, T>& choices)
{
    std::string names;
    for (const auto& choice : choices)
        names += (names.empty() ? "" : "|") + choice.first;
    // Replaces the name by the enumerator's number, which CLI11 then stores.
    return CLI::Validator(
        [choices, names](std::string& value) {
            const auto found = choices.find(value);
            if (found == choices.end())
                return "'" + value + "' is not one of " + names;
            value = std::to_string(static_cast<long long>(found->second));
            return std::string();
        },
        "");
}

bool parseVec3(const std::string& text, Vec3& out)
{
    float values[3];
    const char* cursor = text.c_str();
    for (int i = 0; i < 3; ++i)
    {
        char* end = nullptr;
        values[i] = std::strtof(cursor, &end);
        if (end == cursor || !std::isfinite(values[i]))
            return false;
        cursor = end;
        if (i < 2)
        {
            if (*cursor != ',')
                return false;
            ++cursor;
        }
    }
    if (*cursor != '\0')
        return false;
    out = Vec3(values[0], values[1], values[2]);
    return true;
}

const CLI::Validator kVec3(
    [](std::string& value) {
        Vec3 parsed;
        return parseVec3(value, parsed) ? std::string() : "'" + value + "' is not three numbers x,y,z";
    },
    "");

Vec3 toVec3(const std::string& text)
{
    Vec3 value(0.0f, 0.0f, 0.0f);
    parseVec3(text, value);
    return value;
}

struct MeshOptions
{
    CLI::Option* path = nullptr;
    CLI::Option* triangles = nullptr;
};

MeshOptions addMeshOptions(CLI::App& command, MeshSource& source)
{
    MeshOptions options;
    options.path = command.add_option("MESH", source.path,
                                      "Mesh file: OBJ, PLY, STL, glTF/GLB, OFF, 3DS, FBX, DAE, ... (anything assimp "
                                      "reads); all its meshes are merged with their node transforms. Without it, the "
                                      "built-in scene. A file that cannot be used gives one line and status 2 "
                                      "(kxbvh --verbose shows what assimp said; --read-memory bounds its memory)");
    options.path->type_name("FILE");
    options.triangles =
        command.add_option("--triangles", source.sceneTriangles, "Size of the built-in scene, in triangles")
            ->check(CLI::Range(kMinSceneTriangles, kMaxSceneTriangles))
            ->capture_default_str()
            ->excludes(options.path);
    return options;
}

CLI::Option* addBuildOptions(CLI::App& command, BuildOptions& build)
{
    command
        .add_option("--builder", build.builder,
                    "linear: Morton codes, fast to build (what buildFromMesh uses); sah: binned surface-area "
                    "heuristic, slower to build, often faster to query; hq: surface-area heuristic with spatial "
                    "splits, laid out for the four-wide tree, the fastest to query")
        ->transform(oneOf(std::map<std::string, Builder>{
            {"linear", Builder::eLinear}, {"sah", Builder::eSah}, {"hq", Builder::eHq}}))
        ->type_name("linear|sah|hq")
        ->default_str("linear");
    return command.add_option("--leaf", build.leafSize, "Largest leaf of the linear and hq builders, in triangles")
        ->check(CLI::Range(1u, 1024u))
        ->capture_default_str();
}

void addCameraOptions(CLI::App& command, CameraOptions& camera)
{
    command.add_option("--width", camera.width, "Picture width in pixels")
        ->check(CLI::Range(1, 16384))
        ->capture_default_str();
    command.add_option("--height", camera.height, "Picture height in pixels")
        ->check(CLI::Range(1, 16384))
        ->capture_default_str();
    command.add_option_function<std::string>(
               "--view", [&camera](const std::string& v) { camera.view = toVec3(v); },
               "Eye position (default: framing the mesh from above and to the side)")
        ->check(kVec3)
        ->type_name("X,Y,Z");
    command.add_option_function<std::string>(
               "--at", [&camera](const std::string& v) { camera.at = toVec3(v); },
               "Point looked at (default: the centre of the mesh's bounds)")
        ->check(kVec3)
        ->type_name("X,Y,Z");
    command.add_option_function<std::string>(
               "--up", [&camera](const std::string& v) { camera.up = toVec3(v); }, "Up direction (default 0,1,0)")
        ->check(kVec3)
        ->type_name("X,Y,Z");
    command.add_option("--fov", camera.fovDegrees, "Vertical field of view in degrees")
        ->check(CLI::Range(1.0f, 170.0f))
        ->capture_default_str();
}

CLI::Option* addThreads(CLI::App& command, unsigned& threads)
{
    return command.add_option("--threads", threads, "Threads for the queries (0: every core)")
        ->check(CLI::Range(0u, 1024u))
        ->capture_default_str();
}

void rejectLeafWithSah(const CLI::Option* leaf, const BuildOptions& build)
{
    if (leaf->count() > 0 && build.builder == Builder::eSah)
        throw InputError("--leaf applies to the linear and hq builders only (the SAH builder sizes its leaves by "
                         "cost)");
}

/// The library's own log lines (the linear builder's memory figures at the info level)
/// go to standard error, and only with --verbose, so standard output stays the tool's.
void routeLibraryLog(bool verbose)
{
    static kx::kxLog log;
    log.setStream(nullptr);
    log.setLevelEnabled(0, verbose);
    log.setLevelEnabled(1, verbose);
    kx::kxLog::msInstance = &log;
}
} // namespace

int runCommandLine(int argc, char** argv)
{
    CLI::App app{"kxbvh: build bounding volume hierarchies over a triangle mesh with kxCommonAddOns, look at "
                 "them, render them, and time them.",
                 "kxbvh"};
    app.set_version_flag("--version", std::string("kxbvh ") +
                                          kxCommonAddOns::Version::GetDescStringMajorMinorReleaseRevisionDate());
    app.fallthrough();
    app.require_subcommand(0, 1);

    ProgressMode progress = ProgressMode::eAuto;
    app.add_option("--progress", progress, "Progress on standard error: auto (when it is a terminal), always, never")
        ->transform(oneOf(std::map<std::string, ProgressMode>{
            {"auto", ProgressMode::eAuto}, {"always", ProgressMode::eAlways}, {"never", ProgressMode::eNever}}))
        ->type_name("auto|always|never")
        ->default_str("auto");
    ReadOptions read;
    app.add_flag("--verbose", read.verbose,
                 "Also show, on standard error, the library's own log lines and what assimp says while it reads a "
                 "file");
    app.add_option_function<uint64_t>(
           "--read-memory", [&read](uint64_t bytes) { read.memory = bytes; },
           "Memory assimp may take to read the file, e.g. 4GB; 0 for no limit (default: 1 GiB, or 64 times the "
           "file's size beyond 16 MiB)")
        ->transform(CLI::AsSizeValue(false).description(""))
        ->type_name("SIZE");

    InfoOptions info;
    CLI::App* infoCommand = app.add_subcommand(
        "info", "Mesh figures, build times per phase, tree statistics, memory and SAH cost");
    addMeshOptions(*infoCommand, info.source);
    CLI::Option* infoLeaf = addBuildOptions(*infoCommand, info.build);
    infoCommand->add_flag("--json", info.json, "Print the same figures as one JSON object");

    RenderOptions render;
    CLI::App* renderCommand =
        app.add_subcommand("render", "Shoot one ray per pixel through the QBVH and write a PNG; prints rays/s");
    addMeshOptions(*renderCommand, render.source);
    CLI::Option* renderLeaf = addBuildOptions(*renderCommand, render.build);
    renderCommand->add_option("-o,--output", render.output, "PNG file to write")->type_name("FILE")->capture_default_str();
    addCameraOptions(*renderCommand, render.camera);
    renderCommand
        ->add_option("--shade", render.shade,
                     "normal: facing normal as colour; depth: near is bright; ao: ambient occlusion, dark where "
                     "nearby geometry hides the sky (occlusion rays within a tenth of the scene's size)")
        ->transform(oneOf(
            std::map<std::string, Shade>{{"normal", Shade::eNormal}, {"depth", Shade::eDepth}, {"ao", Shade::eAO}}))
        ->type_name("normal|depth|ao")
        ->default_str("normal");
    CLI::Option* renderSamples =
        renderCommand->add_option("--samples", render.samples, "Occlusion rays per pixel for --shade ao")
        ->check(CLI::Range(1u, 4096u))
        ->capture_default_str();
    const std::map<std::string, kxQBVH::tIntersectionPolicy> sides{
        {"all", kxQBVH::eAllSides}, {"front", kxQBVH::eFrontSide}, {"back", kxQBVH::eBackSide}};
    renderCommand
        ->add_option("--side", render.side,
                     "Which faces a ray may hit: all, front (against the normal of a counter-clockwise "
                     "triangle), back")
        ->transform(oneOf(sides))
        ->type_name("all|front|back")
        ->default_str("all");
    addThreads(*renderCommand, render.threads);

    CullOptions cull;
    CLI::App* cullCommand = app.add_subcommand(
        "cull", "Ask for each tile of the view whether its frustum holds geometry; writes the mask over the picture");
    addMeshOptions(*cullCommand, cull.source);
    CLI::Option* cullLeaf = addBuildOptions(*cullCommand, cull.build);
    cullCommand->add_option("-o,--output", cull.output, "PNG file to write")->type_name("FILE")->capture_default_str();
    addCameraOptions(*cullCommand, cull.camera);
    cullCommand->add_option("--tile", cull.tile, "Tile size in pixels")
        ->check(CLI::Range(1, 4096))
        ->capture_default_str();
    addThreads(*cullCommand, cull.threads);

    DistanceOptions distance;
    CLI::App* distanceCommand = app.add_subcommand(
        "distance", "Distance from every point of a file to the mesh (closest-point queries), with a summary");
    distanceCommand->add_option("MESH", distance.source.path, "Mesh file (anything assimp reads)")
        ->type_name("FILE")
        ->required();
    distanceCommand
        ->add_option("POINTS", distance.points,
                     "File whose vertices are the points: a point cloud or any mesh assimp reads")
        ->type_name("FILE")
        ->required();
    CLI::Option* distanceLeaf = addBuildOptions(*distanceCommand, distance.build);
    distanceCommand
        ->add_option("-o,--output", distance.output,
                     "out.csv: per point its coordinates, distance, nearest triangle and nearest point; out.ply: "
                     "the points coloured from blue (on the mesh) to red (farthest), with their distances")
        ->type_name("FILE");
    distanceCommand
        ->add_option("--max", distance.maxDistance,
                     "Largest distance searched; points farther away are counted apart (and left empty or grey "
                     "in the output)")
        ->check(CLI::Validator(
            [](std::string& value) {
                char* end = nullptr;
                const float parsed = std::strtof(value.c_str(), &end);
                return end != value.c_str() && *end == '\0' && parsed >= 0.0f && !std::isnan(parsed)
                           ? std::string()
                           : "'" + value + "' is not a distance (a number of at least 0)";
            },
            ""))
        ->type_name("D");
    addThreads(*distanceCommand, distance.threads);

    BenchOptions bench;
    CLI::App* benchCommand = app.add_subcommand(
        "bench", "Time builds (linear, SAH), ray, occlusion and closest-point queries on one and on all cores, "
        "beside Embree when available");
    addMeshOptions(*benchCommand, bench.source);
    benchCommand->add_option("--leaf", bench.leafSize, "Largest leaf of the linear builder, in triangles")
        ->check(CLI::Range(1u, 1024u))
        ->capture_default_str();
    addCameraOptions(*benchCommand, bench.camera);
    addThreads(*benchCommand, bench.threads);
    benchCommand->add_option("--repeat", bench.repeat, "Runs of each measurement; the best counts")
        ->check(CLI::Range(1u, 100u))
        ->capture_default_str();
    benchCommand->add_flag("--json", bench.json, "Print the figures as one JSON object");

    // Set last: subcommands made after it would repeat it under their own help.
    app.footer(kFooter);
    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::CallForHelp& e)
    {
        return app.exit(e);
    }
    catch (const CLI::CallForAllHelp& e)
    {
        return app.exit(e);
    }
    catch (const CLI::CallForVersion& e)
    {
        return app.exit(e);
    }
    catch (const CLI::ParseError& e)
    {
        std::fprintf(stderr, "kxbvh: error: %s (see kxbvh --help)\n", e.what());
        return eExitBadInput;
    }

    setProgressMode(progress);
    routeLibraryLog(read.verbose);
    for (MeshSource* source : {&info.source, &render.source, &cull.source, &bench.source, &distance.source})
        source->read = read;
    if (infoCommand->parsed())
    {
        rejectLeafWithSah(infoLeaf, info.build);
        runInfo(info);
    }
    else if (renderCommand->parsed())
    {
        rejectLeafWithSah(renderLeaf, render.build);
        if (renderSamples->count() > 0 && render.shade != Shade::eAO)
            throw InputError("--samples applies to --shade ao only");
        runRender(render);
    }
    else if (cullCommand->parsed())
    {
        rejectLeafWithSah(cullLeaf, cull.build);
        runCull(cull);
    }
    else if (distanceCommand->parsed())
    {
        rejectLeafWithSah(distanceLeaf, distance.build);
        runDistance(distance);
    }
    else if (benchCommand->parsed())
        runBench(bench);
    else
        std::fputs(app.help().c_str(), stdout);
    return eExitOk;
}
} // namespace kxbvh
