// The retrieval itself: the pupil fitted to the bead's planes by iterated
// magnitude replacement on the forward model of torvel-psf, planes in
// parallel, each thread with its own work space and pupil sum.


#include <algorithm>
#include <chrono>
#include <cmath>
#include <complex>
#include <cstdio>
#include <memory>
#include <new>

#ifdef _OPENMP
#include <omp.h>
#endif

#include <torvel/retrieve.hpp>
#include <torvel/messages.hpp>

namespace torvel {
namespace {

constexpr const char* kProgram = "torvel-retrieve";

// The model's field reaches this far beyond the geometric cone of the most
// defocused plane, in units of λ/NA, before the FFT grid wraps it around.
constexpr double kMarginResolutions = 4.0;
// Points whose pixel the disc edge cuts step as if they were covered at
// least this much, so that a sliver of a pixel does not take a huge step.
constexpr double kMinStepCoverage = 0.5;
// The background is refined only once the pupil has roughly settled.
constexpr int kFirstBackgroundUpdate = 5;
// An error this many times its smallest so far counts as divergence.
constexpr double kDivergence = 10.0;

constexpr float kVectorShare[kVectorFactors] = {0.5f, 1.0f, 0.5f, 0.5f, 0.5f};

int thread_index() {
#ifdef _OPENMP
    return omp_get_thread_num();
#else
    return 0;
#endif
}

// The FFT grid: a multiple of the crop so that the pupil image's pixels are
// points of the pupil grid, wide enough that the most defocused plane's
// light stays clear of the crop after wrapping around.
int internal_fft_size(const bead_stack& bead, double na, double n) {
    const double half_depth = bead.dz_um * std::max(bead.nz / 2, bead.nz - 1 - bead.nz / 2);
    const double cone = half_depth * na / std::sqrt(n * n - na * na);
    const double reach = 0.5 * bead.size * bead.dx_um + cone +
                         kMarginResolutions * bead.wavelength_um / na;
    const double cutoff = na / bead.wavelength_um;
    int ratio = std::max(1, int(std::ceil(reach / (bead.size * bead.dx_um))));
    // As many pupil pixels across the disc as torvel-psf takes: fewer leave
    // the model short of the stack it computes by more than the noise.
    while (2.0 * cutoff * ratio * bead.size * bead.dx_um < kDefaultDiscPixels) ++ratio;
    return ratio * bead.size;
}

// Progress on a terminal: the iteration and its error, one line rewritten
// in place; nothing when standard error is not a terminal.
struct progress_line {
    bool terminal = progress_on_terminal();
    bool shown = false;
    std::chrono::steady_clock::time_point last{};
    void update(double wavelength_nm, int iteration, int iterations, double error) {
        if (!terminal) return;
        const auto now = std::chrono::steady_clock::now();
        if (shown && now - last < std::chrono::milliseconds(100) && iteration < iterations) return;
        last = now;
        shown = true;
        std::fprintf(stderr, "\r%s: %.0f nm, iteration %d of %d, error %.3e  ", kProgram,
                     wavelength_nm, iteration, iterations, error);
        std::fflush(stderr);
    }
    ~progress_line() {
        if (shown) std::fputc('\n', stderr);
    }
};

// One thread's share of an iteration.
struct thread_state {
    psf_work work;
    std::unique_ptr<std::complex<double>[]> pupil_sum;
    std::unique_ptr<std::complex<float>[]> defocused;  // the pupil at the plane in hand
    std::unique_ptr<std::complex<float>[]> fields;  // one crop plane per field component
    std::unique_ptr<float[]> intensity;
    double misfit = 0, signal = 0, ratio_sum = 0;
};

// Everything fixed over the iterations of one wavelength.
struct problem {
    const bead_stack* bead;
    const psf_propagator* pr;
    int components;       // 1 scalar, kVectorFactors vector
    std::size_t points;   // side²
    std::size_t pixels;   // size²
    std::unique_ptr<double[]> step_scale;  // per pupil point: 1 / the diagonal of A^H A
    // Each plane's defocus factors, kept: the same planes are visited in
    // every iteration.
    std::unique_ptr<std::complex<float>[]> defocus;
};

std::span<const std::complex<float>> defocus_of(const problem& pb, int k) {
    return {pb.defocus.get() + std::size_t(k) * pb.points, pb.points};
}

int make_defocus_tables(problem* pb) {
    const std::size_t planes = std::size_t(pb->bead->nz);
    pb->defocus.reset(new (std::nothrow) std::complex<float>[planes * pb->points]);
    if (!pb->defocus) return 1;
    for (std::size_t k = 0; k < planes; ++k)
        psf_defocus_factors(*pb->pr, double(int(k) - pb->bead->nz / 2) * pb->bead->dz_um,
                            {pb->defocus.get() + k * pb->points, pb->points});
    return 0;
}

int factor_of(const problem& pb, int c) { return pb.components == 1 ? -1 : c; }
float share_of(const problem& pb, int c) { return pb.components == 1 ? 1.0f : kVectorShare[c]; }

// The step of each pupil point: one over what the forward model of all
// planes and components would give back, by Parseval, for a field that fell
// wholly within the crop. For a field that does the step is
// Gerchberg-Saxton's averaged projection; light that falls outside the crop
// is left as the model has it.
int make_step_scale(problem* pb) {
    const psf_propagator& pr = *pb->pr;
    pb->step_scale.reset(new (std::nothrow) double[pb->points]);
    if (!pb->step_scale) return 1;
    const double sx = pr.fft_size, sy = pr.fft_size;
    const double full = pr.dk * pr.dk;
    for (std::size_t k = 0; k < pb->points; ++k) {
        const double w = pr.weight[k];
        if (w == 0) {
            pb->step_scale[k] = 0;
            continue;
        }
        double factors = 0;
        for (int c = 0; c < pb->components; ++c) {
            const double f = pb->components == 1 ? 1.0 : pr.factor[std::size_t(c) * pb->points + k];
            factors += share_of(*pb, c) * f * f;
        }
        const double diagonal = sx * sy * w * std::max(w, kMinStepCoverage * full) *
                                std::max(factors, 1e-6) * pb->bead->nz;
        pb->step_scale[k] = 1.0 / diagonal;
    }
    return 0;
}

// The model's intensity of plane k (without background) into ts->intensity,
// its field components into ts->fields.
void model_plane(const problem& pb, std::span<const std::complex<float>> pupil, int k,
                 thread_state* ts) {
    const std::span<const std::complex<float>> defocus = defocus_of(pb, k);
    for (std::size_t p = 0; p < pb.points; ++p) ts->defocused[p] = pupil[p] * defocus[p];
    const std::span<const std::complex<float>> defocused(ts->defocused.get(), pb.points);
    std::fill_n(ts->intensity.get(), pb.pixels, 0.0f);
    for (int c = 0; c < pb.components; ++c) {
        std::span<std::complex<float>> field(ts->fields.get() + c * pb.pixels, pb.pixels);
        psf_field_of_defocused(*pb.pr, defocused, factor_of(pb, c), &ts->work, field);
        const float share = share_of(pb, c);
        for (std::size_t x = 0; x < pb.pixels; ++x) ts->intensity[x] += share * std::norm(field[x]);
    }
}

// One plane's part of an iteration: the magnitude step and the adjoint of
// the field's change added to the thread's pupil sum.
void step_plane(const problem& pb, std::span<const std::complex<float>> pupil, double background,
                int k, thread_state* ts) {
    model_plane(pb, pupil, k, ts);
    const float* y = pb.bead->voxels.get() + std::size_t(k) * pb.pixels;
    // A floor far below any voxel that matters keeps the ratio finite where
    // the model is dark and no background is modelled.
    const double floor = 1e-30;
    for (std::size_t x = 0; x < pb.pixels; ++x) {
        const double mu = std::max(double(ts->intensity[x]) + background, floor);
        const double measured = std::max(double(y[x]), 0.0);
        const double amplitude = std::sqrt(measured), model = std::sqrt(mu);
        ts->misfit += (amplitude - model) * (amplitude - model);
        ts->signal += measured;
        ts->ratio_sum += double(y[x]) / mu;
        // The noise-aware magnitude step: where the model says a voxel is
        // mostly background, its field is changed only by the share the
        // pupil's light has in it.
        ts->intensity[x] = float(amplitude / model - 1.0);
    }
    for (int c = 0; c < pb.components; ++c) {
        std::span<std::complex<float>> field(ts->fields.get() + c * pb.pixels, pb.pixels);
        const float share = share_of(pb, c);
        for (std::size_t x = 0; x < pb.pixels; ++x) field[x] *= share * ts->intensity[x];
        psf_adjoint_field(*pb.pr, field, defocus_of(pb, k), factor_of(pb, c), &ts->work,
                          {ts->pupil_sum.get(), pb.points});
    }
}

int make_thread_states(const problem& pb, int threads, std::unique_ptr<thread_state[]>* states) {
    states->reset(new (std::nothrow) thread_state[std::size_t(threads)]);
    if (!*states) return 1;
    for (int t = 0; t < threads; ++t) {
        thread_state& ts = (*states)[t];
        if (make_psf_work(*pb.pr, psf_work_use::fields, &ts.work) != 0) return 1;
        ts.pupil_sum.reset(new (std::nothrow) std::complex<double>[pb.points]);
        ts.fields.reset(new (std::nothrow) std::complex<float>[pb.components * pb.pixels]);
        ts.defocused.reset(new (std::nothrow) std::complex<float>[pb.points]);
        ts.intensity.reset(new (std::nothrow) float[pb.pixels]);
        if (!ts.pupil_sum || !ts.fields || !ts.intensity || !ts.defocused) return 1;
    }
    return 0;
}

// Runs body(k, state) for every plane, each thread on a run of neighbouring
// planes.
template <typename Body>
void for_planes(int nz, int threads, thread_state* states, Body body) {
#ifdef _OPENMP
#pragma omp parallel num_threads(threads)
#endif
    {
        const int t = thread_index();
        const int first = int(std::int64_t(nz) * t / threads);
        const int end = int(std::int64_t(nz) * (t + 1) / threads);
        for (int k = first; k < end; ++k) body(k, &states[t]);
    }
}

// A flat pupil scaled so that the model's light in the crop matches the
// bead's above the background.
void start_pupil(const problem& pb, int threads, thread_state* states, double background,
                 std::span<std::complex<float>> pupil) {
    for (std::size_t k = 0; k < pb.points; ++k) pupil[k] = pb.pr->weight[k] != 0 ? 1.0f : 0.0f;
    for (int t = 0; t < threads; ++t) states[t].signal = states[t].misfit = 0;
    for_planes(pb.bead->nz, threads, states, [&](int k, thread_state* ts) {
        model_plane(pb, pupil, k, ts);
        const float* y = pb.bead->voxels.get() + std::size_t(k) * pb.pixels;
        for (std::size_t x = 0; x < pb.pixels; ++x) {
            ts->misfit += ts->intensity[x];
            ts->signal += std::max(double(y[x]) - background, 0.0);
        }
    });
    double model = 0, measured = 0;
    for (int t = 0; t < threads; ++t) {
        model += states[t].misfit;
        measured += states[t].signal;
    }
    const float scale = model > 0 && measured > 0 ? float(std::sqrt(measured / model)) : 1.0f;
    for (std::size_t k = 0; k < pb.points; ++k) pupil[k] *= scale;
}

}  // namespace

int retrieve_pupil(const retrieve_inputs& inputs, const bead_stack& bead, retrieval* result,
                   retrieval_log* log) {
    const psf_optics optics{inputs.na, inputs.n, bead.wavelength_um};
    const int fft_size = internal_fft_size(bead, inputs.na, inputs.n);
    if (make_psf_propagator_sized(optics, {bead.size, bead.size, bead.dx_um}, inputs.vector,
                                  fft_size, &result->propagator) != 0) {
        print_message("%s: insufficient memory for the %d-point pupil grid\n", kProgram,
                     fft_size);
        return 1;
    }
    problem pb;
    pb.bead = &bead;
    pb.pr = &result->propagator;
    pb.components = inputs.vector ? kVectorFactors : 1;
    pb.points = std::size_t(pb.pr->side) * pb.pr->side;
    pb.pixels = std::size_t(bead.size) * bead.size;
    const int threads = plane_threads(bead.nz);
    std::unique_ptr<thread_state[]> states;
    result->pupil.reset(new (std::nothrow) std::complex<float>[pb.points]);
    std::unique_ptr<std::complex<float>[]> next(new (std::nothrow) std::complex<float>[pb.points]);
    log->error.reset(new (std::nothrow) double[std::size_t(inputs.iterations)]);
    if (make_step_scale(&pb) != 0 || make_defocus_tables(&pb) != 0 || make_thread_states(pb, threads, &states) != 0 ||
        !result->pupil || !next || !log->error) {
        print_message("%s: insufficient memory for the retrieval's work space\n", kProgram);
        return 1;
    }
    std::span<std::complex<float>> pupil(result->pupil.get(), pb.points);
    double background = bead.background;
    start_pupil(pb, threads, states.get(), background, pupil);

    progress_line progress;
    double best = 1e300;
    log->count = 0;
    for (int it = 0; it < inputs.iterations; ++it) {
        for (int t = 0; t < threads; ++t) {
            thread_state& ts = states[t];
            std::fill_n(ts.pupil_sum.get(), pb.points, std::complex<double>(0));
            ts.misfit = ts.signal = ts.ratio_sum = 0;
        }
        for_planes(bead.nz, threads, states.get(), [&](int k, thread_state* ts) {
            step_plane(pb, pupil, background, k, ts);
        });
        double misfit = 0, signal = 0, ratio_sum = 0;
        for (int t = 0; t < threads; ++t) {
            misfit += states[t].misfit;
            signal += states[t].signal;
            ratio_sum += states[t].ratio_sum;
        }
        double change = 0, norm = 0;
        bool finite = true;
        for (std::size_t k = 0; k < pb.points; ++k) {
            std::complex<double> sum = 0;
            for (int t = 0; t < threads; ++t) sum += states[t].pupil_sum[k];
            const std::complex<double> delta = sum * pb.step_scale[k];
            next[k] = std::complex<float>(std::complex<double>(pupil[k]) + delta);
            change += std::norm(delta);
            norm += std::norm(next[k]);
            finite = finite && std::isfinite(next[k].real()) && std::isfinite(next[k].imag());
        }
        const double error = signal > 0 ? std::sqrt(misfit / signal) : 0.0;
        log->error[it] = error;
        log->count = it + 1;
        progress.update(bead.wavelength_um * 1000.0, it + 1, inputs.iterations, error);
        best = std::min(best, error);
        if (!finite || !std::isfinite(error) || !(norm > 0) ||
            (it > kFirstBackgroundUpdate && error > kDivergence * best)) {
            print_message("%s: the retrieval diverged at iteration %d (error %g, best %g); "
                         "no pupil written\n", kProgram, it + 1, error, best);
            return 1;
        }
        std::copy_n(next.get(), pb.points, pupil.begin());
        // The background that makes the mean of measured over modelled 1,
        // the Poisson likelihood's condition for a constant term.
        if (!bead.background_fixed && it >= kFirstBackgroundUpdate && background > 0)
            background *= ratio_sum / double(pb.pixels * bead.nz);
        result->iterations_done = it + 1;
        result->error = error;
        if (std::sqrt(change / norm) < inputs.tol) break;
    }
    result->background = background;
    return 0;
}

}  // namespace torvel
