// Checks of a mesh file's header made before assimp reads the file, for the formats whose
// few header bytes make assimp loop or allocate without bound.
#ifndef KXBVH_HEADERCHECKS_H
#define KXBVH_HEADERCHECKS_H

#include <cstdint>
#include <string>

namespace kxbvh
{
/// A PLY file (one starting with the word "ply") must have an end_header line, which
/// assimp otherwise searches for forever, and its elements must fit in the bytes after the
/// header: assimp walks through every declared element even when the data ends early. Any
/// other header line is left to assimp, which skips free text. An element declared twice
/// is refused: assimp's reader writes past its buffers on such headers. Throws InputError naming
/// the file.
void checkPlyHeader(const std::string& path, uint64_t fileSize);

/// An OFF file (extension .off, or a first word such as OFF, COFF or nOFF) must have
/// room for the vertices and faces its header declares: assimp allocates them all before
/// reading one. Throws InputError naming the file.
void checkOffHeader(const std::string& path, uint64_t fileSize);

/// A binary glTF file (one starting with "glTF") must hold the bytes its header and
/// chunks declare: assimp allocates each declared length before reading it. Throws
/// InputError naming the file.
void checkGlbHeader(const std::string& path, uint64_t fileSize);
} // namespace kxbvh

#endif
