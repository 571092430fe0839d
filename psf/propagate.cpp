// The forward model: a pupil on an area-weighted grid to the field and
// intensity of one plane, by two passes of one-dimensional FFTs that touch
// only the rows holding the disc and the columns holding output voxels.

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstring>
#include <memory>
#include <new>

#include <fftw3.h>

#include <torvel/psf.hpp>

namespace torvel {

struct psf_fft_plans {
    fftwf_plan rows = nullptr;     // side rows of length M, contiguous
    fftwf_plan columns = nullptr;  // nx columns of length M, each contiguous
    // The same transforms the other way, for psf_adjoint_plane.
    fftwf_plan rows_adjoint = nullptr, columns_adjoint = nullptr;
    ~psf_fft_plans() {
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
    std::unique_ptr<std::complex<float>[]> field;  // nx x ny, for the intensity
    // The inputs of the adjoint's two passes, apart from the forward ones:
    // the adjoint writes other positions than the forward pass and relies on
    // the rest staying 0, as the forward pass does on its own.
    fftw_buffer adjoint_rows, adjoint_columns;  // side x M, nx columns of M
    // Defocus factors exp(2πi kz z) of the last plane, and those of the last
    // step between planes, so that evenly spaced planes need one complex
    // product per pupil point.
    std::unique_ptr<std::complex<double>[]> defocus, step;
    double z = 0, dz = 0;
    bool have_z = false, have_step = false;
    int steps = 0;  // since the factors were last computed directly
};

void psf_buffers_deleter::operator()(psf_buffers* buffers) const noexcept { delete buffers; }

namespace {

constexpr double kPi = 3.14159265358979323846;
// The internal lateral spacing keeps the disc within this share of the FFT
// grid, so that the disc and its periodic copies never overlap.
constexpr double kDiscShareOfGrid = 0.9;
// Evenly spaced planes take their defocus by products for at most this many
// planes in a row before it is computed afresh, keeping rounding far below
// single precision.
constexpr int kStepsBetweenDirect = 32;
// FFTW's planner measuring candidate plans takes seconds for some sizes;
// its estimate is as fast for these batched 1D transforms (bench/).
constexpr unsigned kPlanning = FFTW_ESTIMATE;
constexpr double kPlanningSeconds = 0.05;

fftw_buffer allocate_complex(std::size_t count) {
    auto* p = static_cast<fftwf_complex*>(fftwf_malloc(sizeof(fftwf_complex) * count));
    if (p != nullptr) std::memset(p, 0, sizeof(fftwf_complex) * count);
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
    if (!pr->weight || !pr->kz || !pr->sample_kx || !pr->sample_ky || (pr->vector && !pr->factor))
        return 1;
    const double cutoff = pr->optics.numerical_aperture / pr->optics.wavelength_um;
    const double n_over_lambda = pr->optics.immersion_index / pr->optics.wavelength_um;
    const double h = 0.5 * pr->dk;
    for (int q = 0; q < pr->side; ++q) {
        for (int p = 0; p < pr->side; ++p) {
            const std::size_t at = std::size_t(q) * pr->side + p;
            double kx = (p - pr->radius) * pr->dk, ky = (q - pr->radius) * pr->dk;
            const coverage c = disc_coverage(kx - h, kx + h, ky - h, ky + h, cutoff);
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
            if (!pr->vector) continue;
            for (int f = 0; f < kVectorFactors; ++f)
                pr->factor[f * points + at] = float(psf_vector_factor(f, kx, ky, n_over_lambda));
        }
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
    fftw_buffer a = allocate_complex(row_values), b = allocate_complex(row_values);
    fftw_buffer c = allocate_complex(column_values), d = allocate_complex(column_values);
    if (!a || !b || !c || !d) return 1;
    auto plans = std::unique_ptr<psf_fft_plans, psf_fft_plans_deleter>(new (std::nothrow)
                                                                            psf_fft_plans);
    if (!plans) return 1;
    int n[1] = {m};
    fftwf_set_timelimit(kPlanningSeconds);
    plans->rows = fftwf_plan_many_dft(1, n, pr->side, a.get(), nullptr, 1, m, b.get(), nullptr, 1,
                                      m, FFTW_BACKWARD, kPlanning);
    plans->columns = fftwf_plan_many_dft(1, n, nx, c.get(), nullptr, 1, m, d.get(), nullptr, 1, m,
                                         FFTW_BACKWARD, kPlanning);
    plans->rows_adjoint = fftwf_plan_many_dft(1, n, pr->side, a.get(), nullptr, 1, m, b.get(),
                                              nullptr, 1, m, FFTW_FORWARD, kPlanning);
    plans->columns_adjoint = fftwf_plan_many_dft(1, n, nx, c.get(), nullptr, 1, m, d.get(), nullptr,
                                                 1, m, FFTW_FORWARD, kPlanning);
    if (!plans->rows || !plans->columns || !plans->rows_adjoint || !plans->columns_adjoint)
        return 1;
    pr->plans = std::move(plans);
    return 0;
}

// Brings work's defocus factors to plane z: by one product per point when z
// is one more step of the last spacing, else afresh.
void set_defocus(const psf_propagator& pr, double z, psf_buffers* w) {
    if (w->have_z && z == w->z) return;
    const std::size_t points = std::size_t(pr.side) * std::size_t(pr.side);
    const double dz = z - w->z;
    const bool same_step = w->have_step && std::abs(dz - w->dz) <= 1e-12 * std::abs(w->dz);
    if (w->have_z && same_step && w->steps < kStepsBetweenDirect) {
        for (std::size_t k = 0; k < points; ++k) w->defocus[k] *= w->step[k];
        ++w->steps;
    } else {
        const bool new_step = w->have_z;
        for (std::size_t k = 0; k < points; ++k) {
            if (pr.weight[k] == 0) continue;
            w->defocus[k] = std::polar(1.0, 2 * kPi * pr.kz[k] * z);
            if (new_step) w->step[k] = std::polar(1.0, 2 * kPi * pr.kz[k] * dz);
        }
        if (new_step) {
            w->dz = dz;
            w->have_step = true;
        }
        w->steps = 0;
    }
    w->z = z;
    w->have_z = true;
}

// The field of pupil at work's current defocus, times factor (-1: none).
void field_at_defocus(const psf_propagator& pr, std::span<const std::complex<float>> pupil,
                      int factor, psf_buffers* w, std::span<std::complex<float>> field) {
    const int m = pr.fft_size, side = pr.side, r = pr.radius, nx = pr.grid.nx, ny = pr.grid.ny;
    const std::size_t points = std::size_t(side) * side;
    const float* f = factor >= 0 ? pr.factor.get() + std::size_t(factor) * points : nullptr;
    auto* rows = reinterpret_cast<std::complex<float>*>(w->row_in.get());
    for (int q = 0; q < side; ++q) {
        std::complex<float>* row = rows + std::size_t(q) * m;
        for (int p = 0; p < side; ++p) {
            const std::size_t k = std::size_t(q) * side + p;
            std::complex<double> v = 0;
            if (pr.weight[k] != 0) {
                v = std::complex<double>(pupil[k]) * w->defocus[k] * pr.weight[k];
                if (f) v *= double(f[k]);
            }
            row[(p - r + m) % m] = std::complex<float>(v);
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
                field[std::size_t(j) * nx + i] = from[pr.row_at[j]] * (pr.sinc_x[i] * pr.sinc_y[j]);
        }
    }
}

}  // namespace

double psf_vector_factor(int c, double kx, double ky, double n_over_lambda) {
    const double k = std::hypot(kx, ky);
    const double sin_t = std::min(k / n_over_lambda, 1.0);
    const double cos_t = std::sqrt(1.0 - sin_t * sin_t);
    const double phi = std::atan2(ky, kx);
    const double cp = std::cos(phi), sp = std::sin(phi);
    switch (c) {
        case 0: return cos_t * cp * cp + sp * sp;
        case 1: return (cos_t - 1.0) * sp * cp;
        case 2: return -sin_t * cp;
        case 3: return cos_t * sp * sp + cp * cp;
        default: return -sin_t * sp;
    }
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
    b->row_in = allocate_complex(rows);
    b->row_out = allocate_complex(rows);
    b->column_in = allocate_complex(columns);
    b->column_out = allocate_complex(columns);
    b->defocus.reset(new (std::nothrow) std::complex<double>[points]());
    b->step.reset(new (std::nothrow) std::complex<double>[points]());
    b->field.reset(new (std::nothrow) std::complex<float>[std::size_t(pr.grid.nx) * pr.grid.ny]);
    b->adjoint_rows = allocate_complex(rows);
    b->adjoint_columns = allocate_complex(columns);
    if (!b->row_in || !b->row_out || !b->column_in || !b->column_out || !b->defocus || !b->step ||
        !b->field || !b->adjoint_rows || !b->adjoint_columns)
        return 1;
    work->buffers = std::move(b);
    return 0;
}

void psf_field_plane(const psf_propagator& propagator, std::span<const std::complex<float>> pupil,
                     double z_um, int factor, psf_work* work,
                     std::span<std::complex<float>> field) {
    set_defocus(propagator, z_um, work->buffers.get());
    field_at_defocus(propagator, pupil, factor, work->buffers.get(), field);
}

void psf_adjoint_plane(const psf_propagator& pr, std::span<const std::complex<float>> field,
                       double z_um, int factor, psf_work* work,
                       std::span<std::complex<double>> pupil_sum) {
    psf_buffers* w = work->buffers.get();
    set_defocus(pr, z_um, w);
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
        for (int p = 0; p < side; ++p) {
            const std::size_t k = std::size_t(q) * side + p;
            if (pr.weight[k] == 0) continue;
            std::complex<double> v = std::complex<double>(out[std::size_t(q) * m + (p - r + m) % m]) *
                                     std::conj(w->defocus[k]) * pr.weight[k];
            if (f) v *= double(f[k]);
            pupil_sum[k] += v;
        }
    }
}

void psf_intensity_plane(const psf_propagator& propagator,
                         std::span<const std::complex<float>> pupil, double z_um, psf_work* work,
                         std::span<float> intensity) {
    const std::size_t pixels = std::size_t(propagator.grid.nx) * propagator.grid.ny;
    std::span<std::complex<float>> plane(work->buffers->field.get(), pixels);
    set_defocus(propagator, z_um, work->buffers.get());
    if (!propagator.vector) {
        field_at_defocus(propagator, pupil, -1, work->buffers.get(), plane);
        for (std::size_t k = 0; k < pixels; ++k) intensity[k] = std::norm(plane[k]);
        return;
    }
    constexpr float kShare[kVectorFactors] = {0.5f, 1.0f, 0.5f, 0.5f, 0.5f};
    std::fill(intensity.begin(), intensity.begin() + std::ptrdiff_t(pixels), 0.0f);
    for (int c = 0; c < kVectorFactors; ++c) {
        field_at_defocus(propagator, pupil, c, work->buffers.get(), plane);
        for (std::size_t k = 0; k < pixels; ++k) intensity[k] += kShare[c] * std::norm(plane[k]);
    }
}

}  // namespace torvel
