// The least-squares fit of one Zernike set to one section. The only file that
// talks to LAPACK.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <new>

#include <torvel/fit.hpp>
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
        std::fprintf(stderr, "torvel: internal error: invalid input to dgelsd\n");
        return 1;
    }
    if (info < 0) {
        std::fprintf(stderr, "torvel: singular value decomposition failed to converge\n");
        return 1;
    }
    return 0;
}

int report_no_memory() {
    std::fprintf(stderr, "torvel: insufficient memory\n");
    return 1;
}

}  // namespace

int solve_least_squares(int nrow, int ncol, double* matrix, double* rhs, double rcond, int* rank,
                        int* info) {
    auto iwork = allocate<int>(static_cast<std::int64_t>(kIntegerWorkPerUnknown) * ncol);
    auto singular = allocate<double>(ncol);
    if (!iwork || !singular) {
        return 1;
    }
    const int nrhs = 1;
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
        std::fprintf(stderr, "torvel: internal error: NULL coefficient array\n");
        return 1;
    }
    // In 64 bits, so that a set too large for an int fails the size check
    // below instead of wrapping.
    const std::int64_t ncol64 = (static_cast<std::int64_t>(n) * n + n) / 2 + m + 1;
    const double est = estimate_pixel_count(dx, dy, cutoff);
    // !(est < limit) also turns away a NaN estimate, whose ceiling no int holds.
    if (!(est < row_limit(ncol64))) {
        std::fprintf(stderr, "torvel: too large of a matrix to handle\n");
        return 1;
    }
    const int ncol = static_cast<int>(ncol64);
    const int nrow_est = static_cast<int>(std::ceil(est));
    // A negative estimate (a negative spacing) cannot size an array.
    if (nrow_est <= 0) {
        return report_no_memory();
    }
    auto matrix = allocate<double>(static_cast<std::int64_t>(ncol) * nrow_est);
    auto rhs = allocate<double>(nrow_est);
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
    std::printf("%d unknowns %d measurements\n", ncol, measurements);
    if (ncol > measurements) {
        std::fprintf(stderr, "torvel: more parameters (%d) than measurements (%d)\n", ncol,
                     measurements);
        return 1;
    }
    fill_matrix(x0, y0, dx, dy, cutoff, nx, ny, ncol, measurements, n, m, matrix.get());
    int rank = 0;
    int info = 0;
    if (solve_least_squares(measurements, ncol, matrix.get(), rhs.get(), static_cast<double>(tol),
                            &rank, &info) != 0) {
        return report_no_memory();
    }
    if (report_info(info) != 0) {
        return 1;
    }
    std::printf("rank %d\n", rank);
    std::copy(rhs.get(), rhs.get() + ncol, coeff);
    return 0;
}

}  // namespace torvel
