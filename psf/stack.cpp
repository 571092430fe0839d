// The PSF stack of a fit file's model: the plan of the stack, progress, the
// normalisation and the writing of the file.

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <memory>
#include <new>


#include <torvel/bulk.hpp>
#include <torvel/imageio.hpp>
#include <torvel/psf.hpp>
#include <torvel/messages.hpp>

namespace torvel {
namespace {

constexpr const char* kProgram = "torvel-psf";

// Bytes of physical memory, or 0 when the system does not say.
double physical_memory_bytes() {
    const long pages = sysconf(_SC_PHYS_PAGES);
    const long page = sysconf(_SC_PAGE_SIZE);
    return pages > 0 && page > 0 ? double(pages) * double(page) : 0.0;
}

// Progress on a terminal: one line, rewritten in place, shown once the
// stack has taken a second, never when standard error is not a terminal.
struct progress_line {
    bool terminal = progress_on_terminal();
    bool shown = false;
    std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point last{};
    int wavelength = 0, wavelengths = 1, planes = 1;

    void update(int done) {
        if (!terminal) return;
        const auto now = std::chrono::steady_clock::now();
        if (now - start < std::chrono::seconds(1)) return;
        if (shown && now - last < std::chrono::milliseconds(100) && done < planes) return;
        last = now;
        shown = true;
        std::fprintf(stderr, "\r%s: wavelength %d of %d, plane %d of %d", kProgram,
                     wavelength + 1, wavelengths, done, planes);
        std::fflush(stderr);
    }
    // Ends the line, so that what is printed next starts on a line of its own.
    void finish() {
        if (shown) std::fputc('\n', stderr);
        shown = false;
    }
    ~progress_line() { finish(); }
};

void report_progress(void* context, int done) { static_cast<progress_line*>(context)->update(done); }

// Divides each wavelength's stack as inputs.normalize asks.
void normalize_stack(psf_normalize how, std::span<float> voxels) {
    if (how == psf_normalize::none) return;
    double scale = 0;
    if (how == psf_normalize::sum) {
        for (const float v : voxels) scale += v;
    } else {
        for (const float v : voxels) scale = std::max(scale, double(v));
    }
    if (!(scale > 0)) return;
    const float factor = float(1.0 / scale);
    for (float& v : voxels) v *= factor;
}

}  // namespace

int plan_psf(const psf_inputs& inputs, const ParametricPupil& model, psf_plan* plan) {
    const double na = get_parametric_pupil_numerical_aperture(&model);
    const double n = get_parametric_pupil_immersion_refractive_index(&model);
    plan->nx = inputs.nx;
    plan->ny = inputs.ny > 0 ? inputs.ny : inputs.nx;
    plan->nz = inputs.nz;
    plan->wavelength_count = inputs.model.wavelength_count;
    double shortest = 1e300;
    for (int s = 0; s < plan->wavelength_count; ++s) {
        plan->wavelength_um[s] =
            get_parametric_pupil_wavelength(&model, inputs.model.wavelength_index[s]);
        shortest = std::min(shortest, plan->wavelength_um[s]);
    }
    // Nyquist for the shortest wavelength: the intensity's lateral band
    // reaches 2 NA/λ, its axial band n(1 - cos α)/λ.
    const double cos_alpha = std::sqrt(std::max(1.0 - (na / n) * (na / n), 0.0));
    plan->dx_um = inputs.dx_nm > 0 ? inputs.dx_nm / 1000.0 : shortest / (4.0 * na);
    plan->dz_um = inputs.dz_nm > 0 ? inputs.dz_nm / 1000.0 : shortest / (2.0 * n * (1.0 - cos_alpha));

    const double voxels = double(plan->nx) * plan->ny * plan->nz * plan->wavelength_count;
    const double bytes = voxels * sizeof(float);
    const double memory = physical_memory_bytes();
    if (voxels > double(PTRDIFF_MAX / 8) || (memory > 0 && bytes > memory)) {
        print_message("%s: a %d x %d x %d stack of %d wavelength(s) needs %.3g GB, more than the "
                     "%.3g GB of memory\n",
                     kProgram, plan->nx, plan->ny, plan->nz, plan->wavelength_count, bytes / 1e9,
                     memory / 1e9);
        return 1;
    }
    return 0;
}

int compute_psf_voxels(const psf_inputs& inputs, ParametricPupil* model, const psf_plan& plan,
                       std::span<float> voxels) {
    const std::size_t per_wavelength = std::size_t(plan.nx) * plan.ny * plan.nz;
    progress_line progress;
    progress.wavelengths = plan.wavelength_count;
    progress.planes = plan.nz;
    for (int s = 0; s < plan.wavelength_count; ++s) {
        progress.wavelength = s;
        const std::span<float> stack = voxels.subspan(std::size_t(s) * per_wavelength, per_wavelength);
        if (compute_model_stack(inputs.model, inputs.vector, model, plan, s, stack, report_progress,
                                &progress) != 0)
            return 1;
        normalize_stack(inputs.normalize, stack);
    }
    return 0;
}

image_stack_header psf_stack_header(const psf_plan& plan) {
    image_stack_header header;
    header.nx = plan.nx;
    header.ny = plan.ny;
    header.nz = plan.nz;
    header.nw = plan.wavelength_count;
    header.dx_um = float(plan.dx_um);
    header.dy_um = float(plan.dx_um);
    header.dz_um = float(plan.dz_um);
    for (int s = 0; s < plan.wavelength_count; ++s)
        header.wavelengths_nm[s] = float(plan.wavelength_um[s] * 1000.0);
    return header;
}

int write_psf_stack(const psf_inputs& inputs, ParametricPupil* model, const psf_plan& plan) {
    const std::size_t total =
        std::size_t(plan.nx) * plan.ny * plan.nz * std::size_t(plan.wavelength_count);
    // Pages in bulk: faulted one by one, those of a large stack cost a
    // good part of computing it.
    bulk_array<float> voxels = allocate_bulk<float>(std::int64_t(total));
    if (!voxels) {
        print_message("%s: insufficient memory for a %d x %d x %d stack\n", kProgram,
                     plan.nx, plan.ny, plan.nz);
        return 1;
    }
    if (compute_psf_voxels(inputs, model, plan, {voxels.get(), total}) != 0) return 1;
    return write_image_stack(inputs.output_name, psf_stack_header(plan), {voxels.get(), total}) != 0
               ? 1
               : 0;
}

}  // namespace torvel
