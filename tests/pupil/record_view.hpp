#pragma once
// An owning handle and one-row views of a parametric pupil record, so that
// the pupil tests check a whole state in one comparison.

#include <torvel/pupil.hpp>

#include <memory>
#include <vector>

namespace torvel::testing_view {

struct Destroy {
    void operator()(ParametricPupil* p) const { destroy_parametric_pupil(p); }
};
using Pupil = std::unique_ptr<ParametricPupil, Destroy>;

inline std::vector<double> values(const double* array, int count) {
    return array ? std::vector<double>(array, array + count) : std::vector<double>{};
}

// NA, immersion index, lens id, label and wavelength counts, the four order
// sets and the four term counts, as the getters report them.
inline std::vector<double> header_of(const ParametricPupil* p) {
    std::vector<double> row = {get_parametric_pupil_numerical_aperture(p),
                               get_parametric_pupil_immersion_refractive_index(p),
                               double(get_parametric_pupil_lens_id(p)),
                               double(get_parametric_pupil_label_count(p)),
                               double(get_parametric_pupil_wavelength_count(p))};
    std::int32_t a[8] = {9, 9, 9, 9, 9, 9, 9, 9};  // a getter that writes nothing shows
    get_parametric_pupil_amplitude_zernike_orders(p, a, a + 1);
    get_parametric_pupil_phase_zernike_orders(p, a + 2, a + 3);
    get_parametric_pupil_amplitude_polarf_orders(p, a + 4, a + 5);
    get_parametric_pupil_phase_polarf_orders(p, a + 6, a + 7);
    row.insert(row.end(), a, a + 8);
    row.insert(row.end(), {double(get_parametric_pupil_amplitude_zernike_count(p)),
                           double(get_parametric_pupil_phase_zernike_count(p)),
                           double(get_parametric_pupil_amplitude_polarf_count(p)),
                           double(get_parametric_pupil_phase_polarf_count(p))});
    return row;
}

// Wavelength w followed by its four series, each cut to its term count.
inline std::vector<double> wave_of(ParametricPupil* p, int w) {
    std::vector<double> row = {get_parametric_pupil_wavelength(p, w)};
    for (const std::vector<double>& v : {values(get_parametric_pupil_amplitude_zernike_coeff(p, w),
                                                get_parametric_pupil_amplitude_zernike_count(p)),
                                         values(get_parametric_pupil_phase_zernike_coeff(p, w),
                                                get_parametric_pupil_phase_zernike_count(p)),
                                         values(get_parametric_pupil_amplitude_polarf_coeff(p, w),
                                                get_parametric_pupil_amplitude_polarf_count(p)),
                                         values(get_parametric_pupil_phase_polarf_coeff(p, w),
                                                get_parametric_pupil_phase_polarf_count(p))})
        row.insert(row.end(), v.begin(), v.end());
    return row;
}

}  // namespace torvel::testing_view
