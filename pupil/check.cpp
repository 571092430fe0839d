// Whether a model read from a file holds only numbers that can be evaluated.

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
};

constexpr named_series kSeries[] = {
    {"amplitude Zernike", &WaveAttributes::amplitude_zernike_coeff,
     get_parametric_pupil_amplitude_zernike_count},
    {"phase Zernike", &WaveAttributes::phase_zernike_coeff,
     get_parametric_pupil_phase_zernike_count},
    {"amplitude polar Fourier", &WaveAttributes::amplitude_polarf_coeff,
     get_parametric_pupil_amplitude_polarf_count},
    {"phase polar Fourier", &WaveAttributes::phase_polarf_coeff,
     get_parametric_pupil_phase_polarf_count},
};

}  // namespace

int describe_non_finite_pupil_value(const ParametricPupil* pupil, char* text, std::size_t size) {
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
            for (std::int32_t k = 0; k < count; ++k) {
                if (std::isfinite(c[k])) continue;
                std::snprintf(text, size, "the %s coefficient of slot %d at wavelength %d is %g",
                              series.name, int(k), int(w), c[k]);
                return 1;
            }
        }
    }
    return 0;
}

}  // namespace torvel
