// A whole stack from a pupil: the model's pupil on the propagator's grid,
// and the planes computed in parallel, each thread on a run of neighbouring
// planes with work space of its own; one wavelength of a model's stack.

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <memory>
#include <new>

#ifdef _OPENMP
#include <omp.h>
#endif

#include <torvel/psf.hpp>
#include <torvel/zernike.hpp>
#include <torvel/messages.hpp>

namespace torvel {
int plane_threads(int planes) {
#ifdef _OPENMP
    return std::clamp(omp_get_max_threads(), 1, std::max(planes, 1));
#else
    (void)planes;
    return 1;
#endif
}

namespace {

// The planes all threads of a stack have done, and the progress report
// one of them makes.
struct plane_counter {
    std::atomic<int>* done;
    void (*progress)(void* context, int planes_done);
    void* context;
};

// What fill_zernike_tables gives at pupil point (kx, ky), rho = |k| / cutoff,
// by products instead of pow and sincos: rho^j one product after another,
// cos and sin of l theta by the angle-addition recurrence from kx / |k| and
// ky / |k|. They agree with the library's to a few units in the last place,
// far below the float the pupil is kept in, at a fraction of the time.
void fill_point_tables(double rho, double kx, double ky, ZernikeTableSize size,
                       ZernikeTables* tables) {
    tables->order = size.order;
    tables->frequency = size.frequency;
    tables->powers[0] = 1.0;
    for (int j = 1; j <= size.order; ++j) tables->powers[j] = tables->powers[j - 1] * rho;
    const double k = std::hypot(kx, ky);
    const double c = k > 0 ? kx / k : 1.0, s = k > 0 ? ky / k : 0.0;
    double* cs = tables->cos_sin;
    cs[0] = 1.0;
    cs[1] = 0.0;
    for (int l = 1; l <= size.frequency; ++l) {
        cs[2 * l] = cs[2 * l - 2] * c - cs[2 * l - 1] * s;
        cs[2 * l + 1] = cs[2 * l - 1] * c + cs[2 * l - 2] * s;
    }
}

void count_plane(void* counter) {
    auto* c = static_cast<plane_counter*>(counter);
    const int now = c->done->fetch_add(1) + 1;
    if (c->progress != nullptr) c->progress(c->context, now);
}

}  // namespace

void evaluate_model_pupil(const model_choice& choice, ParametricPupil* model, int w,
                          const psf_propagator& pr, std::span<std::complex<float>> pupil) {
    std::int32_t an = -1, am = -1, pn = -1, pm = -1;
    const double* amplitude = nullptr;
    if (!choice.uniform_amplitude) {
        get_parametric_pupil_amplitude_zernike_orders(model, &an, &am);
        amplitude = get_parametric_pupil_amplitude_zernike_coeff(model, w);
    }
    get_parametric_pupil_phase_zernike_orders(model, &pn, &pm);
    const double* phase = get_parametric_pupil_phase_zernike_coeff(model, w);
    const double cutoff = pr.optics.numerical_aperture / pr.optics.wavelength_um;
    const bool has_amplitude = an >= 0 && amplitude != nullptr,
               has_phase = pn >= 0 && phase != nullptr;
    // Both series read one table of powers and angles per point.
    ZernikeTableSize size{0, 0};
    for (const ZernikeTableSize s : {zernike_table_size(has_amplitude ? an : -1, am),
                                     zernike_table_size(has_phase ? pn : -1, pm)}) {
        size.order = std::max(size.order, s.order);
        size.frequency = std::max(size.frequency, s.frequency);
    }
    const int side = pr.side;
    const bool tabled =
        size.order <= zernike_table_max_order && size.frequency <= zernike_table_max_order;
#ifdef _OPENMP
#pragma omp parallel for schedule(static) num_threads(plane_threads(side))
#endif
    for (int q = 0; q < side; ++q) {
        ZernikeTables tables;
        for (int p = 0; p < side; ++p) {
            const std::size_t k = std::size_t(q) * side + p;
            if (!psf_pupil_point_used(pr, p, q)) {
                pupil[k] = 0;
                continue;
            }
            const double kx = pr.sample_kx[k], ky = pr.sample_ky[k];
            const double rho = std::hypot(kx, ky) / cutoff;
            auto series = [&](int n, int m, const double* coeff) {
                return tabled ? evaluate_zernike_series_from_tables(tables, n, m, coeff)
                              : evaluate_zernike_series(rho, std::atan2(ky, kx), n, m, coeff);
            };
            if (tabled) fill_point_tables(rho, kx, ky, size, &tables);
            const double a = has_amplitude ? series(an, am, amplitude) : 1.0;
            const double phi = has_phase ? series(pn, pm, phase) : 0.0;
            pupil[k] = std::complex<float>(std::polar(a, phi));
        }
    }
}

int compute_psf_stack(const psf_plan& plan, const psf_propagator& propagator,
                      std::span<const std::complex<float>> pupil, std::span<float> voxels,
                      void (*progress)(void* context, int planes_done), void* context) {
    const int threads = plane_threads(plan.nz);
    const std::size_t pixels = std::size_t(plan.nx) * plan.ny;
    std::atomic<int> done{0};
    std::atomic<bool> failed{false};
    // Each thread takes a run of neighbouring planes, so that its defocus
    // factors advance by one product per plane.
#ifdef _OPENMP
#pragma omp parallel num_threads(threads)
#endif
    {
#ifdef _OPENMP
        const int t = omp_get_thread_num();
#else
        const int t = 0;
#endif
        const int first = int(std::int64_t(plan.nz) * t / threads);
        const int end = int(std::int64_t(plan.nz) * (t + 1) / threads);
        // Every thread counts its planes; thread 0 shows the count. Each
        // makes its own work, so that the pages are had side by side.
        plane_counter counter{&done, t == 0 ? progress : nullptr, context};
        psf_work work;
        if (make_psf_work(propagator, psf_work_use::intensity, &work) != 0)
            failed.store(true);
        else
            psf_intensity_planes(
                propagator, pupil, double(first - plan.nz / 2) * plan.dz_um, plan.dz_um,
                end - first, &work,
                voxels.subspan(std::size_t(first) * pixels, std::size_t(end - first) * pixels),
                count_plane, &counter);
    }
    if (failed.load()) {
        print_message("%s: insufficient memory for the work planes\n", "torvel-psf");
        return 1;
    }
    if (progress != nullptr) progress(context, plan.nz);
    return 0;
}

int compute_model_stack(const model_choice& choice, bool vector, ParametricPupil* model,
                        const psf_plan& plan, int slot, std::span<float> stack,
                        void (*progress)(void* context, int planes_done), void* context) {
    const psf_optics optics{get_parametric_pupil_numerical_aperture(model),
                            get_parametric_pupil_immersion_refractive_index(model),
                            plan.wavelength_um[slot]};
    psf_propagator propagator;
    if (make_psf_propagator(optics, {plan.nx, plan.ny, plan.dx_um}, vector, kDefaultDiscPixels,
                            &propagator) != 0) {
        print_message("%s: insufficient memory for the pupil grid\n", "torvel-psf");
        return 1;
    }
    const std::size_t points = std::size_t(propagator.side) * propagator.side;
    std::unique_ptr<std::complex<float>[]> pupil(new (std::nothrow) std::complex<float>[points]);
    if (!pupil) {
        print_message("%s: insufficient memory for the pupil grid\n", "torvel-psf");
        return 1;
    }
    evaluate_model_pupil(choice, model, choice.wavelength_index[slot], propagator,
                         {pupil.get(), points});
    return compute_psf_stack(plan, propagator, {pupil.get(), points}, stack, progress, context);
}

}  // namespace torvel
