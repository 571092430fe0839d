// Whether a model read from a file holds only numbers that can be evaluated
// into an image's floats.

#include <cfloat>
#include <cmath>
#include <cstdio>

#include <torvel/pupil.hpp>

namespace torvel {
namespace {

// One coefficient array of a wavelength, with what the message calls it.
struct named_series {
    const char* name;
    double* WaveAttributes::*array;
    std::int32_t (*count)(const ParametricPupil*);
    bool zernike;
};

constexpr named_series kSeries[] = {
    {"amplitude Zernike", &WaveAttributes::amplitude_zernike_coeff,
     get_parametric_pupil_amplitude_zernike_count, true},
    {"phase Zernike", &WaveAttributes::phase_zernike_coeff,
     get_parametric_pupil_phase_zernike_count, true},
    {"amplitude polar Fourier", &WaveAttributes::amplitude_polarf_coeff,
     get_parametric_pupil_amplitude_polarf_count, false},
    {"phase polar Fourier", &WaveAttributes::phase_polarf_coeff,
     get_parametric_pupil_phase_polarf_count, false},
};

}  // namespace

int find_unusable_pupil_value(const ParametricPupil* pupil, char* text, std::size_t size) {
    if (pupil == nullptr) return 0;
    if (!std::isfinite(pupil->numerical_aperture) ||
        !std::isfinite(pupil->immersion_refractive_index)) {
        std::snprintf(text, size, "the numerical aperture %g or immersion index %g is not finite",
                      double(pupil->numerical_aperture),
                      double(pupil->immersion_refractive_index));
        return 1;
    }
    for (std::int32_t w = 0; w < pupil->wavelength_count; ++w) {
        const WaveAttributes& wave = pupil->waves[w];
        if (!std::isfinite(wave.wavelength)) {
            std::snprintf(text, size, "wavelength %d is %g", int(w), double(wave.wavelength));
            return 1;
        }
        for (const named_series& series : kSeries) {
            const double* c = wave.*series.array;
            const std::int32_t count = c != nullptr ? series.count(pupil) : 0;
            double magnitude = 0.0;
            for (std::int32_t k = 0; k < count; ++k) {
                magnitude += std::fabs(c[k]);
                if (std::isfinite(c[k])) continue;
                std::snprintf(text, size, "the %s coefficient of slot %d at wavelength %d is %g",
                              series.name, int(k), int(w), c[k]);
                return 1;
            }
            if (series.zernike && !(magnitude < FLT_MAX)) {
                std::snprintf(text, size,
                              "the %s coefficients at wavelength %d add up to %g in magnitude, "
                              "more than a float holds",
                              series.name, int(w), magnitude);
                return 1;
            }
        }
    }
    return 0;
}

}  // namespace torvel
