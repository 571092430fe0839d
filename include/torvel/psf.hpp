#pragma once
// torvel-psf: the 3D point spread function of a pupil, and the forward model
// behind it that other programs (the phase retrieval) reuse.
//
// The model. Voxel (i, j, k) of a stack lies at x = (i - nx/2) dx,
// y = (j - ny/2) dx, z = (k - nz/2) dz (halves rounded down), the emitter at
// the origin; x runs along columns, y along rows. The field is
//     E(x, y, z) = integral over |k| <= NA/λ of P(k) exp(2πi (kx x + ky y + kz z)) d²k,
// kz = sqrt((n/λ)² - |k|²), in µm⁻² when k is in µm⁻¹. Scalar: the PSF is |E|².
// Vector: with sin t = λ|k|/n and azimuth φ, the pupil is multiplied by the
// focal-field factors of x- and y-polarised light (psf_vector_factors); the
// PSF is the mean over the two polarisations of the summed |E_c|² of the
// three components. docs/psf.md states it in full, with the accuracy.
//
// How it is computed. The integral is a sum over a square grid of pupil
// points k = ((p - R) dk, (q - R) dk), dk = 1 / (M dx) µm⁻¹, each weighted by
// the area of its pixel that lies inside the disc (exactly, so the disc edge
// is no staircase), its pupil, kz and vector factors taken at the centroid
// of that area. Such a sum is an FFT of length M along each axis; only
// the pupil's rows or columns that hold the disc and the output's columns or
// rows are transformed (the intensity transforms the pupil's columns first,
// so that its planes come out row by row; a grid of one row, a section at
// y = 0, sums the columns instead and needs one transform per plane). Area weighting makes the sum the integral divided by
// sinc(dk x) sinc(dk y) (each pixel acts as a small square aperture), which
// the plane multiplies back. M is chosen so that the disc spans at least
// min_disc_pixels pixels and the grid holds the output window; a pixel
// coarser than λ/(2 NA) is computed on a finer internal grid and subsampled,
// never aliased. The FFTs (FFTW) and the plane-to-plane defocus products run
// in single precision; the grid's geometry and each direct defocus in double.

#include <complex>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>

#include <torvel/bulk.hpp>
#include <torvel/imageio.hpp>
#include <torvel/render.hpp>

namespace torvel {

// ---- forward model -----------------------------------------------------------

// The optics of one wavelength.
struct psf_optics {
    double numerical_aperture;
    double immersion_index;
    double wavelength_um;
};

// The output plane grid: nx columns, ny rows, lateral spacing dx in µm.
struct psf_plane_grid {
    std::int32_t nx, ny;
    double dx_um;
};

// Pixels across the disc's diameter that keep the sum within about 5e-4 of
// the peak of the exact integral (measured in docs/psf.md); the default.
inline constexpr int kDefaultDiscPixels = 128;

// The five distinct pupil factors of the vector model: for x-polarised light
// the field components (x, y, z) take factors 0, 1, 2; for y-polarised light
// 1, 3, 4. Factor 1 appears in both, so the vector PSF is
// (|E0|² + 2|E1|² + |E2|² + |E3|² + |E4|²) / 2.
inline constexpr int kVectorFactors = 5;

// The five factors (see kVectorFactors) at pupil point (kx, ky) µm⁻¹:
// cos t cos²φ + sin²φ, (cos t - 1) sin φ cos φ, -sin t cos φ,
// cos t sin²φ + cos²φ, -sin t sin φ, with sin t = |k| / (n/λ) (cos t = 0
// beyond) and φ the azimuth of k (0 at k = 0).
void psf_vector_factors(double kx, double ky, double n_over_lambda,
                        double factors[kVectorFactors]);

struct psf_fft_plans;  // FFTW plans; psf/propagate.cpp owns the type
struct psf_fft_plans_deleter {
    void operator()(psf_fft_plans* plans) const noexcept;
};

// Everything a plane of one size needs that does not change from plane to
// plane: the pupil grid, its weights and kz, the vector factors, the sinc
// correction and the FFTW plans, made once. Read-only after
// make_psf_propagator, so any number of threads share one, each with its own
// psf_work. Pupil point (p, q), p along columns (kx) and q along rows (ky),
// 0 <= p, q < side, lies at kx = (p - radius) dk, ky = (q - radius) dk;
// arrays over the pupil are side * side values, row after row.
struct psf_propagator {
    psf_optics optics{};
    psf_plane_grid grid{};        // the output grid asked for
    bool vector = false;
    std::int32_t refine = 1;      // internal samples per output pixel along x and y
    std::int32_t fft_size = 0;    // M
    std::int32_t radius = 0;      // R: pupil points run from -R to R along each axis
    std::int32_t side = 0;        // 2R + 1
    double dk = 0;                // µm⁻¹
    // The arrays over the pupil take their pages in bulk (bulk.hpp): a
    // propagator is made per stack, and its pages faulted one by one cost
    // as much as its planes.
    bulk_array<double> weight;  // area of each pupil pixel inside the disc, µm⁻²
    // Where the pupil of each point is taken, µm⁻¹: the point itself, or
    // for a pixel cut by the disc edge the centroid of its part inside.
    bulk_array<double> sample_kx, sample_ky;
    bulk_array<double> kz;      // at the sample point, µm⁻¹; 0 beyond n/λ
    std::unique_ptr<std::int32_t[]> row_begin, row_end;  // the points of row q touching the disc
    std::unique_ptr<std::int32_t[]> column_begin, column_end;  // and of column p
    bulk_array<float> factor;   // vector: kVectorFactors arrays of side² values
    bulk_array<float> column_factor;  // the same, column after column (p side + q)
    std::unique_ptr<float[]> sinc_x, sinc_y;  // sinc(dk x), sinc(dk y) of each output column, row
    std::unique_ptr<std::int32_t[]> column_at, row_at;  // FFT index of each output column, row
    // exp(-2πi p (n/2) refine / M) for p < side, n = nx, ny: moves the
    // centre voxel to FFT index 0, where the intensity reads its planes.
    std::unique_ptr<std::complex<double>[]> shift_x, shift_y;
    std::unique_ptr<psf_fft_plans, psf_fft_plans_deleter> plans;
};

// Sets up *propagator for optics, grid and model (vector or scalar), with at
// least min_disc_pixels pupil pixels across the disc. Threads may make
// propagators at once (FFTW's planner is taken in turn). Returns 0, or 1 when
// memory runs out or the optics make no sense (aperture not below the
// immersion index, non-positive sizes); prints nothing.
int make_psf_propagator(const psf_optics& optics, const psf_plane_grid& grid, bool vector,
                        int min_disc_pixels, psf_propagator* propagator);

// As make_psf_propagator, but on an FFT grid of exactly fft_size points
// (dk = 1 / (fft_size dx)), for a caller that needs the pupil grid to line up
// with another one or the field to reach far beyond the output window.
// Returns 1 also when fft_size is smaller than nx or ny, or when grid.dx is
// too coarse for the disc to fit without the internal refinement.
int make_psf_propagator_sized(const psf_optics& optics, const psf_plane_grid& grid, bool vector,
                              int fft_size, psf_propagator* propagator);

// Whether the point (p, q) of the pupil grid has a non-zero weight, i.e.
// touches the disc; points that do not are never read.
bool psf_pupil_point_used(const psf_propagator& propagator, int p, int q);

struct psf_buffers;  // FFTW buffers; psf/propagate.cpp owns the type
struct psf_buffers_deleter {
    void operator()(psf_buffers* buffers) const noexcept;
};

// One thread's work space for a propagator: a few planes of the FFT grid
// and of the pupil.
struct psf_work {
    std::unique_ptr<psf_buffers, psf_buffers_deleter> buffers;
};

// What a work serves: psf_field_plane, psf_field_of_defocused and
// psf_adjoint_field, or psf_intensity_planes.
enum class psf_work_use { fields, intensity };

// Allocates *work for propagator and use. Returns 0, or 1 when memory runs out.
int make_psf_work(const psf_propagator& propagator, psf_work_use use, psf_work* work);

// The field of the pupil `pupil` (side² values P(k) at the sample points
// sample_kx, sample_ky, unweighted) at the plane z µm, multiplied by vector
// factor `factor` (0 to 4, of a vector propagator only; -1: none, the scalar
// field), into field (nx * ny values, row after row), in µm⁻².
void psf_field_plane(const psf_propagator& propagator, std::span<const std::complex<float>> pupil,
                     double z_um, int factor, psf_work* work,
                     std::span<std::complex<float>> field);

// exp(2πi kz z) at every pupil point (0 at points that do not touch the
// disc) into defocus (side² values), for psf_field_of_defocused.
void psf_defocus_factors(const psf_propagator& propagator, double z_um,
                         std::span<std::complex<float>> defocus);

// psf_field_plane for a pupil that already carries its plane's defocus,
// defocused = P(k) exp(2πi kz z): a caller that visits the same planes again
// and again keeps their factors instead of recomputing sines and cosines.
void psf_field_of_defocused(const psf_propagator& propagator,
                            std::span<const std::complex<float>> defocused, int factor,
                            psf_work* work, std::span<std::complex<float>> field);

// The adjoint (conjugate transpose) of psf_field_of_defocused with vector
// factor `factor`, applied to field (nx * ny values) and, when defocus (a
// plane's psf_defocus_factors) is not empty, multiplied by its conjugate,
// which makes it the adjoint of psf_field_plane at that plane; added to
// pupil_sum (side² values; points that do not touch the disc are left
// alone). What an iterative fit of the pupil to measured planes steps with.
void psf_adjoint_field(const psf_propagator& propagator, std::span<const std::complex<float>> field,
                       std::span<const std::complex<float>> defocus, int factor, psf_work* work,
                       std::span<std::complex<double>> pupil_sum);

// The PSF of pupil at the count planes z, z + dz, ..., z + (count - 1) dz
// (µm) into intensity (count planes of nx * ny values): |E|² for a scalar
// propagator, the vector model's polarisation mean for a vector one, in
// µm⁻⁴. Evenly spaced planes cost one product per pupil point for their
// defocus instead of a sine and cosine. Calls plane_done(context) after
// each plane, unless it is null.
void psf_intensity_planes(const psf_propagator& propagator,
                          std::span<const std::complex<float>> pupil, double z_um, double dz_um,
                          int count, psf_work* work, std::span<float> intensity,
                          void (*plane_done)(void* context), void* context);

// ---- the program ---------------------------------------------------------------

enum class psf_normalize { sum, peak, none };

// Everything the command line settles. Names point into argv. Sizes and
// spacings 0 mean the defaults (64 x nx x 64 voxels; Nyquist spacing for the
// shortest selected wavelength). model holds the selection of wavelengths,
// the dropped terms and the amplitude choice, as torvel-render takes them.
struct psf_inputs {
    const char* model_name;
    const char* output_name;
    std::int32_t nx, ny, nz;
    double dx_nm, dz_nm;
    bool vector;
    psf_normalize normalize;
    model_choice model;
};

// The defaults main starts from.
inline constexpr psf_inputs kDefaultPsfInputs = {
    nullptr, nullptr, 64, 0, 64, 0.0, 0.0, false, psf_normalize::sum, kDefaultModelChoice};

// Writes the usage text of torvel-psf to stream.
void print_psf_usage(std::FILE* stream);

// Fills *inputs from `torvel-psf fit_file psf_output [options]`, reading
// the model into *model. Reports every problem of the command line and the
// model on stderr, one line each beginning "torvel-psf: "; returns 1 if there
// was any, else 0.
int parse_psf_command_line(int argc, char** argv, psf_inputs* inputs, pupil_ptr* model);

// Fills *inputs from the options argv[1 .. argc - 1] (argv[0], the output
// name on the command line, is not looked at) for the model in memory, whose
// wavelengths -w= selects from; inputs->model_name names the model in
// messages, and inputs->output_name, when not null, is checked as the
// command line's is. Reports every problem; returns 1 if there was any, else 0.
int parse_psf_options(int argc, const char* const* argv, const ParametricPupil& model,
                      psf_inputs* inputs);

// The stack about to be computed: voxels, spacings in µm and wavelengths.
struct psf_plan {
    std::int32_t nx, ny, nz, wavelength_count;
    double dx_um, dz_um;
    double wavelength_um[kMaxSelectedWavelengths];
};

// Settles the default sizes and spacings for inputs and model and checks
// that the stack fits in memory. Returns 0, or 1 after one message.
int plan_psf(const psf_inputs& inputs, const ParametricPupil& model, psf_plan* plan);

// Threads the planes of a stack are split between: OpenMP's count
// (OMP_NUM_THREADS, else the CPUs this process may run on), never more than
// there are planes.
int plane_threads(int planes);

// The pupil of model wavelength w on propagator's grid (side² values):
// the model's amplitude (1 when uniform or absent) and phase series at
// ρ = |k| / (NA/λ), θ = atan2(ky, kx), as torvel-render evaluates them; 0
// at points that do not touch the disc.
void evaluate_model_pupil(const model_choice& choice, ParametricPupil* model, int w,
                          const psf_propagator& propagator,
                          std::span<std::complex<float>> pupil);

// Computes every plane of one wavelength's stack (nz planes of nx * ny, as
// planned) into voxels, planes in parallel on the available cores, reporting
// progress through progress(planes_done) from one thread. Not normalised.
// Returns 0, or 1 after one message when memory runs out.
int compute_psf_stack(const psf_plan& plan, const psf_propagator& propagator,
                      std::span<const std::complex<float>> pupil, std::span<float> voxels,
                      void (*progress)(void* context, int planes_done), void* context);

// Computes the stack of selected wavelength `slot` of plan (model
// wavelength choice.wavelength_index[slot]) into stack (nz * ny * nx
// values), in µm⁻⁴, as compute_psf_stack does. Returns 0, or 1 after one
// message when memory runs out.
int compute_model_stack(const model_choice& choice, bool vector, ParametricPupil* model,
                        const psf_plan& plan, int slot, std::span<float> stack,
                        void (*progress)(void* context, int planes_done), void* context);

// Computes the stack of every selected wavelength into voxels (wavelength
// after wavelength, each nz planes of ny rows of nx values, as planned) and
// normalises each as inputs ask, showing progress on a terminal. Returns 0,
// or 1 after one message when memory runs out.
int compute_psf_voxels(const psf_inputs& inputs, ParametricPupil* model, const psf_plan& plan,
                       std::span<float> voxels);

// The header of the planned stack: sizes, spacings in µm and wavelengths.
image_stack_header psf_stack_header(const psf_plan& plan);

// Computes the stack of every selected wavelength, normalises it and writes
// it to inputs.output_name (MRC or TIFF by the extension) through the image
// layer, showing progress on a terminal. Returns 0, or 1 after one message;
// a failed run leaves whatever was at the name before untouched.
int write_psf_stack(const psf_inputs& inputs, ParametricPupil* model, const psf_plan& plan);

}  // namespace torvel
