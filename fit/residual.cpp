// The complex residual of a fitted pupil and its statistics.

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdio>

#include <torvel/fit.hpp>
#include <torvel/messages.hpp>
#include "sampling.hpp"
#include <torvel/zernike.hpp>

namespace torvel {

namespace {

using fit_detail::IndexRange;
using fit_detail::PupilGeometry;
using fit_detail::PupilPoint;

// Clips a range to [0, size]. A disc lying wholly beyond one side of the
// section thus selects nothing, and an empty range stays empty, so that the
// three parts of a row or a section (before, inside, after) cover it once.
IndexRange clip(IndexRange range, int size) {
    const int begin = std::clamp(range.begin, 0, size);
    const int end = std::clamp(range.end, begin, size);
    return {begin, end};
}

// Running statistics over the stored residual, in float and in scan order:
// extremes and sum of the real parts, sum of the squared moduli.
struct Statistics {
    float minimum = FLT_MAX;
    float maximum = -FLT_MAX;
    float sum = 0.0f;
    float sum_of_squares = 0.0f;

    void add(float re, float im) {
        if (re < minimum) {
            minimum = re;
        }
        if (re > maximum) {
            maximum = re;
        }
        sum += re;
        sum_of_squares += re * re + im * im;
    }
};

// The larger of two sets: the one whose terms begin with all of the other's
// (of any two sets, the one of higher order, or of the same order and higher
// angular frequency).
void larger_set(int n_a, int m_a, int n_p, int m_p, int* n, int* m) {
    const bool phase_larger = n_p > n_a || (n_p == n_a && m_p > m_a);
    *n = phase_larger ? n_p : n_a;
    *m = phase_larger ? m_p : m_a;
}

// The two fitted series. A missing series stands for amplitude 1 and phase 0.
struct FittedPupil {
    int n_a, m_a;
    const double* coeff_a;
    int n_p, m_p;
    const double* coeff_p;

    // Amplitude and phase at one point, from the radial values of the larger
    // set at its rho (both sets' values begin them) and the angle table at its
    // theta: the same sums as the series evaluation makes.
    void from_radials(const double* radials, const ZernikeTables& angles, double* amplitude,
                      double* phase) const {
        *amplitude = n_a >= 0
                         ? evaluate_zernike_series_from_radials(radials, angles, n_a, m_a, coeff_a)
                         : 1.0;
        *phase = n_p >= 0 ? evaluate_zernike_series_from_radials(radials, angles, n_p, m_p, coeff_p)
                          : 0.0;
    }

    // The same at a point, from its coordinates alone.
    void at(const PupilPoint& p, double* amplitude, double* phase) const {
        *amplitude = n_a >= 0 ? evaluate_zernike_series(p.rho, p.theta, n_a, m_a, coeff_a) : 1.0;
        *phase = n_p >= 0 ? evaluate_zernike_series(p.rho, p.theta, n_p, m_p, coeff_p) : 0.0;
    }
};

// The residual of pixels [begin, end) of a row outside the disc: the measured
// pupil itself.
void measured_only(const float* amplitude, const float* phase, int begin, int end,
                   float* residual) {
    for (int ix = begin; ix < end; ++ix) {
        double s = 0.0;
        double c = 0.0;
        ::sincos(static_cast<double>(phase[ix]), &s, &c);
        const double a = static_cast<double>(amplitude[ix]);
        residual[2 * ix] = static_cast<float>(a * c);
        residual[2 * ix + 1] = static_cast<float>(a * s);
    }
}

// The residual of pixel ix of a row inside the disc: measured minus fitted
// pupil, the fitted one being fitted_amplitude * exp(i fitted_phase).
void measured_minus_fitted(const float* amplitude, const float* phase, int ix,
                           double fitted_amplitude, double fitted_phase, float* residual) {
    double s = 0.0;
    double c = 0.0;
    ::sincos(static_cast<double>(phase[ix]), &s, &c);
    const double a = static_cast<double>(amplitude[ix]);
    double sin_p = 0.0;
    double cos_p = 0.0;
    ::sincos(fitted_phase, &sin_p, &cos_p);
    residual[2 * ix] = static_cast<float>(a * c - fitted_amplitude * cos_p);
    residual[2 * ix + 1] = static_cast<float>(a * s - fitted_amplitude * sin_p);
}

// The planes of the section, and where row iy of each begins.
struct Planes {
    const float* amplitude;
    const float* phase;
    float* residual;
    int nx;

    std::size_t first(int iy) const {
        return static_cast<std::size_t>(iy) * static_cast<std::size_t>(nx);
    }
    void measured_row(int iy, int begin, int end) const {
        measured_only(amplitude + first(iy), phase + first(iy), begin, end,
                      residual + 2 * first(iy));
    }
    void fitted_pixel(int iy, int ix, double fitted_amplitude, double fitted_phase) const {
        measured_minus_fitted(amplitude + first(iy), phase + first(iy), ix, fitted_amplitude,
                              fitted_phase, residual + 2 * first(iy));
    }
};

// The residual of a disc row and of its mirror, if any: the mirror's pixels
// share the row's radial values and take its angle table with the sines
// negated (see mirrored_rows). radials, the radial values of the larger set,
// is null when the series are to be evaluated point by point.
void disc_row_pair(const PupilGeometry& g, const FittedPupil& fitted,
                   fit_detail::RowRadials* radials, const Planes& planes,
                   const fit_detail::DiscRow& row, const fit_detail::DiscRow* mirror) {
    const IndexRange columns = clip(row.columns, g.nx);
    for (const fit_detail::DiscRow* r : {&row, mirror}) {
        if (r == nullptr) continue;
        planes.measured_row(r->iy, 0, columns.begin);
        planes.measured_row(r->iy, columns.end, g.nx);
    }
    const float yy = row.y * row.y;
    const bool tabled = radials != nullptr;
    if (tabled) radials->compute(yy, row.columns);
    ZernikeTables angles;
    ZernikeTables mirrored;
    for (int ix = columns.begin; ix < columns.end; ++ix) {
        const float x = fit_detail::axis_offset(ix, g.x0, g.dx);
        const PupilPoint p = fit_detail::pupil_point(x, row.y, yy, g.cutoff);
        double amplitude = 0.0;
        double phase = 0.0;
        if (!tabled) {
            fitted.at(p, &amplitude, &phase);
            planes.fitted_pixel(row.iy, ix, amplitude, phase);
            if (mirror != nullptr) {
                fitted.at(fit_detail::pupil_point(x, mirror->y, yy, g.cutoff), &amplitude, &phase);
                planes.fitted_pixel(mirror->iy, ix, amplitude, phase);
            }
            continue;
        }
        fill_zernike_angles(p.theta, radials->frequency(), &angles);
        fitted.from_radials(radials->of_column(ix), angles, &amplitude, &phase);
        planes.fitted_pixel(row.iy, ix, amplitude, phase);
        if (mirror != nullptr) {
            mirrored.frequency = angles.frequency;
            for (int l = 0; l <= angles.frequency; ++l) {
                mirrored.cos_sin[2 * l] = angles.cos_sin[2 * l];
                mirrored.cos_sin[2 * l + 1] = -angles.cos_sin[2 * l + 1];
            }
            fitted.from_radials(radials->of_column(ix), mirrored, &amplitude, &phase);
            planes.fitted_pixel(mirror->iy, ix, amplitude, phase);
        }
    }
}

}  // namespace

void compute_residual(float x0, float y0, float dx, float dy, float cutoff, int nx, int ny,
                      const float* amplitude, const float* phase, int n_a, int m_a,
                      const double* coeff_a, int n_p, int m_p, const double* coeff_p,
                      float* residual, float stats[3]) {
    const PupilGeometry g{x0, y0, dx, dy, cutoff, nx, ny};
    const FittedPupil fitted{n_a, m_a, coeff_a, n_p, m_p, coeff_p};
    const Planes planes{amplitude, phase, residual, nx};
    // Rows are computed in mirrored pairs, so the statistics are taken
    // afterwards, in scan order, from the stored values.
    const IndexRange rows = clip(fit_detail::disc_rows(g), ny);
    for (int iy = 0; iy < ny; ++iy) {
        if (iy < rows.begin || iy >= rows.end) planes.measured_row(iy, 0, nx);
    }
    int n = -1;
    int m = -1;
    larger_set(n_a, m_a, n_p, m_p, &n, &m);
    // Sets outside the valid ones need not nest; they, and sets beyond the
    // tables, take the series evaluation point by point. Rows are taken in
    // parts on several threads and write disjoint pixels.
    auto valid = [](int k, int l) { return k < 0 || (l >= 0 && l <= k && (k - l) % 2 == 0); };
    auto visit = [&](const fit_detail::RowPair& pair, fit_detail::RowRadials* radials) {
        disc_row_pair(g, fitted, radials, planes, pair.row, pair.mirrored ? &pair.mirror : nullptr);
    };
    if (!(valid(n_a, m_a) && valid(n_p, m_p) && fit_detail::visit_row_pairs(g, n, m, true, visit)))
        fit_detail::visit_row_pairs(g, n, m, false, visit);
    Statistics totals;
    const std::size_t values = 2 * static_cast<std::size_t>(nx) * static_cast<std::size_t>(ny);
    for (std::size_t i = 0; i < values; i += 2) totals.add(residual[i], residual[i + 1]);
    const float count = static_cast<float>(static_cast<std::int64_t>(nx) * ny);
    const double rms = std::sqrt(static_cast<double>(totals.sum_of_squares / count));
    print_progress("\nroot mean square error %g\n", rms);
    stats[0] = totals.minimum;
    stats[1] = totals.maximum;
    stats[2] = totals.sum / count;
}

}  // namespace torvel
