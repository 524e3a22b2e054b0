// Runs kxbvh over every file of a folder of real mesh files (Debian assimp-testmodels) and
// lists each file it answers badly: a crash, a hang, too much memory, an acceptance without
// triangles, a rejection in more than one line, or a rejection of a file that assimp itself
// reads with triangles.
#include "MeshSource.h"

#include <assimp/Importer.hpp>
#include <assimp/scene.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <thread>

namespace
{
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr uint64_t kMiB = uint64_t(1) << 20;

/// What a file may cost: CPU seconds, and memory on top of what the tool lets assimp take.
struct Limits
{
    double cpuSeconds = KX_SWEEP_CPU_SECONDS;
    uint64_t memorySlack = uint64_t(KX_SWEEP_MEMORY_SLACK_MIB) * kMiB;

    uint64_t memory(uint64_t fileSize) const { return kxbvh::automaticReadMemory(fileSize) + memorySlack; }
    // A child blocked rather than busy shows only on the clock; the machine may be shared.
    double wallSeconds() const { return 4 * cpuSeconds; }
};

struct Outcome
{
    int status = -1;  // exit status, or -1 when a signal ended the process
    int signal = 0;
    bool killedForTime = false;
    bool killedForMemory = false;
    double cpuSeconds = 0.0;
    uint64_t peakBytes = 0;
    std::string out;
    std::string err;
};

struct Job
{
    std::string file;
    uint64_t fileSize = 0;
    // Runs in the child with standard output and error sent to the two files.
    std::function<void()> body;
    Outcome outcome;
};

std::string readAll(const std::string& path)
{
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

uint64_t residentBytes(pid_t pid)
{
    uint64_t size = 0, resident = 0;
    std::ifstream("/proc/" + std::to_string(pid) + "/statm") >> size >> resident;
    return resident * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

/// Runs the jobs a few at a time, each in a process of its own, killed when it goes over
/// the limits; the peak memory comes from the kernel's accounting of the whole process.
void runAll(std::vector<Job>& jobs, const Limits& limits, const fs::path& scratch)
{
    struct Running
    {
        Job* job;
        Clock::time_point start;
        std::string outPath, errPath;
    };
    std::map<pid_t, Running> running;
    std::deque<Job*> waiting;
    for (Job& job : jobs)
        waiting.push_back(&job);
    const size_t parallel = std::max(1u, std::thread::hardware_concurrency());
    size_t started = 0;
    unsigned polls = 0;
    while (!waiting.empty() || !running.empty())
    {
        while (!waiting.empty() && running.size() < parallel)
        {
            Job* job = waiting.front();
            waiting.pop_front();
            const std::string base = (scratch / std::to_string(started++)).string();
            Running child{job, Clock::now(), base + ".out", base + ".err"};
            std::fflush(nullptr);
            const pid_t pid = fork();
            if (pid == 0)
            {
                const int out = open(child.outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
                const int err = open(child.errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
                dup2(out, STDOUT_FILENO);
                dup2(err, STDERR_FILENO);
                job->body();
                _exit(127);
            }
            running.emplace(pid, child);
        }
        int status = 0;
        rusage usage{};
        const pid_t done = wait4(-1, &status, WNOHANG, &usage);
        if (done > 0)
        {
            const auto found = running.find(done);
            Outcome& outcome = found->second.job->outcome;
            outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            outcome.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
            outcome.cpuSeconds = double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                                 1e-6 * double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
            outcome.peakBytes = std::max(outcome.peakBytes, uint64_t(usage.ru_maxrss) * 1024);
            outcome.out = readAll(found->second.outPath);
            outcome.err = readAll(found->second.errPath);
            running.erase(found);
            continue;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        if (++polls % 10 != 0)
            continue;
        for (auto& [pid, child] : running)
        {
            Outcome& outcome = child.job->outcome;
            const uint64_t resident = residentBytes(pid);
            outcome.peakBytes = std::max(outcome.peakBytes, resident);
            const double seconds = std::chrono::duration<double>(Clock::now() - child.start).count();
            if (resident > limits.memory(child.job->fileSize) && !outcome.killedForMemory)
                outcome.killedForMemory = kill(pid, SIGKILL) == 0;
            if (seconds > limits.wallSeconds() && !outcome.killedForTime)
                outcome.killedForTime = kill(pid, SIGKILL) == 0;
        }
    }
}

void runTool(const std::string& file, const std::string& leakSuppressions)
{
    // Assimp leaks on some files it refuses; only the tool's own leaks count here.
    const char* options = std::getenv("LSAN_OPTIONS");
    const std::string leaks =
        (options ? std::string(options) + ":" : "") + "print_suppressions=0:suppressions=" + leakSuppressions;
    setenv("LSAN_OPTIONS", leaks.c_str(), 1);
    execl(KXBVH_PATH, KXBVH_PATH, "info", file.c_str(), "--json", static_cast<char*>(nullptr));
}

uint64_t countTriangles(const aiScene& scene, const aiNode& node, bool& finite)
{
    uint64_t triangles = 0;
    for (unsigned m = 0; m < node.mNumMeshes; ++m)
    {
        const aiMesh& mesh = *scene.mMeshes[node.mMeshes[m]];
        for (unsigned f = 0; f < mesh.mNumFaces; ++f)
            triangles += mesh.mFaces[f].mNumIndices == 3;
        for (unsigned v = 0; v < mesh.mNumVertices; ++v)
            finite = finite && std::isfinite(mesh.mVertices[v].x) && std::isfinite(mesh.mVertices[v].y) &&
                     std::isfinite(mesh.mVertices[v].z);
    }
    for (unsigned c = 0; c < node.mNumChildren; ++c)
        triangles += countTriangles(scene, *node.mChildren[c], finite);
    return triangles;
}

/// Assimp alone, asked as the tool asks it but with no guard: prints the triangles it reads
/// when their coordinates are all finite numbers, or 0.
void readWithAssimp(const std::string& file)
{
    const int report = dup(STDOUT_FILENO);
    const int nowhere = open("/dev/null", O_WRONLY);
    dup2(nowhere, STDOUT_FILENO);
    dup2(nowhere, STDERR_FILENO);
    Assimp::Importer importer;
    importer.SetPropertyInteger(AI_CONFIG_PP_SBP_REMOVE, kxbvh::kDroppedPrimitives);
    const aiScene* scene = importer.ReadFile(file, kxbvh::kImportFlags);
    bool finite = true;
    const uint64_t triangles = scene && scene->mRootNode ? countTriangles(*scene, *scene->mRootNode, finite) : 0;
    const std::string text = std::to_string(finite ? triangles : 0);
    if (write(report, text.data(), text.size()) < 0)
        _exit(1);
    _exit(0);
}

int lines(const std::string& text)
{
    return static_cast<int>(std::count(text.begin(), text.end(), '\n'));
}

std::string mib(uint64_t bytes)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.0f MiB", double(bytes) / double(kMiB));
    return text;
}

/// Empty when the tool answered the file as it should, otherwise what went wrong.
std::string judge(const Job& run, const Limits& limits)
{
    const Outcome& o = run.outcome;
    std::string problems;
    auto note = [&problems](const std::string& problem) { problems += (problems.empty() ? "" : "; ") + problem; };
    if (o.killedForTime || o.cpuSeconds > limits.cpuSeconds)
        note(o.killedForTime ? "still running after " + std::to_string(int(limits.wallSeconds())) + " s"
                             : "took " + std::to_string(o.cpuSeconds) + " s");
    if (o.killedForMemory || o.peakBytes > limits.memory(run.fileSize))
        note("took " + mib(o.peakBytes) + " of memory");
    if (o.signal != 0 && !o.killedForTime && !o.killedForMemory)
        note("ended by signal " + std::to_string(o.signal));
    if (o.status == 0)
    {
        const nlohmann::json figures = nlohmann::json::parse(o.out, nullptr, false);
        if (figures.is_discarded() || !figures.contains("mesh") || figures["mesh"].value("triangles", 0) <= 0)
            note("accepted without triangles, or its standard output is not the figures: " + o.out.substr(0, 200));
        if (!o.err.empty())
            note("accepted but printed on standard error: " + o.err.substr(0, 200));
    }
    else if (o.status == 2)
    {
        if (lines(o.err) != 1 || o.err.rfind("kxbvh: error: ", 0) != 0 || o.err.find(run.file) == std::string::npos)
            note("rejected without exactly one line naming it: " + o.err.substr(0, 400));
        if (!o.out.empty())
            note("rejected but printed on standard output");
    }
    else if (o.status != -1)
        note("exit status " + std::to_string(o.status) + ": " + o.err.substr(0, 200));
    return problems;
}

class ScratchDir
{
public:
    ScratchDir()
    {
        std::string pattern = (fs::temp_directory_path() / "kxbvh-corpus-XXXXXX").string();
        if (mkdtemp(pattern.data()))
            mPath = pattern;
    }
    ~ScratchDir()
    {
        std::error_code ignored;
        fs::remove_all(mPath, ignored);
    }
    const fs::path& path() const { return mPath; }

private:
    fs::path mPath;
};
} // namespace

TEST(KxbvhCorpus, EveryRealFileIsReadOrRejectedInOneLineWithinTimeAndMemory)
{
    const char* chosen = std::getenv("KXBVH_CORPUS");
    const fs::path folder = chosen ? chosen : KX_CORPUS_DIR;
    if (!fs::is_directory(folder))
        GTEST_SKIP() << folder << " is not installed";
    ScratchDir scratch;
    ASSERT_FALSE(scratch.path().empty());
    const Limits limits;
    const std::string leakSuppressions = (scratch.path() / "leaks.supp").string();
    std::ofstream(leakSuppressions) << "leak:libassimp.so\n";

    std::vector<Job> runs;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder))
        if (entry.is_regular_file())
        {
            const std::string file = entry.path().string();
            runs.push_back(
                Job{file, entry.file_size(), [file, leakSuppressions] { runTool(file, leakSuppressions); }, {}});
        }
    std::sort(runs.begin(), runs.end(), [](const Job& a, const Job& b) { return a.file < b.file; });
    ASSERT_FALSE(runs.empty()) << "no files in " << folder;
    const auto start = Clock::now();
    runAll(runs, limits, scratch.path());

    // A rejected file must be one that assimp, unguarded, cannot read with triangles within
    // the same limits: any other rejection is the tool's fault.
    std::vector<Job> oracles;
    for (const Job& run : runs)
        if (run.outcome.status == 2)
            oracles.push_back(Job{run.file, run.fileSize, [file = run.file] { readWithAssimp(file); }, {}});
    runAll(oracles, limits, scratch.path());
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    std::map<std::string, const Job*> oracleOf;
    for (const Job& oracle : oracles)
        oracleOf[oracle.file] = &oracle;

    int accepted = 0, rejected = 0;
    const Job* slowest = &runs.front();
    const Job* largest = &runs.front();
    std::string broken;
    for (const Job& run : runs)
    {
        accepted += run.outcome.status == 0;
        rejected += run.outcome.status == 2;
        slowest = run.outcome.cpuSeconds > slowest->outcome.cpuSeconds ? &run : slowest;
        largest = run.outcome.peakBytes > largest->outcome.peakBytes ? &run : largest;
        std::string problems = judge(run, limits);
        const auto oracle = oracleOf.find(run.file);
        if (oracle != oracleOf.end())
        {
            const Outcome& o = oracle->second->outcome;
            const bool withinLimits = !o.killedForTime && !o.killedForMemory && o.cpuSeconds <= limits.cpuSeconds;
            if (o.status == 0 && withinLimits && std::atoll(o.out.c_str()) > 0)
                problems += (problems.empty() ? "" : "; ") + std::string("rejected, but assimp reads ") + o.out +
                            " triangles from it: " + run.outcome.err.substr(0, 300);
        }
        if (!problems.empty())
            broken += "\n  " + run.file + ": " + problems;
    }
    std::printf("%zu files in %.0f s: %d accepted, %d rejected; slowest %s (%.2f s of CPU); largest %s (%s)\n",
                runs.size(), seconds, accepted, rejected, slowest->file.c_str(), slowest->outcome.cpuSeconds,
                largest->file.c_str(), mib(largest->outcome.peakBytes).c_str());
    EXPECT_EQ(accepted + rejected, int(runs.size()));
    EXPECT_TRUE(broken.empty()) << "files answered badly:" << broken;
}
