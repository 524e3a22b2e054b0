// kxbvh info: what a hierarchy over the mesh looks like and what it costs.
#ifndef KXBVH_INFO_H
#define KXBVH_INFO_H

#include "Hierarchy.h"
#include "MeshSource.h"

namespace kxbvh
{
struct InfoOptions
{
    MeshSource source;
    BuildOptions build;
    bool json = false;
};

void runInfo(const InfoOptions& options);
} // namespace kxbvh

#endif
