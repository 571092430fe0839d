// Fuzz target: the stack reader on arbitrary bytes, TIFF or MRC by their
// first bytes. A stack it accepts must be a sound one, no larger than the
// input can hold, and must come back unchanged through the stack writer in
// both formats: the same shape and voxels bit for bit, the spacing within a
// rounding, the wavelengths exactly through MRC (TIFF keeps none).

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include <torvel/imageio.hpp>

#include "check.hpp"
#include "scratch.hpp"

namespace {

using namespace torvel;

// Stacks above this many voxels are checked but not written back.
constexpr std::uint64_t kMaxRoundTrip = 1u << 20;
// The most voxels a byte of input may become: a compressed TIFF strip may
// decode to 4096 times its bytes, each byte an 8-bit voxel.
constexpr std::uint64_t kMaxVoxelsPerByte = 4096;

std::uint64_t voxels_of(const image_stack_header& h) {
    return std::uint64_t(h.nx) * std::uint64_t(h.ny) * std::uint64_t(h.nz) * std::uint64_t(h.nw);
}

bool sound(const image_stack_header& h) {
    bool ok = h.nx >= 1 && h.ny >= 1 && h.nz >= 1 && h.nw >= 1 && h.nw <= 5;
    for (const float s : {h.dx_um, h.dy_um, h.dz_um}) ok = ok && std::isfinite(s) && s >= 0;
    for (const float w : h.wavelengths_nm) ok = ok && std::isfinite(w) && w >= 0;
    return ok;
}

// Spacing that both formats keep to within a rounding (TIFF holds a
// resolution as a ratio of 32-bit integers; MRC a cell length).
bool same_spacing(float a, float b) {
    if (!(a >= 1e-3f && a <= 1e3f)) return true;
    return std::fabs(a - b) <= 1e-5f * a;
}

void round_trip(const char* name, const image_stack_header& h, const float* voxels,
                std::uint64_t count) {
    FUZZ_CHECK(write_image_stack(name, h, {voxels, std::size_t(count)}) == 0);
    image_stack_header back;
    std::unique_ptr<float[]> again;
    FUZZ_CHECK(read_image_stack(name, &back, &again) == 0);
    FUZZ_CHECK(back.nx == h.nx && back.ny == h.ny && back.nz == h.nz && back.nw == h.nw);
    FUZZ_CHECK(same_spacing(h.dx_um, back.dx_um) && same_spacing(h.dy_um, back.dy_um) &&
               same_spacing(h.dz_um, back.dz_um));
    const bool mrc = std::string(name).ends_with(".mrc");
    for (int w = 0; w < h.nw; ++w)
        FUZZ_CHECK(!mrc || back.wavelengths_nm[w] == h.wavelengths_nm[w]);
    FUZZ_CHECK(std::memcmp(again.get(), voxels, count * sizeof(float)) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    image_set_message_printing(0);
    const std::string in = fuzz::scratch_path("in.stack");
    fuzz::write_bytes(in, data, size);
    image_stack_header h;
    h.nx = -1;
    std::unique_ptr<float[]> voxels;
    if (read_image_stack(in.c_str(), &h, &voxels) != 0) {
        FUZZ_CHECK(h.nx == -1 && !voxels);  // a refusal leaves the caller's things alone
        return 0;
    }
    FUZZ_CHECK(sound(h) && voxels);
    const std::uint64_t count = voxels_of(h);
    FUZZ_CHECK(count <= kMaxVoxelsPerByte * std::max<std::uint64_t>(size, 1));
    if (count > kMaxRoundTrip) return 0;
    round_trip(fuzz::scratch_path("out.mrc").c_str(), h, voxels.get(), count);
    round_trip(fuzz::scratch_path("out.tif").c_str(), h, voxels.get(), count);
    return 0;
}
