// The complex residual of a fitted pupil and its statistics.

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdio>

#include <torvel/fit.hpp>
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

// The two fitted series, evaluated at one point with tables shared between
// them when their orders allow (the values are the same either way).
struct FittedPupil {
    int n_a, m_a;
    const double* coeff_a;
    int n_p, m_p;
    const double* coeff_p;
    ZernikeTableSize size;

    // Amplitude and phase of the fitted pupil at p: a missing series stands
    // for amplitude 1 and phase 0.
    void evaluate(const PupilPoint& p, double* amplitude, double* phase) const {
        ZernikeTables tables;
        if (fill_zernike_tables(p.rho, p.theta, size, &tables)) {
            *amplitude =
                n_a >= 0 ? evaluate_zernike_series_from_tables(tables, n_a, m_a, coeff_a) : 1.0;
            *phase =
                n_p >= 0 ? evaluate_zernike_series_from_tables(tables, n_p, m_p, coeff_p) : 0.0;
            return;
        }
        *amplitude = n_a >= 0 ? evaluate_zernike_series(p.rho, p.theta, n_a, m_a, coeff_a) : 1.0;
        *phase = n_p >= 0 ? evaluate_zernike_series(p.rho, p.theta, n_p, m_p, coeff_p) : 0.0;
    }
};

ZernikeTableSize union_size(ZernikeTableSize a, ZernikeTableSize b) {
    return {std::max(a.order, b.order), std::max(a.frequency, b.frequency)};
}

// The residual of pixels [begin, end) of a row outside the disc: the measured
// pupil itself.
void measured_only(const float* amplitude, const float* phase, int begin, int end, float* residual,
                   Statistics* stats) {
    for (int ix = begin; ix < end; ++ix) {
        double s = 0.0;
        double c = 0.0;
        ::sincos(static_cast<double>(phase[ix]), &s, &c);
        const double a = static_cast<double>(amplitude[ix]);
        residual[2 * ix] = static_cast<float>(a * c);
        residual[2 * ix + 1] = static_cast<float>(a * s);
        stats->add(residual[2 * ix], residual[2 * ix + 1]);
    }
}

// The residual of the selected pixels [begin, end) of the row at offset y:
// measured minus fitted pupil.
void measured_minus_fitted(const PupilGeometry& g, const FittedPupil& fitted, float y,
                           const float* amplitude, const float* phase, int begin, int end,
                           float* residual, Statistics* stats) {
    const float yy = y * y;
    for (int ix = begin; ix < end; ++ix) {
        double s = 0.0;
        double c = 0.0;
        ::sincos(static_cast<double>(phase[ix]), &s, &c);
        const double a = static_cast<double>(amplitude[ix]);
        const double re = a * c;
        const double im = a * s;
        const float x = fit_detail::axis_offset(ix, g.x0, g.dx);
        const PupilPoint p = fit_detail::pupil_point(x, y, yy, g.cutoff);
        double fitted_amplitude = 0.0;
        double fitted_phase = 0.0;
        fitted.evaluate(p, &fitted_amplitude, &fitted_phase);
        double sin_p = 0.0;
        double cos_p = 0.0;
        ::sincos(fitted_phase, &sin_p, &cos_p);
        residual[2 * ix] = static_cast<float>(re - fitted_amplitude * cos_p);
        residual[2 * ix + 1] = static_cast<float>(im - fitted_amplitude * sin_p);
        stats->add(residual[2 * ix], residual[2 * ix + 1]);
    }
}

}  // namespace

void compute_residual(float x0, float y0, float dx, float dy, float cutoff, int nx, int ny,
                      const float* amplitude, const float* phase, int n_a, int m_a,
                      const double* coeff_a, int n_p, int m_p, const double* coeff_p,
                      float* residual, float stats[3]) {
    const PupilGeometry g{x0, y0, dx, dy, cutoff, nx, ny};
    const FittedPupil fitted{
        n_a,
        m_a,
        coeff_a,
        n_p,
        m_p,
        coeff_p,
        union_size(zernike_table_size(n_a, m_a), zernike_table_size(n_p, m_p))};
    const IndexRange rows = clip(fit_detail::disc_rows(g), ny);
    Statistics totals;
    for (int iy = 0; iy < ny; ++iy) {
        const std::size_t first = static_cast<std::size_t>(iy) * static_cast<std::size_t>(nx);
        const float* a = amplitude + first;
        const float* p = phase + first;
        float* r = residual + 2 * first;
        if (iy < rows.begin || iy >= rows.end) {
            measured_only(a, p, 0, nx, r, &totals);
            continue;
        }
        const float y = fit_detail::axis_offset(iy, y0, dy);
        const IndexRange columns = clip(fit_detail::disc_columns(g, y), nx);
        measured_only(a, p, 0, columns.begin, r, &totals);
        measured_minus_fitted(g, fitted, y, a, p, columns.begin, columns.end, r, &totals);
        measured_only(a, p, columns.end, nx, r, &totals);
    }
    const float count = static_cast<float>(static_cast<std::int64_t>(nx) * ny);
    const double rms = std::sqrt(static_cast<double>(totals.sum_of_squares / count));
    std::printf("\nroot mean square error %g\n", rms);
    stats[0] = totals.minimum;
    stats[1] = totals.maximum;
    stats[2] = totals.sum / count;
}

}  // namespace torvel
