// The figure of docs/psf.md: sections through the brightest voxel of the
// PSF of a fit file's first wavelength, with its defocus and without it,
// on a log scale.
//
//   psf_figure fit_file figure.png
//
// Each row is one PSF on 64 x 64 x 64 voxels of 65 nm and 150 nm: the x-y
// section at the brightest plane and the x-z section (z across) through the
// brightest voxel, log10 of the intensity over its peak from -4 to 0.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include <cairo.h>

#include <torvel/psf.hpp>

namespace {

using namespace torvel;

constexpr int kSide = 64, kPlanes = 64;
constexpr double kDx = 0.065, kDz = 0.150;  // µm
constexpr double kScale = 60.0;             // figure pixels per µm
constexpr double kDecades = 4.0;
constexpr int kMargin = 30, kGap = 24, kTitle = 26, kBarWidth = 16;

// Viridis at nine evenly spaced points, interpolated between them.
constexpr unsigned char kViridisAnchors[9][3] = {
    {68, 1, 84},    {71, 45, 123},  {59, 82, 139},  {44, 114, 142}, {33, 145, 140},
    {40, 174, 128}, {94, 201, 98},  {173, 220, 48}, {253, 231, 37}};

void colour_of(double t, unsigned char rgb[3]) {
    t = std::clamp(t, 0.0, 1.0) * 8.0;
    const int i = std::min(int(t), 7);
    const double f = t - i;
    for (int c = 0; c < 3; ++c)
        rgb[c] = static_cast<unsigned char>(
            std::lround(kViridisAnchors[i][c] * (1 - f) + kViridisAnchors[i + 1][c] * f));
}

struct psf_stack {
    std::vector<float> voxels;
    float peak = 0;
    int i = 0, j = 0, k = 0;  // the brightest voxel
    float at(int x, int y, int z) const {
        return voxels[(std::size_t(z) * kSide + y) * kSide + x];
    }
};

int compute(ParametricPupil* model, bool drop_defocus, psf_stack* out) {
    model_choice choice = kDefaultModelChoice;
    choice.wavelength_index[0] = 0;
    choice.wavelength_index[1] = -1;
    choice.wavelength_count = 1;
    if (drop_defocus) {
        choice.drop[choice.drop_count++] = {2, 0};
        drop_phase_terms(choice, model);
    }
    const psf_plan plan{kSide, kSide, kPlanes, 1, kDx, kDz,
                        {get_parametric_pupil_wavelength(model, 0)}};
    out->voxels.assign(std::size_t(kSide) * kSide * kPlanes, 0.0f);
    if (compute_model_stack(choice, false, model, plan, 0, out->voxels, nullptr, nullptr) != 0)
        return 1;
    const auto top = std::max_element(out->voxels.begin(), out->voxels.end());
    const std::size_t at = std::size_t(top - out->voxels.begin());
    out->peak = *top;
    out->i = int(at % kSide);
    out->j = int(at / kSide % kSide);
    out->k = int(at / (std::size_t(kSide) * kSide));
    return 0;
}

// A section of width x height voxels, value(u, v) for u across and v down,
// drawn at (x, y) with each voxel du x dv figure pixels.
template <class Value>
void draw_section(cairo_t* cr, double x, double y, int width, int height, double du, double dv,
                  const psf_stack& s, Value value) {
    cairo_surface_t* image = cairo_image_surface_create(CAIRO_FORMAT_RGB24, width, height);
    cairo_surface_flush(image);
    unsigned char* data = cairo_image_surface_get_data(image);
    const int stride = cairo_image_surface_get_stride(image);
    for (int v = 0; v < height; ++v)
        for (int u = 0; u < width; ++u) {
            const double level = std::log10(std::max(value(u, v) / s.peak, 1e-30f));
            unsigned char rgb[3];
            colour_of(1.0 + level / kDecades, rgb);
            unsigned char* p = data + v * stride + 4 * u;
            p[0] = rgb[2];
            p[1] = rgb[1];
            p[2] = rgb[0];
            p[3] = 255;
        }
    cairo_surface_mark_dirty(image);
    cairo_save(cr);
    cairo_translate(cr, x, y);
    cairo_scale(cr, du, dv);
    cairo_set_source_surface(cr, image, 0, 0);
    cairo_pattern_set_filter(cairo_get_source(cr), CAIRO_FILTER_NEAREST);
    cairo_paint(cr);
    cairo_restore(cr);
    cairo_surface_destroy(image);
}

void text_at(cairo_t* cr, double x, double y, const std::string& text, double size) {
    cairo_select_font_face(cr, "sans-serif", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);
    cairo_set_font_size(cr, size);
    cairo_set_source_rgb(cr, 0.1, 0.1, 0.1);
    cairo_move_to(cr, x, y);
    cairo_show_text(cr, text.c_str());
}

// A white bar one micrometre long, in the lower left corner of a panel.
void scale_bar(cairo_t* cr, double x, double y) {
    cairo_set_source_rgb(cr, 1, 1, 1);
    cairo_rectangle(cr, x + 8, y - 12, kScale, 4);
    cairo_fill(cr);
    cairo_set_font_size(cr, 11);
    cairo_move_to(cr, x + 8 + kScale + 6, y - 7);
    cairo_show_text(cr, "1 µm");
}

void draw_row(cairo_t* cr, double y, const psf_stack& s, const std::string& title) {
    const double lateral = kDx * kScale, axial = kDz * kScale;
    const double side = kSide * lateral;
    text_at(cr, kMargin, y + 18, title, 15);
    const double top = y + kTitle;
    draw_section(cr, kMargin, top, kSide, kSide, lateral, lateral, s,
                 [&](int u, int v) { return s.at(u, v, s.k); });
    scale_bar(cr, kMargin, top + side);
    const double right = kMargin + side + kGap;
    draw_section(cr, right, top, kPlanes, kSide, axial, lateral, s,
                 [&](int u, int v) { return s.at(v, s.j, u); });
    scale_bar(cr, right, top + side);
    char caption[96];
    std::snprintf(caption, sizeof caption, "x-y at z = %+.2f µm", (s.k - kPlanes / 2) * kDz);
    text_at(cr, kMargin, top + side + 16, caption, 12);
    std::snprintf(caption, sizeof caption, "x-z at y = %+.2f µm (z across, %.1f to %+.1f µm)",
                  (s.j - kSide / 2) * kDx, -kPlanes / 2 * kDz, (kPlanes / 2 - 1) * kDz);
    text_at(cr, right, top + side + 16, caption, 12);
}

void draw_colour_bar(cairo_t* cr, double x, double y, double height) {
    for (int i = 0; i < int(height); ++i) {
        unsigned char rgb[3];
        colour_of(1.0 - i / height, rgb);
        cairo_set_source_rgb(cr, rgb[0] / 255.0, rgb[1] / 255.0, rgb[2] / 255.0);
        cairo_rectangle(cr, x, y + i, kBarWidth, 1);
        cairo_fill(cr);
    }
    for (int d = 0; d <= int(kDecades); ++d) {
        const double ty = y + height * d / kDecades;
        text_at(cr, x + kBarWidth + 4, ty + 4, d == 0 ? "1" : "1e-" + std::to_string(d), 11);
    }
    text_at(cr, x - 12, y - 10, "I / peak", 11);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: psf_figure fit_file figure.png\n");
        return 1;
    }
    pupil_ptr model = read_model_file("psf_figure", argv[1]);
    if (!model) return 1;
    psf_stack with_defocus, without_defocus;
    if (compute(model.get(), false, &with_defocus) != 0 ||
        compute(model.get(), true, &without_defocus) != 0)
        return 1;
    const double side = kSide * kDx * kScale;
    const int width = int(kMargin + side + kGap + kPlanes * kDz * kScale + kGap + kBarWidth + 50);
    const int row = int(kTitle + side + 30);
    const int height = kMargin / 2 + 2 * row + 10;
    cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_RGB24, width, height);
    cairo_t* cr = cairo_create(surface);
    cairo_set_source_rgb(cr, 1, 1, 1);
    cairo_paint(cr);
    const double wavelength_nm = get_parametric_pupil_wavelength(model.get(), 0) * 1000.0;
    char title[128];
    std::snprintf(title, sizeof title, "%s, %.0f nm, scalar: as fitted", argv[1], wavelength_nm);
    draw_row(cr, kMargin / 2, with_defocus, title);
    draw_row(cr, kMargin / 2 + row, without_defocus, "without its defocus (-drop=defocus)");
    draw_colour_bar(cr, width - kBarWidth - 50, kMargin / 2 + kTitle + 20, 2 * row - kTitle - 60);
    cairo_destroy(cr);
    const cairo_status_t status = cairo_surface_write_to_png(surface, argv[2]);
    cairo_surface_destroy(surface);
    if (status != CAIRO_STATUS_SUCCESS) {
        std::fprintf(stderr, "psf_figure: %s: %s\n", argv[2], cairo_status_to_string(status));
        return 1;
    }
    return 0;
}
