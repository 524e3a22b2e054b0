// Deterministic procedural meshes for the benchmarks.
#ifndef KXBENCHMESHES_H
#define KXBENCHMESHES_H

#include "kxPointer.h"
#include "kxTriMesh.h"

#include <cstdint>

namespace kxBench
{
/// A torus with a bumpy surface, as a grid of rows x columns quads of two triangles each,
/// in grid order (neighbouring triangles have neighbouring numbers, as in scanned or
/// tessellated models). About the requested number of triangles, at least 12; the same
/// mesh on every call.
kx::kxPointer<kx::kxTriMesh> makeBumpyTorus(uint32_t triangles);
} // namespace kxBench

#endif
