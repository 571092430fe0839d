#pragma once
// Inside report/ only: the colour maps, the pupil images and the PSF
// sections that the figure draws.

#include <memory>
#include <vector>

#include <torvel/report.hpp>
#include <torvel/zernike.hpp>

namespace torvel::report_detail {

// 256-entry lookup tables of 8-bit RGB: viridis (sequential) for amplitude
// and phase, coolwarm (diverging) for residuals.
extern const unsigned char kViridis[256][3];
extern const unsigned char kCoolwarm[256][3];

// Where the pupil lies in an image's pixels, as torvel derives it from the
// header: centre (x0, y0) in pixel units, spacing (dx, dy), numerical
// aperture, and nx by ny pixels.
struct image_geometry {
    float x0, y0, dx, dy;
    float na;
    int nx, ny;
};

// A plane of nx * ny floats, row by row.
using plane = std::unique_ptr<float[]>;

// The measured pupil of one wavelength of the model: amplitude and phase,
// unwrapped exactly as torvel unwraps it before the fit.
struct measured_wavelength {
    plane amplitude;
    plane phase;
    float cutoff;  // NA / wavelength, in the units of the spacing
};

// The measured wavelengths the model's match, each read once however many
// of the model's wavelengths match it: memory follows the image, not the
// fit file's count.
struct measured_pupil {
    image_geometry geometry;
    std::vector<measured_wavelength> waves;  // at most one per image wavelength
    std::vector<int> of_model;               // model wavelength w is waves[of_model[w]]

    const measured_wavelength& of(int w) const { return waves[std::size_t(of_model[w])]; }
};

// Reads the pupil image name for every wavelength of model (matched by
// wavelength within 0.5 nm) and unwraps its phase. Returns 0, or 1 after a
// message per problem: unreadable image, not a pupil function image,
// wavelengths or aperture that do not match the model, pixels inside the
// pupil that are not finite.
int read_measured_pupil(const char* name, const report_model& model, measured_pupil* out);

// The residual image of the model: one complex plane (nx * ny (real,
// imaginary) pairs) per wavelength of the model, in the model's order.
struct residual_image {
    image_geometry geometry;
    std::vector<plane> waves;
    std::vector<float> cutoff;
};

// Reads the residual image torvel wrote for model. Returns 0, or 1 after a
// message per problem (unreadable, not complex, wavelengths that differ from
// the model's, pixels inside the pupil that are not finite).
int read_residual_image(const char* name, const report_model& model, residual_image* out);

// One series of a fit, ready to be evaluated point after point: up to its
// last term that is not zero, with the radial recurrence (O(n^2) a point at
// any order) and its own scratch; the neutral value (1 for an amplitude, 0
// for a phase) when there is no series.
struct series_values {
    const std::vector<double>& c;
    int n, m;
    double neutral;
    std::vector<double> scratch;

    series_values(const std::vector<double>& coeffs, int set_n, int set_m, double neutral_value)
        : c(coeffs), n(-1), m(-1), neutral(neutral_value) {
        if (!c.empty()) zernike_set_in_use(set_n, set_m, c.data(), &n, &m);
        scratch.resize(std::size_t(zernike_recurrent_scratch_size(n)));
    }

    double at(double rho, double theta) {
        if (c.empty()) return neutral;
        return evaluate_zernike_series_recurrent(rho, theta, n, m, c.data(), scratch.data());
    }
};

// The phase coefficients of wavelength w less piston and tilt, which best
// focus removes (tilt only moves the spot).
std::vector<double> phase_without_tilt(const report_model& model, int w);

// Where the PSF of every wavelength of a fit is sampled for the figure: n
// points across x (and y) of dx_um, centred on the axis, and `planes`
// planes of dz_um centred on best focus; both counts odd. One window for all
// wavelengths, so that their sections compare in µm.
struct psf_window {
    int n, planes;
    double dx_um, dz_um;
};

// The window of model: ±4 λ / NA laterally and ±3 λ / (n (1 - cos α))
// along z (sin α = NA / n) for its longest wavelength λ (at most 6 times
// its shortest), a few rings and a few axial widths of the focus, at any
// aperture.
psf_window psf_window_of(const report_model& model);

// The PSF (vector model) of wavelength w at best focus: the model's
// amplitude and its phase less piston and tilt, the planes shifted by the
// focus shift dz of best focus. xy holds the plane at best focus (n rows of
// n, row j at y = (j - n/2) dx), xz the row y = 0 of each plane (planes rows
// of n, row k at z = dz_best + (k - planes/2) dz), both in µm⁻⁴.
struct psf_sections {
    std::vector<float> xy, xz;
};

// Computes the sections of wavelength w in window. Returns 0, or 1 after one
// message naming png_name when memory runs out.
int compute_psf_sections(const char* png_name, const report_model& model, int w,
                         const wavelength_metrics& metrics, const psf_window& window,
                         psf_sections* out);

}  // namespace torvel::report_detail
