// kxbvh bench: figures that hold whatever the machine's speed.
#include "kxbvhTestSupport.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <map>

using namespace kxbvhtest;
using nlohmann::json;

TEST(KxbvhBench, BothHierarchiesFindTheSameHitsAsEachOtherAndAsEmbree)
{
    TempDir dir;
    writeObj(randomSoup(2000, 21), dir.file("soup.obj"));
    const ToolResult run = runTool({"bench", dir.file("soup.obj"), "--json", "--width", "48", "--height", "32",
                                    "--repeat", "1", "--threads", "2"});
    ASSERT_EQ(run.status, 0) << run.err;
    const json figures = json::parse(run.out);
    EXPECT_EQ(figures["mesh"]["triangles"], 2000);
    EXPECT_EQ(figures["rays"], 48 * 32);

    std::vector<std::string> builds;
    for (const json& build : figures["build"])
    {
        EXPECT_GT(build["seconds"].get<double>(), 0.0) << build;
        builds.push_back(build["name"]);
    }
    ASSERT_GE(builds.size(), 2u);
    EXPECT_EQ(builds[0], "kxbvh linear + QBVH");
    EXPECT_EQ(builds[1], "kxbvh SAH + QBVH");

    // Hit or miss is a property of the triangles, not of the tree that finds them.
    std::map<std::string, uint64_t> hits;
    for (const json& trace : figures["trace"])
    {
        EXPECT_GT(trace["rays_per_second"].get<double>(), 0.0) << trace;
        const uint64_t h = trace["hits"];
        const auto [it, fresh] = hits.emplace(trace["name"], h);
        EXPECT_EQ(it->second, h) << trace["name"] << " finds different hits on different thread counts";
    }
    ASSERT_TRUE(hits.count("kxbvh (linear BVH)"));
    EXPECT_GT(hits["kxbvh (linear BVH)"], 48u * 32u / 10u);
    EXPECT_EQ(hits["kxbvh (linear BVH)"], hits["kxbvh (SAH BVH)"]);

    if (!figures["embree_agreement"].is_null())
    {
        EXPECT_EQ(figures["embree_agreement"]["rays"], 48 * 32);
        EXPECT_GE(figures["embree_agreement"]["fraction"].get<double>(), 0.99);
    }
}
