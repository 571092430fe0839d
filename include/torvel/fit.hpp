#pragma once
// Pupil function fitting: which pixels of a section lie in the pupil disc and
// at which pupil coordinates, the least-squares design matrix, the fit of a
// Zernike set by dgelsd, the residual of a fitted pupil, and the split of
// complex samples into amplitude and phase.
//
// Every function takes the pupil geometry in the same order: x0, y0, the
// pupil centre in pixel-index units (pixel centres at whole indices); dx, dy,
// the pixel spacing in pupil-plane units; cutoff, the pupil radius in those
// units; then nx, ny, the section's columns and rows. Sections are nx * ny
// floats, row by row (pixel (ix, iy) at iy * nx + ix).
//
// A pixel is in the disc when x0 - hw <= ix < x0 + hw and
// y0 - ry <= iy < y0 + ry, where ry = cutoff / dy and hw is the half-width of
// its row; lower edges are inclusive and upper edges exclusive. Selected
// pixels are numbered in scan order (row by row, column by column).

#include <cstddef>

namespace torvel {

// Element (row, col) of a column-major matrix with leading dimension ld, the
// layout LAPACK and fill_matrix use.
inline std::size_t at(int row, int col, int ld) {
    return static_cast<std::size_t>(col) * static_cast<std::size_t>(ld) +
           static_cast<std::size_t>(row);
}

// Stores the value of every selected pixel of section, widened to double, in
// rhs[0 ..] in scan order, without a bound check (the caller sizes rhs), and
// the count of selected pixels in *nrow_out (0 when none is selected).
void fill_rhs(float x0, float y0, float dx, float dy, float cutoff, int nx, int ny,
              const float* section, double* rhs, int* nrow_out);

// Writes the design matrix of the set (n, m) into matrix (nrow rows, ncol
// columns, column-major, leading dimension nrow, owned by the caller): element
// at(irow, j, nrow) is term j, in Zernike slot order, at the pupil
// coordinates of selected pixel irow. nrow must be the count fill_rhs gave for
// the same geometry and ncol = zernike_term_count(n, m). Aborts with an
// assertion report ("irow < nrow", "offset < ntot", "offset < ntot - nrow")
// if the walk would write outside the matrix.
void fill_matrix(float x0, float y0, float dx, float dy, float cutoff, int nx, int ny, int ncol,
                 int nrow, int n, int m, double* matrix);

// True when every pixel of section that fill_rhs selects holds a finite
// value (no NaN, no infinity).
bool disc_is_finite(float x0, float y0, float dx, float dy, float cutoff, int nx, int ny,
                    const float* section);

// Fits the set (n, m) to section by least squares (dgelsd, singular values
// at or below tol times the largest treated as zero) and writes the
// zernike_term_count(n, m) coefficients to coeff. Prints "%d unknowns %d
// measurements" and "rank %d" on standard output. Returns 0 on success and
// at once, doing nothing, when n < 0; returns 1 after one "torvel: ..."
// message on standard error when coeff is null, the matrix would be too
// large, memory runs out, there are more unknowns than measurements or
// dgelsd fails; coeff is then untouched. Aborts ("nrow < nrow_est") if the
// disc holds more pixels than its size estimate.
int compute_fit(float x0, float y0, float dx, float dy, float cutoff, int nx, int ny,
                const float* section, int n, int m, double* coeff, float tol);

// One of the two fits of compute_fit_pair: heading is printed on standard
// output before the fit's own lines; section, (n, m) and coeff are as for
// compute_fit.
struct FitRequest {
    const char* heading;
    const float* section;
    int n;
    int m;
    double* coeff;
};

// Runs first, then second, over the same geometry, with exactly the output,
// status and coefficients of compute_fit called for each after printing its
// heading (second not at all when first fails), but with one design matrix
// filled for both when both would reach their solves.
int compute_fit_pair(float x0, float y0, float dx, float dy, float cutoff, int nx, int ny,
                     const FitRequest& first, const FitRequest& second, float tol);

// Solves min |matrix * x - b| with dgelsd for the nrhs right-hand sides b,
// nothing printed: matrix is nrow x ncol column-major (leading dimension
// nrow, ncol <= nrow) and is destroyed; rhs holds the nrhs columns of nrow
// values one after the other, and each column receives its x in its first
// ncol. Singular values at or below rcond times the largest count as zero.
// Returns 0 with *info and *rank as dgelsd left them, or 1 when a work array
// could not be allocated (*info and *rank then untouched).
int solve_least_squares(int nrow, int ncol, int nrhs, double* matrix, double* rhs, double rcond,
                        int* rank, int* info);

// Writes the complex residual, measured pupil minus fitted pupil, of every
// pixel into residual (2 * nx * ny floats, (real, imaginary) pairs in scan
// order). The measured pupil is amplitude * exp(i phase); the fitted one,
// inside the disc only, is A exp(i P) with A the series (n_a, m_a, coeff_a)
// (1 when n_a < 0) and P the series (n_p, m_p, coeff_p) (0 when n_p < 0).
// stats receives the minimum, maximum and mean of the real parts; the root
// mean square of the whole residual, over all nx * ny pixels, is printed as
// "\nroot mean square error %g\n" on standard output.
void compute_residual(float x0, float y0, float dx, float dy, float cutoff, int nx, int ny,
                      const float* amplitude, const float* phase, int n_a, int m_a,
                      const double* coeff_a, int n_p, int m_p, const double* coeff_p,
                      float* residual, float stats[3]);

// Where pixel (ix, iy) lies in the pupil, as the fit sees it: rho and theta
// computed exactly as for the pixels the fit samples (for any pixel, sampled
// or not), and whether the disc rule above selects it.
struct pupil_pixel {
    double rho;
    double theta;
    bool sampled;
};
pupil_pixel locate_pupil_pixel(float x0, float y0, float dx, float dy, float cutoff, int nx, int ny,
                               int ix, int iy);

// Splits count complex samples ((real, imaginary) float pairs) into amplitude,
// written over samples[0 .. count - 1], and phase in [-pi, pi], written to
// phase[0 .. count - 1]. A sample whose squared modulus is 0 or not a number
// gets phase 0. Nothing is written when count <= 0.
void separate_amplitude_phase(int count, float* samples, float* phase);

// As separate_amplitude_phase, with the amplitudes written to
// amplitude[0 .. count - 1] (which may be samples itself, or memory apart
// from it) and samples left as they were when it is apart.
void split_amplitude_phase(int count, const float* samples, float* amplitude, float* phase);

// A complex value in single precision.
struct fcomplex {
    float re;
    float im;
};

// a * b in single precision.
fcomplex cmult(fcomplex a, fcomplex b);

// a / b in single precision, without scaling and without a test for b = 0.
fcomplex cdiv(fcomplex a, fcomplex b);

}  // namespace torvel
