// Makes the sample pupil function image that ships with torvel from the
// image torvel-render makes of the sample's model, and compares a fit of the
// sample with that model.
//
//   make_sample_pupil rendered.mrc pupil.mrc
//       copies rendered.mrc (complex or amplitude and phase sections) to
//       pupil.mrc with the sample's noise added wherever the pupil is not 0:
//       Gaussian, standard deviation 0.003 on the amplitude and 0.01 rad on
//       the phase
//   make_sample_pupil --compare fit.txt model_fit.txt
//       prints the fitted coefficients of fit.txt beside those of the model
//
// The noise comes from a fixed-seed xorshift generator, so the same command
// remakes the same file. The pupil itself is torvel-render's alone, so the
// sample and the renderer cannot drift apart.

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include <torvel/imageio.hpp>
#include <torvel/pupil.hpp>

namespace {

constexpr double kPi = 3.141592653589793;
constexpr double kAmplitudeNoise = 0.003;
constexpr double kPhaseNoise = 0.01;
constexpr int kInput = 1;
constexpr int kOutput = 2;

struct Xorshift {
    std::uint64_t state = 0x9E3779B97F4A7C15ull;
    double uniform() {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        return (static_cast<double>(state >> 11) + 0.5) / 9007199254740992.0;
    }
    double gaussian() {
        return std::sqrt(-2.0 * std::log(uniform())) * std::cos(2.0 * kPi * uniform());
    }
};

// Adds noise to the pixels of one wavelength where the pupil is not 0: a
// complex plane, or an amplitude and a phase plane.
void add_noise(bool complex, std::size_t pixels, float* a, float* p, Xorshift* noise) {
    for (std::size_t k = 0; k < pixels; ++k) {
        double amplitude = complex ? std::hypot(a[2 * k], a[2 * k + 1]) : a[k];
        double phase = complex ? std::atan2(a[2 * k + 1], a[2 * k]) : p[k];
        if (amplitude == 0.0) continue;
        amplitude += kAmplitudeNoise * noise->gaussian();
        phase += kPhaseNoise * noise->gaussian();
        if (complex) {
            a[2 * k] = static_cast<float>(amplitude * std::cos(phase));
            a[2 * k + 1] = static_cast<float>(amplitude * std::sin(phase));
        } else {
            a[k] = static_cast<float>(amplitude);
            p[k] = static_cast<float>(phase);
        }
    }
}

int add_noise_to_image(const char* rendered, const char* sample) {
    if (torvel::image_open(kInput, rendered, "ro") != 0) return 1;
    int dims[3], second[3], mode, nz, nw, nt, order;
    float dmin, dmax, dmean;
    torvel::image_read_header(kInput, dims, second, &mode, &dmin, &dmax, &dmean);
    torvel::image_get_zwt_sizes(kInput, &nz, &nw, &nt, &order);
    const bool complex = mode == 3 || mode == 4;
    const std::size_t pixels = std::size_t(dims[0]) * std::size_t(dims[1]);
    std::unique_ptr<float[]> a(new (std::nothrow) float[2 * pixels]);
    std::unique_ptr<float[]> p(new (std::nothrow) float[pixels]);
    if (!a || !p || nz != (complex ? 1 : 2) || torvel::image_open(kOutput, sample, "new") != 0) {
        std::fprintf(stderr, "make_sample_pupil: cannot make %s from %s\n", sample, rendered);
        torvel::image_close(kInput);
        return 1;
    }
    torvel::image_copy_header(kOutput, kInput);
    torvel::image_add_label(kOutput, "torvel sample pupil: noise by sample/make_sample_pupil");
    Xorshift noise;
    int failed = 0;
    for (int w = 0; w < nw && failed == 0; ++w) {
        for (int z = 0; z < nz; ++z) {
            failed |= torvel::image_seek_section(kInput, z, w, 0) |
                      torvel::image_read_section(kInput, z == 0 ? a.get() : p.get());
        }
        if (failed != 0) break;
        add_noise(complex, pixels, a.get(), p.get(), &noise);
        for (int z = 0; z < nz; ++z) {
            failed |= torvel::image_seek_section(kOutput, z, w, 0) |
                      torvel::image_write_section(kOutput, z == 0 ? a.get() : p.get());
        }
    }
    torvel::image_close(kInput);
    if (failed != 0) {
        torvel::image_discard(kOutput);
        return 1;
    }
    // Statistics "not computed" in the format's own convention (max below min).
    torvel::image_write_header(kOutput, nullptr, -1, 1.0f, 0.0f, -1.0f);
    return torvel::image_close(kOutput) != 0 ? 1 : 0;
}

struct PupilDeleter {
    void operator()(torvel::ParametricPupil* p) const { torvel::destroy_parametric_pupil(p); }
};
using Pupil = std::unique_ptr<torvel::ParametricPupil, PupilDeleter>;

Pupil read_fit(const char* name) {
    std::int32_t code = 0, line = 0, column = 0;
    Pupil p(torvel::read_parametric_pupil(name, &code, &line, &column));
    if (!p)
        std::fprintf(stderr, "make_sample_pupil: cannot read %s: error %d at line %d, column %d\n",
                     name, code, line, column);
    return p;
}

// "R4^2 cos" and the like for a slot of the term order: within order n the
// symmetric term (n even) comes first, then a cosine and a sine per frequency.
std::string term_name(int slot) {
    int n = 0;
    while ((n + 1) * (n + 2) / 2 <= slot) ++n;
    const int offset = slot - n * (n + 1) / 2;
    if (n % 2 == 0 && offset == 0) return "R" + std::to_string(n) + "^0";
    const int pair = (n % 2 == 0) ? (offset - 1) / 2 : offset / 2;
    const int frequency = (n % 2 == 0) ? 2 * pair + 2 : 2 * pair + 1;
    const bool sine = (n % 2 == 0) ? offset % 2 == 0 : offset % 2 == 1;
    return "R" + std::to_string(n) + "^" + std::to_string(frequency) + (sine ? " sin" : " cos");
}

void compare_series(const char* what, int terms, const double* fitted, const double* model) {
    std::printf("  %-9s  %-10s %12s %12s\n", what, "term", "fitted", "made from");
    double largest_other = 0.0;
    int largest_slot = 0;
    for (int k = 0; k < terms; ++k) {
        if (model[k] != 0.0) {
            std::printf("  %-9s  %-10s %12.6f %12.6f\n", "", term_name(k).c_str(), fitted[k],
                        model[k]);
        } else if (std::fabs(fitted[k]) > std::fabs(largest_other)) {
            largest_other = fitted[k];
            largest_slot = k;
        }
    }
    std::printf("  %-9s  largest term not in the model: %s = %.6f\n", "",
                term_name(largest_slot).c_str(), largest_other);
}

int compare(const char* fit_name, const char* model_name) {
    const Pupil fit = read_fit(fit_name), model = read_fit(model_name);
    if (!fit || !model) return 1;
    const int waves = torvel::get_parametric_pupil_wavelength_count(model.get());
    const int amplitude_terms = torvel::get_parametric_pupil_amplitude_zernike_count(model.get());
    const int phase_terms = torvel::get_parametric_pupil_phase_zernike_count(model.get());
    if (torvel::get_parametric_pupil_wavelength_count(fit.get()) != waves ||
        torvel::get_parametric_pupil_amplitude_zernike_count(fit.get()) != amplitude_terms ||
        torvel::get_parametric_pupil_phase_zernike_count(fit.get()) != phase_terms) {
        std::fprintf(stderr, "make_sample_pupil: %s is not a fit with the sets of %s\n", fit_name,
                     model_name);
        return 1;
    }
    for (int w = 0; w < waves; ++w) {
        std::printf("wavelength %.3f um\n", torvel::get_parametric_pupil_wavelength(fit.get(), w));
        compare_series("amplitude", amplitude_terms,
                       torvel::get_parametric_pupil_amplitude_zernike_coeff(fit.get(), w),
                       torvel::get_parametric_pupil_amplitude_zernike_coeff(model.get(), w));
        compare_series("phase", phase_terms,
                       torvel::get_parametric_pupil_phase_zernike_coeff(fit.get(), w),
                       torvel::get_parametric_pupil_phase_zernike_coeff(model.get(), w));
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::strcmp(argv[1], "--compare") == 0) return compare(argv[2], argv[3]);
    if (argc == 3 && argv[1][0] != '-') return add_noise_to_image(argv[1], argv[2]);
    std::fprintf(stderr,
                 "usage: make_sample_pupil rendered.mrc pupil.mrc\n"
                 "       make_sample_pupil --compare fit.txt model_fit.txt\n");
    return 1;
}
