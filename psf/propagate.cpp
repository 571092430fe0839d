// The forward model: a pupil on an area-weighted grid to the field and
// intensity of one plane, by two passes of one-dimensional FFTs that touch
// only the rows holding the disc and the columns holding output voxels.

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>

#include <fftw3.h>

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
    ~psf_fft_plans() {
        const std::lock_guard<std::mutex> lock(g_fftw_planner);
        for (fftwf_plan plan : {rows, columns, rows_adjoint, columns_adjoint})
            if (plan) fftwf_destroy_plan(plan);
    }
};

void psf_fft_plans_deleter::operator()(psf_fft_plans* plans) const noexcept { delete plans; }

// FFTW's own allocation, aligned for its SIMD code; new-array execution
// needs every buffer aligned as the ones the plans were made on.
struct fftw_deleter {
    void operator()(fftwf_complex* p) const noexcept { fftwf_free(p); }
};
using fftw_buffer = std::unique_ptr<fftwf_complex[], fftw_deleter>;

struct psf_buffers {
    fftw_buffer row_in, row_out;        // side x M
    fftw_buffer column_in, column_out;  // nx columns of M, column after column
    // Over the pupil (side x side): P · weight · exp(2πi kz z) of the plane
    // being computed, and exp(2πi kz dz), which takes it to the next plane.
    std::unique_ptr<std::complex<float>[]> weighted, step;
    // The inputs of the adjoint's two passes, apart from the forward ones:
    // the adjoint writes other positions than the forward pass and relies on
    // the rest staying 0, as the forward pass does on its own.
    fftw_buffer adjoint_rows, adjoint_columns;  // side x M, nx columns of M
};

void psf_buffers_deleter::operator()(psf_buffers* buffers) const noexcept { delete buffers; }

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

// count complex values; zero when `zero`, for buffers of which only a part
// is ever written.
fftw_buffer allocate_complex(std::size_t count, bool zero) {
    auto* p = static_cast<fftwf_complex*>(fftwf_malloc(sizeof(fftwf_complex) * count));
    if (p != nullptr && zero) std::memset(p, 0, sizeof(fftwf_complex) * count);
    return fftw_buffer(p);
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
double integral_xh(double x, double k) { return -std::pow(std::max(k * k - x * x, 0.0), 1.5) / 3; }
double integral_h2(double x, double k) { return k * k * x - x * x * x / 3; }

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
        const bool top_is_chord = h < y1, bottom_is_chord = -h > y0;
        if ((top_is_chord ? h : y1) <= (bottom_is_chord ? -h : y0)) continue;
        const int chords = int(top_is_chord) + int(bottom_is_chord);
        const double constant = (top_is_chord ? 0.0 : y1) - (bottom_is_chord ? 0.0 : y0);
        c.area += constant * (b - a) + chords * (integral_h(b, k) - integral_h(a, k));
        c.mx += constant * (b * b - a * a) / 2 + chords * (integral_xh(b, k) - integral_xh(a, k));
        const double top2 = top_is_chord ? integral_h2(b, k) - integral_h2(a, k) : y1 * y1 * (b - a);
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
    const double wanted = std::max({double(pr->refine) * std::max(grid.nx, grid.ny), for_disc, 32.0});
    pr->fft_size = fft_size > 0 ? fft_size : fft_friendly_size(int(std::min(wanted, 1e9)));
    pr->dk = 1.0 / (pr->fft_size * dx);
    pr->radius = int(std::ceil(cutoff / pr->dk + 0.5));
    pr->side = 2 * pr->radius + 1;
}

// Weights, kz and vector factors of every pupil point.
int fill_pupil_tables(psf_propagator* pr) {
    const std::size_t points = std::size_t(pr->side) * std::size_t(pr->side);
    pr->weight.reset(new (std::nothrow) double[points]);
    pr->kz.reset(new (std::nothrow) double[points]);
    pr->sample_kx.reset(new (std::nothrow) double[points]);
    pr->sample_ky.reset(new (std::nothrow) double[points]);
    if (pr->vector) pr->factor.reset(new (std::nothrow) float[kVectorFactors * points]);
    pr->row_begin.reset(new (std::nothrow) std::int32_t[std::size_t(pr->side)]);
    pr->row_end.reset(new (std::nothrow) std::int32_t[std::size_t(pr->side)]);
    if (!pr->weight || !pr->kz || !pr->sample_kx || !pr->sample_ky || !pr->row_begin ||
        !pr->row_end || (pr->vector && !pr->factor))
        return 1;
    const double cutoff = pr->optics.numerical_aperture / pr->optics.wavelength_um;
    const double n_over_lambda = pr->optics.immersion_index / pr->optics.wavelength_um;
    const double h = 0.5 * pr->dk;
    for (int q = 0; q < pr->side; ++q) {
        for (int p = 0; p < pr->side; ++p) {
            const std::size_t at = std::size_t(q) * pr->side + p;
            double kx = (p - pr->radius) * pr->dk, ky = (q - pr->radius) * pr->dk;
            // Most pixels lie wholly inside or outside; only those the edge
            // cuts need the exact coverage.
            const double near = std::hypot(std::max(std::abs(kx) - h, 0.0), std::max(std::abs(ky) - h, 0.0));
            const double far = std::hypot(std::abs(kx) + h, std::abs(ky) + h);
            const coverage c = far <= cutoff  ? coverage{4 * h * h, 4 * h * h * kx, 4 * h * h * ky}
                               : near >= cutoff ? coverage{}
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
            pr->kz[at] = std::sqrt(std::max(n_over_lambda * n_over_lambda - kx * kx - ky * ky, 0.0));
            if (!pr->vector || c.area == 0) continue;
            double factors[kVectorFactors];
            psf_vector_factors(kx, ky, n_over_lambda, factors);
            for (int f = 0; f < kVectorFactors; ++f) pr->factor[f * points + at] = float(factors[f]);
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
    return 0;
}

int make_plans(psf_propagator* pr) {
    const int m = pr->fft_size, nx = pr->grid.nx;
    const std::size_t row_values = std::size_t(pr->side) * m, column_values = std::size_t(m) * nx;
    fftw_buffer a = allocate_complex(row_values, false), b = allocate_complex(row_values, false);
    fftw_buffer c = allocate_complex(column_values, false);
    fftw_buffer d = allocate_complex(column_values, false);
    if (!a || !b || !c || !d) return 1;
    auto plans = std::unique_ptr<psf_fft_plans, psf_fft_plans_deleter>(new (std::nothrow)
                                                                            psf_fft_plans);
    if (!plans) return 1;
    int n[1] = {m};
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
    }
    if (!plans->rows || !plans->columns || !plans->rows_adjoint || !plans->columns_adjoint)
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
// directly; with step_dz != 0 also the step factors exp(2πi kz dz).
void weigh_pupil(const psf_propagator& pr, std::span<const std::complex<float>> pupil, double z,
                 double step_dz, psf_buffers* w) {
    for (int q = 0; q < pr.side; ++q) {
        for (int p = pr.row_begin[q]; p < pr.row_end[q]; ++p) {
            const std::size_t k = std::size_t(q) * pr.side + p;
            const std::complex<double> d = turn(pr.kz[k] * z);
            const double a = pupil[k].real() * pr.weight[k], b = pupil[k].imag() * pr.weight[k];
            w->weighted[k] = {float(a * d.real() - b * d.imag()), float(a * d.imag() + b * d.real())};
            if (step_dz != 0) w->step[k] = std::complex<float>(turn(pr.kz[k] * step_dz));
        }
    }
}

// Takes work's weighted pupil one step of dz further. Products of floats
// written out (std::complex's checks for infinities cost more than the
// product); kStepsBetweenDirect of them in a row stay within 1e-5.
void step_pupil(const psf_propagator& pr, psf_buffers* w) {
    for (int q = 0; q < pr.side; ++q) {
        for (int p = pr.row_begin[q]; p < pr.row_end[q]; ++p) {
            const std::size_t k = std::size_t(q) * pr.side + p;
            const float a = w->weighted[k].real(), b = w->weighted[k].imag();
            const float c = w->step[k].real(), d = w->step[k].imag();
            w->weighted[k] = {a * c - b * d, a * d + b * c};
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
    auto* rows = reinterpret_cast<std::complex<float>*>(w->row_in.get());
    for (int q = 0; q < side; ++q) {
        std::complex<float>* row = rows + std::size_t(q) * m;
        const std::complex<float>* from = w->weighted.get() + std::size_t(q) * side;
        const float* scale = f ? f + std::size_t(q) * side : nullptr;
        // Pupil column p lands at FFT index p - R, wrapped: the left part
        // of the row at the end of the FFT row, the rest at its start.
        for (int p = pr.row_begin[q]; p < pr.row_end[q]; ++p) {
            const std::complex<float> v = scale ? from[p] * scale[p] : from[p];
            row[p < r ? p - r + m : p - r] = v;
        }
    }
    fftwf_execute_dft(pr.plans->rows, w->row_in.get(), w->row_out.get());
    const auto* transformed = reinterpret_cast<const std::complex<float>*>(w->row_out.get());
    // The transposes between the passes go in blocks of kBlock columns, so
    // that reads and writes both stay within a few cache lines per step.
    constexpr int kBlock = 16;
    auto* columns = reinterpret_cast<std::complex<float>*>(w->column_in.get());
    for (int i0 = 0; i0 < nx; i0 += kBlock) {
        const int i1 = std::min(i0 + kBlock, nx);
        for (int q = 0; q < side; ++q) {
            const std::complex<float>* from = transformed + std::size_t(q) * m;
            const int at = (q - r + m) % m;
            for (int i = i0; i < i1; ++i) columns[std::size_t(i) * m + at] = from[pr.column_at[i]];
        }
    }
    fftwf_execute_dft(pr.plans->columns, w->column_in.get(), w->column_out.get());
    const auto* out = reinterpret_cast<const std::complex<float>*>(w->column_out.get());
    for (int j0 = 0; j0 < ny; j0 += kBlock) {
        const int j1 = std::min(j0 + kBlock, ny);
        for (int i = 0; i < nx; ++i) {
            const std::complex<float>* from = out + std::size_t(i) * m;
            for (int j = j0; j < j1; ++j)
                sink(std::size_t(j) * nx + i, from[pr.row_at[j]] * (pr.sinc_x[i] * pr.sinc_y[j]));
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

int make_psf_work(const psf_propagator& pr, psf_work* work) {
    const std::size_t rows = std::size_t(pr.side) * pr.fft_size;
    const std::size_t columns = std::size_t(pr.fft_size) * pr.grid.nx;
    const std::size_t points = std::size_t(pr.side) * pr.side;
    auto b = std::unique_ptr<psf_buffers, psf_buffers_deleter>(new (std::nothrow) psf_buffers);
    if (!b) return 1;
    b->row_in = allocate_complex(rows, true);
    b->row_out = allocate_complex(rows, false);
    b->column_in = allocate_complex(columns, true);
    b->column_out = allocate_complex(columns, false);
    b->step.reset(new (std::nothrow) std::complex<float>[points]);
    b->weighted.reset(new (std::nothrow) std::complex<float>[points]);
    b->adjoint_rows = allocate_complex(rows, true);
    b->adjoint_columns = allocate_complex(columns, true);
    if (!b->adjoint_rows || !b->adjoint_columns) return 1;
    if (!b->row_in || !b->row_out || !b->column_in || !b->column_out || !b->step ||
        !b->weighted)
        return 1;
    work->buffers = std::move(b);
    return 0;
}

void psf_field_plane(const psf_propagator& propagator, std::span<const std::complex<float>> pupil,
                     double z_um, int factor, psf_work* work,
                     std::span<std::complex<float>> field) {
    weigh_pupil(propagator, pupil, z_um, 0, work->buffers.get());
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
    auto* columns = reinterpret_cast<std::complex<float>*>(w->adjoint_columns.get());
    for (int i = 0; i < nx; ++i) {
        std::complex<float>* column = columns + std::size_t(i) * m;
        for (int j = 0; j < ny; ++j)
            column[pr.row_at[j]] = field[std::size_t(j) * nx + i] * (pr.sinc_x[i] * pr.sinc_y[j]);
    }
    fftwf_execute_dft(pr.plans->columns_adjoint, w->adjoint_columns.get(), w->column_out.get());
    const auto* transformed = reinterpret_cast<const std::complex<float>*>(w->column_out.get());
    // The first pass backwards: the pupil rows' entries at the output columns.
    auto* rows = reinterpret_cast<std::complex<float>*>(w->adjoint_rows.get());
    for (int i = 0; i < nx; ++i) {
        const std::complex<float>* from = transformed + std::size_t(i) * m;
        for (int q = 0; q < side; ++q)
            rows[std::size_t(q) * m + pr.column_at[i]] = from[(q - r + m) % m];
    }
    fftwf_execute_dft(pr.plans->rows_adjoint, w->adjoint_rows.get(), w->row_out.get());
    const auto* out = reinterpret_cast<const std::complex<float>*>(w->row_out.get());
    const std::size_t points = std::size_t(side) * side;
    const float* f = factor >= 0 ? pr.factor.get() + std::size_t(factor) * points : nullptr;
    for (int q = 0; q < side; ++q) {
        for (int p = pr.row_begin[q]; p < pr.row_end[q]; ++p) {
            const std::size_t k = std::size_t(q) * side + p;
            std::complex<float> v = out[std::size_t(q) * m + (p < r ? p - r + m : p - r)] *
                                    float(pr.weight[k]);
            if (f) v *= f[k];
            if (!defocus.empty()) v *= std::conj(defocus[k]);
            pupil_sum[k] += std::complex<double>(v);
        }
    }
}

void psf_intensity_planes(const psf_propagator& propagator,
                          std::span<const std::complex<float>> pupil, double z_um, double dz_um,
                          int count, psf_work* work, std::span<float> intensity) {
    psf_buffers* w = work->buffers.get();
    const std::size_t pixels = std::size_t(propagator.grid.nx) * propagator.grid.ny;
    for (int k = 0; k < count; ++k) {
        if (k % kStepsBetweenDirect == 0)
            weigh_pupil(propagator, pupil, z_um + k * dz_um, k == 0 && count > 1 ? dz_um : 0, w);
        else
            step_pupil(propagator, w);
        float* out = intensity.data() + std::size_t(k) * pixels;
        // |E|² written out: std::norm of a complex<float> goes through a
        // square root unless the compiler may assume finite values.
        if (!propagator.vector) {
            field_of_weighted(propagator, -1, w, [&](std::size_t at, std::complex<float> e) {
                out[at] = e.real() * e.real() + e.imag() * e.imag();
            });
            continue;
        }
        constexpr float kShare[kVectorFactors] = {0.5f, 1.0f, 0.5f, 0.5f, 0.5f};
        std::fill(out, out + pixels, 0.0f);
        for (int c = 0; c < kVectorFactors; ++c)
            field_of_weighted(propagator, c, w, [&](std::size_t at, std::complex<float> e) {
                out[at] += kShare[c] * (e.real() * e.real() + e.imag() * e.imag());
            });
    }
}

}  // namespace torvel
