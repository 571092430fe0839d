// Pixel selection, pupil coordinates, the right-hand side and the design
// matrix of the least-squares fit.

#include "sampling.hpp"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include <torvel/fit.hpp>
#include <torvel/zernike.hpp>

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

float squared_radius(float x, float yy) {
    return x * x + yy;
}

double pupil_radius(float squares, float cutoff) {
    return std::sqrt(static_cast<double>(squares)) / static_cast<double>(cutoff);
}

PupilPoint pupil_point(float x, float y, float yy, float cutoff) {
    const double rho = pupil_radius(squared_radius(x, yy), cutoff);
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
// irow on, each a further nrow along. values(k, l, v) gives the term's value
// in v[0] (l = 0) or its cosine and sine values in v[0], v[1]; the cosine
// column of a pair always comes first. Every write is checked first.
template <class Values>
void write_row(int n, int m, int nrow, std::int64_t ntot, int irow, double* matrix, Values values) {
    std::int64_t offset = irow;
    for_each_zernike_term(n, m, [&](int k, int l) {
        double v[2];
        values(k, l, v);
        if (l == 0) {
            TORVEL_ASSERT(offset < ntot, "fill_matrix");
            matrix[offset] = v[0];
            offset += nrow;
            return;
        }
        TORVEL_ASSERT(offset < ntot - nrow, "fill_matrix");
        matrix[offset] = v[0];
        matrix[offset + nrow] = v[1];
        offset += 2 * static_cast<std::int64_t>(nrow);
    });
}

// One row straight from the defining formulas: evaluate_rnm for every column
// and a sincos for every pair. Used when the order is beyond the tables.
void write_row_direct(const PupilPoint& p, int n, int m, int nrow, std::int64_t ntot, int irow,
                      double* matrix) {
    write_row(n, m, nrow, ntot, irow, matrix, [&](int k, int l, double* v) {
        const double r = evaluate_rnm(p.rho, k, l);
        if (l == 0) {
            v[0] = r;
            return;
        }
        double c = 0.0;
        double s = 0.0;
        ::sincos(static_cast<double>(l) * p.theta, &s, &c);
        v[0] = r * c;
        v[1] = r * s;
    });
}

// The same row from basis values made with tables shared by all columns:
// the very same calls' results, so the row is identical. basis holds one
// pixel's values in slot order.
void write_row_from_basis(const double* basis, int n, int m, int nrow, std::int64_t ntot, int irow,
                          double* matrix) {
    int i = 0;
    write_row(n, m, nrow, ntot, irow, matrix, [&](int, int l, double* v) {
        v[0] = basis[i++];
        if (l > 0) v[1] = basis[i++];
    });
}

// The index whose offset from centre is the exact negative of index's, or
// -1 when centre is not a whole or half index (then no pixel mirrors another).
int mirror_index(float centre, int index) {
    const float twice = 2.0f * centre;
    if (!(twice >= 0.0f && twice < 2147483647.0f) || std::floor(twice) != twice) return -1;
    return static_cast<int>(twice) - index;
}

// The radial values R_k^l(rho) of every selected pixel of a row, computed
// once per distinct rho. rho depends on nothing but the float sum
// x^2 + y^2, so where the pupil centre lies on a whole or half pixel a row
// repeats its left half on the right, and the row as far on the other side
// of the centre repeats the row whole (same y^2, same columns). Such pixels
// take the values already computed instead of their own pow() calls and
// polynomial sums: the same values, less work.
//
// Rows that a later mirror row will need are kept on a stack in one buffer
// allocated up front (within a fixed budget): the rows are walked towards
// the centre and their mirrors away from it, so the row needed next is
// always the one kept last.
class SymmetricRadials {
  public:
    SymmetricRadials(const PupilGeometry& g, int n, int m, int nrow)
        : g_(g), n_(n), m_(m), size_(zernike_table_size(n, m)) {
        if (size_.order > zernike_table_max_order || size_.frequency > zernike_table_max_order)
            return;
        width_ = std::size_t(zernike_radial_count(n, m));
        scratch_.reset(new (std::nothrow) double[std::size_t(g.nx) * width_]);
        constexpr std::size_t kBudget = (std::size_t(64) << 20) / sizeof(double);
        const std::size_t wanted = (std::size_t(nrow) / 2 + std::size_t(g.nx)) * width_;
        stack_size_ = std::min(wanted, kBudget);
        stack_.reset(new (std::nothrow) double[stack_size_]);
        if (!stack_) stack_size_ = 0;
    }

    int frequency() const { return size_.frequency; }

    // Makes the values of row iy (y^2 = yy, selected columns) current.
    // Returns false when the set is beyond the tables or memory ran out; the
    // caller then evaluates every column directly.
    bool prepare_row(int iy, float yy, IndexRange columns, IndexRange rows) {
        if (!scratch_ || columns.end <= columns.begin) return false;
        stack_top_ = released_top_;  // the row reused last is no longer needed
        begin_ = columns.begin;
        if (!kept_.empty()) {
            const Kept& top = kept_.back();
            if (top.row == iy && top.yy == yy && top.columns.begin == columns.begin &&
                top.columns.end == columns.end) {
                current_ = stack_.get() + top.offset;
                released_top_ = top.offset;
                kept_.pop_back();
                return true;
            }
        }
        current_ = keep_for_mirror(iy, yy, columns, rows);
        if (current_ == nullptr) current_ = scratch_.get();
        compute_row(yy, columns);
        return true;
    }

    const double* of_column(int ix) const { return current_ + std::size_t(ix - begin_) * width_; }

  private:
    struct Kept {
        int row;
        float yy;
        IndexRange columns;
        std::size_t offset;
    };

    // Room on the stack for the mirror row of iy when that row lies ahead with
    // the same y^2, or null.
    double* keep_for_mirror(int iy, float yy, IndexRange columns, IndexRange rows) {
        const int mirror = mirror_index(g_.y0, iy);
        if (mirror <= iy || mirror >= rows.end) return nullptr;
        const float y = fit_detail::axis_offset(mirror, g_.y0, g_.dy);
        if (y * y != yy) return nullptr;
        const std::size_t size = std::size_t(columns.end - columns.begin) * width_;
        if (size > stack_size_ - stack_top_) return nullptr;
        kept_.push_back({mirror, yy, columns, stack_top_});
        stack_top_ += size;
        released_top_ = stack_top_;
        return stack_.get() + kept_.back().offset;
    }

    void compute_row(float yy, IndexRange columns) {
        for (int ix = columns.begin; ix < columns.end; ++ix) {
            double* out = current_ + std::size_t(ix - begin_) * width_;
            const float squares = fit_detail::squared_radius(axis(ix), yy);
            const int twin = mirror_index(g_.x0, ix);
            if (twin >= columns.begin && twin < ix &&
                fit_detail::squared_radius(axis(twin), yy) == squares) {
                const double* done = of_column(twin);
                std::copy(done, done + width_, out);
                continue;
            }
            fill_zernike_powers(fit_detail::pupil_radius(squares, g_.cutoff), size_.order,
                                &powers_);
            evaluate_zernike_radials(powers_, n_, m_, out);
        }
    }

    float axis(int ix) const { return fit_detail::axis_offset(ix, g_.x0, g_.dx); }

    PupilGeometry g_;
    int n_, m_;
    ZernikeTableSize size_;
    std::size_t width_ = 0;
    int begin_ = 0;
    double* current_ = nullptr;
    ZernikeTables powers_;
    std::unique_ptr<double[]> scratch_;
    std::unique_ptr<double[]> stack_;
    std::size_t stack_size_ = 0;
    std::size_t stack_top_ = 0;
    std::size_t released_top_ = 0;
    std::vector<Kept> kept_;
};

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
    SymmetricRadials radials(g, n, m, nrow);
    ZernikeTables angles;
    double basis[zernike_table_max_terms];
    int irow = 0;
    const IndexRange rows = fit_detail::disc_rows(g);
    fit_detail::for_each_disc_row(g, [&](int iy, float y, IndexRange columns) {
        const float yy = y * y;
        const bool tabled = radials.prepare_row(iy, yy, columns, rows);
        for (int ix = columns.begin; ix < columns.end; ++ix) {
            TORVEL_ASSERT(irow < nrow, "fill_matrix");
            const float x = fit_detail::axis_offset(ix, x0, dx);
            const PupilPoint p = fit_detail::pupil_point(x, y, yy, cutoff);
            if (tabled) {
                fill_zernike_angles(p.theta, radials.frequency(), &angles);
                combine_zernike_basis(radials.of_column(ix), angles, n, m, basis);
                write_row_from_basis(basis, n, m, nrow, ntot, irow, matrix);
            } else {
                write_row_direct(p, n, m, nrow, ntot, irow, matrix);
            }
            ++irow;
        }
    });
}

}  // namespace torvel
