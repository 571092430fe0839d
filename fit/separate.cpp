// Complex samples split into amplitude and phase, and two complex helpers.

#include <cmath>

#include <torvel/fit.hpp>
#include "parallel.hpp"

namespace torvel {

void split_amplitude_phase(int count, const float* samples, float* amplitude, float* phase) {
    // The phases first, each from its own pixel's samples, which nothing
    // writes until all are done: the pixels can be split between threads.
    fit_detail::run_in_parts(count, fit_detail::parts_for(count), [&](int, int begin, int end) {
        for (int i = begin; i < end; ++i) {
            const float re = samples[2 * i];
            const float im = samples[2 * i + 1];
            const float s = re * re + im * im;
            // A zero or NaN modulus has no direction; the phase is 0, and
            // atan2 is not asked.
            phase[i] = s == 0.0f || std::isnan(s)
                           ? 0.0f
                           : static_cast<float>(
                                 std::atan2(static_cast<double>(im), static_cast<double>(re)));
        }
    });
    // Then the moduli, in order: amplitude i goes to slot i, which samples
    // 2i and 2i + 1 of this or a later pixel never occupy once it is written
    // when amplitude is samples itself: sample i has been read, and every
    // later sample starts at 2(i + 1) > i.
    for (int i = 0; i < count; ++i) {
        const float re = samples[2 * i];
        const float im = samples[2 * i + 1];
        amplitude[i] = std::sqrt(re * re + im * im);
    }
}

void separate_amplitude_phase(int count, float* samples, float* phase) {
    split_amplitude_phase(count, samples, samples, phase);
}

fcomplex cmult(fcomplex a, fcomplex b) {
    return {a.re * b.re - a.im * b.im, a.re * b.im + a.im * b.re};
}

fcomplex cdiv(fcomplex a, fcomplex b) {
    const float d = b.re * b.re + b.im * b.im;
    return {(a.re * b.re + a.im * b.im) / d, (a.im * b.re - a.re * b.im) / d};
}

}  // namespace torvel
