// The image of a pupil model: its geometry and header, each wavelength's
// planes evaluated where torvel samples, and the writing of the file.

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <memory>
#include <new>

#include <torvel/driver.hpp>
#include <torvel/fit.hpp>
#include <torvel/imageio.hpp>
#include <torvel/messages.hpp>
#include <torvel/pupil.hpp>
#include <torvel/render.hpp>
#include <torvel/zernike.hpp>

namespace torvel {
namespace {

constexpr int kImage = 1;
constexpr int kComplexFloatMode = 4;
constexpr int kRealFloatMode = 2;
constexpr double kDiscShare = 0.9;  // default: the widest disc spans this much of the smaller side
constexpr double kRimPixels = 2.0;  // model values this far beyond the disc edge

// torvel holds a complex plane (two floats a pixel) in one allocation
// counted in int, so no plane of a pupil image it reads can be larger.
constexpr std::int64_t kMaxPlanePixels = INT_MAX / 2;

// The model's Zernike set and coefficients of one series at one wavelength.
struct series {
    std::int32_t n, m;
    const double* coeff;
};

// The spacing at which the disc of radius cutoff (reciprocal micrometres)
// spans kDiscShare of `pixels`.
float spacing_for_disc(double cutoff, std::int32_t pixels) {
    return static_cast<float>(2.0 * cutoff / (kDiscShare * pixels));
}

// The origin that makes torvel's centre, (0 - origin) / spacing, the
// requested one. One rounding may miss it by an ulp; a step or two of the
// origin towards it finds it whenever a float origin can give it.
float origin_for_centre(float centre, float spacing) {
    float origin = -(centre * spacing);
    for (int step = 0; step < 4; ++step) {
        const float seen = (0.0f - origin) / spacing;
        if (seen == centre) break;
        origin = std::nextafter(origin, seen > centre ? std::numeric_limits<float>::infinity()
                                                      : -std::numeric_limits<float>::infinity());
    }
    return origin;
}

// Sets every header value of the new image on stream kImage, the origin
// last since it depends on the spacing as the file will give it back.
void set_header(const render_inputs& inputs, const render_plan& plan) {
    image_set_dimensions(kImage, plan.nx, plan.ny);
    image_set_zwt_sizes(kImage, inputs.complex_form ? 1 : 2, plan.wavelength_count, 1, 0);
    image_set_wavelengths(kImage, plan.wavelength_count, plan.wavelength_nm);
    image_set_type_info(kImage, kPupilImageType, plan.lens_id, 0, 0, plan.p1, plan.p2);
    image_set_pixel_mode(kImage, inputs.complex_form ? kComplexFloatMode : kRealFloatMode);
    image_set_pixel_spacing(kImage, plan.spacing, plan.spacing, 1.0f);
    float dx = 0.0f, dy = 0.0f, dz = 0.0f;
    image_get_pixel_spacing(kImage, &dx, &dy, &dz);
    image_set_origin(kImage, origin_for_centre(plan.x0, dx), origin_for_centre(plan.y0, dy), 0.0f);
    char label[81];
    std::snprintf(label, sizeof label, "torvel-render %s%s%s", inputs.model_name,
                  inputs.drop_text != nullptr ? " -drop=" : "",
                  inputs.drop_text != nullptr ? inputs.drop_text : "");
    image_add_label(kImage, label);
}

// Running extremes and sum of the values of a real-valued image, for its
// header; the extremes of each wavelength too.
struct value_range {
    float minimum = std::numeric_limits<float>::max();
    float maximum = -std::numeric_limits<float>::max();
    double sum = 0.0;
    std::int64_t count = 0;

    void add(const float* values, std::int64_t n) {
        for (std::int64_t k = 0; k < n; ++k) {
            minimum = std::min(minimum, values[k]);
            maximum = std::max(maximum, values[k]);
            sum += values[k];
        }
        count += n;
    }
};

// Writes the planes of one slot at its sections: one complex section, or
// the amplitude at z 0 and the phase at z 1.
int write_slot(const render_inputs& inputs, int slot, const float* plane, std::int64_t pixels) {
    if (image_seek_section(kImage, 0, slot, 0) != 0 || image_write_section(kImage, plane) != 0)
        return 1;
    if (inputs.complex_form) return 0;
    if (image_seek_section(kImage, 1, slot, 0) != 0 ||
        image_write_section(kImage, plane + pixels) != 0)
        return 1;
    return 0;
}

// The stream of the image being written, discarded unless it was closed
// with everything in it.
struct image_output {
    bool open = false;
    ~image_output() {
        if (open) image_discard(kImage);
    }
};

}  // namespace

int plan_render(const render_inputs& inputs, const ParametricPupil& model, render_plan* plan) {
    const std::int64_t pixels = std::int64_t(inputs.nx) * inputs.ny;
    if (pixels > kMaxPlanePixels) {
        print_message(
            "torvel-render: a %d x %d image is too large: torvel reads at most %lld "
            "pixels a plane\n",
            inputs.nx, inputs.ny, static_cast<long long>(kMaxPlanePixels));
        return 1;
    }
    plan->nx = inputs.nx;
    plan->ny = inputs.ny;
    plan->lens_id = get_parametric_pupil_lens_id(&model);
    // The header keeps the aperture times 10 and the index times 100.
    const float na = get_parametric_pupil_numerical_aperture(&model);
    plan->p1 = na * 10.0f;
    plan->p2 = get_parametric_pupil_immersion_refractive_index(&model) * 100.0f;
    plan->wavelength_count = inputs.wavelength_count;
    float shortest_um = std::numeric_limits<float>::max();
    for (int slot = 0; slot < inputs.wavelength_count; ++slot) {
        const float um = get_parametric_pupil_wavelength(&model, inputs.wavelength_index[slot]);
        plan->wavelength_nm[slot] = um * 1000.0f;
        shortest_um = std::min(shortest_um, um);
    }
    plan->spacing = inputs.spacing > 0.0f
                        ? inputs.spacing
                        : spacing_for_disc(double(na) / shortest_um, std::min(plan->nx, plan->ny));
    plan->x0 = inputs.centre_given ? inputs.x0 : static_cast<float>(plan->nx / 2);
    plan->y0 = inputs.centre_given ? inputs.y0 : static_cast<float>(plan->ny / 2);
    return 0;
}

void drop_phase_terms(const render_inputs& inputs, ParametricPupil* model) {
    const std::int32_t count = get_parametric_pupil_phase_zernike_count(model);
    for (int w = 0; w < get_parametric_pupil_wavelength_count(model); ++w) {
        double* coeff = get_parametric_pupil_phase_zernike_coeff(model, w);
        for (int k = 0; k < inputs.drop_count; ++k) {
            const zernike_term t = inputs.drop[k];
            const int first = zernike_term_index(t.n, t.m);
            const int last = t.m == 0 ? first : first + 1;
            if (last >= count) continue;  // not in the model: nothing to leave out
            for (int slot = first; slot <= last; ++slot) coeff[slot] = 0.0;
        }
    }
}

void render_wavelength(const render_inputs& inputs, ParametricPupil* model, int w,
                       const pupil_grid& grid, float* plane) {
    series amplitude{-1, -1, nullptr};
    if (!inputs.uniform_amplitude) {
        get_parametric_pupil_amplitude_zernike_orders(model, &amplitude.n, &amplitude.m);
        amplitude.coeff = get_parametric_pupil_amplitude_zernike_coeff(model, w);
    }
    series phase{-1, -1, nullptr};
    get_parametric_pupil_phase_zernike_orders(model, &phase.n, &phase.m);
    phase.coeff = get_parametric_pupil_phase_zernike_coeff(model, w);

    // The rim keeps the fit, and the unwrapping next to the edge, from seeing
    // a cliff where the disc ends.
    const double rim = 1.0 + kRimPixels * std::max(grid.dx, grid.dy) / grid.cutoff;
    const std::size_t pixels = std::size_t(grid.nx) * std::size_t(grid.ny);
    for (int iy = 0; iy < grid.ny; ++iy) {
        for (int ix = 0; ix < grid.nx; ++ix) {
            const std::size_t k = std::size_t(iy) * std::size_t(grid.nx) + std::size_t(ix);
            const pupil_pixel p = locate_pupil_pixel(grid.x0, grid.y0, grid.dx, grid.dy,
                                                     grid.cutoff, grid.nx, grid.ny, ix, iy);
            double a = 0.0;
            double phi = 0.0;
            if (p.sampled || p.rho <= rim) {
                a = amplitude.n < 0 ? 1.0
                                    : evaluate_zernike_series(p.rho, p.theta, amplitude.n,
                                                              amplitude.m, amplitude.coeff);
                phi = phase.n < 0
                          ? 0.0
                          : evaluate_zernike_series(p.rho, p.theta, phase.n, phase.m, phase.coeff);
            }
            if (inputs.complex_form) {
                plane[2 * k] = static_cast<float>(a * std::cos(phi));
                plane[2 * k + 1] = static_cast<float>(a * std::sin(phi));
            } else {
                plane[k] = static_cast<float>(a);
                plane[pixels + k] = static_cast<float>(phi);
            }
        }
    }
}

int write_rendered_image(const render_inputs& inputs, ParametricPupil* model,
                         const render_plan& plan) {
    const std::int64_t pixels = std::int64_t(plan.nx) * plan.ny;
    std::unique_ptr<float[]> plane(new (std::nothrow) float[std::size_t(2 * pixels)]);
    if (!plane) {
        print_message("torvel-render: insufficient memory for a %d x %d image\n", plan.nx, plan.ny);
        return 1;
    }
    image_output output;
    if (image_open(kImage, inputs.image_name, "new") != 0) return 1;
    output.open = true;
    set_header(inputs, plan);

    input_header seen;  // what torvel will read: the geometry the planes are rendered on
    read_input_header(kImage, &seen);
    value_range all;
    for (int slot = 0; slot < plan.wavelength_count; ++slot) {
        const pupil_grid grid{
            seen.x0, seen.y0, seen.dx, seen.dy, pupil_cutoff(seen.na, plan.wavelength_nm[slot]),
            plan.nx, plan.ny};
        render_wavelength(inputs, model, inputs.wavelength_index[slot], grid, plane.get());
        if (write_slot(inputs, slot, plane.get(), pixels) != 0) return 1;
        if (inputs.complex_form) continue;
        value_range own;
        own.add(plane.get(), 2 * pixels);
        if (slot > 0) image_set_wavelength_min_max(kImage, slot, own.minimum, own.maximum);
        all.minimum = std::min(all.minimum, own.minimum);
        all.maximum = std::max(all.maximum, own.maximum);
        all.sum += own.sum;
        all.count += own.count;
    }
    // A complex image's statistics are left "not computed" (maximum below
    // minimum), as readers expect statistics of real values.
    if (inputs.complex_form)
        image_write_header(kImage, nullptr, -1, 1.0f, 0.0f, -1.0f);
    else
        image_write_header(kImage, nullptr, -1, all.minimum, all.maximum,
                           static_cast<float>(all.sum / double(all.count)));
    output.open = false;
    return image_close(kImage) != 0 ? 1 : 0;
}

}  // namespace torvel
