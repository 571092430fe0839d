// Pixel selection, pupil coordinates, the right-hand side and the design
// matrix of the least-squares fit.

#include "fit/sampling.hpp"

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fit/fit.hpp"
#include "zernike/zernike.hpp"

namespace torvel {

namespace fit_detail {

namespace {

// ceil of a float taken in double, so that a whole number stays itself and
// anything else goes up to the next one. Values no int can hold saturate;
// NaN gives INT_MIN, which, as an exclusive end, selects nothing.
int exact_ceiling(float value) {
    const double up = std::ceil(static_cast<double>(value));
    if (!(up >= static_cast<double>(INT_MIN))) {
        return INT_MIN;
    }
    if (up > static_cast<double>(INT_MAX)) {
        return INT_MAX;
    }
    return static_cast<int>(up);
}

// The bounds of the disc along one axis, centre +- half (both in pixels):
// lower edge inclusive, clipped to 0; upper edge exclusive, clipped to size.
IndexRange axis_range(float centre, float half, int size) {
    const float low = centre - half;
    const float high = centre + half;
    const int end = (high > static_cast<float>(size)) ? size : exact_ceiling(high);
    const int begin = (low >= 0.0f) ? exact_ceiling(low) : 0;
    return {begin, end};
}

}  // namespace

IndexRange disc_rows(const PupilGeometry& g) {
    const float ry = g.cutoff / g.dy;
    return axis_range(g.y0, ry, g.ny);
}

float axis_offset(int index, float centre, float spacing) {
    return (static_cast<float>(index) - centre) * spacing;
}

IndexRange disc_columns(const PupilGeometry& g, float y) {
    const float difference = g.cutoff * g.cutoff - y * y;
    const float hw =
        static_cast<float>(std::sqrt(static_cast<double>(difference)) / static_cast<double>(g.dx));
    return axis_range(g.x0, hw, g.nx);
}

PupilPoint pupil_point(float x, float y, float yy, float cutoff) {
    const float squares = x * x + yy;
    const double rho = std::sqrt(static_cast<double>(squares)) / static_cast<double>(cutoff);
    const double theta =
        rho > 0.0 ? std::atan2(static_cast<double>(y), static_cast<double>(x)) : 0.0;
    return {rho, theta};
}

std::int64_t count_disc_pixels(const PupilGeometry& g) {
    std::int64_t count = 0;
    for_each_disc_row(g, [&](int, float, IndexRange columns) {
        if (columns.end > columns.begin) {
            count += columns.end - columns.begin;
        }
    });
    return count;
}

void assertion_failed(const char* expression, const char* file, int line, const char* function) {
    const char* slash = std::strrchr(file, '/');
    std::fprintf(stderr, "torvel: %s:%d: %s: Assertion `%s' failed.\n",
                 slash != nullptr ? slash + 1 : file, line, function, expression);
    std::fflush(stderr);
    std::abort();
}

}  // namespace fit_detail

namespace {

using fit_detail::IndexRange;
using fit_detail::PupilGeometry;
using fit_detail::PupilPoint;

// Writes the columns of one measurement row, in slot order, from offset
// irow on, each a further nrow along. radial(k, l) gives R_k^l and
// cos_sin(l, &c, &s) the cosine and sine of l theta; the cosine column of a
// pair always comes first.
template <class Radial, class CosSin>
void write_row(int n, int m, int nrow, std::int64_t ntot, int irow, double* matrix, Radial radial,
               CosSin cos_sin) {
    std::int64_t offset = irow;
    for_each_zernike_term(n, m, [&](int k, int l) {
        if (l == 0) {
            TORVEL_ASSERT(offset < ntot, "fill_matrix");
            matrix[offset] = radial(k, 0);
            offset += nrow;
            return;
        }
        const double r = radial(k, l);
        TORVEL_ASSERT(offset < ntot - nrow, "fill_matrix");
        double c = 0.0;
        double s = 0.0;
        cos_sin(l, &c, &s);
        matrix[offset] = r * c;
        matrix[offset + nrow] = r * s;
        offset += 2 * static_cast<std::int64_t>(nrow);
    });
}

// One row straight from the defining formulas: evaluate_rnm for every column
// and a sincos for every pair. Used when the order is beyond the tables.
void write_row_direct(const PupilPoint& p, int n, int m, int nrow, std::int64_t ntot, int irow,
                      double* matrix) {
    write_row(
        n, m, nrow, ntot, irow, matrix, [&](int k, int l) { return evaluate_rnm(p.rho, k, l); },
        [&](int l, double* c, double* s) { ::sincos(static_cast<double>(l) * p.theta, s, c); });
}

// The same row from basis values computed with the powers of rho, the sines
// and cosines of l theta and the binomials shared by all columns: the very
// same calls' results, so the row is identical. basis holds one pixel's
// values in slot order.
void write_row_from_basis(const double* basis, int n, int m, int nrow, std::int64_t ntot, int irow,
                          double* matrix) {
    std::int64_t offset = irow;
    int i = 0;
    for_each_zernike_term(n, m, [&](int, int l) {
        if (l == 0) {
            TORVEL_ASSERT(offset < ntot, "fill_matrix");
            matrix[offset] = basis[i++];
            offset += nrow;
            return;
        }
        TORVEL_ASSERT(offset < ntot - nrow, "fill_matrix");
        matrix[offset] = basis[i++];
        matrix[offset + nrow] = basis[i++];
        offset += 2 * static_cast<std::int64_t>(nrow);
    });
}

}  // namespace

void fill_rhs(float x0, float y0, float dx, float dy, float cutoff, int nx, int ny,
              const float* section, double* rhs, int* nrow_out) {
    const PupilGeometry g{x0, y0, dx, dy, cutoff, nx, ny};
    int count = 0;
    fit_detail::for_each_disc_row(g, [&](int iy, float, IndexRange columns) {
        const float* row = section + static_cast<std::size_t>(iy) * static_cast<std::size_t>(nx);
        for (int ix = columns.begin; ix < columns.end; ++ix) {
            rhs[count] = static_cast<double>(row[ix]);
            ++count;
        }
    });
    *nrow_out = count;
}

void fill_matrix(float x0, float y0, float dx, float dy, float cutoff, int nx, int ny, int ncol,
                 int nrow, int n, int m, double* matrix) {
    const PupilGeometry g{x0, y0, dx, dy, cutoff, nx, ny};
    const std::int64_t ntot = static_cast<std::int64_t>(nrow) * ncol;
    const ZernikeTableSize size = zernike_table_size(n, m);
    ZernikeTables tables;
    double basis[zernike_table_max_terms];
    int irow = 0;
    const IndexRange rows = fit_detail::disc_rows(g);
    for (int iy = rows.begin; iy < rows.end; ++iy) {
        const float y = fit_detail::axis_offset(iy, y0, dy);
        const float yy = y * y;
        const IndexRange columns = fit_detail::disc_columns(g, y);
        for (int ix = columns.begin; ix < columns.end; ++ix) {
            TORVEL_ASSERT(irow < nrow, "fill_matrix");
            const float x = fit_detail::axis_offset(ix, x0, dx);
            const PupilPoint p = fit_detail::pupil_point(x, y, yy, cutoff);
            if (fill_zernike_tables(p.rho, p.theta, size, &tables)) {
                evaluate_zernike_basis(tables, n, m, basis);
                write_row_from_basis(basis, n, m, nrow, ntot, irow, matrix);
            } else {
                write_row_direct(p, n, m, nrow, ntot, irow, matrix);
            }
            ++irow;
        }
    }
}

}  // namespace torvel
