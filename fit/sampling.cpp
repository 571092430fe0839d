// Pixel selection, pupil coordinates, the right-hand side and the design
// matrix of the least-squares fit.

#include "sampling.hpp"

#include "parallel.hpp"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <span>
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

namespace {

// The rows of the disc in ascending order, a row that mirrors an earlier one
// paired with that one.
std::vector<RowPair> mirrored_row_pairs(const PupilGeometry& g) {
    const IndexRange rows = disc_rows(g);
    auto row_at = [&](int iy) {
        const float y = axis_offset(iy, g.y0, g.dy);
        return DiscRow{iy, y, disc_columns(g, y)};
    };
    std::vector<RowPair> pairs;
    for (int iy = rows.begin; iy < rows.end; ++iy) {
        const DiscRow row = row_at(iy);
        const int other = mirror_index(g.y0, iy);
        if (other >= rows.begin && other < rows.end && other != iy) {
            const DiscRow twin = row_at(other);
            if (mirrored_rows(g, row, twin)) {
                // A row that mirrors an earlier one was paired with it.
                if (other > iy) pairs.push_back({row, twin, true});
                continue;
            }
        }
        pairs.push_back({row, row, false});
    }
    return pairs;
}

// The selected pixels of each pair, both rows counted: its share of the work.
std::vector<std::int64_t> pixels_of(std::span<const RowPair> pairs) {
    std::vector<std::int64_t> pixels;
    pixels.reserve(pairs.size());
    for (const RowPair& pair : pairs) {
        const std::int64_t row = std::max(pair.row.columns.end - pair.row.columns.begin, 0);
        pixels.push_back(pair.mirrored ? 2 * row : row);
    }
    return pixels;
}

}  // namespace

bool visit_row_pairs(const PupilGeometry& g, int n, int m, bool tabled,
                     const std::function<void(const RowPair& pair, RowRadials* radials)>& visit) {
    const std::vector<RowPair> pairs = mirrored_row_pairs(g);
    const std::vector<std::int64_t> pixels = pixels_of(pairs);
    std::int64_t total = 0;
    for (const std::int64_t p : pixels) total += p;
    int parts = parts_for(total);
    // One set of radial values per part, as many parts as memory allows.
    std::vector<RowRadials> radials;
    while (tabled && static_cast<int>(radials.size()) < parts) {
        RowRadials more(g, n, m);
        if (!more.usable()) break;
        radials.push_back(std::move(more));
    }
    if (tabled) {
        if (radials.empty()) return false;
        parts = static_cast<int>(radials.size());
    }
    run_in_parts(pixels, parts, [&](int part, int begin, int end) {
        RowRadials* own = tabled ? &radials[static_cast<std::size_t>(part)] : nullptr;
        for (int k = begin; k < end; ++k) visit(pairs[static_cast<std::size_t>(k)], own);
    });
    return true;
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

int mirror_index(float centre, int index) {
    const float twice = 2.0f * centre;
    if (!(twice >= 0.0f && twice < 2147483647.0f) || std::floor(twice) != twice) return -1;
    return static_cast<int>(twice) - index;
}

bool within_tables(int n, int m) {
    const ZernikeTableSize size = zernike_table_size(n, m);
    return size.order <= zernike_table_max_order && size.frequency <= zernike_table_max_order;
}

RowRadials::RowRadials(const PupilGeometry& g, int n, int m)
    : g_(g), n_(n), m_(m), size_(zernike_table_size(n, m)) {
    if (!within_tables(n, m)) return;
    width_ = static_cast<std::size_t>(zernike_radial_count(n, m));
    values_.reset(new (std::nothrow) double[static_cast<std::size_t>(g.nx) * width_]);
}

void RowRadials::compute(float yy, IndexRange columns) {
    begin_ = columns.begin;
    for (int ix = columns.begin; ix < columns.end; ++ix) {
        double* out = values_.get() + static_cast<std::size_t>(ix - begin_) * width_;
        const float squares = squared_radius(axis_offset(ix, g_.x0, g_.dx), yy);
        const int twin = mirror_index(g_.x0, ix);
        if (twin >= columns.begin && twin < ix &&
            squared_radius(axis_offset(twin, g_.x0, g_.dx), yy) == squares) {
            const double* done = of_column(twin);
            std::copy(done, done + width_, out);
            continue;
        }
        fill_zernike_powers(pupil_radius(squares, g_.cutoff), size_.order, &powers_);
        evaluate_zernike_radials(powers_, n_, m_, out);
    }
}

bool mirrored_rows(const PupilGeometry& g, const DiscRow& a, const DiscRow& b) {
    // rho is smallest at x = 0; a row with rho = 0 there has theta = 0 there,
    // not its negative.
    return a.iy != b.iy && b.y == -a.y && pupil_radius(a.y * a.y, g.cutoff) > 0.0 &&
           a.columns.begin == b.columns.begin && a.columns.end == b.columns.end;
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
// pixel's values in slot order; each sine value is multiplied by sine_sign
// (1, or -1 for the pixel mirrored across the centre row, an exact negation).
void write_row_from_basis(const double* basis, double sine_sign, int n, int m, int nrow,
                          std::int64_t ntot, int irow, double* matrix) {
    int i = 0;
    write_row(n, m, nrow, ntot, irow, matrix, [&](int, int l, double* v) {
        v[0] = basis[i++];
        if (l > 0) v[1] = sine_sign * basis[i++];
    });
}

// The design matrix straight from the defining formulas, pixel by pixel in
// scan order, for sets beyond the tables.
void fill_matrix_direct(const PupilGeometry& g, int n, int m, int nrow, std::int64_t ntot,
                        double* matrix) {
    int irow = 0;
    fit_detail::for_each_disc_row(g, [&](int, float y, IndexRange columns) {
        const float yy = y * y;
        for (int ix = columns.begin; ix < columns.end; ++ix) {
            TORVEL_ASSERT(irow < nrow, "fill_matrix");
            const float x = fit_detail::axis_offset(ix, g.x0, g.dx);
            write_row_direct(fit_detail::pupil_point(x, y, yy, g.cutoff), n, m, nrow, ntot, irow,
                             matrix);
            ++irow;
        }
    });
}

// The design matrix from basis values made with tables shared by all
// columns, a row of the disc and its mirror together. Measurement numbers
// run in scan order, so each row's first measurement is counted up front.
class TabledRows {
  public:
    TabledRows(const PupilGeometry& g, int n, int m, int nrow, std::int64_t ntot, double* matrix)
        : g_(g),
          n_(n),
          m_(m),
          nrow_(nrow),
          ntot_(ntot),
          matrix_(matrix),
          rows_(fit_detail::disc_rows(g)) {
        first_.resize(static_cast<std::size_t>(std::max(rows_.end - rows_.begin, 0)));
        std::int64_t count = 0;
        fit_detail::for_each_disc_row(g, [&](int iy, float, IndexRange columns) {
            first_[static_cast<std::size_t>(iy - rows_.begin)] = count;
            count += std::max(columns.end - columns.begin, 0);
        });
        for_each_zernike_term(n, m, [&](int, int l) {
            mirror_sign_[slots_++] = 1.0;
            if (l > 0) mirror_sign_[slots_++] = -1.0;
        });
    }

    // Writes the rows of one pair, with radials as scratch.
    void fill(const fit_detail::RowPair& pair, fit_detail::RowRadials* radials) const {
        ZernikeTables angles;
        double basis[zernike_table_max_terms];
        const fit_detail::DiscRow& row = pair.row;
        const float yy = row.y * row.y;
        radials->compute(yy, row.columns);
        for (int ix = row.columns.begin; ix < row.columns.end; ++ix) {
            const float x = fit_detail::axis_offset(ix, g_.x0, g_.dx);
            const PupilPoint p = fit_detail::pupil_point(x, row.y, yy, g_.cutoff);
            fill_zernike_angles(p.theta, radials->frequency(), &angles);
            combine_zernike_basis(radials->of_column(ix), angles, n_, m_, basis);
            write(row, ix, basis, false);
            if (pair.mirrored) write(pair.mirror, ix, basis, true);
        }
    }

  private:
    // Writes pixel ix of row from basis, its sine values negated when
    // mirrored (an exact negation).
    void write(const fit_detail::DiscRow& row, int ix, const double* basis, bool mirrored) const {
        const int nrow = nrow_;
        const std::int64_t ntot = ntot_;
        const std::int64_t irow =
            first_[static_cast<std::size_t>(row.iy - rows_.begin)] + (ix - row.columns.begin);
        TORVEL_ASSERT(irow < nrow, "fill_matrix");
        // Past the last column's element the walk would fail one of
        // write_row's checks, which then reports which.
        if (irow + static_cast<std::int64_t>(slots_ - 1) * nrow >= ntot) {
            write_row_from_basis(basis, mirrored ? -1.0 : 1.0, n_, m_, nrow, ntot,
                                 static_cast<int>(irow), matrix_);
            return;
        }
        double* out = matrix_ + irow;
        for (int j = 0; j < slots_; ++j) {
            out[static_cast<std::int64_t>(j) * nrow] =
                mirrored ? mirror_sign_[j] * basis[j] : basis[j];
        }
    }

    PupilGeometry g_;
    int n_, m_, nrow_;
    std::int64_t ntot_;
    double* matrix_;
    IndexRange rows_;
    std::vector<std::int64_t> first_;
    // What each slot of a row is multiplied by in the mirrored row: -1 for
    // the sine columns, 1 for the others.
    double mirror_sign_[zernike_table_max_terms];
    int slots_ = 0;
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
    // Sets beyond the tables, or without memory for the tables' values, are
    // filled straight from the formulas.
    if (!fit_detail::within_tables(n, m)) {
        fill_matrix_direct(g, n, m, nrow, ntot, matrix);
        return;
    }
    // Rows and their mirrors are filled in parts on several threads; every
    // element is written by one of them.
    const TabledRows writer(g, n, m, nrow, ntot, matrix);
    if (!fit_detail::visit_row_pairs(
            g, n, m, true, [&](const fit_detail::RowPair& pair, fit_detail::RowRadials* radials) {
                writer.fill(pair, radials);
            })) {
        fill_matrix_direct(g, n, m, nrow, ntot, matrix);
    }
}

}  // namespace torvel
