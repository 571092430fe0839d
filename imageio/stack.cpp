// Whole image stacks in one call: the checks they share, the choice between
// MRC and TIFF, and the MRC side, which goes through the numbered streams.

#include "stack.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <limits>
#include <new>
#include <string_view>

namespace torvel::stack {

std::uint64_t voxel_count(const image_stack_header& h) {
    if (h.nx < 1 || h.ny < 1 || h.nz < 1 || h.nw < 1) return 0;
    using mrc::saturating_product;
    return saturating_product(saturating_product(std::uint64_t(h.nx), std::uint64_t(h.ny)),
                              saturating_product(std::uint64_t(h.nz), std::uint64_t(h.nw)));
}

bool check_header(const char* name, const image_stack_header& h) {
    if (h.nx < 1 || h.ny < 1 || h.nz < 1) {
        mrc::report(name, "a stack of %d x %d x %d voxels: each size must be at least 1", h.nx,
                    h.ny, h.nz);
        return false;
    }
    if (h.nw < 1 || h.nw > kMaxWavelengths) {
        mrc::report(name, "%d wavelengths: a stack holds 1 to %d", h.nw, kMaxWavelengths);
        return false;
    }
    const float spacing[3] = {h.dx_um, h.dy_um, h.dz_um};
    for (int axis = 0; axis < 3; ++axis) {
        if (!std::isfinite(spacing[axis]) || spacing[axis] < 0) {
            mrc::report(name, "voxel spacing %g um along %c: expected a finite value, 0 or more",
                        double(spacing[axis]), "xyz"[axis]);
            return false;
        }
    }
    for (int w = 0; w < kMaxWavelengths; ++w) {
        if (!std::isfinite(h.wavelengths_nm[w]) || h.wavelengths_nm[w] < 0) {
            mrc::report(name, "wavelength %d is %g nm: expected a finite value, 0 or more", w,
                        double(h.wavelengths_nm[w]));
            return false;
        }
    }
    return true;
}

std::unique_ptr<float[]> allocate_voxels(const char* name, std::uint64_t count) {
    std::unique_ptr<float[]> voxels;
    if (count <= std::numeric_limits<std::size_t>::max() / sizeof(float))
        voxels.reset(new (std::nothrow) float[count]);
    if (!voxels)
        mrc::report(name, "not enough memory for %llu voxels",
                    static_cast<unsigned long long>(count));
    return voxels;
}

}  // namespace torvel::stack

namespace torvel {
namespace {

using namespace mrc;

enum class StackFormat { mrc, tiff, unknown };

// The format named by a file name's extension, in any letter case.
StackFormat format_of_name(const char* name) {
    const std::string_view n(name);
    const auto ends_with = [&](std::string_view tail) {
        return n.size() > tail.size() &&
               std::equal(tail.begin(), tail.end(), n.end() - tail.size(),
                          [](char a, char b) { return a == std::tolower(static_cast<unsigned char>(b)); });
    };
    if (ends_with(".mrc")) return StackFormat::mrc;
    if (ends_with(".tif") || ends_with(".tiff")) return StackFormat::tiff;
    return StackFormat::unknown;
}

// A free stream slot, or 0 after a message: the MRC side borrows one for
// the length of a call.
int free_stream(const char* name) {
    for (int stream = 1; stream <= kStreams; ++stream)
        if (!g_streams[stream]) return stream;
    report(name, "all %d image streams are in use", kStreams);
    return 0;
}

// Statistics of one block of voxels; NaN takes no part in the minimum and maximum.
struct Range {
    float min = std::numeric_limits<float>::infinity();
    float max = -std::numeric_limits<float>::infinity();
    double sum = 0;
};

Range range_of(std::span<const float> v) {
    Range r;
    for (const float x : v) {
        r.min = std::fmin(r.min, x);
        r.max = std::fmax(r.max, x);
        r.sum += x;
    }
    return r;
}

// The header of the stack's MRC file, set through the stream's setters, every
// value already checked so that none of them refuses: DMIN, DMAX and DMEAN
// are those of all voxels (what MRC readers check them against), the block
// holds the display range of every further wavelength.
void set_mrc_header(int stream, const image_stack_header& h, std::span<const float> voxels) {
    image_set_dimensions(stream, h.nx, h.ny);
    image_set_zwt_sizes(stream, h.nz, h.nw, 1, 0);
    image_set_pixel_mode(stream, 2);
    image_set_pixel_spacing(stream, h.dx_um, h.dy_um, h.dz_um);
    image_set_type_info(stream, 0, 0, 0, 0, 0.0f, 0.0f);
    image_set_wavelengths(stream, h.nw, h.wavelengths_nm);
    const std::size_t block = voxels.size() / std::size_t(h.nw);
    Range all;
    for (int w = 0; w < h.nw; ++w) {
        const Range r = range_of(voxels.subspan(std::size_t(w) * block, block));
        if (w > 0) image_set_wavelength_min_max(stream, w, r.min, r.max);
        all.min = std::fmin(all.min, r.min);
        all.max = std::fmax(all.max, r.max);
        all.sum += r.sum;
    }
    image_write_header(stream, nullptr, -1, all.min, all.max,
                       static_cast<float>(all.sum / double(voxels.size())));
}

int write_mrc(const char* name, const image_stack_header& h, std::span<const float> voxels) {
    if (std::int64_t(h.nz) * h.nw > std::numeric_limits<std::int32_t>::max()) {
        report(name, "%d planes of %d wavelengths: an MRC file holds at most %d sections", h.nz,
               h.nw, std::numeric_limits<std::int32_t>::max());
        return 1;
    }
    const int stream = free_stream(name);
    if (stream == 0 || image_open(stream, name, "new") != 0) return 1;
    set_mrc_header(stream, h, voxels);
    const std::size_t plane = std::size_t(h.nx) * std::size_t(h.ny);
    for (int w = 0; w < h.nw; ++w) {
        for (int z = 0; z < h.nz; ++z) {
            const float* section = voxels.data() + (std::size_t(w) * h.nz + z) * plane;
            if (image_seek_section(stream, z, w, 0) != 0 ||
                image_write_section(stream, section) != 0) {
                image_discard(stream);
                return 1;
            }
        }
    }
    return image_close(stream);
}

// Reads the open MRC stream's stack; false after a message.
bool read_mrc_stream(int stream, const char* name, image_stack_header* header,
                     std::unique_ptr<float[]>* voxels) {
    int dims[3], start[3], mode = 0;
    float dmin, dmax, dmean;
    image_read_header(stream, dims, start, &mode, &dmin, &dmax, &dmean);
    if (mode == 3 || mode == 4) {
        report(name, "pixel mode %d is complex: expected a stack of real voxels", mode);
        return false;
    }
    image_stack_header h;
    int nt = 0, interleave = 0;
    image_get_zwt_sizes(stream, &h.nz, &h.nw, &nt, &interleave);
    h.nx = dims[0];
    h.ny = dims[1];
    if (nt != 1) {
        report(name, "%d time points: expected a stack of one", nt);
        return false;
    }
    if (h.nw < 1 || h.nw > stack::kMaxWavelengths) {
        report(name, "%d wavelengths: expected 1 to %d", h.nw, stack::kMaxWavelengths);
        return false;
    }
    if (h.nx < 1 || h.ny < 1 || h.nz < 1) {
        report(name, "a stack of %d x %d x %d voxels: expected at least one voxel", h.nx, h.ny,
               h.nz);
        return false;
    }
    image_get_pixel_spacing(stream, &h.dx_um, &h.dy_um, &h.dz_um);
    int count = 0;
    image_get_wavelengths(stream, &count, h.wavelengths_nm);
    for (int w = h.nw; w < stack::kMaxWavelengths; ++w) h.wavelengths_nm[w] = 0.0f;
    if (!stack::check_header(name, h)) return false;
    // The layer has checked the sections against the file's length: the
    // floats take at most four times the file's bytes.
    std::unique_ptr<float[]> v = stack::allocate_voxels(name, stack::voxel_count(h));
    if (!v) return false;
    const std::size_t plane = std::size_t(h.nx) * std::size_t(h.ny);
    for (int w = 0; w < h.nw; ++w) {
        for (int z = 0; z < h.nz; ++z) {
            if (image_seek_section(stream, z, w, 0) != 0 ||
                image_read_section(stream, v.get() + (std::size_t(w) * h.nz + z) * plane) != 0)
                return false;
        }
    }
    *header = h;
    *voxels = std::move(v);
    return true;
}

int read_mrc(const char* name, image_stack_header* header, std::unique_ptr<float[]>* voxels) {
    const int stream = free_stream(name);
    if (stream == 0 || image_open(stream, name, "ro") != 0) return 1;
    const bool ok = read_mrc_stream(stream, name, header, voxels);
    image_close(stream);
    return ok ? 0 : 1;
}

// Whether the first bytes are a TIFF header, classic or BigTIFF, either byte order.
bool is_tiff(const unsigned char* b, std::size_t n) {
    if (n < 4) return false;
    return (b[0] == 'I' && b[1] == 'I' && (b[2] == 42 || b[2] == 43) && b[3] == 0) ||
           (b[0] == 'M' && b[1] == 'M' && b[2] == 0 && (b[3] == 42 || b[3] == 43));
}

}  // namespace

int write_image_stack(const char* name, const image_stack_header& header,
                      std::span<const float> voxels) noexcept {
    if (!name) name = "(no name)";
    const StackFormat format = format_of_name(name);
    if (format == StackFormat::unknown) {
        report(name, "unknown stack format: expected a name ending in .mrc, .tif or .tiff");
        return 1;
    }
    if (!stack::check_header(name, header)) return 1;
    if (voxels.size() != stack::voxel_count(header)) {
        report(name, "%zu voxels given for a stack of %d x %d x %d x %d", voxels.size(),
               header.nx, header.ny, header.nz, header.nw);
        return 1;
    }
    return format == StackFormat::mrc ? write_mrc(name, header, voxels)
                                      : stack::write_tiff(name, header, voxels);
}

int read_image_stack(const char* name, image_stack_header* header,
                     std::unique_ptr<float[]>* voxels) noexcept {
    if (!name) name = "(no name)";
    std::unique_ptr<std::FILE, FileCloser> file(std::fopen(name, "rb"));
    if (!file) {
        report(name, "cannot open for reading: %s", std::strerror(errno));
        return 1;
    }
    struct stat info {};
    if (fstat(fileno(file.get()), &info) != 0 || !S_ISREG(info.st_mode)) {
        report(name, "not a regular file");
        return 1;
    }
    unsigned char magic[4] = {};
    const std::size_t got = std::fread(magic, 1, sizeof magic, file.get());
    if (is_tiff(magic, got))
        return stack::read_tiff(name, file.get(), std::uint64_t(info.st_size), header, voxels);
    file.reset();
    return read_mrc(name, header, voxels);
}

}  // namespace torvel
