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
    const bool has_amplitude = an >= 0 && amplitude != nullptr, has_phase = pn >= 0 && phase != nullptr;
    // Both series read one table of powers and angles per point.
    ZernikeTableSize size{0, 0};
    for (const ZernikeTableSize s : {zernike_table_size(has_amplitude ? an : -1, am),
                                     zernike_table_size(has_phase ? pn : -1, pm)}) {
        size.order = std::max(size.order, s.order);
        size.frequency = std::max(size.frequency, s.frequency);
    }
    const int side = pr.side;
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
            const double rho = std::hypot(kx, ky) / cutoff, theta = std::atan2(ky, kx);
            const bool tabled = fill_zernike_tables(rho, theta, size, &tables);
            auto series = [&](int n, int m, const double* coeff) {
                return tabled ? evaluate_zernike_series_from_tables(tables, n, m, coeff)
                              : evaluate_zernike_series(rho, theta, n, m, coeff);
            };
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
    std::unique_ptr<psf_work[]> works(new (std::nothrow) psf_work[std::size_t(threads)]);
    if (!works) return 1;
    for (int t = 0; t < threads; ++t) {
        if (make_psf_work(propagator, &works[t]) != 0) {
            print_message("%s: insufficient memory for the work planes\n", "torvel-psf");
            return 1;
        }
    }
    const std::size_t pixels = std::size_t(plan.nx) * plan.ny;
    std::atomic<int> done{0};
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
        // In runs of planes, so that progress can be shown; each run's
        // first plane takes its defocus afresh, the others by a product.
        const int run = std::max(16, (end - first + 7) / 8);
        for (int k = first; k < end; k += run) {
            const int count = std::min(run, end - k);
            psf_intensity_planes(propagator, pupil, double(k - plan.nz / 2) * plan.dz_um,
                                 plan.dz_um, count, &works[t],
                                 voxels.subspan(std::size_t(k) * pixels, std::size_t(count) * pixels));
            const int now = done.fetch_add(count) + count;
            if (t == 0 && progress != nullptr) progress(context, now);
        }
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
