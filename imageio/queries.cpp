// What an open stream's header says.

#include "mrc.hpp"

#include <torvel/imageio.hpp>

#include <cstring>

namespace torvel::mrc {

}  // namespace torvel::mrc

namespace torvel {

using namespace mrc;

void image_read_header(int stream, int dims[3], int second[3], int* mode, float* dmin, float* dmax,
                       float* dmean) noexcept {
    const Stream* s = find_stream(stream);
    for (int i = 0; i < 3; ++i) {
        dims[i] = s ? get_i32(s->header, kNx + 4 * i) : 0;
        second[i] = s ? get_i32(s->header, kStart + 4 * i) : 0;
    }
    *mode = s ? get_i32(s->header, kMode) : 0;
    *dmin = s ? get_f32(s->header, kDmin) : 0.0f;
    *dmax = s ? get_f32(s->header, kDmax) : 0.0f;
    *dmean = s ? get_f32(s->header, kDmean) : 0.0f;
}

void image_get_zwt_sizes(int stream, int* nz, int* nw, int* nt, int* interleave) noexcept {
    const Stream* s = find_stream(stream);
    const Layout l = s ? layout_of(s->header) : Layout{0, 0, 0, 0};
    *nz = l.nz;
    *nw = l.nw;
    *nt = l.nt;
    *interleave = l.interleave;
}

void image_get_type_info(int stream, int* type, int* lens, int* n1, int* n2, float* p1,
                         float* p2) noexcept {
    const Stream* s = find_stream(stream);
    Header none{};
    const Header& h = s ? s->header : none;
    *type = block_i32(h, kType);
    *lens = block_i32(h, kLens);
    *n1 = block_i16(h, kN1, 0);
    *n2 = block_i16(h, kN2, 0);
    *p1 = block_f32(h, kP1);
    *p2 = block_f32(h, kP2);
}

void image_get_pixel_spacing(int stream, float* dx, float* dy, float* dz) noexcept {
    const Stream* s = find_stream(stream);
    *dx = s ? spacing_along(s->header, 0) : 0.0f;
    *dy = s ? spacing_along(s->header, 1) : 0.0f;
    *dz = s ? spacing_along(s->header, 2) : 0.0f;
}

void image_get_origin(int stream, float* x, float* y, float* z) noexcept {
    const Stream* s = find_stream(stream);
    *x = s ? get_f32(s->header, kOrigin) : 0.0f;
    *y = s ? get_f32(s->header, kOrigin + 4) : 0.0f;
    *z = s ? get_f32(s->header, kOrigin + 8) : 0.0f;
}

void image_get_wavelengths(int stream, int* count, float waves[5]) noexcept {
    const Stream* s = find_stream(stream);
    *count = s ? layout_of(s->header).nw : 0;
    for (int i = 0; i < kMaxWavelengths; ++i)
        waves[i] = s ? block_f32(s->header, kWaves + 4 * i) : 0.0f;
}

void image_get_wavelength_min_max(int stream, int w, float* wmin, float* wmax) noexcept {
    const Stream* s = find_stream(stream);
    *wmin = *wmax = 0.0f;
    if (!s || w < 0 || w >= kMaxWavelengths) return;
    if (w == 0) {
        *wmin = get_f32(s->header, kDmin);
        *wmax = get_f32(s->header, kDmax);
    } else {
        *wmin = block_f32(s->header, kWaveMinMax + 8 * (w - 1));
        *wmax = block_f32(s->header, kWaveMinMax + 8 * (w - 1) + 4);
    }
}

int image_get_label_count(int stream) noexcept {
    const Stream* s = find_stream(stream);
    return s ? label_count(s->header) : 0;
}

int image_get_label(int stream, int index, char text[81]) noexcept {
    text[0] = '\0';
    Stream* s = find_stream(stream);
    if (!s || index < 0 || index >= label_count(s->header)) return 1;
    const char* label = reinterpret_cast<const char*>(label_at(s->header, index));
    std::size_t length = strnlen(label, kLabelBytes);
    while (length > 0 && label[length - 1] == ' ') --length;
    std::memcpy(text, label, length);
    text[length] = '\0';
    return 0;
}

}  // namespace torvel
