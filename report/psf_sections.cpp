// The PSF of a fit at best focus for the figure, by torvel-psf's forward
// model: a plane at best focus and a one-row x-z section through it.

#include <algorithm>
#include <cmath>
#include <complex>
#include <limits>
#include <memory>
#include <new>

#include <torvel/messages.hpp>
#include <torvel/psf.hpp>

#include "figure_detail.hpp"

namespace torvel::report_detail {
namespace {

// Samples across each section: about two figure pixels a sample on the
// 220-pixel panels, odd so that the axis and best focus are samples.
constexpr int kSectionSamples = 111;
// Half the window in units of λ / NA laterally and of the axial width
// λ / (n (1 - cos α)) along z.
constexpr double kLateralHalfWidth = 4.0;
constexpr double kAxialHalfWidth = 3.0;
// The window follows the longest wavelength, but no more than this many
// times the shortest: the shortest's samples then stay finer than its
// field's Nyquist spacing (no internal refinement), which bounds the FFT
// grid and the memory of every wavelength whatever the fit file says.
constexpr double kLongestOverShortest = 6.0;

// The model's amplitude and phase less piston and tilt at the propagator's
// pupil points.
void fill_pupil(const report_model& model, int w, const psf_propagator& pr,
                std::span<std::complex<float>> pupil) {
    const report_wavelength& fit = model.waves[std::size_t(w)];
    const std::vector<double> phase_terms = phase_without_tilt(model, w);
    series_values amplitude(fit.amplitude, model.amplitude_n, model.amplitude_m, 1.0);
    series_values phase(phase_terms, model.phase_n, model.phase_m, 0.0);
    const double cutoff = pr.optics.numerical_aperture / pr.optics.wavelength_um;
    for (int q = 0; q < pr.side; ++q) {
        for (int p = 0; p < pr.side; ++p) {
            const std::size_t k = std::size_t(q) * pr.side + p;
            if (!psf_pupil_point_used(pr, p, q)) {
                pupil[k] = 0.0f;
                continue;
            }
            const double kx = pr.sample_kx[k], ky = pr.sample_ky[k];
            const double rho = std::hypot(kx, ky) / cutoff;
            const double theta = rho > 0.0 ? std::atan2(ky, kx) : 0.0;
            // Written out rather than std::polar, which leaves a negative
            // amplitude (a fit may dip below 0 at the rim) undefined.
            const double a = amplitude.at(rho, theta), phi = phase.at(rho, theta);
            pupil[k] = {float(a * std::cos(phi)), float(a * std::sin(phi))};
        }
    }
}

int out_of_memory(const char* png_name, const report_model& model, int w) {
    print_message("torvel-report: %s: not enough memory for the PSF at %g nm\n", png_name,
                  double(model.waves[std::size_t(w)].wavelength_um) * 1000.0);
    return 1;
}

}  // namespace

std::vector<double> phase_without_tilt(const report_model& model, int w) {
    std::vector<double> c = model.waves[std::size_t(w)].phase;
    const int last = std::min(int(c.size()) - 1, zernike_term_index(1, 1) + 1);
    for (int slot = 0; slot <= last; ++slot) c[std::size_t(slot)] = 0.0;
    return c;
}

psf_window psf_window_of(const report_model& model) {
    double longest = 0.0, shortest = std::numeric_limits<double>::infinity();
    for (const report_wavelength& wave : model.waves) {
        longest = std::max(longest, double(wave.wavelength_um));
        shortest = std::min(shortest, double(wave.wavelength_um));
    }
    longest = std::min(longest, kLongestOverShortest * shortest);
    const double na = model_aperture(model), n = model_immersion_index(model);
    // 1 - cos α without the cancellation of a small aperture.
    const double sine2 = (na / n) * (na / n);
    const double one_less_cos = sine2 / (1.0 + std::sqrt(1.0 - sine2));
    const double half_width = kLateralHalfWidth * longest / na;
    const double half_depth = kAxialHalfWidth * longest / (n * one_less_cos);
    return {kSectionSamples, kSectionSamples, 2.0 * half_width / kSectionSamples,
            2.0 * half_depth / kSectionSamples};
}

int compute_psf_sections(const char* png_name, const report_model& model, int w,
                         const wavelength_metrics& metrics, const psf_window& window,
                         psf_sections* out) {
    const psf_optics optics{model_aperture(model), model_immersion_index(model),
                            double(model.waves[std::size_t(w)].wavelength_um)};
    // The vector model: at the high apertures the report is for, the
    // focused field's polarisation widens the spot beyond the scalar one.
    psf_propagator plane, section;
    if (make_psf_propagator(optics, {window.n, window.n, window.dx_um}, true, kDefaultDiscPixels,
                            &plane) != 0 ||
        make_psf_propagator(optics, {window.n, 1, window.dx_um}, true, kDefaultDiscPixels,
                            &section) != 0)
        return out_of_memory(png_name, model, w);
    // Grids as wide as each other lie on one pupil grid (the FFT size
    // follows the width and the disc), so one pupil serves both.
    const bool shared = section.side == plane.side && section.dk == plane.dk;
    const std::size_t points = std::size_t(plane.side) * plane.side;
    const std::size_t section_points = std::size_t(section.side) * section.side;
    std::unique_ptr<std::complex<float>[]> pupil(new (std::nothrow) std::complex<float>[points]);
    std::unique_ptr<std::complex<float>[]> section_pupil(
        shared ? nullptr : new (std::nothrow) std::complex<float>[section_points]);
    psf_work work_plane, work_section;
    if (!pupil || (!shared && !section_pupil) ||
        make_psf_work(plane, psf_work_use::intensity, &work_plane) != 0 ||
        make_psf_work(section, psf_work_use::intensity, &work_section) != 0)
        return out_of_memory(png_name, model, w);
    fill_pupil(model, w, plane, {pupil.get(), points});
    if (!shared) fill_pupil(model, w, section, {section_pupil.get(), section_points});
    out->xy.resize(std::size_t(window.n) * window.n);
    out->xz.resize(std::size_t(window.planes) * window.n);
    const double focus = metrics.focus_shift_um;
    psf_intensity_planes(plane, {pupil.get(), points}, focus, 0.0, 1, &work_plane, out->xy, nullptr,
                         nullptr);
    psf_intensity_planes(section, {shared ? pupil.get() : section_pupil.get(), section_points},
                         focus - window.planes / 2 * window.dz_um, window.dz_um, window.planes,
                         &work_section, out->xz, nullptr, nullptr);
    return 0;
}

}  // namespace torvel::report_detail
