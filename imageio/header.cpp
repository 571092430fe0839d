// The header's bytes: the multi-wavelength block, byte order, sizes, labels and spacing.

#include "mrc.hpp"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <utility>

namespace torvel::mrc {
namespace {

// The numeric fields as (offset, count, width); everything else is text or
// unused bytes that keep their order. Used to turn a big-endian header around.
struct Field {
    int offset;
    int count;
    int width;
};
constexpr Field kPlainFields[] = {{0, 24, 4}, {kNversion, 1, 4}, {kOrigin, 3, 4}, {kRms, 2, 4}};
constexpr Field kBlockFields[] = {
    {kType, 2, 4}, {kN1, 2, 2}, {kP1, 2, 4}, {kNw, 4, 2}, {kWaves, 13, 4}};

void reverse_fields(Header& h, const Field& f) {
    for (int i = 0; i < f.count; ++i) {
        unsigned char* p = &h[f.offset + i * f.width];
        for (int a = 0, b = f.width - 1; a < b; ++a, --b) std::swap(p[a], p[b]);
    }
}

}  // namespace

// A header without the block reads as one wavelength and one time point; the
// first setter that touches the block writes it with those values.
void ensure_block(Header& h) {
    if (block_present(h)) return;
    std::memset(&h[kTag], 0, kBlockEnd - kTag);
    set_text(h, kTag, "TVL1");
    set_i16(h, kNw, 1);
    set_i16(h, kNt, 1);
}

int block_i16(const Header& h, int at, int absent) {
    return block_present(h) ? get_i16(h, at) : absent;
}
int block_i32(const Header& h, int at) {
    return block_present(h) ? get_i32(h, at) : 0;
}
float block_f32(const Header& h, int at) {
    return block_present(h) ? get_f32(h, at) : 0.0f;
}

Layout layout_of(const Header& h) {
    Layout l{0, block_i16(h, kNw, 1), block_i16(h, kNt, 1), block_i16(h, kInterleave, 0)};
    const int per_z = l.nw * l.nt;
    if (per_z > 0) l.nz = get_i32(h, kNx + 8) / per_z;
    return l;
}

void set_little_endian_stamp(Header& h) {
    const unsigned char stamp[4] = {0x44, 0x44, 0x00, 0x00};
    std::memcpy(&h[kStamp], stamp, 4);
}

void big_to_little_endian(Header& h) {
    for (const Field& f : kPlainFields) reverse_fields(h, f);
    if (block_present(h)) {
        for (const Field& f : kBlockFields) reverse_fields(h, f);
    }
    set_little_endian_stamp(h);
}

std::uint64_t saturating_product(std::uint64_t a, std::uint64_t b) {
    std::uint64_t p = 0;
    return __builtin_mul_overflow(a, b, &p) ? std::numeric_limits<std::uint64_t>::max() : p;
}

// Bytes of one section; the header's mode must be a known one.
std::uint64_t section_bytes(const Header& h) {
    Mode m{};
    find_mode(get_i32(h, kMode), &m);
    const std::uint64_t values =
        saturating_product(saturating_product(std::uint64_t(std::max(get_i32(h, kNx), 0)),
                                              std::uint64_t(std::max(get_i32(h, kNx + 4), 0))),
                           std::uint64_t(m.per_pixel));
    return saturating_product(values, value_bytes(m.value));
}

// ---------------------------------------------------------------------------
// Labels.

int label_count(const Header& h) {
    return std::clamp(get_i32(h, kNlabl), 0, kMaxLabels);
}

unsigned char* label_at(Header& h, int index) {
    return &h[kLabels + index * kLabelBytes];
}

void add_label(Header& h, const char* text) {
    int n = label_count(h);
    if (n == kMaxLabels) {  // the oldest label makes room
        std::memmove(label_at(h, 0), label_at(h, 1), (kMaxLabels - 1) * kLabelBytes);
        n = kMaxLabels - 1;
    }
    unsigned char* label = label_at(h, n);
    std::memset(label, ' ', kLabelBytes);
    std::memcpy(label, text, strnlen(text, kLabelBytes));
    set_i32(h, kNlabl, n + 1);
}

// ---------------------------------------------------------------------------
// Spacing: float(CELLA) / float(M), in single precision.

float spacing_along(const Header& h, int axis) {
    const std::int32_t m = get_i32(h, kSampling + 4 * axis);
    return m > 0 ? get_f32(h, kCell + 4 * axis) / static_cast<float>(m) : 0.0f;
}

namespace {

// The cell length for a spacing: one rounding of spacing * m. The format
// stores a cell, not a spacing, so some spacings cannot come back exactly
// (0.03 with m = 5); a search over many m and spacings found no case where
// another cell length would have come back when this one does not.
float cell_for_spacing(float spacing, std::int32_t m) {
    return spacing * static_cast<float>(m);
}

}  // namespace

void set_spacing_along(Header& h, int axis, float spacing) {
    const int at = kSampling + 4 * axis;
    if (get_i32(h, at) <= 0) {
        const std::int32_t n = axis < 2 ? get_i32(h, kNx + 4 * axis) : 0;
        set_i32(h, at, n > 0 ? n : 1);
    }
    set_f32(h, kCell + 4 * axis, cell_for_spacing(spacing, get_i32(h, at)));
}

}  // namespace torvel::mrc
