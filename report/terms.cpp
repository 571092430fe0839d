// Zernike terms in the words and numbers other people use: Noll and OSA/ANSI
// indices, aberration names, the norms of torvel's unnormalised basis.

#include <cmath>
#include <cstdio>
#include <numbers>
#include <string>

#include <torvel/report.hpp>

namespace torvel {
namespace {

// "secondary ", "tertiary ", ... for the level-th occurrence of a shape
// (level 1, the primary one, has no word).
std::string level_word(int level) {
    static const char* const kWords[] = {"",        "", "secondary ", "tertiary ", "quaternary ",
                                         "quinary "};
    if (level < 6) return kWords[level < 0 ? 0 : level];
    const int last_two = level % 100;
    const char* suffix = "th";
    if (last_two < 11 || last_two > 13) {
        if (level % 10 == 1) suffix = "st";
        if (level % 10 == 2) suffix = "nd";
        if (level % 10 == 3) suffix = "rd";
    }
    return std::to_string(level) + suffix + " order ";
}

// The name of the lowest order of angular frequency m, and that order.
std::string shape_name(int m, int* lowest_order) {
    static const char* const kFoils[] = {"astigmatism", "trefoil",  "tetrafoil",
                                         "pentafoil",   "hexafoil", "heptafoil",
                                         "octafoil",    "nonafoil", "decafoil"};
    if (m == 0) {
        *lowest_order = 4;
        return "spherical";
    }
    if (m == 1) {
        *lowest_order = 3;
        return "coma";
    }
    *lowest_order = m;
    if (m - 2 < int(std::size(kFoils))) return kFoils[m - 2];
    return std::to_string(m) + "-foil";
}

}  // namespace

int noll_index(int n, int m, zernike_part part) {
    const int base = n * (n + 1) / 2 + m;  // the pair of (n, m) is base, base + 1
    if (part == zernike_part::radial) return base + 1;
    const bool base_is_even = base % 2 == 0;
    return (part == zernike_part::cosine) == base_is_even ? base : base + 1;
}

int osa_index(int n, int m, zernike_part part) {
    const int signed_m = part == zernike_part::sine ? -m : m;
    return (n * (n + 2) + signed_m) / 2;
}

std::string aberration_name(int n, int m) {
    if (n == 0) return "piston";
    if (n == 1 && m == 1) return "tilt";
    if (n == 2 && m == 0) return "defocus";
    int lowest = 0;
    const std::string shape = shape_name(m, &lowest);
    return level_word((n - lowest) / 2 + 1) + shape;
}

std::string utf8_name(const std::string& name) {
    std::string out;
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(name[i]); };
    for (std::size_t i = 0; i < name.size();) {
        const unsigned char lead = byte(i);
        // Length of the sequence lead starts, and the range its second byte
        // must lie in (overlong forms, surrogates and values past U+10FFFF
        // are refused there).
        std::size_t length = 0;
        unsigned char lo = 0x80, hi = 0xBF;
        if (lead < 0x80) {
            length = 1;
        } else if (lead >= 0xC2 && lead <= 0xDF) {
            length = 2;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            length = 3;
            if (lead == 0xE0) lo = 0xA0;
            if (lead == 0xED) hi = 0x9F;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            length = 4;
            if (lead == 0xF0) lo = 0x90;
            if (lead == 0xF4) hi = 0x8F;
        }
        bool valid = length > 0 && i + length <= name.size();
        for (std::size_t k = 1; valid && k < length; ++k) {
            const unsigned char next = byte(i + k);
            valid = k == 1 ? (next >= lo && next <= hi) : (next >= 0x80 && next <= 0xBF);
        }
        if (valid) {
            out.append(name, i, length);
            i += length;
        } else {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02X", unsigned(lead));
            out += escaped;
            i += 1;
        }
    }
    return out;
}

double zernike_mean_square(int n, int m) {
    return (m == 0 ? 1.0 : 0.5) / (n + 1);
}

double radians_to_nm(double radians, double wavelength_nm) {
    return radians / (2.0 * std::numbers::pi) * wavelength_nm;
}

}  // namespace torvel
