#pragma once

// What the stack readers and writers of the image layer share: the checks
// of a stack's header and the TIFF side, which stack.cpp calls by the file's
// name or first bytes.

#include <torvel/imageio.hpp>

#include "mrc.hpp"

#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>

namespace torvel::stack {

using mrc::kMaxWavelengths;

// nx * ny * nz * nw in 64 bits, saturating (so a product too large for
// memory stays too large); 0 when a size is below 1.
std::uint64_t voxel_count(const image_stack_header& h);

// Whether h describes a stack that can be written or returned: sizes of at
// least 1, 1 to 5 wavelengths, spacing and wavelengths finite and not
// negative. Otherwise false after one message about `name`.
bool check_header(const char* name, const image_stack_header& h);

// A buffer for count floats, or null after a message about `name`.
std::unique_ptr<float[]> allocate_voxels(const char* name, std::uint64_t count);

// The TIFF side of write_image_stack; header and voxels already checked.
int write_tiff(const char* name, const image_stack_header& header, std::span<const float> voxels);

// The TIFF side of read_image_stack: `file` is the open regular file of
// `size` bytes called `name`, left open. As read_image_stack.
int read_tiff(const char* name, std::FILE* file, std::uint64_t size, image_stack_header* header,
              std::unique_ptr<float[]>* voxels);

}  // namespace torvel::stack
