#pragma once
// Inside fit/ only: the pixel-selection rule and the pixel-to-pupil mapping
// that fill_rhs, fill_matrix and compute_residual must share exactly, and the
// assertion that guards buffer sizes. Not installed; other modules use
// <torvel/fit.hpp>.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

#include <torvel/zernike.hpp>

namespace torvel::fit_detail {

// The geometry every fitting function takes, in its argument order.
struct PupilGeometry {
    float x0, y0, dx, dy, cutoff;
    int nx, ny;
};

// A half-open index range [begin, end); empty when begin >= end.
struct IndexRange {
    int begin;
    int end;
};

// Rows of the disc: ry = cutoff / dy; begin = ceil(y0 - ry), or 0 when
// y0 - ry < 0; end = ceil(y0 + ry), or ny when y0 + ry > ny.
IndexRange disc_rows(const PupilGeometry& g);

// Float offset from the centre along one axis: (index - centre) * spacing.
float axis_offset(int index, float centre, float spacing);

// Columns of the disc in the row whose offset is y: half-width
// hw = sqrt(cutoff^2 - y^2) / dx (difference in float, root and quotient in
// double, rounded to float), then bounds as for the rows with x0 and nx.
// Returns an empty range when hw is not a number.
IndexRange disc_columns(const PupilGeometry& g, float y);

// Pupil coordinates of a selected pixel at offsets (x, y).
struct PupilPoint {
    double rho;
    double theta;
};

// x^2 + y^2 in float, from x and yy = y * y (shared by a row): the one value
// that rho is computed from.
float squared_radius(float x, float yy);

// rho from that sum: sqrt in double, divided by cutoff widened to double.
double pupil_radius(float squares, float cutoff);

// rho = sqrt(x^2 + y^2) / cutoff, the sum in float, root and quotient in
// double; theta = atan2(y, x) when rho > 0, else 0. yy is y * y (shared by a
// row).
PupilPoint pupil_point(float x, float y, float yy, float cutoff);

// Calls visit(iy, y, columns) for every row of the disc, in ascending order.
template <class Visit>
void for_each_disc_row(const PupilGeometry& g, Visit&& visit) {
    const IndexRange rows = disc_rows(g);
    for (int iy = rows.begin; iy < rows.end; ++iy) {
        const float y = axis_offset(iy, g.y0, g.dy);
        visit(iy, y, disc_columns(g, y));
    }
}

// One row of the disc: its index, its offset y from the centre and its
// selected columns.
struct DiscRow {
    int iy;
    float y;
    IndexRange columns;
};

// The index whose offset from centre is the exact negative of index's, or -1
// when centre is not a whole or half index (then no pixel mirrors another).
int mirror_index(float centre, int index);

// Whether row b mirrors row a through the centre row: offsets exact
// negatives of each other, every pixel's rho above 0, the same columns. Its
// pixels then have a's pupil radius and the negated angle: atan2 is odd in y
// and sincos odd in its argument, bit for bit in the C library (a test
// guards this), so their design matrix rows are a's with the sine columns
// negated.
bool mirrored_rows(const PupilGeometry& g, const DiscRow& a, const DiscRow& b);

// Whether the set (n, m) is within the Zernike tables, which the faster
// paths of the design matrix and the residual need.
bool within_tables(int n, int m);

// The radial values R_k^l(rho) of the set (n, m), in visiting order, for
// every selected pixel of one row. rho depends on nothing but the float sum
// x^2 + y^2, so where the centre lies on a whole or half pixel the right
// half of a row repeats the left half's values, which it takes instead of
// computing them again: the same values, half the pow and polynomial work.
class RowRadials {
  public:
    // Unusable when the set is beyond the tables or memory ran out.
    RowRadials(const PupilGeometry& g, int n, int m);
    bool usable() const { return values_ != nullptr; }
    int frequency() const { return size_.frequency; }

    // Makes the values of the row with y * y = yy and these columns current.
    void compute(float yy, IndexRange columns);

    // The values of column ix of the current row.
    const double* of_column(int ix) const {
        return values_.get() + static_cast<std::size_t>(ix - begin_) * width_;
    }

  private:
    PupilGeometry g_;
    int n_, m_;
    ZernikeTableSize size_;
    std::size_t width_ = 0;
    int begin_ = 0;
    ZernikeTables powers_;
    std::unique_ptr<double[]> values_;
};

// A row of the disc and, when mirrored, the later row that mirrors it,
// which is then taken with it.
struct RowPair {
    DiscRow row;
    DiscRow mirror;
    bool mirrored;
};

// Calls visit(pair, radials) once for every row of the disc, a row that
// mirrors an earlier one paired with that one instead of standing on its
// own. The pairs are split in parts of about equal pixel counts, each run
// on a thread of its own (fit/parallel.hpp); with tabled, each part has its
// own radial values of the set (n, m) for visit to compute into, else
// radials is null. Returns false, having visited nothing, when tabled and
// no radial values could be had (a set beyond the tables, or no memory).
bool visit_row_pairs(const PupilGeometry& g, int n, int m, bool tabled,
                     const std::function<void(const RowPair& pair, RowRadials* radials)>& visit);

// Number of pixels the disc selects (what fill_rhs would count).
std::int64_t count_disc_pixels(const PupilGeometry& g);

// Prints a report like the C library's assertion ("torvel: file:line:
// function: Assertion `expression' failed.") on standard error and aborts.
[[noreturn]] void assertion_failed(const char* expression, const char* file, int line,
                                   const char* function);

}  // namespace torvel::fit_detail

// Guards buffer sizes whatever NDEBUG says: a failure means the walk and the
// buffer disagree, and writing on would corrupt memory. function names the
// public function in which the check stands (__func__ would name a lambda).
#define TORVEL_ASSERT(expression, function) \
    ((expression)                           \
         ? static_cast<void>(0)             \
         : ::torvel::fit_detail::assertion_failed(#expression, __FILE__, __LINE__, function))
