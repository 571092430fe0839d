// Setting the header of a new file.

#include "mrc.hpp"

#include <torvel/imageio.hpp>

#include <cstdint>
#include <limits>

namespace torvel::mrc {

}  // namespace torvel::mrc

namespace torvel {

using namespace mrc;

void image_copy_header(int stream, int source) noexcept {
    Stream* to = find_writable(stream);
    const Stream* from = find_stream(source);
    if (!to || !from || to == from) return;
    to->header = from->header;
    set_i32(to->header, kNsymbt, 0);
    set_text(to->header, kExttyp, "    ");
    to->header_dirty = true;
}

void image_set_resolutions(int stream, int a, int b) noexcept {
    Stream* s = find_writable(stream);
    if (s && a != 1)
        report(s->name.get(), "%d resolution levels (factor %d) asked for; files hold one", a, b);
}

void image_set_extended_header_size(int stream, int a, int b, int c) noexcept {
    Stream* s = find_writable(stream);
    if (!s) return;
    if (a != 0 || b != 0 || c != 0) {
        report(s->name.get(),
               "extended header of %d integers and %d floats for %d sections asked for; only none "
               "is supported",
               a, b, c);
        return;
    }
    set_i32(s->header, kNsymbt, 0);
    set_text(s->header, kExttyp, "    ");
    s->header_dirty = true;
}

void image_set_zwt_sizes(int stream, int nz, int nw, int nt, int interleave) noexcept {
    Stream* s = find_writable(stream);
    if (!s) return;
    const std::int64_t total = std::int64_t(nz) * nw * nt;
    if (nz < 0 || nw < 0 || nw > kMaxWavelengths || nt < 0 ||
        nt > std::numeric_limits<std::int16_t>::max() || interleave < 0 || interleave > 2 ||
        total > std::numeric_limits<std::int32_t>::max()) {
        report(s->name.get(), "invalid layout nz = %d, nw = %d, nt = %d, interleave order %d", nz,
               nw, nt, interleave);
        return;
    }
    ensure_block(s->header);
    set_i32(s->header, kNx + 8, static_cast<std::int32_t>(total));
    set_i16(s->header, kNw, nw);
    set_i16(s->header, kNt, nt);
    set_i16(s->header, kInterleave, interleave);
    s->header_dirty = true;
}

void image_set_wavelengths(int stream, int count, const float* waves) noexcept {
    Stream* s = find_writable(stream);
    if (!s) return;
    if (count < 0 || count > kMaxWavelengths || (count > 0 && !waves)) {
        report(s->name.get(), "%d wavelengths given; 0 to %d fit", count, kMaxWavelengths);
        return;
    }
    ensure_block(s->header);
    for (int i = 0; i < kMaxWavelengths; ++i)
        set_f32(s->header, kWaves + 4 * i, i < count ? waves[i] : 0.0f);
    s->header_dirty = true;
}

void image_set_pixel_mode(int stream, int mode) noexcept {
    Stream* s = find_writable(stream);
    if (!s) return;
    Mode m{};
    if (!find_mode(mode, &m)) {
        report(s->name.get(), "pixel mode %d is not supported", mode);
        return;
    }
    set_i32(s->header, kMode, mode);
    s->header_dirty = true;
}

void image_set_wavelength_min_max(int stream, int w, float wmin, float wmax) noexcept {
    Stream* s = find_writable(stream);
    if (!s) return;
    if (w < 0 || w >= kMaxWavelengths) {
        report(s->name.get(), "wavelength %d is outside 0 to %d", w, kMaxWavelengths - 1);
        return;
    }
    const int at = w == 0 ? kDmin : kWaveMinMax + 8 * (w - 1);
    ensure_block(s->header);
    set_f32(s->header, at, wmin);
    set_f32(s->header, w == 0 ? kDmax : at + 4, wmax);
    s->header_dirty = true;
}

void image_set_dimensions(int stream, int nx, int ny) noexcept {
    Stream* s = find_writable(stream);
    if (!s) return;
    if (nx < 0 || ny < 0) {
        report(s->name.get(), "negative size %d x %d", nx, ny);
        return;
    }
    const int sizes[2] = {nx, ny};
    for (int axis = 0; axis < 2; ++axis) {
        const float spacing = spacing_along(s->header, axis);
        set_i32(s->header, kNx + 4 * axis, sizes[axis]);
        if (sizes[axis] > 0) {
            set_i32(s->header, kSampling + 4 * axis, sizes[axis]);
            set_spacing_along(s->header, axis, spacing);
        }
    }
    s->header_dirty = true;
}

void image_set_type_info(int stream, int type, int lens, int n1, int n2, float p1,
                         float p2) noexcept {
    Stream* s = find_writable(stream);
    if (!s) return;
    constexpr int lo = std::numeric_limits<std::int16_t>::min(),
                  hi = std::numeric_limits<std::int16_t>::max();
    if (n1 < lo || n1 > hi || n2 < lo || n2 > hi) {
        report(s->name.get(), "type integers %d and %d do not fit in 16 bits", n1, n2);
        return;
    }
    ensure_block(s->header);
    set_i32(s->header, kType, type);
    set_i32(s->header, kLens, lens);
    set_i16(s->header, kN1, n1);
    set_i16(s->header, kN2, n2);
    set_f32(s->header, kP1, p1);
    set_f32(s->header, kP2, p2);
    s->header_dirty = true;
}

void image_set_pixel_spacing(int stream, float dx, float dy, float dz) noexcept {
    Stream* s = find_writable(stream);
    if (!s) return;
    set_spacing_along(s->header, 0, dx);
    set_spacing_along(s->header, 1, dy);
    set_spacing_along(s->header, 2, dz);
    s->header_dirty = true;
}

void image_set_origin(int stream, float x, float y, float z) noexcept {
    Stream* s = find_writable(stream);
    if (!s) return;
    set_f32(s->header, kOrigin, x);
    set_f32(s->header, kOrigin + 4, y);
    set_f32(s->header, kOrigin + 8, z);
    s->header_dirty = true;
}

void image_add_label(int stream, const char* text) noexcept {
    Stream* s = find_writable(stream);
    if (!s || !text) return;
    add_label(s->header, text);
    s->header_dirty = true;
}

}  // namespace torvel
