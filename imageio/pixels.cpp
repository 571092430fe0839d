// Pixel modes: how each stored value becomes a float and back.

#include "mrc.hpp"

#include <bit>
#include <cmath>
#include <cstdint>

namespace torvel::mrc {

bool find_mode(int mode, Mode* out) {
    switch (mode) {
        case 0:
            *out = {Value::int8, 1};
            return true;
        case 1:
            *out = {Value::int16, 1};
            return true;
        case 2:
            *out = {Value::float32, 1};
            return true;
        case 3:
            *out = {Value::int16, 2};
            return true;
        case 4:
            *out = {Value::float32, 2};
            return true;
        case 6:
            *out = {Value::uint16, 1};
            return true;
        case 12:
            *out = {Value::float16, 1};
            return true;
        default:
            return false;
    }
}

std::uint64_t value_bytes(Value v) {
    switch (v) {
        case Value::int8:
            return 1;
        case Value::float32:
            return 4;
        default:
            return 2;
    }
}

namespace {

float half_to_float(std::uint16_t h) {
    const std::uint32_t sign = std::uint32_t(h >> 15) << 31;
    const std::uint32_t exponent = (h >> 10) & 0x1f;
    const std::uint32_t fraction = h & 0x3ff;
    if (exponent == 0) {  // zero or subnormal: fraction * 2^-24, exact in float
        const float magnitude = std::ldexp(static_cast<float>(fraction), -24);
        return sign ? -magnitude : magnitude;
    }
    if (exponent == 31) {  // infinity or NaN, payload kept
        return std::bit_cast<float>(sign | 0x7f800000u | fraction << 13);
    }
    return std::bit_cast<float>(sign | (exponent + 112) << 23 | fraction << 13);
}

// Integer modes store the nearest value within their range; NaN has no
// nearest integer and is stored as 0.
long to_integer(float v, float lo, float hi) {
    if (std::isnan(v)) return 0;
    return std::lround(std::fmin(std::fmax(v, lo), hi));
}

}  // namespace

void decode_values(Value kind, bool big, const unsigned char* raw, std::size_t count, float* out) {
    for (std::size_t i = 0; i < count; ++i) {
        switch (kind) {
            case Value::int8:
                out[i] = static_cast<signed char>(raw[i]);
                break;
            case Value::int16:
                out[i] = static_cast<std::int16_t>(load_u16(raw + 2 * i, big));
                break;
            case Value::uint16:
                out[i] = load_u16(raw + 2 * i, big);
                break;
            case Value::float16:
                out[i] = half_to_float(load_u16(raw + 2 * i, big));
                break;
            case Value::float32:
                out[i] = std::bit_cast<float>(load_u32(raw + 4 * i, big));
                break;
        }
    }
}

void encode_values(Value kind, const float* in, std::size_t count, unsigned char* raw) {
    for (std::size_t i = 0; i < count; ++i) {
        switch (kind) {
            case Value::int8:
                raw[i] = static_cast<unsigned char>(to_integer(in[i], -128.0f, 127.0f));
                break;
            case Value::int16:
                store_u16(raw + 2 * i,
                          static_cast<std::uint16_t>(to_integer(in[i], -32768.0f, 32767.0f)));
                break;
            case Value::uint16:
                store_u16(raw + 2 * i,
                          static_cast<std::uint16_t>(to_integer(in[i], 0.0f, 65535.0f)));
                break;
            case Value::float32:
                store_u32(raw + 4 * i, std::bit_cast<std::uint32_t>(in[i]));
                break;
            case Value::float16:
                break;  // refused before encoding starts
        }
    }
}

}  // namespace torvel::mrc
