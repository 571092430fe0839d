// The forward model: a pupil on an area-weighted grid to the field and
// intensity of one plane, by two passes of one-dimensional FFTs that touch
// only the rows holding the disc and the columns holding output voxels.

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>

#include <fftw3.h>
#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include <torvel/bulk.hpp>
#include <torvel/psf.hpp>

namespace torvel {

// FFTW's planner, and its destruction of plans, may run on one thread at a
// time; executing plans is safe from any number. Propagators are made and
// dropped by threads of their own in a process that computes several stacks
// at once (the Python module's callers).
namespace {
std::mutex g_fftw_planner;
}  // namespace

struct psf_fft_plans {
    fftwf_plan rows = nullptr;     // side rows of length M, contiguous
    fftwf_plan columns = nullptr;  // nx columns of length M, each contiguous
    // The same transforms the other way, for psf_adjoint_field.
    fftwf_plan rows_adjoint = nullptr, columns_adjoint = nullptr;
    // The intensity transforms the pupil's side columns with `rows` (its
    // columns lie as rows do), then ny output rows of length M.
    fftwf_plan output_rows = nullptr;
    ~psf_fft_plans() {
        const std::lock_guard<std::mutex> lock(g_fftw_planner);
        for (fftwf_plan plan : {rows, columns, rows_adjoint, columns_adjoint, output_rows})
            if (plan) fftwf_destroy_plan(plan);
    }
};

void psf_fft_plans_deleter::operator()(psf_fft_plans* plans) const noexcept {
    delete plans;
}

// FFTW's own allocation, aligned for its SIMD code; new-array execution
// needs every buffer aligned as the ones the plans were made on.
struct fftw_deleter {
    void operator()(fftwf_complex* p) const noexcept { fftwf_free(p); }
};
using fftw_buffer = std::unique_ptr<fftwf_complex[], fftw_deleter>;

struct psf_buffers {
    // Every buffer lies in one block, whose pages are mapped in bulk: a
    // work is made per stack and thread, and fresh pages faulted one by one
    // would cost more than a plane.
    bulk_array<std::byte> block;
    // A work for fields holds the inputs of the field and its adjoint, one
    // for intensities the shifted inputs and the step factors; both the outputs.
    fftwf_complex *row_in = nullptr, *row_out = nullptr;  // side x M
    fftwf_complex *column_in = nullptr,
                  *column_out = nullptr;  // nx columns of M, column after column
    // Over the pupil (side x side): P · weight · exp(2πi kz z) of the plane
    // being computed, and exp(2πi kz dz), which takes it to the next plane.
    std::complex<float>*weighted = nullptr, *step = nullptr;
    // The inputs of the adjoint's two passes, apart from the forward ones:
    // the adjoint writes other positions than the forward pass and relies on
    // the rest staying 0, as the forward pass does on its own.
    fftwf_complex *adjoint_rows = nullptr, *adjoint_columns = nullptr;  // side x M, nx columns of M
    // The intensity's own inputs: the pupil column after column (side x M)
    // and the output rows (ny x M), each at the start of its transform rather
    // than wrapped about index 0.
    fftwf_complex *intensity_in = nullptr, *intensity_rows = nullptr;
};

void psf_buffers_deleter::operator()(psf_buffers* buffers) const noexcept {
    delete buffers;
}

namespace {

constexpr double kPi = 3.14159265358979323846;
// The internal lateral spacing keeps the disc within this share of the FFT
// grid, so that the disc and its periodic copies never overlap.
constexpr double kDiscShareOfGrid = 0.9;
// Evenly spaced planes take their defocus by products for at most this many
// planes in a row before it is computed afresh: 64 products of floats stay
// within 1e-5 of it.
constexpr int kStepsBetweenDirect = 64;
// FFTW's planner measuring candidate plans takes seconds for some sizes;
// its estimate is as fast for these batched 1D transforms (bench/).
constexpr unsigned kPlanning = FFTW_ESTIMATE;
constexpr double kPlanningSeconds = 0.05;

// count complex values, to make plans on (FFTW_ESTIMATE reads and writes
// none of them).
fftw_buffer allocate_complex(std::size_t count) {
    return fftw_buffer(static_cast<fftwf_complex*>(fftwf_malloc(sizeof(fftwf_complex) * count)));
}

// The smallest n >= m whose prime factors are 2, 3, 5 and 7, FFTW's fast sizes.
int fft_friendly_size(int m) {
    for (int n = std::max(m, 1);; ++n) {
        int r = n;
        for (int f : {2, 3, 5, 7})
            while (r % f == 0) r /= f;
        if (r == 1) return n;
    }
}

// The part of a rectangle of the pupil plane inside the disc: its area and
// first moments (integrals of kx and ky over it).
struct coverage {
    double area = 0, mx = 0, my = 0;
};

// Antiderivatives along x of the chord half-length h(x) = sqrt(K² - x²),
// of x h(x) and of h(x)², |x| <= K.
double integral_h(double x, double k) {
    return 0.5 * (x * std::sqrt(std::max(k * k - x * x, 0.0)) + k * k * std::asin(x / k));
}
double integral_xh(double x, double k) {
    return -std::pow(std::max(k * k - x * x, 0.0), 1.5) / 3;
}
double integral_h2(double x, double k) {
    return k * k * x - x * x * x / 3;
}

// The coverage of [x0, x1] x [y0, y1] by the disc of radius k about the
// origin, exactly: integrals over x of each vertical line's covered part,
// which between the x where a chord end crosses y0 or y1 runs from a
// constant or -h(x) to a constant or h(x).
coverage disc_coverage(double x0, double x1, double y0, double y1, double k) {
    double cuts[8];
    int count = 0;
    cuts[count++] = x0;
    cuts[count++] = x1;
    for (double y : {y0, y1}) {
        if (std::abs(y) >= k) continue;
        const double c = std::sqrt(k * k - y * y);
        for (double x : {-c, c})
            if (x > x0 && x < x1) cuts[count++] = x;
    }
    for (double x : {-k, k})
        if (x > x0 && x < x1) cuts[count++] = x;
    for (int i = 1; i < count; ++i)  // insertion sort of at most 8 values
        for (int j = i; j > 0 && cuts[j] < cuts[j - 1]; --j) std::swap(cuts[j], cuts[j - 1]);
    coverage c;
    for (int s = 0; s + 1 < count; ++s) {
        const double a = cuts[s], b = cuts[s + 1];
        const double mid = 0.5 * (a + b);
        if (std::abs(mid) >= k || b <= a) continue;
        const double h = std::sqrt(k * k - mid * mid);
        const bool top_is_chord = h<y1, bottom_is_chord = -h> y0;
        if ((top_is_chord ? h : y1) <= (bottom_is_chord ? -h : y0)) continue;
        const int chords = int(top_is_chord) + int(bottom_is_chord);
        const double constant = (top_is_chord ? 0.0 : y1) - (bottom_is_chord ? 0.0 : y0);
        c.area += constant * (b - a) + chords * (integral_h(b, k) - integral_h(a, k));
        c.mx += constant * (b * b - a * a) / 2 + chords * (integral_xh(b, k) - integral_xh(a, k));
        const double top2 =
            top_is_chord ? integral_h2(b, k) - integral_h2(a, k) : y1 * y1 * (b - a);
        const double bottom2 =
            bottom_is_chord ? integral_h2(b, k) - integral_h2(a, k) : y0 * y0 * (b - a);
        c.my += 0.5 * (top2 - bottom2);
    }
    return c;
}

// sin(πu) / (πu).
double sinc(double u) {
    if (u == 0) return 1.0;
    return std::sin(kPi * u) / (kPi * u);
}

// The FFT grid for optics and grid: internal refinement, size and pupil radius.
// A given fft_size (> 0) is taken as it is.
void choose_fft_grid(const psf_optics& optics, const psf_plane_grid& grid, int min_disc_pixels,
                     int fft_size, psf_propagator* pr) {
    const double cutoff = optics.numerical_aperture / optics.wavelength_um;
    pr->refine = std::max(1, int(std::ceil(2.0 * cutoff * grid.dx_um / kDiscShareOfGrid)));
    const double dx = grid.dx_um / pr->refine;
    const double for_disc = std::ceil(min_disc_pixels / (2.0 * cutoff * dx));
    const double wanted =
        std::max({double(pr->refine) * std::max(grid.nx, grid.ny), for_disc, 32.0});
    pr->fft_size = fft_size > 0 ? fft_size : fft_friendly_size(int(std::min(wanted, 1e9)));
    pr->dk = 1.0 / (pr->fft_size * dx);
    pr->radius = int(std::ceil(cutoff / pr->dk + 0.5));
    pr->side = 2 * pr->radius + 1;
}

// Weights, kz and vector factors of every pupil point.
int fill_pupil_tables(psf_propagator* pr) {
    const std::size_t points = std::size_t(pr->side) * std::size_t(pr->side);
    pr->weight = allocate_bulk<double>(std::int64_t(points));
    pr->kz = allocate_bulk<double>(std::int64_t(points));
    pr->sample_kx = allocate_bulk<double>(std::int64_t(points));
    pr->sample_ky = allocate_bulk<double>(std::int64_t(points));
    if (pr->vector) pr->factor = allocate_bulk<float>(std::int64_t(kVectorFactors * points));
    pr->row_begin.reset(new (std::nothrow) std::int32_t[std::size_t(pr->side)]);
    pr->row_end.reset(new (std::nothrow) std::int32_t[std::size_t(pr->side)]);
    if (!pr->weight || !pr->kz || !pr->sample_kx || !pr->sample_ky || !pr->row_begin ||
        !pr->row_end || (pr->vector && !pr->factor))
        return 1;
    const double cutoff = pr->optics.numerical_aperture / pr->optics.wavelength_um;
    const double n_over_lambda = pr->optics.immersion_index / pr->optics.wavelength_um;
    const double h = 0.5 * pr->dk;
#ifdef _OPENMP
#pragma omp parallel for schedule(static) num_threads(plane_threads(pr->side))
#endif
    for (int q = 0; q < pr->side; ++q) {
        for (int p = 0; p < pr->side; ++p) {
            const std::size_t at = std::size_t(q) * pr->side + p;
            double kx = (p - pr->radius) * pr->dk, ky = (q - pr->radius) * pr->dk;
            // Most pixels lie wholly inside or outside; only those the edge
            // cuts need the exact coverage.
            const double near =
                std::hypot(std::max(std::abs(kx) - h, 0.0), std::max(std::abs(ky) - h, 0.0));
            const double far = std::hypot(std::abs(kx) + h, std::abs(ky) + h);
            const coverage c = far <= cutoff ? coverage{4 * h * h, 4 * h * h * kx, 4 * h * h * ky}
                               : near >= cutoff
                                   ? coverage{}
                                   : disc_coverage(kx - h, kx + h, ky - h, ky + h, cutoff);
            pr->weight[at] = c.area;
            // A pixel cut by the edge stands for the part inside: its pupil
            // is taken at that part's centroid.
            if (c.area > 0) {
                kx = c.mx / c.area;
                ky = c.my / c.area;
            }
            pr->sample_kx[at] = kx;
            pr->sample_ky[at] = ky;
            pr->kz[at] =
                std::sqrt(std::max(n_over_lambda * n_over_lambda - kx * kx - ky * ky, 0.0));
            if (!pr->vector) continue;
            double factors[kVectorFactors] = {};
            if (c.area > 0) psf_vector_factors(kx, ky, n_over_lambda, factors);
            for (int f = 0; f < kVectorFactors; ++f)
                pr->factor[f * points + at] = float(factors[f]);
        }
    }
    // The disc meets each row in one run of points.
    for (int q = 0; q < pr->side; ++q) {
        const double* row = pr->weight.get() + std::size_t(q) * pr->side;
        int begin = 0, end = pr->side;
        while (begin < end && row[begin] == 0) ++begin;
        while (end > begin && row[end - 1] == 0) --end;
        pr->row_begin[q] = begin;
        pr->row_end[q] = end;
    }
    // And each column; the intensity walks the pupil column by column.
    pr->column_begin.reset(new (std::nothrow) std::int32_t[std::size_t(pr->side)]);
    pr->column_end.reset(new (std::nothrow) std::int32_t[std::size_t(pr->side)]);
    if (pr->vector) pr->column_factor = allocate_bulk<float>(std::int64_t(kVectorFactors * points));
    if (!pr->column_begin || !pr->column_end || (pr->vector && !pr->column_factor)) return 1;
    for (int p = 0; p < pr->side; ++p) {
        auto weight = [&](int q) { return pr->weight[std::size_t(q) * pr->side + p]; };
        int begin = 0, end = pr->side;
        while (begin < end && weight(begin) == 0) ++begin;
        while (end > begin && weight(end - 1) == 0) --end;
        pr->column_begin[p] = begin;
        pr->column_end[p] = end;
    }
    if (pr->vector)
        for (std::size_t f = 0; f < kVectorFactors; ++f)
            for (std::size_t q = 0; q < std::size_t(pr->side); ++q)
                for (std::size_t p = 0; p < std::size_t(pr->side); ++p)
                    pr->column_factor[f * points + p * pr->side + q] =
                        pr->factor[f * points + q * pr->side + p];
    return 0;
}

// Where each output column and row lies on the FFT grid, and its sinc
// correction.
int fill_output_tables(psf_propagator* pr) {
    const int nx = pr->grid.nx, ny = pr->grid.ny, m = pr->fft_size;
    pr->column_at.reset(new (std::nothrow) std::int32_t[std::size_t(nx)]);
    pr->row_at.reset(new (std::nothrow) std::int32_t[std::size_t(ny)]);
    pr->sinc_x.reset(new (std::nothrow) float[std::size_t(nx)]);
    pr->sinc_y.reset(new (std::nothrow) float[std::size_t(ny)]);
    if (!pr->column_at || !pr->row_at || !pr->sinc_x || !pr->sinc_y) return 1;
    auto fill = [&](int n, std::int32_t* at, float* correction) {
        for (int i = 0; i < n; ++i) {
            const std::int64_t offset = std::int64_t(i - n / 2) * pr->refine;
            at[i] = std::int32_t(((offset % m) + m) % m);
            correction[i] = float(sinc(double(offset) / m));
        }
    };
    fill(nx, pr->column_at.get(), pr->sinc_x.get());
    fill(ny, pr->row_at.get(), pr->sinc_y.get());
    // Output (0, 0) at FFT index (0, 0) for pupil point (0, 0) at index 0:
    // the centre voxel lies at index (n/2) refine, so each point is turned
    // by exp(-2πi p (n/2) refine / M); the field then differs from the
    // integral's by a phase per voxel, which its modulus does not see.
    pr->shift_x.reset(new (std::nothrow) std::complex<double>[std::size_t(pr->side)]);
    pr->shift_y.reset(new (std::nothrow) std::complex<double>[std::size_t(pr->side)]);
    if (!pr->shift_x || !pr->shift_y) return 1;
    for (int p = 0; p < pr->side; ++p) {
        const double turns_x = double(std::int64_t(p) * (nx / 2) * pr->refine % m) / m;
        const double turns_y = double(std::int64_t(p) * (ny / 2) * pr->refine % m) / m;
        pr->shift_x[p] = {std::cos(2 * kPi * turns_x), -std::sin(2 * kPi * turns_x)};
        pr->shift_y[p] = {std::cos(2 * kPi * turns_y), -std::sin(2 * kPi * turns_y)};
    }
    return 0;
}

// The row stride of the intensity's second pass: M rounded up to whole
// 32-byte steps and one more, so that the rows of a power-of-two M do not
// all fall into the same cache sets during the transpose.
std::size_t padded_stride(int m) {
    return (std::size_t(m) + 3) / 4 * 4 + 4;
}

int make_plans(psf_propagator* pr) {
    const int m = pr->fft_size, nx = pr->grid.nx;
    const std::size_t row_values = std::size_t(pr->side) * m, column_values = std::size_t(m) * nx;
    fftw_buffer a = allocate_complex(row_values), b = allocate_complex(row_values);
    fftw_buffer c = allocate_complex(column_values);
    fftw_buffer d = allocate_complex(column_values);
    if (!a || !b || !c || !d) return 1;
    auto plans =
        std::unique_ptr<psf_fft_plans, psf_fft_plans_deleter>(new (std::nothrow) psf_fft_plans);
    if (!plans) return 1;
    int n[1] = {m};
    const int ny = pr->grid.ny;
    const int stride = int(padded_stride(m));
    fftw_buffer e = allocate_complex(std::size_t(stride) * ny);
    fftw_buffer f = allocate_complex(std::size_t(m) * ny);
    if (!e || !f) return 1;
    {
        // Released before plans can be destroyed: their destructor takes it too.
        const std::lock_guard<std::mutex> lock(g_fftw_planner);
        fftwf_set_timelimit(kPlanningSeconds);
        plans->rows = fftwf_plan_many_dft(1, n, pr->side, a.get(), nullptr, 1, m, b.get(), nullptr,
                                          1, m, FFTW_BACKWARD, kPlanning);
        plans->columns = fftwf_plan_many_dft(1, n, nx, c.get(), nullptr, 1, m, d.get(), nullptr, 1,
                                             m, FFTW_BACKWARD, kPlanning);
        plans->rows_adjoint = fftwf_plan_many_dft(1, n, pr->side, a.get(), nullptr, 1, m, b.get(),
                                                  nullptr, 1, m, FFTW_FORWARD, kPlanning);
        plans->columns_adjoint = fftwf_plan_many_dft(1, n, nx, c.get(), nullptr, 1, m, d.get(),
                                                     nullptr, 1, m, FFTW_FORWARD, kPlanning);
        plans->output_rows = fftwf_plan_many_dft(1, n, ny, e.get(), nullptr, 1, stride, f.get(),
                                                 nullptr, 1, m, FFTW_BACKWARD, kPlanning);
    }
    if (!plans->rows || !plans->columns || !plans->rows_adjoint || !plans->columns_adjoint ||
        !plans->output_rows)
        return 1;
    pr->plans = std::move(plans);
    return 0;
}

// exp(2πi t) for t in cycles, reduced to [-1/2, 1/2] in double first so
// that large defocus keeps its precision.
std::complex<double> turn(double t) {
    const double r = t - std::nearbyint(t);
    return {std::cos(2 * kPi * r), std::sin(2 * kPi * r)};
}

// Work's weighted pupil at plane z, P · weight · exp(2πi kz z), computed
// directly.
void weigh_pupil(const psf_propagator& pr, std::span<const std::complex<float>> pupil, double z,
                 psf_buffers* w) {
    for (int q = 0; q < pr.side; ++q) {
        for (int p = pr.row_begin[q]; p < pr.row_end[q]; ++p) {
            const std::size_t k = std::size_t(q) * pr.side + p;
            const std::complex<double> d = turn(pr.kz[k] * z);
            const double a = pupil[k].real() * pr.weight[k], b = pupil[k].imag() * pr.weight[k];
            w->weighted[k] = {float(a * d.real() - b * d.imag()),
                              float(a * d.imag() + b * d.real())};
        }
    }
}

// The field of work's weighted pupil times factor (-1: none): calls
// sink(pixel, value) once for each pixel (j nx + i) of the plane.
template <class Sink>
void field_of_weighted(const psf_propagator& pr, int factor, psf_buffers* w, Sink&& sink) {
    const int m = pr.fft_size, side = pr.side, r = pr.radius, nx = pr.grid.nx, ny = pr.grid.ny;
    const std::size_t points = std::size_t(side) * side;
    const float* f = factor >= 0 ? pr.factor.get() + std::size_t(factor) * points : nullptr;
    auto* rows = reinterpret_cast<std::complex<float>*>(w->row_in);
    for (int q = 0; q < side; ++q) {
        std::complex<float>* row = rows + std::size_t(q) * m;
        const std::complex<float>* from = w->weighted + std::size_t(q) * side;
        const float* scale = f ? f + std::size_t(q) * side : nullptr;
        // Pupil column p lands at FFT index p - R, wrapped: the left part
        // of the row at the end of the FFT row, the rest at its start.
        for (int p = pr.row_begin[q]; p < pr.row_end[q]; ++p) {
            const std::complex<float> v = scale ? from[p] * scale[p] : from[p];
            row[p < r ? p - r + m : p - r] = v;
        }
    }
    fftwf_execute_dft(pr.plans->rows, w->row_in, w->row_out);
    const auto* transformed = reinterpret_cast<const std::complex<float>*>(w->row_out);
    // The transposes between the passes go in blocks of kBlock columns, so
    // that reads and writes both stay within a few cache lines per step.
    constexpr int kBlock = 16;
    auto* columns = reinterpret_cast<std::complex<float>*>(w->column_in);
    for (int i0 = 0; i0 < nx; i0 += kBlock) {
        const int i1 = std::min(i0 + kBlock, nx);
        for (int q = 0; q < side; ++q) {
            const std::complex<float>* from = transformed + std::size_t(q) * m;
            const int at = (q - r + m) % m;
            for (int i = i0; i < i1; ++i) columns[std::size_t(i) * m + at] = from[pr.column_at[i]];
        }
    }
    fftwf_execute_dft(pr.plans->columns, w->column_in, w->column_out);
    const auto* out = reinterpret_cast<const std::complex<float>*>(w->column_out);
    for (int j0 = 0; j0 < ny; j0 += kBlock) {
        const int j1 = std::min(j0 + kBlock, ny);
        for (int i = 0; i < nx; ++i) {
            const std::complex<float>* from = out + std::size_t(i) * m;
            for (int j = j0; j < j1; ++j)
                sink(std::size_t(j) * nx + i, from[pr.row_at[j]] * (pr.sinc_x[i] * pr.sinc_y[j]));
        }
    }
}

// exp(2πi kz dz) of every point touching the disc, column after column
// (p side + q): what takes a plane's defocused pupil to the next one.
void defocus_steps(const psf_propagator& pr, double dz, std::complex<float>* step) {
    for (int p = 0; p < pr.side; ++p)
        for (int q = pr.column_begin[p]; q < pr.column_end[p]; ++q)
            step[std::size_t(p) * pr.side + q] =
                std::complex<float>(turn(pr.kz[std::size_t(q) * pr.side + p] * dz));
}

// P · weight · shift · exp(2πi kz z) of every point touching the disc,
// column after column, into to[p stride + q]: the intensity's first FFT
// inputs or a compact array. The other points stay 0.
void shifted_pupil(const psf_propagator& pr, std::span<const std::complex<float>> pupil, double z,
                   std::complex<float>* to, std::size_t stride) {
    for (int p = 0; p < pr.side; ++p) {
        for (int q = pr.column_begin[p]; q < pr.column_end[p]; ++q) {
            const std::size_t k = std::size_t(q) * pr.side + p;
            const std::complex<double> v = std::complex<double>(pupil[k]) * pr.weight[k] *
                                           pr.shift_x[p] * pr.shift_y[q] * turn(pr.kz[k] * z);
            to[std::size_t(p) * stride + q] = std::complex<float>(v);
        }
    }
}

// Takes the defocused pupil at[p stride + q] one step of dz further.
// Products of floats written out (std::complex's checks for infinities
// cost more than the product); kStepsBetweenDirect of them in a row stay
// within 1e-5.
void step_pupil(const psf_propagator& pr, const std::complex<float>* step, std::complex<float>* at,
                std::size_t stride) {
    for (int p = 0; p < pr.side; ++p) {
        std::complex<float>* column = at + std::size_t(p) * stride;
        const auto* by = reinterpret_cast<const float*>(step + std::size_t(p) * pr.side);
        auto* to = reinterpret_cast<float*>(column);
#pragma omp simd
        for (int q = pr.column_begin[p]; q < pr.column_end[p]; ++q) {
            const float a = to[2 * q], b = to[2 * q + 1], c = by[2 * q], d = by[2 * q + 1];
            to[2 * q] = a * c - b * d;
            to[2 * q + 1] = a * d + b * c;
        }
    }
}

// The compact defocused pupil (p side + q) times one vector factor into the
// intensity's first FFT inputs.
void scale_into_columns(const psf_propagator& pr, const std::complex<float>* pupil,
                        const float* factor, std::complex<float>* columns) {
    const std::size_t m = std::size_t(pr.fft_size);
    for (int p = 0; p < pr.side; ++p) {
        const std::size_t k = std::size_t(p) * pr.side;
        for (int q = pr.column_begin[p]; q < pr.column_end[p]; ++q)
            columns[std::size_t(p) * m + q] = pupil[k + q] * factor[k + q];
    }
}

// rows[j stride + p] = from[p M + j refine] for p < side, j < ny: the first
// pass's output, pupil column after column, into the second pass's input,
// output row after output row. In blocks of kBlock rows and, with SSE2, two
// by two values, so that reads and writes stay within a few cache lines.
void transpose_into_rows(const psf_propagator& pr, const std::complex<float>* from,
                         std::complex<float>* rows) {
    const std::size_t m = std::size_t(pr.fft_size), ld = padded_stride(pr.fft_size);
    const int side = pr.side, ny = pr.grid.ny, step = pr.refine;
    constexpr int kBlock = 16;
    for (int j0 = 0; j0 < ny; j0 += kBlock) {
        const int j1 = std::min(j0 + kBlock, ny);
        int p = 0;
#ifdef __SSE2__
        for (; step == 1 && p + 1 < side; p += 2) {
            const auto* a = reinterpret_cast<const float*>(from + p * m);
            const auto* b = reinterpret_cast<const float*>(from + (p + 1) * m);
            int j = j0;
            for (; j + 1 < j1; j += 2) {
                const __m128 x = _mm_loadu_ps(a + 2 * j), y = _mm_loadu_ps(b + 2 * j);
                _mm_storeu_ps(reinterpret_cast<float*>(rows + j * ld + p), _mm_movelh_ps(x, y));
                _mm_storeu_ps(reinterpret_cast<float*>(rows + (j + 1) * ld + p),
                              _mm_movehl_ps(y, x));
            }
            for (; j < j1; ++j) {
                rows[j * ld + p] = from[p * m + j];
                rows[j * ld + p + 1] = from[(p + 1) * m + j];
            }
        }
#endif
        for (; p < side; ++p)
            for (int j = j0; j < j1; ++j) rows[j * ld + p] = from[p * m + std::size_t(j) * step];
    }
}

// The field of the pupil in work's intensity input: the pupil's columns
// along ky, then the output rows along kx, so that each plane comes out row
// by row. Calls row(j, values, step) for each output row j, where
// values[i step] is the field of voxel (i, j) up to a phase and before the
// sinc correction.
template <class Row>
void shifted_field(const psf_propagator& pr, psf_buffers* w, Row&& row) {
    const int m = pr.fft_size, ny = pr.grid.ny, step = pr.refine;
    if (ny == 1) {
        // One output row (a section at y = 0) reads each column's transform
        // at index 0 only, the sum of its inputs: the columns are summed
        // instead of transformed, one transform a plane instead of side + 1.
        const auto* in = reinterpret_cast<const std::complex<float>*>(w->intensity_in);
        auto* row_in = reinterpret_cast<std::complex<float>*>(w->intensity_rows);
        for (int p = 0; p < pr.side; ++p) {
            std::complex<float> sum = 0.0f;
            for (int q = pr.column_begin[p]; q < pr.column_end[p]; ++q)
                sum += in[std::size_t(p) * m + q];
            row_in[p] = sum;
        }
    } else {
        fftwf_execute_dft(pr.plans->rows, w->intensity_in, w->row_out);
        const auto* transformed = reinterpret_cast<const std::complex<float>*>(w->row_out);
        transpose_into_rows(pr, transformed,
                            reinterpret_cast<std::complex<float>*>(w->intensity_rows));
    }
    fftwf_execute_dft(pr.plans->output_rows, w->intensity_rows, w->column_out);
    const auto* out = reinterpret_cast<const std::complex<float>*>(w->column_out);
    for (int j = 0; j < ny; ++j) row(j, out + std::size_t(j) * m, step);
}

// to[i] (+)= scale sinc_x[i]² |values[i step]|² for the nx voxels of a row,
// added when `add`. |E|² written out: std::norm of a complex<float> goes
// through a square root unless the compiler may assume finite values.
void row_intensity(const psf_propagator& pr, const std::complex<float>* values, int step,
                   float scale, bool add, float* to) {
    const int nx = pr.grid.nx;
    const float* sinc = pr.sinc_x.get();
    const auto* v = reinterpret_cast<const float*>(values);
    const std::size_t stride = 2 * std::size_t(step);
    if (add) {
#pragma omp simd
        for (int i = 0; i < nx; ++i) {
            const float re = v[i * stride], im = v[i * stride + 1];
            to[i] += scale * sinc[i] * sinc[i] * (re * re + im * im);
        }
    } else {
#pragma omp simd
        for (int i = 0; i < nx; ++i) {
            const float re = v[i * stride], im = v[i * stride + 1];
            to[i] = scale * sinc[i] * sinc[i] * (re * re + im * im);
        }
    }
}
}  // namespace

void psf_vector_factors(double kx, double ky, double n_over_lambda,
                        double factors[kVectorFactors]) {
    const double k = std::hypot(kx, ky);
    const double sin_t = std::min(k / n_over_lambda, 1.0);
    const double cos_t = std::sqrt(1.0 - sin_t * sin_t);
    const double cp = k > 0 ? kx / k : 1.0, sp = k > 0 ? ky / k : 0.0;
    factors[0] = cos_t * cp * cp + sp * sp;
    factors[1] = (cos_t - 1.0) * sp * cp;
    factors[2] = -sin_t * cp;
    factors[3] = cos_t * sp * sp + cp * cp;
    factors[4] = -sin_t * sp;
}

namespace {

int make_propagator(const psf_optics& optics, const psf_plane_grid& grid, bool vector,
                    int min_disc_pixels, int fft_size, psf_propagator* propagator) {
    if (!(optics.wavelength_um > 0) || !(optics.numerical_aperture > 0) ||
        !(optics.numerical_aperture <= optics.immersion_index) || grid.nx < 1 || grid.ny < 1 ||
        !(grid.dx_um > 0) || !std::isfinite(grid.dx_um) || min_disc_pixels < 1)
        return 1;
    psf_propagator pr;
    pr.optics = optics;
    pr.grid = grid;
    pr.vector = vector;
    choose_fft_grid(optics, grid, min_disc_pixels, fft_size, &pr);
    if (fft_size > 0 && (pr.refine != 1 || fft_size < std::max(grid.nx, grid.ny))) return 1;
    if (fill_pupil_tables(&pr) != 0 || fill_output_tables(&pr) != 0 || make_plans(&pr) != 0)
        return 1;
    *propagator = std::move(pr);
    return 0;
}

}  // namespace

int make_psf_propagator(const psf_optics& optics, const psf_plane_grid& grid, bool vector,
                        int min_disc_pixels, psf_propagator* propagator) {
    return make_propagator(optics, grid, vector, min_disc_pixels, 0, propagator);
}

int make_psf_propagator_sized(const psf_optics& optics, const psf_plane_grid& grid, bool vector,
                              int fft_size, psf_propagator* propagator) {
    return make_propagator(optics, grid, vector, 1, fft_size, propagator);
}

bool psf_pupil_point_used(const psf_propagator& propagator, int p, int q) {
    return propagator.weight[std::size_t(q) * propagator.side + p] != 0;
}

int make_psf_work(const psf_propagator& pr, psf_work_use use, psf_work* work) {
    const std::size_t rows = std::size_t(pr.side) * pr.fft_size;
    const std::size_t columns = std::size_t(pr.fft_size) * pr.grid.nx;
    const std::size_t points = std::size_t(pr.side) * pr.side;
    auto b = std::unique_ptr<psf_buffers, psf_buffers_deleter>(new (std::nothrow) psf_buffers);
    if (!b) return 1;
    const std::size_t output =
        std::size_t(pr.fft_size) * (use == psf_work_use::intensity ? pr.grid.ny : pr.grid.nx);
    // The buffers one after another, each aligned for FFTW's SIMD code (as
    // the buffers the plans were made on), and those read beyond what is
    // written zeroed.
    struct part {
        void** at;
        std::size_t values;  // complex floats
        bool zero;
    };
    part parts[8];
    int count = 0;
    auto add = [&](auto** at, std::size_t values, bool zero) {
        parts[count++] = {reinterpret_cast<void**>(at), values, zero};
    };
    add(&b->row_out, rows, false);
    add(&b->column_out, output, false);
    if (use == psf_work_use::intensity) {
        add(&b->intensity_in, rows, true);
        add(&b->intensity_rows, padded_stride(pr.fft_size) * pr.grid.ny, true);
        add(&b->step, points, false);
        if (pr.vector) add(&b->weighted, points, false);
    } else {
        add(&b->row_in, rows, true);
        add(&b->column_in, columns, true);
        add(&b->weighted, points, false);
        add(&b->adjoint_rows, rows, true);
        add(&b->adjoint_columns, columns, true);
    }
    constexpr std::size_t kAlign = 64;
    std::size_t bytes = kAlign;
    for (int i = 0; i < count; ++i)
        bytes += (parts[i].values * sizeof(fftwf_complex) + kAlign - 1) / kAlign * kAlign;
    b->block = allocate_bulk<std::byte>(std::int64_t(bytes));
    if (!b->block) return 1;
    const auto base = reinterpret_cast<std::uintptr_t>(b->block.get());
    std::byte* next = b->block.get() + ((base + kAlign - 1) / kAlign * kAlign - base);
    for (int i = 0; i < count; ++i) {
        const std::size_t size = parts[i].values * sizeof(fftwf_complex);
        if (parts[i].zero) std::memset(next, 0, size);
        *parts[i].at = next;
        next += (size + kAlign - 1) / kAlign * kAlign;
    }
    work->buffers = std::move(b);
    return 0;
}

void psf_field_plane(const psf_propagator& propagator, std::span<const std::complex<float>> pupil,
                     double z_um, int factor, psf_work* work,
                     std::span<std::complex<float>> field) {
    weigh_pupil(propagator, pupil, z_um, work->buffers.get());
    field_of_weighted(propagator, factor, work->buffers.get(),
                      [&](std::size_t at, std::complex<float> value) { field[at] = value; });
}

void psf_defocus_factors(const psf_propagator& pr, double z_um,
                         std::span<std::complex<float>> defocus) {
    for (std::size_t k = 0; k < std::size_t(pr.side) * pr.side; ++k)
        defocus[k] = pr.weight[k] != 0 ? std::complex<float>(turn(pr.kz[k] * z_um)) : 0.0f;
}

void psf_field_of_defocused(const psf_propagator& pr,
                            std::span<const std::complex<float>> defocused, int factor,
                            psf_work* work, std::span<std::complex<float>> field) {
    psf_buffers* w = work->buffers.get();
    for (int q = 0; q < pr.side; ++q) {
        for (int p = pr.row_begin[q]; p < pr.row_end[q]; ++p) {
            const std::size_t k = std::size_t(q) * pr.side + p;
            w->weighted[k] = defocused[k] * float(pr.weight[k]);
        }
    }
    field_of_weighted(pr, factor, w,
                      [&](std::size_t at, std::complex<float> value) { field[at] = value; });
}

void psf_adjoint_field(const psf_propagator& pr, std::span<const std::complex<float>> field,
                       std::span<const std::complex<float>> defocus, int factor, psf_work* work,
                       std::span<std::complex<double>> pupil_sum) {
    psf_buffers* w = work->buffers.get();
    const int m = pr.fft_size, side = pr.side, r = pr.radius, nx = pr.grid.nx, ny = pr.grid.ny;
    // The second pass backwards: each output column into its FFT column.
    auto* columns = reinterpret_cast<std::complex<float>*>(w->adjoint_columns);
    for (int i = 0; i < nx; ++i) {
        std::complex<float>* column = columns + std::size_t(i) * m;
        for (int j = 0; j < ny; ++j)
            column[pr.row_at[j]] = field[std::size_t(j) * nx + i] * (pr.sinc_x[i] * pr.sinc_y[j]);
    }
    fftwf_execute_dft(pr.plans->columns_adjoint, w->adjoint_columns, w->column_out);
    const auto* transformed = reinterpret_cast<const std::complex<float>*>(w->column_out);
    // The first pass backwards: the pupil rows' entries at the output columns.
    auto* rows = reinterpret_cast<std::complex<float>*>(w->adjoint_rows);
    for (int i = 0; i < nx; ++i) {
        const std::complex<float>* from = transformed + std::size_t(i) * m;
        for (int q = 0; q < side; ++q)
            rows[std::size_t(q) * m + pr.column_at[i]] = from[(q - r + m) % m];
    }
    fftwf_execute_dft(pr.plans->rows_adjoint, w->adjoint_rows, w->row_out);
    const auto* out = reinterpret_cast<const std::complex<float>*>(w->row_out);
    const std::size_t points = std::size_t(side) * side;
    const float* f = factor >= 0 ? pr.factor.get() + std::size_t(factor) * points : nullptr;
    for (int q = 0; q < side; ++q) {
        for (int p = pr.row_begin[q]; p < pr.row_end[q]; ++p) {
            const std::size_t k = std::size_t(q) * side + p;
            std::complex<float> v =
                out[std::size_t(q) * m + (p < r ? p - r + m : p - r)] * float(pr.weight[k]);
            if (f) v *= f[k];
            if (!defocus.empty()) v *= std::conj(defocus[k]);
            pupil_sum[k] += std::complex<double>(v);
        }
    }
}

void psf_intensity_planes(const psf_propagator& pr, std::span<const std::complex<float>> pupil,
                          double z_um, double dz_um, int count, psf_work* work,
                          std::span<float> intensity, void (*plane_done)(void* context),
                          void* context) {
    psf_buffers* w = work->buffers.get();
    const std::size_t pixels = std::size_t(pr.grid.nx) * pr.grid.ny;
    // A scalar plane transforms the defocused pupil itself, kept in the rows'
    // input; a vector plane each of its five products with the factors.
    const bool scalar = !pr.vector;
    auto* state = scalar ? reinterpret_cast<std::complex<float>*>(w->intensity_in) : w->weighted;
    const std::size_t stride = scalar ? std::size_t(pr.fft_size) : std::size_t(pr.side);
    if (count > 1) defocus_steps(pr, dz_um, w->step);
    for (int k = 0; k < count; ++k) {
        if (k % kStepsBetweenDirect == 0)
            shifted_pupil(pr, pupil, z_um + k * dz_um, state, stride);
        else
            step_pupil(pr, w->step, state, stride);
        float* out = intensity.data() + std::size_t(k) * pixels;
        const int nx = pr.grid.nx;
        auto row = [&](float share, bool add) {
            return [&, share, add](int j, const std::complex<float>* values, int step) {
                const float scale = share * pr.sinc_y[j] * pr.sinc_y[j];
                row_intensity(pr, values, step, scale, add, out + std::size_t(j) * nx);
            };
        };
        if (scalar) {
            shifted_field(pr, w, row(1.0f, false));
        } else {
            constexpr float kShare[kVectorFactors] = {0.5f, 1.0f, 0.5f, 0.5f, 0.5f};
            for (int c = 0; c < kVectorFactors; ++c) {
                scale_into_columns(pr, state,
                                   pr.column_factor.get() + std::size_t(c) * pr.side * pr.side,
                                   reinterpret_cast<std::complex<float>*>(w->intensity_in));
                shifted_field(pr, w, row(kShare[c], c > 0));
            }
        }
        if (plane_done != nullptr) plane_done(context);
    }
}

}  // namespace torvel
