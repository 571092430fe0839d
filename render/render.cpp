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
#include <torvel/pupil.hpp>
#include <torvel/render.hpp>
#include <torvel/zernike.hpp>
#include <torvel/messages.hpp>

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
void set_header(const render_plan& plan, bool complex_form, const char* label) {
    image_set_dimensions(kImage, plan.nx, plan.ny);
    image_set_zwt_sizes(kImage, complex_form ? 1 : 2, plan.wavelength_count, 1, 0);
    image_set_wavelengths(kImage, plan.wavelength_count, plan.wavelength_nm);
    image_set_type_info(kImage, kPupilImageType, plan.lens_id, 0, 0, plan.p1, plan.p2);
    image_set_pixel_mode(kImage, complex_form ? kComplexFloatMode : kRealFloatMode);
    image_set_pixel_spacing(kImage, plan.spacing, plan.spacing, 1.0f);
    float dx = 0.0f, dy = 0.0f, dz = 0.0f;
    image_get_pixel_spacing(kImage, &dx, &dy, &dz);
    image_set_origin(kImage, origin_for_centre(plan.x0, dx), origin_for_centre(plan.y0, dy), 0.0f);
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
int write_slot(bool complex_form, int slot, const float* plane, std::int64_t pixels) {
    if (image_seek_section(kImage, 0, slot, 0) != 0 || image_write_section(kImage, plane) != 0)
        return 1;
    if (complex_form) return 0;
    if (image_seek_section(kImage, 1, slot, 0) != 0 ||
        image_write_section(kImage, plane + pixels) != 0)
        return 1;
    return 0;
}

// A model whose values overflow a float, or a geometry that makes no sense
// of it, must not pass off NaNs and infinities as a pupil image.
int check_finite(const render_inputs& inputs, const pupil_grid& grid, float wavelength_nm,
                 const float* plane) {
    const std::int64_t pixels = std::int64_t(grid.nx) * grid.ny;
    const float* end = plane + 2 * pixels;
    const float* bad = std::find_if(plane, end, [](float v) { return !std::isfinite(v); });
    if (bad == end) return 0;
    const std::int64_t at = bad - plane;
    const std::int64_t pixel = inputs.complex_form ? at / 2 : at % pixels;
    print_message("torvel-render: %s: the pupil at %g nm evaluates to %g at pixel (%lld, %lld): a "
                 "coefficient or the wavelength is out of range\n",
                 inputs.model_name, double(wavelength_nm), double(*bad),
                 static_cast<long long>(pixel % grid.nx), static_cast<long long>(pixel / grid.nx));
    return 1;
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
        print_message("torvel-render: a %d x %d image is too large: torvel reads at most %lld "
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
    plan->wavelength_count = inputs.model.wavelength_count;
    float shortest_um = std::numeric_limits<float>::max();
    for (int slot = 0; slot < inputs.model.wavelength_count; ++slot) {
        const float um = get_parametric_pupil_wavelength(&model, inputs.model.wavelength_index[slot]);
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

int render_wavelength(const render_inputs& inputs, ParametricPupil* model, int w,
                      const pupil_grid& grid, float* plane) {
    series amplitude{-1, -1, nullptr};
    if (!inputs.model.uniform_amplitude) {
        get_parametric_pupil_amplitude_zernike_orders(model, &amplitude.n, &amplitude.m);
        amplitude.coeff = get_parametric_pupil_amplitude_zernike_coeff(model, w);
    }
    series phase{-1, -1, nullptr};
    get_parametric_pupil_phase_zernike_orders(model, &phase.n, &phase.m);
    phase.coeff = get_parametric_pupil_phase_zernike_coeff(model, w);
    // A series is evaluated up to its last term that is not zero: a model
    // may declare far more terms than it fills.
    const bool amplitude_one = amplitude.n < 0;
    series* both[2] = {&amplitude, &phase};
    for (series* s : both)
        if (s->n >= 0) zernike_set_in_use(s->n, s->m, s->coeff, &s->n, &s->m);
    std::unique_ptr<double[]> scratch(new (std::nothrow) double[std::size_t(
        zernike_recurrent_scratch_size(std::max({amplitude.n, phase.n, 0})))]);
    if (!scratch) {
        print_message("torvel-render: insufficient memory\n");
        return 1;
    }

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
                a = amplitude_one ? 1.0
                                  : evaluate_zernike_series_recurrent(
                                        p.rho, p.theta, amplitude.n, amplitude.m, amplitude.coeff,
                                        scratch.get());
                phi = evaluate_zernike_series_recurrent(p.rho, p.theta, phase.n, phase.m,
                                                        phase.coeff, scratch.get());
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
    return 0;
}

int write_pupil_image(const char* program, const char* name, const render_plan& plan,
                      bool complex_form, const char* label, pupil_plane_filler fill,
                      void* context) {
    const std::int64_t pixels = std::int64_t(plan.nx) * plan.ny;
    std::unique_ptr<float[]> plane(new (std::nothrow) float[std::size_t(2 * pixels)]);
    if (!plane) {
        print_message("%s: insufficient memory for a %d x %d image\n", program, plan.nx,
                     plan.ny);
        return 1;
    }
    image_output output;
    if (image_open(kImage, name, "new") != 0) return 1;
    output.open = true;
    set_header(plan, complex_form, label);

    input_header seen;  // what torvel will read: the geometry the planes are made on
    read_input_header(kImage, &seen);
    value_range all;
    for (int slot = 0; slot < plan.wavelength_count; ++slot) {
        const pupil_grid grid{
            seen.x0, seen.y0, seen.dx, seen.dy, pupil_cutoff(seen.na, plan.wavelength_nm[slot]),
            plan.nx, plan.ny};
        if (fill(context, slot, grid, plane.get()) != 0 ||
            write_slot(complex_form, slot, plane.get(), pixels) != 0)
            return 1;
        if (complex_form) continue;
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
    if (complex_form)
        image_write_header(kImage, nullptr, -1, 1.0f, 0.0f, -1.0f);
    else
        image_write_header(kImage, nullptr, -1, all.minimum, all.maximum,
                           static_cast<float>(all.sum / double(all.count)));
    output.open = false;
    return image_close(kImage) != 0 ? 1 : 0;
}

namespace {

struct render_context {
    const render_inputs* inputs;
    ParametricPupil* model;
};

int render_slot(void* context, int slot, const pupil_grid& grid, float* plane) {
    const auto* c = static_cast<const render_context*>(context);
    const render_inputs& inputs = *c->inputs;
    if (render_wavelength(inputs, c->model, inputs.model.wavelength_index[slot], grid, plane) != 0)
        return 1;
    const float wavelength_nm =
        get_parametric_pupil_wavelength(c->model, inputs.model.wavelength_index[slot]) * 1000.0f;
    return check_finite(inputs, grid, wavelength_nm, plane);
}

}  // namespace

int write_rendered_image(const render_inputs& inputs, ParametricPupil* model,
                         const render_plan& plan) {
    char label[81];
    std::snprintf(label, sizeof label, "torvel-render %s%s%s", inputs.model_name,
                  inputs.model.drop_text != nullptr ? " -drop=" : "",
                  inputs.model.drop_text != nullptr ? inputs.model.drop_text : "");
    render_context context{&inputs, model};
    return write_pupil_image("torvel-render", inputs.image_name, plan, inputs.complex_form, label,
                             render_slot, &context);
}

}  // namespace torvel
