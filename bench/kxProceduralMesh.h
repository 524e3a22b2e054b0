#ifndef KXPROCEDURALMESH_H
#define KXPROCEDURALMESH_H

#include "kxTriMesh.h"

#include <cstdint>

namespace kxbench
{
/// A closed, bumpy torus of about `triangles` triangles (rounded to a whole grid), with
/// triangles of uneven size: a deterministic stand-in for a scanned model.
kx::kxPointer<kx::kxTriMesh> makeProceduralMesh(uint32_t triangles, uint32_t seed = 1);
} // namespace kxbench

#endif
