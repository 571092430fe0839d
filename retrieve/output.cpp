// What torvel-retrieve writes: the pupil image torvel fits, and on request
// the PSF of the retrieved pupil beside the bead and the error per iteration.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <new>

#include <torvel/render.hpp>
#include <torvel/retrieve.hpp>
#include <torvel/safeout.hpp>
#include <torvel/messages.hpp>

namespace torvel {
namespace {

constexpr const char* kProgram = "torvel-retrieve";
constexpr double kPi = 3.14159265358979323846;

// The mean phase gradient of pupil, amplitude-weighted, rad per µm⁻¹ along
// kx and ky: 2π times the in-focus centroid of its PSF, which is where the
// bead sits relative to the crop's centre.
void mean_phase_gradient(const psf_propagator& pr, std::span<const std::complex<float>> pupil,
                         double* gx, double* gy) {
    double sx = 0, sy = 0, power = 0;
    const int side = pr.side;
    for (int q = 1; q + 1 < side; ++q) {
        for (int p = 1; p + 1 < side; ++p) {
            const std::size_t k = std::size_t(q) * side + p;
            if (pr.weight[k] == 0 || pr.weight[k - 1] == 0 || pr.weight[k + 1] == 0 ||
                pr.weight[k - side] == 0 || pr.weight[k + side] == 0)
                continue;
            const std::complex<double> v = pupil[k];
            const std::complex<double> dx = std::complex<double>(pupil[k + 1]) - std::complex<double>(pupil[k - 1]);
            const std::complex<double> dy =
                std::complex<double>(pupil[k + side]) - std::complex<double>(pupil[k - side]);
            sx += std::imag(std::conj(v) * dx) / (2 * pr.dk);
            sy += std::imag(std::conj(v) * dy) / (2 * pr.dk);
            power += std::norm(v);
        }
    }
    *gx = power > 0 ? sx / power : 0.0;
    *gy = power > 0 ? sy / power : 0.0;
}

// The pupil at the centre of point k. A point whose pixel the disc edge
// cuts holds the pupil at the centroid of its covered part, and only weakly
// (the forward model weights it by that part): its centre's value is
// extrapolated from the two fully covered points inward along the axis
// nearer the radial direction, where they exist.
std::complex<double> pupil_at_centre(const psf_propagator& pr,
                                     std::span<const std::complex<float>> pupil, int p, int q) {
    const int side = pr.side, r = pr.radius;
    const std::size_t k = std::size_t(q) * side + p;
    const double full = pr.dk * pr.dk;
    if (pr.weight[k] >= full * (1 - 1e-9)) return pupil[k];
    const int dp = std::abs(p - r) >= std::abs(q - r) ? (p > r ? -1 : 1) : 0;
    const int dq = dp != 0 ? 0 : (q > r ? -1 : 1);
    const int p1 = p + dp, q1 = q + dq, p2 = p + 2 * dp, q2 = q + 2 * dq;
    const std::size_t k1 = std::size_t(q1) * side + p1, k2 = std::size_t(q2) * side + p2;
    if (pr.weight[k1] < full * (1 - 1e-9) || pr.weight[k2] < full * (1 - 1e-9)) return pupil[k];
    return 2.0 * std::complex<double>(pupil[k1]) - std::complex<double>(pupil[k2]);
}

struct pupil_images {
    std::span<const std::complex<float>> images;
    int size;
};

int fill_slot(void* context, int slot, const pupil_grid& grid, float* plane) {
    const auto* c = static_cast<const pupil_images*>(context);
    const std::size_t pixels = std::size_t(grid.nx) * grid.ny;
    const std::complex<float>* image = c->images.data() + std::size_t(slot) * pixels;
    for (std::size_t k = 0; k < pixels; ++k) {
        plane[2 * k] = image[k].real();
        plane[2 * k + 1] = image[k].imag();
    }
    return 0;
}

// Writes text to name through a safe output. Returns 0, or 1 after a message.
int write_text(const char* name, const char* text, std::size_t length) {
    safe_output out;
    if (safe_output_open(name, "w", &out) != 0) {
        print_message("%s: %s: cannot be written\n", kProgram, name);
        return 1;
    }
    if (std::fwrite(text, 1, length, out.stream) != length || safe_output_commit(&out) != 0) {
        print_message("%s: %s: cannot be written\n", kProgram, name);
        return 1;
    }
    return 0;
}

}  // namespace

void pupil_on_image_grid(const retrieval& result, int size, std::span<std::complex<float>> image) {
    const psf_propagator& pr = result.propagator;
    const int ratio = pr.fft_size / size;
    const double cutoff = pr.optics.numerical_aperture / pr.optics.wavelength_um;
    const std::span<const std::complex<float>> pupil(result.pupil.get(),
                                                     std::size_t(pr.side) * pr.side);
    double gx = 0, gy = 0;
    mean_phase_gradient(pr, pupil, &gx, &gy);
    double amplitude = 0, area = 0;
    for (std::size_t k = 0; k < pupil.size(); ++k) {
        amplitude += pr.weight[k] * std::abs(pupil[k]);
        area += pr.weight[k];
    }
    const double scale = amplitude > 0 ? area / amplitude : 1.0;
    const double dk = 1.0 / (size * pr.grid.dx_um);
    for (int j = 0; j < size; ++j) {
        for (int i = 0; i < size; ++i) {
            const double kx = (i - size / 2) * dk, ky = (j - size / 2) * dk;
            const int p = pr.radius + ratio * (i - size / 2), q = pr.radius + ratio * (j - size / 2);
            std::complex<float>& out = image[std::size_t(j) * size + i];
            out = 0;
            if (std::hypot(kx, ky) > cutoff || p < 0 || q < 0 || p >= pr.side || q >= pr.side)
                continue;
            const double tilt = -(gx * kx + gy * ky);
            out = std::complex<float>(pupil_at_centre(pr, pupil, p, q) * std::polar(scale, tilt));
        }
    }
}

render_plan retrieved_pupil_plan(const retrieve_inputs& inputs, const bead_data& data) {
    render_plan plan{};
    plan.nx = plan.ny = inputs.size;
    plan.spacing = float(1.0 / (inputs.size * double(data.header.dx_um)));
    plan.x0 = plan.y0 = float(inputs.size / 2);
    plan.p1 = float(inputs.na * 10.0);
    plan.p2 = float(inputs.n * 100.0);
    plan.lens_id = inputs.lens;
    plan.wavelength_count = data.wavelengths;
    for (int w = 0; w < data.wavelengths; ++w) plan.wavelength_nm[w] = data.header.wavelengths_nm[w];
    return plan;
}

int write_retrieved_pupil(const retrieve_inputs& inputs, const bead_data& data,
                          std::span<const std::complex<float>> images) {
    const render_plan plan = retrieved_pupil_plan(inputs, data);
    char label[81];
    std::snprintf(label, sizeof label, "torvel-retrieve %s%s", inputs.stack_name,
                  inputs.vector ? " -model=vector" : "");
    pupil_images context{images, inputs.size};
    return write_pupil_image(kProgram, inputs.output_name, plan, true, label, fill_slot, &context);
}

int write_retrieved_psf(const retrieve_inputs& inputs, const bead_data& data,
                        std::span<const retrieval> results) {
    const int n = inputs.size, nz = data.header.nz;
    const std::size_t pixels = std::size_t(n) * n, per_wavelength = pixels * nz;
    std::unique_ptr<float[]> voxels(new (std::nothrow) float[per_wavelength * data.wavelengths]);
    if (!voxels) {
        print_message("%s: insufficient memory for the PSF stack\n", kProgram);
        return 1;
    }
    for (int w = 0; w < data.wavelengths; ++w) {
        const retrieval& r = results[w];
        psf_plan plan{n, n, nz, 1, data.header.dx_um, data.header.dz_um, {}};
        const std::span<float> stack(voxels.get() + per_wavelength * w, per_wavelength);
        const std::size_t points = std::size_t(r.propagator.side) * r.propagator.side;
        if (compute_psf_stack(plan, r.propagator, {r.pupil.get(), points}, stack, nullptr,
                              nullptr) != 0)
            return 1;
        for (float& v : stack) v += float(r.background);
    }
    image_stack_header h = data.header;
    h.nx = h.ny = n;
    return write_image_stack(inputs.psf_name, h, {voxels.get(), per_wavelength * data.wavelengths});
}

int write_retrieval_log(const retrieve_inputs& inputs, const bead_data& data,
                        std::span<const retrieval_log> logs) {
    std::size_t rows = 0;
    for (int w = 0; w < data.wavelengths; ++w) rows += std::size_t(logs[w].count);
    const std::size_t room = 64 + rows * 48;
    std::unique_ptr<char[]> text(new (std::nothrow) char[room]);
    if (!text) {
        print_message("%s: insufficient memory for the log\n", kProgram);
        return 1;
    }
    std::size_t used = std::size_t(std::snprintf(text.get(), room, "wavelength_nm,iteration,error\n"));
    for (int w = 0; w < data.wavelengths; ++w)
        for (int i = 0; i < logs[w].count; ++i)
            used += std::size_t(std::snprintf(text.get() + used, room - used, "%.1f,%d,%.9g\n",
                                              double(data.header.wavelengths_nm[w]), i + 1,
                                              logs[w].error[i]));
    return write_text(inputs.log_name, text.get(), used);
}

int write_retrieval_outputs(const retrieve_inputs& inputs, const bead_data& data,
                            std::span<const retrieval> results,
                            std::span<const retrieval_log> logs) {
    const std::size_t pixels = std::size_t(inputs.size) * inputs.size;
    std::unique_ptr<std::complex<float>[]> images(
        new (std::nothrow) std::complex<float>[pixels * data.wavelengths]);
    if (!images) {
        print_message("%s: insufficient memory for the pupil image\n", kProgram);
        return 1;
    }
    for (int w = 0; w < data.wavelengths; ++w)
        pupil_on_image_grid(results[w], inputs.size, {images.get() + pixels * w, pixels});
    if (write_retrieved_pupil(inputs, data, {images.get(), pixels * data.wavelengths}) != 0)
        return 1;
    if (inputs.psf_name != nullptr && write_retrieved_psf(inputs, data, results) != 0) return 1;
    if (inputs.log_name != nullptr && write_retrieval_log(inputs, data, logs) != 0) return 1;
    return 0;
}

}  // namespace torvel
