// The figure of docs/retrieve.md: a bead stack beside the PSF of the pupil
// retrieved from it, and the retrieval's error per iteration.
//
//   retrieve_figure bead.mrc retrieved_psf.mrc log.csv figure.png
//
// bead.mrc is the crop torvel-retrieve worked on (or any stack of the same
// size), retrieved_psf.mrc what its -psf= wrote, log.csv what its -log=
// wrote. Top: x-z sections (z downwards) through the brightest voxel of
// each, log10 of the value above the retrieved background over the peak,
// -3 to 0.
// Bottom: the error of each iteration, log scale.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <cairo.h>

#include <torvel/imageio.hpp>

namespace {

using namespace torvel;

constexpr double kDecades = 3.0;
constexpr int kZoom = 4;  // figure pixels per voxel
constexpr int kMargin = 40, kGap = 30, kTitle = 24, kPlotHeight = 200;

struct stack {
    image_stack_header h;
    std::unique_ptr<float[]> voxels;
    float at(int x, int y, int z) const { return voxels[(std::size_t(z) * h.ny + y) * h.nx + x]; }
};

int read(const char* name, stack* s) { return read_image_stack(name, &s->h, &s->voxels); }

void text_at(cairo_t* cr, double x, double y, const std::string& text, double size) {
    cairo_select_font_face(cr, "sans-serif", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);
    cairo_set_font_size(cr, size);
    cairo_set_source_rgb(cr, 0.1, 0.1, 0.1);
    cairo_move_to(cr, x, y);
    cairo_show_text(cr, text.c_str());
}

std::size_t voxel_count(const stack& s) { return std::size_t(s.h.nx) * s.h.ny * s.h.nz; }

// The x-z section through the brightest voxel, grey levels of log10 of the
// value above low (the background) over the peak above it.
void draw_section(cairo_t* cr, double x0, double y0, const stack& s, float low) {
    const std::size_t n = voxel_count(s);
    const std::size_t top = std::size_t(std::max_element(s.voxels.get(), s.voxels.get() + n) - s.voxels.get());
    const int j = int(top / s.h.nx % s.h.ny);
    const double peak = s.voxels[top] - low;
    const int w = s.h.nx, h = s.h.nz;
    cairo_surface_t* image = cairo_image_surface_create(CAIRO_FORMAT_RGB24, w, h);
    cairo_surface_flush(image);
    unsigned char* data = cairo_image_surface_get_data(image);
    const int stride = cairo_image_surface_get_stride(image);
    for (int z = 0; z < h; ++z)
        for (int x = 0; x < w; ++x) {
            const double v = std::max(double(s.at(x, j, z) - low) / peak, 1e-12);
            const double t = std::clamp(1.0 + std::log10(v) / kDecades, 0.0, 1.0);
            const auto g = static_cast<unsigned char>(std::lround(255 * t));
            unsigned char* px = data + z * stride + 4 * x;
            px[0] = px[1] = px[2] = g;
        }
    cairo_surface_mark_dirty(image);
    cairo_save(cr);
    cairo_translate(cr, x0, y0);
    cairo_scale(cr, kZoom, kZoom * s.h.dz_um / s.h.dx_um);
    cairo_set_source_surface(cr, image, 0, 0);
    cairo_pattern_set_filter(cairo_get_source(cr), CAIRO_FILTER_NEAREST);
    cairo_paint(cr);
    cairo_restore(cr);
    cairo_surface_destroy(image);
}

// The error per iteration from torvel-retrieve's log (first wavelength).
std::vector<double> read_log(const char* name) {
    std::vector<double> errors;
    std::FILE* f = std::fopen(name, "r");
    if (f == nullptr) return errors;
    char line[256];
    double w0 = -1;
    while (std::fgets(line, sizeof line, f) != nullptr) {
        double w = 0, e = 0;
        int i = 0;
        if (std::sscanf(line, "%lf,%d,%lf", &w, &i, &e) != 3) continue;
        if (w0 < 0) w0 = w;
        if (w == w0) errors.push_back(e);
    }
    std::fclose(f);
    return errors;
}

void draw_errors(cairo_t* cr, double x0, double y0, double width, const std::vector<double>& e) {
    const double lo = std::floor(std::log10(*std::min_element(e.begin(), e.end())));
    const double hi = std::ceil(std::log10(*std::max_element(e.begin(), e.end())));
    auto y_of = [&](double v) { return y0 + kPlotHeight * (hi - std::log10(v)) / (hi - lo); };
    auto x_of = [&](double i) { return x0 + width * i / double(std::max<std::size_t>(e.size() - 1, 1)); };
    cairo_set_source_rgb(cr, 0.6, 0.6, 0.6);
    cairo_set_line_width(cr, 1);
    cairo_rectangle(cr, x0, y0, width, kPlotHeight);
    cairo_stroke(cr);
    for (double d = lo; d <= hi; d += 1) {
        char label[32];
        std::snprintf(label, sizeof label, "1e%.0f", d);
        text_at(cr, x0 - 36, y_of(std::pow(10.0, d)) + 4, label, 11);
    }
    cairo_set_source_rgb(cr, 0.15, 0.3, 0.6);
    cairo_set_line_width(cr, 2);
    for (std::size_t i = 0; i < e.size(); ++i) {
        if (i == 0)
            cairo_move_to(cr, x_of(0), y_of(e[0]));
        else
            cairo_line_to(cr, x_of(double(i)), y_of(e[i]));
    }
    cairo_stroke(cr);
    char label[64];
    std::snprintf(label, sizeof label, "error per iteration (%zu iterations)", e.size());
    text_at(cr, x0, y0 - 8, label, 13);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::fprintf(stderr, "usage: retrieve_figure bead.mrc retrieved_psf.mrc log.csv figure.png\n");
        return 1;
    }
    stack bead, model;
    if (read(argv[1], &bead) != 0 || read(argv[2], &model) != 0) return 1;
    const std::vector<double> errors = read_log(argv[3]);
    if (errors.empty()) {
        std::fprintf(stderr, "retrieve_figure: %s: no errors read\n", argv[3]);
        return 1;
    }
    const double section_w = bead.h.nx * kZoom;
    const double section_h = bead.h.nz * kZoom * bead.h.dz_um / bead.h.dx_um;
    const int width = int(2 * section_w + kGap + 2 * kMargin);
    const int height = int(kMargin + kTitle + section_h + kGap + kTitle + kPlotHeight + kMargin);
    cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_RGB24, width, height);
    cairo_t* cr = cairo_create(surface);
    cairo_set_source_rgb(cr, 1, 1, 1);
    cairo_paint(cr);
    text_at(cr, kMargin, kMargin + 14, "bead, x-z (z down; log, 3 decades)", 12);
    text_at(cr, kMargin + section_w + kGap, kMargin + 14, "PSF of the retrieved pupil", 12);
    // The retrieved PSF carries the retrieval's background and nothing
    // below it: its smallest voxel is the background of both.
    const float background = *std::min_element(model.voxels.get(), model.voxels.get() + voxel_count(model));
    draw_section(cr, kMargin, kMargin + kTitle, bead, background);
    draw_section(cr, kMargin + section_w + kGap, kMargin + kTitle, model, background);
    draw_errors(cr, kMargin, kMargin + kTitle + section_h + kGap + kTitle, width - 2 * kMargin,
                errors);
    const cairo_status_t status = cairo_surface_write_to_png(surface, argv[4]);
    cairo_destroy(cr);
    cairo_surface_destroy(surface);
    if (status != CAIRO_STATUS_SUCCESS) {
        std::fprintf(stderr, "retrieve_figure: %s: %s\n", argv[4], cairo_status_to_string(status));
        return 1;
    }
    return 0;
}
