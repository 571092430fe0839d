#pragma once
// Inside report/ only: the colour maps and the pupil images that the figure
// draws.

#include <memory>
#include <vector>

#include <torvel/report.hpp>

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

}  // namespace torvel::report_detail
