// The PNG figure of one fit, drawn with cairo: per wavelength a band with an
// amplitude row and a phase row (measured, fitted, residual side by side) and
// the phase at best focus with contour lines beside the PSF there, each panel
// the pupil disc (or a PSF section) with its title and a colour bar with units.

#include <algorithm>
#include <cairo.h>
#include <cerrno>
#include <cmath>
#include <complex>
#include <cstdio>
#include <cstring>
#include <limits>
#include <numbers>
#include <string>
#include <vector>

#include <torvel/messages.hpp>
#include <torvel/report.hpp>
#include <torvel/safeout.hpp>
#include <torvel/zernike.hpp>

#include "figure_detail.hpp"

namespace torvel {
namespace {

using namespace report_detail;

// Layout in PNG pixels.
constexpr int kDisc = 220;         // diameter of the pupil disc of a panel
constexpr int kPanelWidth = 340;   // axis labels, disc, colour bar and its labels
constexpr int kPanelHeight = 292;  // title, disc, kx axis below it
constexpr int kTitleHeight = 30;
constexpr int kDiscLeft = 40;  // room for the ky axis left of the disc
constexpr int kBarGap = 14;
constexpr int kBarWidth = 14;
constexpr int kMargin = 16;
constexpr int kHeaderHeight = 58;
constexpr int kBandHeading = 34;
constexpr int kFooterHeight = 64;
constexpr int kMinimumWidth = 700;
// The largest side of an image surface cairo makes.
constexpr int kMaxFigureSide = 32767;
// Pixels across the disc of a fitted panel drawn without an image.
constexpr int kModelGridRadius = kDisc / 2;
// The PSF panels span this many decades below the brightest sample.
constexpr double kPsfDecades = 4.0;

constexpr float kNotInDisc = std::numeric_limits<float>::quiet_NaN();

// The pixels of an image that the disc covers, inclusive bounds.
struct pixel_box {
    int c0, c1, r0, r1;
    int width() const { return c1 - c0 + 1; }
    int height() const { return r1 - r0 + 1; }
};

// One panel: values over the box (NaN outside the disc), row r0 first.
struct panel {
    std::string title;
    std::string unit;
    std::vector<float> values;
    bool diverging = false;
    double lo = 0.0, hi = 1.0;
    bool contours = false;  // contour lines at the colour bar's ticks
    // A PSF section instead of the pupil disc: columns x rows samples, row 0
    // at the bottom, spanning ±half_across_um and ±half_up_um; values are
    // log10 of the intensity over its peak, so the bar reads in decades.
    int columns = 0, rows = 0;
    double half_across_um = 0.0, half_up_um = 0.0;
    std::string up_axis{};
};

// One wavelength: the pixels it is drawn on and its rows of panels.
struct band {
    std::string heading;
    std::vector<std::string> notes;  // best focus and the largest aberrations
    image_geometry g;
    float cutoff;
    pixel_box box;
    std::vector<std::vector<panel>> rows;  // the notes take the cell after the last row's panels
};

pixel_box disc_box(const image_geometry& g, float cutoff) {
    const double rx = double(cutoff) / g.dx, ry = double(cutoff) / g.dy;
    return {std::max(0, int(std::floor(g.x0 - rx))), std::min(g.nx - 1, int(std::ceil(g.x0 + rx))),
            std::max(0, int(std::floor(g.y0 - ry))), std::min(g.ny - 1, int(std::ceil(g.y0 + ry)))};
}

// Calls visit(index into the box, pixel index into the image, rho, theta) for
// every pixel that torvel fits: the rows y0 - ry <= iy < y0 + ry with
// ry = cutoff / dy, in each the columns x0 - hw <= ix < x0 + hw with the
// row's half-width hw, in the same float steps and with the same pixel to
// pupil mapping as the fit (<torvel/fit.hpp>). Residuals exist only there.
template <class Visit>
void for_each_disc_pixel(const band& b, Visit&& visit) {
    const image_geometry& g = b.g;
    const float ry = b.cutoff / g.dy;
    const double row_lo = double(g.y0 - ry), row_hi = double(g.y0 + ry);
    for (int iy = b.box.r0; iy <= b.box.r1; ++iy) {
        if (!(row_lo <= iy && iy < row_hi)) continue;
        const float y = (float(iy) - g.y0) * g.dy;
        const float hw = float(std::sqrt(double(b.cutoff * b.cutoff - y * y)) / double(g.dx));
        const double col_lo = double(g.x0 - hw), col_hi = double(g.x0 + hw);
        for (int ix = b.box.c0; ix <= b.box.c1; ++ix) {
            if (!(col_lo <= ix && ix < col_hi)) continue;
            const float x = (float(ix) - g.x0) * g.dx;
            const double rho = std::sqrt(double(x * x + y * y)) / double(b.cutoff);
            const double theta = rho > 0.0 ? std::atan2(double(y), double(x)) : 0.0;
            visit(std::size_t(iy - b.box.r0) * b.box.width() + (ix - b.box.c0),
                  std::size_t(iy) * g.nx + ix, rho, theta);
        }
    }
}

panel empty_panel(const band& b, std::string title, std::string unit, bool diverging) {
    panel p{std::move(title), std::move(unit), {}, diverging};
    p.values.assign(std::size_t(b.box.width()) * b.box.height(), kNotInDisc);
    return p;
}

// The fitted amplitude and phase of wavelength w over the band's pixels.
void add_fitted(const report_model& model, int w, const band& b, panel* amplitude, panel* phase) {
    const report_wavelength& fit = model.waves[std::size_t(w)];
    series_values fitted_amplitude(fit.amplitude, model.amplitude_n, model.amplitude_m, 1.0);
    series_values fitted_phase(fit.phase, model.phase_n, model.phase_m, 0.0);
    for_each_disc_pixel(b, [&](std::size_t k, std::size_t, double rho, double theta) {
        amplitude->values[k] = float(fitted_amplitude.at(rho, theta));
        phase->values[k] = float(fitted_phase.at(rho, theta));
    });
}

// The fitted phase at best focus in waves: less piston, tilt and the focus
// shift that the metrics found, the focus evaluated exactly at each pixel.
void add_best_focus(const report_model& model, int w, const wavelength_metrics& metrics,
                    const band& b, panel* waves) {
    const std::vector<double> c = phase_without_tilt(model, w);
    series_values rest(c, model.phase_n, model.phase_m, 0.0);
    for_each_disc_pixel(b, [&](std::size_t k, std::size_t, double rho, double theta) {
        const double phase = rest.at(rho, theta) -
                             focus_shift_phase(model, metrics.wavelength_nm, metrics.focus_shift_um,
                                               metrics.focus_mean_path, rho);
        waves->values[k] = float(phase / (2.0 * std::numbers::pi));
    });
}

void add_measured(const measured_wavelength& m, const band& b, panel* amplitude, panel* phase) {
    for_each_disc_pixel(b, [&](std::size_t k, std::size_t pixel, double, double) {
        amplitude->values[k] = m.amplitude[pixel];
        phase->values[k] = m.phase[pixel];
    });
}

// The residual r = measured - fitted as amplitude and phase differences:
// measured = fitted + r, so |fitted + r| - |fitted| and arg((fitted + r) /
// fitted), the latter within (-pi, pi].
void add_residual(const report_model& model, int w, const float* r, const band& b, panel* amplitude,
                  panel* phase) {
    const report_wavelength& fit = model.waves[std::size_t(w)];
    series_values fitted_amplitude(fit.amplitude, model.amplitude_n, model.amplitude_m, 1.0);
    series_values fitted_phase(fit.phase, model.phase_n, model.phase_m, 0.0);
    for_each_disc_pixel(b, [&](std::size_t k, std::size_t pixel, double rho, double theta) {
        const double a = fitted_amplitude.at(rho, theta);
        const double p = fitted_phase.at(rho, theta);
        const std::complex<double> fitted = std::polar(a, p);
        const std::complex<double> measured =
            fitted + std::complex<double>(r[2 * pixel], r[2 * pixel + 1]);
        amplitude->values[k] = float(std::abs(measured) - std::abs(fitted));
        phase->values[k] = float(std::arg(measured * std::conj(fitted)));
    });
}

// Sets lo and hi of the panels to their common range (symmetric about 0 for
// diverging ones); a constant range is widened so it can be drawn.
void set_common_range(std::vector<panel*> panels) {
    double lo = std::numeric_limits<double>::infinity(), hi = -lo;
    for (const panel* p : panels) {
        for (float v : p->values) {
            if (!std::isfinite(v)) continue;
            lo = std::min(lo, double(v));
            hi = std::max(hi, double(v));
        }
    }
    if (!(lo <= hi)) lo = hi = 0.0;
    if (panels.front()->diverging) {
        hi = std::max(std::fabs(lo), std::fabs(hi));
        lo = -hi;
    }
    if (hi - lo <= 1e-12 * std::max(1.0, std::fabs(hi))) {
        const double half = hi != 0.0 ? 0.05 * std::fabs(hi) : 1.0;
        lo -= half;
        hi += half;
    }
    for (panel* p : panels) {
        p->lo = lo;
        p->hi = hi;
    }
}

std::string heading_of(const wavelength_metrics& w) {
    const double nm = w.wavelength_nm;
    char text[240];
    std::snprintf(text, sizeof text,
                  "%g nm:  with focus RMS %.1f nm, P-V %.0f nm;  at best focus RMS %.1f nm, "
                  "P-V %.0f nm, Strehl %.2f;  mean amplitude %.3f",
                  nm, radians_to_nm(w.rms_rad, nm), radians_to_nm(w.pv_rad, nm),
                  radians_to_nm(w.rms_best_focus_rad, nm), radians_to_nm(w.pv_best_focus_rad, nm),
                  w.strehl_best_focus, w.mean_amplitude);
    return text;
}

// The focus shift of best focus and the largest aberrations left there, as
// the table gives them (a pair as cos, sin); terms that round to 0.0 nm are
// left out.
std::vector<std::string> aberration_notes(const wavelength_metrics& w) {
    char line[120];
    std::snprintf(line, sizeof line, "\u0394z = %+.3f \u00b5m (focus at %sz)", w.focus_shift_um,
                  w.focus_shift_um < 0.0 ? "\u2212" : "+");
    std::vector<std::string> notes = {"best focus", line, "", "largest aberrations, nm RMS",
                                      "(Noll indices: cos, sin)"};
    const std::size_t head = notes.size();
    const std::size_t shown = std::min<std::size_t>(kLargestAberrations, w.largest.size());
    for (std::size_t k = 0; k < shown && w.largest[k].rms_nm >= 0.05; ++k) {
        const aberration_share& a = w.largest[k];
        if (a.m == 0) {
            std::snprintf(line, sizeof line, "%.1f  %s (Z%d)", a.rms_nm, a.name.c_str(), a.noll[0]);
        } else {
            std::snprintf(line, sizeof line, "%.1f  %s (Z%d, Z%d)", a.rms_nm, a.name.c_str(),
                          a.noll[0], a.noll[1]);
        }
        notes.push_back(line);
    }
    if (notes.size() == head) notes.push_back("none of 0.05 nm or more");
    return notes;
}

// The pixels a model alone is drawn on: one display pixel per grid pixel.
image_geometry model_grid() {
    const float spacing = 1.0f / kModelGridRadius;
    return {float(kModelGridRadius),  float(kModelGridRadius), spacing, spacing, 0.0f,
            2 * kModelGridRadius + 1, 2 * kModelGridRadius + 1};
}

// The two PSF panels of a wavelength in window, their values still to come.
std::vector<panel> psf_panels(const psf_window& window) {
    auto section = [&](std::string title, std::string up_axis, int rows, double spacing) {
        panel p{std::move(title), "I / peak", {}, false, -kPsfDecades, 0.0};
        p.columns = window.n;
        p.rows = rows;
        p.half_across_um = 0.5 * window.n * window.dx_um;
        p.half_up_um = 0.5 * rows * spacing;
        p.up_axis = std::move(up_axis);
        return p;
    };
    std::vector<panel> panels;
    panels.push_back(section("PSF x\u2013y at best focus", "y  (\u00b5m)", window.n, window.dx_um));
    panels.push_back(section("PSF x\u2013z through best focus", "z \u2212 \u0394z  (\u00b5m)",
                             window.planes, window.dz_um));
    return panels;
}

// Computes the PSF of wavelength w into the band's PSF panels, the last two
// of its last row: log10 of the intensity over the brightest sample of
// either section, down to kPsfDecades below it. Returns 0, or 1 after a
// message.
int add_psf(const char* png_name, const report_entry& entry, int w, const psf_window& window,
            band* b) {
    psf_sections s;
    if (compute_psf_sections(png_name, entry.model, w, entry.metrics[std::size_t(w)], window, &s) !=
        0)
        return 1;
    float peak = 0.0f;
    for (const std::vector<float>* v : {&s.xy, &s.xz})
        for (float value : *v) peak = std::max(peak, value);
    std::vector<panel>& row = b->rows.back();
    panel* xy = &row[row.size() - 2];
    for (auto [p, values] : {std::pair{xy, &s.xy}, std::pair{xy + 1, &s.xz}}) {
        p->values.resize(values->size());
        for (std::size_t k = 0; k < values->size(); ++k) {
            const double level =
                peak > 0.0f ? std::log10(double((*values)[k]) / peak) : -kPsfDecades;
            p->values[k] = float(std::max(level, -kPsfDecades));
        }
    }
    return 0;
}

// Builds the band of wavelength w from whatever sources there are, with
// the PSF panels of window still empty (add_psf fills them).
band make_band(const report_entry& entry, int w, const measured_pupil* measured,
               const residual_image* residual, const psf_window& window) {
    band b;
    b.heading = heading_of(entry.metrics[std::size_t(w)]);
    b.notes = aberration_notes(entry.metrics[std::size_t(w)]);
    if (measured != nullptr) {
        b.g = measured->geometry;
        b.cutoff = measured->of(w).cutoff;
    } else if (residual != nullptr) {
        b.g = residual->geometry;
        b.cutoff = residual->cutoff[std::size_t(w)];
    } else {
        b.g = model_grid();
        b.cutoff = 1.0f;
    }
    b.box = disc_box(b.g, b.cutoff);
    std::vector<panel> amplitude, phase;
    if (measured != nullptr) {
        amplitude.push_back(empty_panel(b, "measured amplitude", "a.u.", false));
        phase.push_back(empty_panel(b, "measured phase, unwrapped", "rad", false));
        add_measured(measured->of(w), b, &amplitude.back(), &phase.back());
    }
    amplitude.push_back(empty_panel(b, "fitted amplitude", "a.u.", false));
    phase.push_back(empty_panel(b, "fitted phase", "rad", false));
    add_fitted(entry.model, w, b, &amplitude.back(), &phase.back());
    std::vector<panel*> amplitude_scale, phase_scale;
    for (panel& p : amplitude) amplitude_scale.push_back(&p);
    for (panel& p : phase) phase_scale.push_back(&p);
    set_common_range(amplitude_scale);
    set_common_range(phase_scale);
    if (residual != nullptr) {
        amplitude.push_back(empty_panel(b, "residual amplitude", "a.u.", true));
        phase.push_back(empty_panel(b, "residual phase", "rad", true));
        add_residual(entry.model, w, residual->waves[std::size_t(w)].get(), b, &amplitude.back(),
                     &phase.back());
        set_common_range({&amplitude.back()});
        set_common_range({&phase.back()});
    }
    std::vector<panel> best_focus;
    best_focus.push_back(empty_panel(b, "phase at best focus", "waves", true));
    best_focus.back().contours = true;
    add_best_focus(entry.model, w, entry.metrics[std::size_t(w)], b, &best_focus.back());
    set_common_range({&best_focus.back()});
    std::vector<panel> psf = psf_panels(window);
    if (amplitude.size() == 1) {  // the fit alone: amplitude, phase, best focus; the PSF below
        amplitude.push_back(std::move(phase.front()));
        amplitude.push_back(std::move(best_focus.front()));
        b.rows = {std::move(amplitude), std::move(psf)};
    } else {
        for (panel& p : psf) best_focus.push_back(std::move(p));
        b.rows = {std::move(amplitude), std::move(phase), std::move(best_focus)};
    }
    return b;
}

// ---- drawing ------------------------------------------------------------------

const unsigned char* colour(const panel& p, double value) {
    double t = (value - p.lo) / (p.hi - p.lo);
    t = std::clamp(t, 0.0, 1.0);
    const int index = int(std::lround(t * 255.0));
    return p.diverging ? kCoolwarm[index] : kViridis[index];
}

void set_font(cairo_t* cr, double size, bool bold) {
    cairo_select_font_face(cr, "sans-serif", CAIRO_FONT_SLANT_NORMAL,
                           bold ? CAIRO_FONT_WEIGHT_BOLD : CAIRO_FONT_WEIGHT_NORMAL);
    cairo_set_font_size(cr, size);
}

void text_at(cairo_t* cr, double x, double y, const std::string& text) {
    cairo_move_to(cr, x, y);
    cairo_show_text(cr, text.c_str());
}

// The panel's values as an image, row r1 at the top (y drawn upwards).
cairo_surface_t* raster(const panel& p, const pixel_box& box) {
    cairo_surface_t* s = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, box.width(), box.height());
    cairo_surface_flush(s);
    unsigned char* data = cairo_image_surface_get_data(s);
    const int stride = cairo_image_surface_get_stride(s);
    for (int r = 0; r < box.height(); ++r) {
        auto* out =
            reinterpret_cast<std::uint32_t*>(data + std::size_t(box.height() - 1 - r) * stride);
        for (int c = 0; c < box.width(); ++c) {
            const float v = p.values[std::size_t(r) * box.width() + c];
            if (!std::isfinite(v)) {
                out[c] = 0;
                continue;
            }
            const unsigned char* rgb = colour(p, v);
            out[c] =
                0xFF000000u | (std::uint32_t(rgb[0]) << 16) | (std::uint32_t(rgb[1]) << 8) | rgb[2];
        }
    }
    cairo_surface_mark_dirty(s);
    return s;
}

// Where pixel (column, row) of the band's image lands on a disc centred at
// (cx, cy): the pupil centre at the disc's centre, y up.
struct disc_mapping {
    double cx, cy, sx, sy, x0, y0;
    double x(double column) const { return cx + (column - x0) * sx; }
    double y(double row) const { return cy - (row - y0) * sy; }
};

disc_mapping mapping_of(const band& b, double cx, double cy) {
    return {cx,
            cy,
            kDisc / (2.0 * b.cutoff / b.g.dx),
            kDisc / (2.0 * b.cutoff / b.g.dy),
            double(b.g.x0),
            double(b.g.y0)};
}

// The disc of a panel, centred where `at` puts the pupil centre: every pixel
// a square of the pixel spacing, clipped to the pupil edge, which is drawn as
// a circle.
void draw_disc(cairo_t* cr, const band& b, const panel& p, const disc_mapping& at) {
    const double cx = at.cx, cy = at.cy;
    cairo_save(cr);
    cairo_arc(cr, cx, cy, kDisc / 2.0, 0.0, 2.0 * std::numbers::pi);
    cairo_clip(cr);
    if (b.box.width() > 0 && b.box.height() > 0) {
        cairo_surface_t* image = raster(p, b.box);
        cairo_translate(cr, at.x(b.box.c0 - 0.5), at.y(b.box.r1 + 0.5));
        cairo_scale(cr, at.sx, at.sy);
        cairo_set_source_surface(cr, image, 0.0, 0.0);
        cairo_pattern_set_filter(cairo_get_source(cr), CAIRO_FILTER_NEAREST);
        cairo_paint(cr);
        cairo_surface_destroy(image);
    }
    cairo_restore(cr);
    cairo_arc(cr, cx, cy, kDisc / 2.0, 0.0, 2.0 * std::numbers::pi);
    cairo_set_source_rgb(cr, 0.25, 0.25, 0.25);
    cairo_set_line_width(cr, 1.2);
    cairo_stroke(cr);
}

// A step of 1, 2 or 5 times a power of ten giving about five ticks.
double tick_step(double range) {
    const double raw = range / 5.0;
    const double power = std::pow(10.0, std::floor(std::log10(raw)));
    const double f = raw / power;
    return power * (f < 1.5 ? 1.0 : f < 3.5 ? 2.0 : f < 7.5 ? 5.0 : 10.0);
}

// 10 to the integer power t, written as such ("1" for t = 0).
std::string power_of_ten(double t) {
    static const char* const kDigits[10] = {"\u2070", "\u00b9", "\u00b2", "\u00b3", "\u2074",
                                            "\u2075", "\u2076", "\u2077", "\u2078", "\u2079"};
    const long power = std::lround(t);
    if (power == 0) return "1";
    std::string digits;
    for (long rest = std::labs(power); rest > 0; rest /= 10) digits.insert(0, kDigits[rest % 10]);
    return std::string("10") + (power < 0 ? "\u207b" : "") + digits;
}

// The colour bar at (x, y), kDisc high, low values at the bottom, with ticks
// and the unit above it.
void draw_colour_bar(cairo_t* cr, const panel& p, double x, double y) {
    for (int i = 0; i < kDisc; ++i) {
        const double value = p.lo + (p.hi - p.lo) * (i + 0.5) / kDisc;
        const unsigned char* rgb = colour(p, value);
        cairo_set_source_rgb(cr, rgb[0] / 255.0, rgb[1] / 255.0, rgb[2] / 255.0);
        cairo_rectangle(cr, x, y + kDisc - i - 1, kBarWidth, 1.0);
        cairo_fill(cr);
    }
    cairo_set_source_rgb(cr, 0.25, 0.25, 0.25);
    cairo_set_line_width(cr, 1.0);
    cairo_rectangle(cr, x + 0.5, y + 0.5, kBarWidth - 1.0, kDisc - 1.0);
    cairo_stroke(cr);

    const double step = tick_step(p.hi - p.lo);
    const int decimals = std::max(0, int(-std::floor(std::log10(step) + 1e-9)));
    set_font(cr, 12.0, false);
    cairo_set_source_rgb(cr, 0.1, 0.1, 0.1);
    for (double t = std::ceil(p.lo / step - 1e-9) * step; t <= p.hi + 1e-9 * step; t += step) {
        const double ty = y + kDisc - (t - p.lo) / (p.hi - p.lo) * kDisc;
        cairo_move_to(cr, x + kBarWidth, ty);
        cairo_line_to(cr, x + kBarWidth + 4, ty);
        cairo_stroke(cr);
        char label[32];
        std::snprintf(label, sizeof label, "%.*f", decimals, std::fabs(t) < 0.5 * step ? 0.0 : t);
        text_at(cr, x + kBarWidth + 7, ty + 4, p.columns > 0 ? power_of_ten(t) : label);
    }
    set_font(cr, 12.0, true);
    text_at(cr, x, y + kDisc + 16, p.unit);
}

// The point between two grid values a (at 0) and b (at 1) where the level is.
double crossing(double a, double b, double level) {
    return (level - a) / (b - a);
}

// Contour lines of the panel's values at the given level, by marching
// squares over the cells whose four corners all lie in the disc. A saddle
// cell joins its crossings in the order of its edges, which at most swaps
// the two pairings there.
void trace_level(cairo_t* cr, const band& b, const panel& p, const disc_mapping& at, double level) {
    const int w = b.box.width();
    auto value = [&](int c, int r) { return double(p.values[std::size_t(r) * w + c]); };
    for (int r = 0; r + 1 < b.box.height(); ++r) {
        for (int c = 0; c + 1 < w; ++c) {
            // Corners counterclockwise from (c, r): their values and offsets.
            const double v[4] = {value(c, r), value(c + 1, r), value(c + 1, r + 1),
                                 value(c, r + 1)};
            if (!(std::isfinite(v[0]) && std::isfinite(v[1]) && std::isfinite(v[2]) &&
                  std::isfinite(v[3])))
                continue;
            static constexpr int kCorner[4][2] = {{0, 0}, {1, 0}, {1, 1}, {0, 1}};
            double points[4][2];
            int found = 0;
            for (int e = 0; e < 4; ++e) {
                const double a = v[e], z = v[(e + 1) % 4];
                if ((a < level) == (z < level)) continue;
                const double t = crossing(a, z, level);
                const int* p0 = kCorner[e];
                const int* p1 = kCorner[(e + 1) % 4];
                points[found][0] = b.box.c0 + c + p0[0] + t * (p1[0] - p0[0]);
                points[found][1] = b.box.r0 + r + p0[1] + t * (p1[1] - p0[1]);
                ++found;
            }
            for (int k = 0; k + 1 < found; k += 2) {
                cairo_move_to(cr, at.x(points[k][0]), at.y(points[k][1]));
                cairo_line_to(cr, at.x(points[k + 1][0]), at.y(points[k + 1][1]));
            }
        }
    }
    cairo_stroke(cr);
}

// The contour levels of a panel: the ticks of its colour bar.
std::vector<double> contour_levels(const panel& p) {
    const double step = tick_step(p.hi - p.lo);
    std::vector<double> levels;
    for (double t = std::ceil(p.lo / step - 1e-9) * step; t <= p.hi + 1e-9 * step; t += step)
        levels.push_back(std::fabs(t) < 0.5 * step ? 0.0 : t);
    return levels;
}

// Contour lines over the disc, and a mark at each level on the colour bar
// at bar_x; the zero line is drawn heavier.
void draw_contours(cairo_t* cr, const band& b, const panel& p, const disc_mapping& at, double bar_x,
                   double top) {
    cairo_save(cr);
    cairo_arc(cr, at.cx, at.cy, kDisc / 2.0, 0.0, 2.0 * std::numbers::pi);
    cairo_clip(cr);
    cairo_set_source_rgb(cr, 0.15, 0.15, 0.15);
    for (double level : contour_levels(p)) {
        cairo_set_line_width(cr, level == 0.0 ? 1.6 : 0.8);
        trace_level(cr, b, p, at, level);
    }
    cairo_restore(cr);
    cairo_set_source_rgb(cr, 0.15, 0.15, 0.15);
    for (double level : contour_levels(p)) {
        const double ty = top + kDisc - (level - p.lo) / (p.hi - p.lo) * kDisc;
        cairo_set_line_width(cr, level == 0.0 ? 1.6 : 0.8);
        cairo_move_to(cr, bar_x, ty);
        cairo_line_to(cr, bar_x + kBarWidth, ty);
        cairo_stroke(cr);
    }
}

// Text centred on x (align 0.5) or ending at x (align 1), baseline y.
void text_aligned(cairo_t* cr, double x, double y, const std::string& text, double align) {
    cairo_text_extents_t extents;
    cairo_text_extents(cr, text.c_str(), &extents);
    text_at(cr, x - align * extents.x_advance, y, text);
}

// An axis of a panel: values from -half to half across the square of the
// disc, and the axis's name.
struct axis {
    double half;
    std::string name;
};

// A labelled step of 1, 2 or 5 times a power of ten, the largest not beyond
// half, so that an axis carries three to five labels.
double label_step(double half) {
    const double power = std::pow(10.0, std::floor(std::log10(half)));
    const double f = half / power;
    return power * (f < 2.0 ? 1.0 : f < 5.0 ? 2.0 : 5.0);
}

// The value t as an axis label, with a true minus sign.
std::string axis_label(double t) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", std::fabs(t));
    return (t < 0.0 ? "\u2212" : "") + std::string(text);
}

// Axes below the square about (cx, cy) (across) and left of it (up), ticks
// at every half label step, so that orientation and scale are on the picture.
void draw_axes(cairo_t* cr, double cx, double cy, const axis& across, const axis& up) {
    const double r = kDisc / 2.0, below = cy + r + 5.0, left = cx - r - 5.0;
    cairo_set_source_rgb(cr, 0.25, 0.25, 0.25);
    cairo_set_line_width(cr, 1.0);
    cairo_move_to(cr, cx - r, below);
    cairo_line_to(cr, cx + r, below);
    cairo_move_to(cr, left, cy - r);
    cairo_line_to(cr, left, cy + r);
    set_font(cr, 11.0, false);
    double widest = 0.0;
    for (const bool is_across : {true, false}) {
        const axis& a = is_across ? across : up;
        const double step = label_step(a.half), last = std::floor(a.half / (0.5 * step) + 1e-9);
        for (double k = -last; k <= last; ++k) {
            const double d = 0.5 * k * step / a.half * r;
            if (is_across) {
                cairo_move_to(cr, cx + d, below);
                cairo_line_to(cr, cx + d, below + 4.0);
            } else {
                cairo_move_to(cr, left, cy - d);
                cairo_line_to(cr, left - 4.0, cy - d);
            }
            if (std::fmod(std::fabs(k), 2.0) != 0.0) continue;
            const std::string label = axis_label(0.5 * k * step);
            if (is_across) {
                text_aligned(cr, cx + d, below + 15.0, label, 0.5);
            } else {
                text_aligned(cr, left - 6.0, cy - d + 4.0, label, 1.0);
                cairo_text_extents_t extents;
                cairo_text_extents(cr, label.c_str(), &extents);
                widest = std::max(widest, extents.x_advance);
            }
        }
    }
    cairo_stroke(cr);
    text_aligned(cr, cx, below + 28.0, across.name, 0.5);
    cairo_save(cr);
    cairo_translate(cr, std::min(left - 20.0, left - 8.0 - widest), cy);
    cairo_rotate(cr, -std::numbers::pi / 2.0);
    text_aligned(cr, 0.0, 0.0, up.name, 0.5);
    cairo_restore(cr);
}

// A PSF section in the square where a pupil panel has its disc, each sample
// a cell (row 0 at the bottom), framed, with its axes in µm.
void draw_section(cairo_t* cr, const panel& p, double cx, double cy) {
    const double left = cx - kDisc / 2.0, top = cy - kDisc / 2.0;
    cairo_surface_t* image = raster(p, {0, p.columns - 1, 0, p.rows - 1});
    cairo_save(cr);
    cairo_translate(cr, left, top);
    cairo_scale(cr, double(kDisc) / p.columns, double(kDisc) / p.rows);
    cairo_set_source_surface(cr, image, 0.0, 0.0);
    cairo_pattern_set_filter(cairo_get_source(cr), CAIRO_FILTER_NEAREST);
    cairo_paint(cr);
    cairo_restore(cr);
    cairo_surface_destroy(image);
    cairo_set_source_rgb(cr, 0.25, 0.25, 0.25);
    cairo_set_line_width(cr, 1.0);
    cairo_rectangle(cr, left - 0.5, top - 0.5, kDisc + 1.0, kDisc + 1.0);
    cairo_stroke(cr);
    draw_axes(cr, cx, cy, {p.half_across_um, "x  (\u00b5m)"}, {p.half_up_um, p.up_axis});
}

void draw_panel(cairo_t* cr, const band& b, const panel& p, double x, double y, bool axes) {
    set_font(cr, 15.0, true);
    cairo_set_source_rgb(cr, 0.1, 0.1, 0.1);
    text_at(cr, x + kMargin, y + 20, p.title);
    const double top = y + kTitleHeight;
    const double cx = x + kDiscLeft + kDisc / 2.0, cy = top + kDisc / 2.0;
    const double bar_x = x + kDiscLeft + kDisc + kBarGap;
    draw_colour_bar(cr, p, bar_x, top);
    if (p.columns > 0) {
        draw_section(cr, p, cx, cy);
        return;
    }
    const disc_mapping at = mapping_of(b, cx, cy);
    draw_disc(cr, b, p, at);
    if (p.contours) draw_contours(cr, b, p, at, bar_x, top);
    if (axes) draw_axes(cr, cx, cy, {1.0, "kx  (NA / \u03bb)"}, {1.0, "ky  (NA / \u03bb)"});
}

// The notes of a band in the cell at (x, y): a heading, then lines, an empty
// one making a gap.
void draw_notes(cairo_t* cr, const band& b, double x, double y) {
    cairo_set_source_rgb(cr, 0.1, 0.1, 0.1);
    double line_y = y + 20;
    for (std::size_t k = 0; k < b.notes.size(); ++k) {
        set_font(cr, k == 0 ? 15.0 : 13.0, k == 0 || k == 1);
        text_at(cr, x + kMargin, line_y, b.notes[k]);
        line_y += k == 0 ? 24.0 : b.notes[k].empty() ? 8.0 : 19.0;
    }
}

struct figure_size {
    int width, height;
};

// Bold text at (x, y) in the given size, or smaller where it would be wider
// than width.
void draw_fitted_text(cairo_t* cr, double x, double y, double width, double size,
                      const std::string& text) {
    set_font(cr, size, true);
    cairo_text_extents_t extents;
    cairo_text_extents(cr, text.c_str(), &extents);
    if (extents.x_advance > width) set_font(cr, size * width / extents.x_advance, true);
    text_at(cr, x, y, text);
}

// Columns of a band: its longest row, and the notes' cell after its last row.
int columns_of(const band& b) {
    int columns = int(b.rows.back().size()) + 1;
    for (const auto& row : b.rows) columns = std::max(columns, int(row.size()));
    return columns;
}

figure_size size_of(const std::vector<band>& bands) {
    int columns = 0, height = kHeaderHeight + kFooterHeight;
    for (const band& b : bands) {
        columns = std::max(columns, columns_of(b));
        height += kBandHeading + int(b.rows.size()) * kPanelHeight;
    }
    return {std::max(kMinimumWidth, columns * kPanelWidth + 2 * kMargin), height};
}

void draw_figure(cairo_t* cr, const report_entry& entry, const std::vector<band>& bands,
                 const figure_size& size, bool residual) {
    cairo_set_source_rgb(cr, 1.0, 1.0, 1.0);
    cairo_paint(cr);
    cairo_set_source_rgb(cr, 0.1, 0.1, 0.1);
    set_font(cr, 17.0, true);
    text_at(cr, kMargin, 26, utf8_name(entry.model.file));
    set_font(cr, 13.0, false);
    char optics[200];
    std::snprintf(optics, sizeof optics,
                  "NA %g, immersion index %g, lens number %d (the lens id of the pupil image's "
                  "header); phase Zernike set (%d, %d), amplitude (%d, %d)",
                  model_aperture(entry.model), model_immersion_index(entry.model),
                  entry.model.lens_id, entry.model.phase_n, entry.model.phase_m,
                  entry.model.amplitude_n, entry.model.amplitude_m);
    text_at(cr, kMargin, 46, optics);

    double y = kHeaderHeight;
    for (const band& b : bands) {
        cairo_set_source_rgb(cr, 0.1, 0.1, 0.1);
        draw_fitted_text(cr, kMargin, y + 24, size.width - 2 * kMargin, 15.0, b.heading);
        y += kBandHeading;
        for (const auto& row : b.rows) {
            for (std::size_t k = 0; k < row.size(); ++k)
                draw_panel(cr, b, row[k], kMargin + double(k) * kPanelWidth, y, k == 0);
            if (&row == &b.rows.back())
                draw_notes(cr, b, kMargin + double(row.size()) * kPanelWidth, y);
            y += kPanelHeight;
        }
    }
    set_font(cr, 12.0, false);
    cairo_set_source_rgb(cr, 0.3, 0.3, 0.3);
    text_at(cr, kMargin, size.height - 44,
            "x (image columns) to the right, y (rows) up; theta runs from +x towards +y. Circle: "
            "pupil edge, NA / \u03bb. Phase in rad as fitted, piston and tilt included.");
    text_at(cr, kMargin, size.height - 28,
            std::string("At best focus: less piston, tilt and the focus shift \u0394z (> 0: focus "
                        "at +z), in waves, contours at the ticks") +
                (residual ? "; residual = measured \u2212 fitted." : "."));
    text_at(cr, kMargin, size.height - 12,
            "PSF: vector model of the fitted pupil less piston and tilt, intensity over the peak "
            "of both sections, log scale; x\u2013z at y = 0, z from best focus.");
}

cairo_status_t write_to_file(void* closure, const unsigned char* data, unsigned int length) {
    auto* stream = static_cast<std::FILE*>(closure);
    return std::fwrite(data, 1, length, stream) == length ? CAIRO_STATUS_SUCCESS
                                                          : CAIRO_STATUS_WRITE_ERROR;
}

// Writes the surface as PNG through safeout. Returns 0, or 1 after a message.
int write_png(cairo_surface_t* surface, const char* name) {
    safe_output out;
    if (safe_output_open(name, "wb", &out) != 0) {
        print_message("torvel-report: unable to open %s for writing: %s\n", name,
                      std::strerror(errno));
        return 1;
    }
    const cairo_status_t status =
        cairo_surface_write_to_png_stream(surface, write_to_file, out.stream);
    if (status != CAIRO_STATUS_SUCCESS) {
        print_message("torvel-report: unable to write %s: %s\n", name,
                      cairo_status_to_string(status));
        return 1;
    }
    if (safe_output_commit(&out) != 0) {
        print_message("torvel-report: an I/O error occurred while writing %s\n", name);
        return 1;
    }
    return 0;
}

// Checks that the pupil and residual images lie on the same pixels.
int check_same_pixels(const char* image_name, const image_geometry& a, const char* residual_name,
                      const image_geometry& b) {
    if (a.nx == b.nx && a.ny == b.ny && a.x0 == b.x0 && a.y0 == b.y0 && a.dx == b.dx &&
        a.dy == b.dy)
        return 0;
    print_message(
        "torvel-report: %s: size %d x %d, centre (%g, %g), spacing (%g, %g) does not "
        "match %d x %d, centre (%g, %g), spacing (%g, %g) of %s\n",
        residual_name, b.nx, b.ny, double(b.x0), double(b.y0), double(b.dx), double(b.dy), a.nx,
        a.ny, double(a.x0), double(a.y0), double(a.dx), double(a.dy), image_name);
    return 1;
}

}  // namespace

int write_report_figure(const char* png_name, const report_entry& entry, const char* image_name,
                        const char* residual_name) {
    measured_pupil measured;
    residual_image residual;
    int status = 0;
    if (image_name != nullptr) status |= read_measured_pupil(image_name, entry.model, &measured);
    if (residual_name != nullptr)
        status |= read_residual_image(residual_name, entry.model, &residual);
    if (status == 0 && image_name != nullptr && residual_name != nullptr)
        status = check_same_pixels(image_name, measured.geometry, residual_name, residual.geometry);
    if (status != 0) return 1;

    const psf_window window = psf_window_of(entry.model);
    std::vector<band> bands;
    for (int w = 0; w < int(entry.model.waves.size()); ++w) {
        bands.push_back(make_band(entry, w, image_name ? &measured : nullptr,
                                  residual_name ? &residual : nullptr, window));
    }
    const figure_size size = size_of(bands);
    if (size.height > kMaxFigureSide) {
        print_message("torvel-report: %s: a figure of %zu wavelengths would be %d pixels high, "
                     "more than the %d a PNG is drawn with\n",
                     png_name, bands.size(), size.height, kMaxFigureSide);
        return 1;
    }
    for (int w = 0; w < int(bands.size()); ++w)
        if (add_psf(png_name, entry, w, window, &bands[std::size_t(w)]) != 0) return 1;
    cairo_surface_t* surface =
        cairo_image_surface_create(CAIRO_FORMAT_RGB24, size.width, size.height);
    cairo_t* cr = cairo_create(surface);
    draw_figure(cr, entry, bands, size, residual_name != nullptr);
    // cairo records its first failure and then draws nothing more: a
    // figure it failed to draw must not be written as if it were whole.
    const cairo_status_t drawn = cairo_status(cr);
    cairo_destroy(cr);
    int result = 1;
    if (drawn != CAIRO_STATUS_SUCCESS) {
        print_message("torvel-report: %s: the figure could not be drawn: %s\n", png_name,
                     cairo_status_to_string(drawn));
    } else {
        result = write_png(surface, png_name);
    }
    cairo_surface_destroy(surface);
    // Nothing of cairo's is in use any more: let it release its font caches,
    // so that a leak checker sees only what is really lost.
    cairo_debug_reset_static_data();
    return result;
}

}  // namespace torvel
