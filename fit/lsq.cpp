// The least-squares fit of one Zernike set to one section. The only file that
// talks to LAPACK.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <new>

#include <torvel/bulk.hpp>
#include <torvel/fit.hpp>
#include <torvel/messages.hpp>
#include "sampling.hpp"
#include <torvel/zernike.hpp>

// LAPACK's minimum-norm least squares by divide-and-conquer SVD, reference
// interface: every argument by address, matrices column-major. m x n matrix a
// (leading dimension lda) is destroyed; b (ldb x nrhs) holds the right-hand
// sides and receives the solutions; s gets the singular values; those at or
// below rcond times the largest count as zero (rcond < 0: machine
// precision); rank gets the count kept. lwork = -1 asks only for the optimal
// work size, returned in work[0]. info: 0 success, < 0 an illegal argument,
// > 0 no convergence.
extern "C" void dgelsd_(const int* m, const int* n, const int* nrhs, double* a, const int* lda,
                        double* b, const int* ldb, double* s, const double* rcond, int* rank,
                        double* work, const int* lwork, int* iwork, int* info);

namespace torvel {

namespace {

constexpr double kPi = 3.141592653589793;

// dgelsd asks for 3 * nlvl + 11 integers per unknown, nlvl being the depth
// of its divide-and-conquer tree, below 28 for any int size: 104 is ample.
constexpr int kIntegerWorkPerUnknown = 104;

// Upper estimate of the pixels in the disc: its area enlarged by one pixel
// spacing, in pixels.
double estimate_pixel_count(float dx, float dy, float cutoff) {
    const double radius = static_cast<double>(cutoff + std::max(dx, dy));
    const double pixel_area = static_cast<double>(dx * dy);
    return kPi * (radius * radius) / pixel_area;
}

// Largest row count whose ncol columns of doubles stay below 2^31 - 1 bytes;
// 0 when a single row of eight-byte values would not, and for a set without
// columns (possible only for an invalid m), which nothing can be fitted to.
double row_limit(std::int64_t ncol) {
    const std::int64_t bytes_per_row = 8 * ncol;
    if (bytes_per_row <= 0 || bytes_per_row > 2147483647) {
        return 0.0;
    }
    return static_cast<double>(2147483647 / bytes_per_row);
}

template <class T>
std::unique_ptr<T[]> allocate(std::int64_t count) {
    return std::unique_ptr<T[]>(new (std::nothrow) T[static_cast<std::size_t>(count)]);
}

// Reports dgelsd's INFO. The messages are paired with the signs the other
// way round from LAPACK's own convention (negative: illegal argument,
// positive: no convergence); the program has always reported them this way
// and keeps doing so.
int report_info(int info) {
    if (info > 0) {
        print_message("torvel: internal error: invalid input to dgelsd\n");
        return 1;
    }
    if (info < 0) {
        print_message("torvel: singular value decomposition failed to converge\n");
        return 1;
    }
    return 0;
}

int report_no_memory() {
    print_message("torvel: insufficient memory\n");
    return 1;
}

void print_counts(int ncol, int nrow) {
    print_progress("%d unknowns %d measurements\n", ncol, nrow);
}

// What one solve left for one fit: 1 when its work arrays could not be had,
// else 0 with dgelsd's rank and INFO.
struct Solved {
    int status = 1;
    int rank = 0;
    int info = 0;
};

// Reports a solve as a fit does (a message and 1 on failure, else the rank)
// and, on success, copies the ncol values of solution to coeff.
int report_solution(const Solved& solved, int ncol, const double* solution, double* coeff) {
    if (solved.status != 0) {
        return report_no_memory();
    }
    if (report_info(solved.info) != 0) {
        return 1;
    }
    print_progress("rank %d\n", solved.rank);
    std::copy(solution, solution + ncol, coeff);
    return 0;
}

// One least-squares system for two fits over the same disc. Any two valid
// Zernike sets are nested (the terms of the smaller are the first terms of the
// larger), so the design matrix of the larger serves both: the smaller's is
// its first columns, which column-major storage keeps as the first
// ncol * nrow elements. The right-hand sides stand side by side, each nrow long.
struct SharedSystem {
    int nrow = 0;
    int ncol[2] = {0, 0};
    int larger = 0;  // which fit's set the matrix holds
    bulk_array<double> matrix;
    bulk_array<double> rhs_pair;
    bulk_array<double> copy;  // the smaller system's matrix, which dgelsd destroys

    double* rhs(int k) { return rhs_pair.get() + static_cast<std::size_t>(k) * nrow; }
    bool same_set() const { return ncol[0] == ncol[1]; }
};

// Sets up the shared system when both fits would get past every check to
// their solves: both sets present and valid, coefficient arrays given, the larger
// matrix within the size limit, the disc's pixels within the estimate and no
// fewer than the larger set's unknowns, and memory for it all. Returns false,
// having printed nothing, otherwise; the fits then run one after the other
// and report whatever stops them, where they always have.
bool prepare_shared_system(const fit_detail::PupilGeometry& g, const FitRequest& first,
                           const FitRequest& second, SharedSystem* shared) {
    auto valid = [](const FitRequest& f) {
        return f.n >= 0 && f.m >= 0 && f.m <= f.n && (f.n - f.m) % 2 == 0 && f.coeff != nullptr;
    };
    if (!valid(first) || !valid(second)) {
        return false;
    }
    const std::int64_t ncol0 =
        (static_cast<std::int64_t>(first.n) * first.n + first.n) / 2 + first.m + 1;
    const std::int64_t ncol1 =
        (static_cast<std::int64_t>(second.n) * second.n + second.n) / 2 + second.m + 1;
    const std::int64_t larger = std::max(ncol0, ncol1);
    const double est = estimate_pixel_count(g.dx, g.dy, g.cutoff);
    if (!(est < row_limit(larger)) || std::min(ncol0, ncol1) <= 0) {
        return false;
    }
    const std::int64_t nrow = fit_detail::count_disc_pixels(g);
    if (!(nrow < std::ceil(est)) || larger > nrow) {
        return false;
    }
    shared->nrow = static_cast<int>(nrow);
    shared->ncol[0] = static_cast<int>(ncol0);
    shared->ncol[1] = static_cast<int>(ncol1);
    shared->larger = ncol1 > ncol0 ? 1 : 0;
    shared->matrix = allocate_bulk<double>(larger * nrow);
    shared->rhs_pair = allocate_bulk<double>(2 * nrow);
    const bool two_solves = !shared->same_set();
    if (two_solves) {
        shared->copy = allocate_bulk<double>(std::min(ncol0, ncol1) * nrow);
    }
    if (!shared->matrix || !shared->rhs_pair || (two_solves && !shared->copy)) {
        *shared = SharedSystem{};
        return false;
    }
    return true;
}

// Solves both fits of a filled shared system. With one set, one dgelsd call
// takes both right-hand sides: one factorisation instead of two, and no copy
// of the matrix. Each solution then equals its own call's but for the last
// bits, which some LAPACK builds (OpenBLAS, not the reference one) round
// differently, as the builds do from one another: the six printed digits
// differ only where the data do not settle them (tests/lapack). With two
// sets, the smaller is solved on a copy of its columns, then the larger in
// place.
void solve_shared_system(SharedSystem* shared, double rcond, Solved solved[2]) {
    const int nrow = shared->nrow;
    if (!shared->copy) {
        solved[0].status =
            solve_least_squares(nrow, shared->ncol[0], 2, shared->matrix.get(), shared->rhs(0),
                                rcond, &solved[0].rank, &solved[0].info);
        solved[1] = solved[0];
        return;
    }
    const int smaller = 1 - shared->larger;
    const int ncol = shared->ncol[smaller];
    std::copy(shared->matrix.get(), shared->matrix.get() + static_cast<std::size_t>(ncol) * nrow,
              shared->copy.get());
    Solved& s = solved[smaller];
    s.status = solve_least_squares(nrow, ncol, 1, shared->copy.get(), shared->rhs(smaller), rcond,
                                   &s.rank, &s.info);
    shared->copy.reset();
    Solved& l = solved[shared->larger];
    l.status = solve_least_squares(nrow, shared->ncol[shared->larger], 1, shared->matrix.get(),
                                   shared->rhs(shared->larger), rcond, &l.rank, &l.info);
}

}  // namespace

int solve_least_squares(int nrow, int ncol, int nrhs, double* matrix, double* rhs, double rcond,
                        int* rank, int* info) {
    auto iwork = allocate<int>(static_cast<std::int64_t>(kIntegerWorkPerUnknown) * ncol);
    auto singular = allocate<double>(ncol);
    if (!iwork || !singular) {
        return 1;
    }
    int query_rank = 0;
    int query_info = 0;
    double optimal = 0.0;
    const int query = -1;
    dgelsd_(&nrow, &ncol, &nrhs, matrix, &nrow, rhs, &nrow, singular.get(), &rcond, &query_rank,
            &optimal, &query, iwork.get(), &query_info);
    const int lwork = static_cast<int>(optimal);
    auto work = allocate<double>(std::max(lwork, 1));
    if (!work) {
        return 1;
    }
    dgelsd_(&nrow, &ncol, &nrhs, matrix, &nrow, rhs, &nrow, singular.get(), &rcond, rank,
            work.get(), &lwork, iwork.get(), info);
    return 0;
}

int compute_fit(float x0, float y0, float dx, float dy, float cutoff, int nx, int ny,
                const float* section, int n, int m, double* coeff, float tol) {
    if (n < 0) {
        return 0;
    }
    if (coeff == nullptr) {
        print_message("torvel: internal error: NULL coefficient array\n");
        return 1;
    }
    // In 64 bits, so that a set too large for an int fails the size check
    // below instead of wrapping.
    const std::int64_t ncol64 = (static_cast<std::int64_t>(n) * n + n) / 2 + m + 1;
    const double est = estimate_pixel_count(dx, dy, cutoff);
    // !(est < limit) also turns away a NaN estimate, whose ceiling no int holds.
    if (!(est < row_limit(ncol64))) {
        print_message("torvel: too large of a matrix to handle\n");
        return 1;
    }
    const int ncol = static_cast<int>(ncol64);
    const int nrow_est = static_cast<int>(std::ceil(est));
    // A negative estimate (a negative spacing) cannot size an array.
    if (nrow_est <= 0) {
        return report_no_memory();
    }
    auto matrix = allocate_bulk<double>(static_cast<std::int64_t>(ncol) * nrow_est);
    auto rhs = allocate_bulk<double>(nrow_est);
    if (!matrix || !rhs) {
        return report_no_memory();
    }
    // The pixels are counted before fill_rhs writes, so that an estimate
    // that is too small aborts instead of writing past rhs first.
    const std::int64_t nrow =
        fit_detail::count_disc_pixels(fit_detail::PupilGeometry{x0, y0, dx, dy, cutoff, nx, ny});
    TORVEL_ASSERT(nrow < nrow_est, "compute_fit");
    int measurements = 0;
    fill_rhs(x0, y0, dx, dy, cutoff, nx, ny, section, rhs.get(), &measurements);
    print_counts(ncol, measurements);
    if (ncol > measurements) {
        print_message("torvel: more parameters (%d) than measurements (%d)\n", ncol, measurements);
        return 1;
    }
    fill_matrix(x0, y0, dx, dy, cutoff, nx, ny, ncol, measurements, n, m, matrix.get());
    Solved solved;
    solved.status = solve_least_squares(measurements, ncol, 1, matrix.get(), rhs.get(),
                                        static_cast<double>(tol), &solved.rank, &solved.info);
    return report_solution(solved, ncol, rhs.get(), coeff);
}

int compute_fit_pair(float x0, float y0, float dx, float dy, float cutoff, int nx, int ny,
                     const FitRequest& first, const FitRequest& second, float tol) {
    const fit_detail::PupilGeometry g{x0, y0, dx, dy, cutoff, nx, ny};
    SharedSystem shared;
    if (!prepare_shared_system(g, first, second, &shared)) {
        print_progress("%s", first.heading);
        const int status = compute_fit(x0, y0, dx, dy, cutoff, nx, ny, first.section, first.n,
                                       first.m, first.coeff, tol);
        if (status != 0) return status;
        print_progress("%s", second.heading);
        return compute_fit(x0, y0, dx, dy, cutoff, nx, ny, second.section, second.n, second.m,
                           second.coeff, tol);
    }
    const FitRequest* fits[2] = {&first, &second};
    int counts[2];
    for (int k = 0; k < 2; ++k) {
        fill_rhs(x0, y0, dx, dy, cutoff, nx, ny, fits[k]->section, shared.rhs(k), &counts[k]);
    }
    fill_matrix(x0, y0, dx, dy, cutoff, nx, ny, shared.ncol[shared.larger], shared.nrow,
                fits[shared.larger]->n, fits[shared.larger]->m, shared.matrix.get());
    Solved solved[2];
    solve_shared_system(&shared, static_cast<double>(tol), solved);
    for (int k = 0; k < 2; ++k) {
        print_progress("%s", fits[k]->heading);
        print_counts(shared.ncol[k], counts[k]);
        if (const int status =
                report_solution(solved[k], shared.ncol[k], shared.rhs(k), fits[k]->coeff);
            status != 0)
            return status;
    }
    return 0;
}

}  // namespace torvel
