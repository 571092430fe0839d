// Makes the sample pupil function image that ships with torvel, from stated
// aberrations, and compares a fit of it with those aberrations.
//
//   make_sample_pupil image.mrc [-size=N] [-mode=2|4] [-noise=0|1]
//       writes a two-wavelength pupil function image (525 and 617 nm, NA 1.4,
//       immersion index 1.515, lens 12), complex (mode 4, the default) or as
//       amplitude and phase sections (mode 2)
//   make_sample_pupil --truth fit.txt
//       writes the coefficients the image was made from as a fit file
//   make_sample_pupil --compare fit.txt
//       prints the fitted coefficients of fit.txt beside the true ones
//
// The radial polynomials are computed here from their factorial sum, apart
// from torvel's own code, so that a fit of the sample checks torvel against
// an independent model. The noise comes from a fixed-seed xorshift generator,
// so the same command remakes the same file.

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <torvel/imageio.hpp>
#include <torvel/pupil.hpp>

namespace {

constexpr double kPi = 3.141592653589793;
constexpr float kWavelengthsNm[2] = {525.0f, 617.0f};
constexpr float kNumericalAperture = 1.4f;
constexpr float kImmersionIndex = 1.515f;
constexpr int kLensId = 12;
constexpr int kOrder = 8;          // both series are given and fitted as the set (8, 0)
constexpr int kTerms = 37;         // 8 * 9 / 2 + 0 + 1
constexpr float kDiscFill = 0.7f;  // pupil radius at 525 nm as a fraction of half the width

// One aberration: coefficient of R_n^l(rho) times cos(l theta) (or sin).
struct Term {
    int n;
    int l;
    bool sine;
    double value;
};

// Amplitude: apodised, falling from 0.97 at the centre to 0.77 at the edge.
const std::vector<Term> kAmplitude = {
    {0, 0, false, 0.9}, {2, 0, false, -0.1}, {4, 0, false, -0.03}};

// Phase at 525 nm, radians. The defocus spans three turns across the pupil;
// the piston is set so that the centre, where unwrapping starts, lies near 0.3.
const std::vector<Term> kPhase = {{1, 1, false, 0.4}, {2, 0, false, 9.0}, {2, 2, false, 1.2},
                                  {2, 2, true, -0.6}, {3, 1, false, 0.8}, {3, 1, true, -0.5},
                                  {4, 0, false, 1.5}, {6, 0, false, -0.3}};

double factorial(int k) {
    double f = 1.0;
    for (int i = 2; i <= k; ++i) f *= i;
    return f;
}

double radial(int n, int m, double rho) {
    double sum = 0.0;
    for (int k = 0; k <= (n - m) / 2; ++k) {
        const double c = factorial(n - k) /
                         (factorial(k) * factorial((n + m) / 2 - k) * factorial((n - m) / 2 - k));
        sum += ((k % 2) ? -c : c) * std::pow(rho, n - 2 * k);
    }
    return sum;
}

int slot_of(const Term& t) {
    const int base = t.n * (t.n + 1) / 2;
    return t.l == 0 ? base : base + t.l - 1 + (t.sine ? 1 : 0);
}

double evaluate(const std::vector<Term>& terms, double rho, double theta, double scale) {
    double sum = 0.0;
    for (const Term& t : terms) {
        const double angular =
            t.l == 0 ? 1.0 : (t.sine ? std::sin(t.l * theta) : std::cos(t.l * theta));
        sum += t.value * scale * radial(t.n, t.l, rho) * angular;
    }
    return sum;
}

// The phase terms with the piston that puts the centre at 0.3 rad.
std::vector<Term> phase_terms() {
    std::vector<Term> terms = kPhase;
    terms.push_back({0, 0, false, 0.0});
    terms.back().value = 0.3 - evaluate(kPhase, 0.0, 0.0, 1.0);
    return terms;
}

// Coefficients of wavelength w in slot order. The phase is an optical path
// difference, so it scales with 525 nm / wavelength.
std::vector<double> coefficients(const std::vector<Term>& terms, double scale) {
    std::vector<double> c(kTerms, 0.0);
    for (const Term& t : terms) c[slot_of(t)] += t.value * scale;
    return c;
}

double phase_scale(int w) {
    return kWavelengthsNm[0] / kWavelengthsNm[w];
}

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

struct Options {
    std::string image;
    int size = 256;
    int mode = 4;
    bool noise = true;
};

int write_image(const Options& o) {
    const float dx =
        kNumericalAperture / (kWavelengthsNm[0] / 1000.0f) / (kDiscFill * o.size / 2.0f);
    const float origin = -(o.size / 2) * dx;
    if (torvel::image_open(1, o.image.c_str(), "new") != 0) return 1;
    torvel::image_set_dimensions(1, o.size, o.size);
    torvel::image_set_zwt_sizes(1, o.mode == 4 ? 1 : 2, 2, 1, 0);
    torvel::image_set_wavelengths(1, 2, kWavelengthsNm);
    torvel::image_set_type_info(1, 8000, kLensId, 0, 0, kNumericalAperture * 10.0f,
                                kImmersionIndex * 100.0f);
    torvel::image_set_pixel_mode(1, o.mode);
    torvel::image_set_pixel_spacing(1, dx, dx, 1.0f);
    torvel::image_set_origin(1, origin, origin, 0.0f);
    torvel::image_add_label(1, "torvel sample pupil: remake with sample/make_sample_pupil");

    const std::vector<Term> phase = phase_terms();
    const std::size_t pixels = std::size_t(o.size) * o.size;
    std::vector<float> amplitude(pixels), wrapped(pixels), complex(2 * pixels);
    Xorshift noise;
    for (int w = 0; w < 2; ++w) {
        const double radius = kNumericalAperture / (kWavelengthsNm[w] / 1000.0) / dx;
        for (int iy = 0; iy < o.size; ++iy) {
            for (int ix = 0; ix < o.size; ++ix) {
                const double x = ix - o.size / 2, y = iy - o.size / 2;
                const double rho = std::sqrt(x * x + y * y) / radius;
                const double theta = std::atan2(y, x);
                double a = 0.0, p = 0.0;
                if (rho <=
                    1.0 + 2.0 / radius) {  // edge pixels just outside rho = 1 are sampled too
                    a = evaluate(kAmplitude, rho, theta, 1.0);
                    p = evaluate(phase, rho, theta, phase_scale(w));
                    if (o.noise) {
                        a += 0.003 * noise.gaussian();
                        p += 0.01 * noise.gaussian();
                    }
                }
                const std::size_t k = std::size_t(iy) * o.size + ix;
                amplitude[k] = static_cast<float>(a);
                wrapped[k] = static_cast<float>(std::remainder(p, 2.0 * kPi));
                complex[2 * k] = static_cast<float>(a * std::cos(p));
                complex[2 * k + 1] = static_cast<float>(a * std::sin(p));
            }
        }
        if (o.mode == 4) {
            torvel::image_seek_section(1, 0, w, 0);
            torvel::image_write_section(1, complex.data());
        } else {
            torvel::image_seek_section(1, 0, w, 0);
            torvel::image_write_section(1, amplitude.data());
            torvel::image_seek_section(1, 1, w, 0);
            torvel::image_write_section(1, wrapped.data());
        }
    }
    // Statistics "not computed" in the format's own convention (max below min).
    torvel::image_write_header(1, nullptr, -1, 1.0f, 0.0f, -1.0f);
    torvel::image_close(1);
    return 0;
}

torvel::ParametricPupil* make_truth() {
    torvel::ParametricPupil* pupil = torvel::create_parametric_pupil();
    if (!pupil || !torvel::set_parametric_pupil_wavelength_count(pupil, 2) ||
        !torvel::set_parametric_pupil_na_nimm(pupil, kNumericalAperture, kImmersionIndex) ||
        !torvel::set_parametric_pupil_lens_id(pupil, kLensId) ||
        !torvel::set_parametric_pupil_amplitude_zernike_orders(pupil, kOrder, 0) ||
        !torvel::set_parametric_pupil_phase_zernike_orders(pupil, kOrder, 0)) {
        torvel::destroy_parametric_pupil(pupil);
        return nullptr;
    }
    for (int w = 0; w < 2; ++w) {
        torvel::set_parametric_pupil_wavelength(pupil, w, kWavelengthsNm[w] / 1000.0f);
        const std::vector<double> a = coefficients(kAmplitude, 1.0);
        const std::vector<double> p = coefficients(phase_terms(), phase_scale(w));
        std::memcpy(torvel::get_parametric_pupil_amplitude_zernike_coeff(pupil, w), a.data(),
                    sizeof(double) * kTerms);
        std::memcpy(torvel::get_parametric_pupil_phase_zernike_coeff(pupil, w), p.data(),
                    sizeof(double) * kTerms);
    }
    return pupil;
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

void compare_series(const char* what, const double* fitted, const double* truth) {
    std::printf("  %-9s  %-10s %12s %12s\n", what, "term", "fitted", "made from");
    double largest_other = 0.0;
    int largest_slot = 0;
    for (int k = 0; k < kTerms; ++k) {
        if (truth[k] != 0.0) {
            std::printf("  %-9s  %-10s %12.6f %12.6f\n", "", term_name(k).c_str(), fitted[k],
                        truth[k]);
        } else if (std::fabs(fitted[k]) > std::fabs(largest_other)) {
            largest_other = fitted[k];
            largest_slot = k;
        }
    }
    std::printf("  %-9s  largest term not in the model: %s = %.6f\n", "",
                term_name(largest_slot).c_str(), largest_other);
}

int compare(const char* fit_name) {
    std::int32_t code = 0, line = 0, column = 0;
    torvel::ParametricPupil* fit = torvel::read_parametric_pupil(fit_name, &code, &line, &column);
    if (!fit) {
        std::fprintf(stderr, "make_sample_pupil: cannot read %s: error %d at line %d, column %d\n",
                     fit_name, code, line, column);
        return 1;
    }
    torvel::ParametricPupil* truth = make_truth();
    int status = 0;
    if (!truth || torvel::get_parametric_pupil_wavelength_count(fit) != 2 ||
        torvel::get_parametric_pupil_amplitude_zernike_count(fit) != kTerms ||
        torvel::get_parametric_pupil_phase_zernike_count(fit) != kTerms) {
        std::fprintf(stderr,
                     "make_sample_pupil: %s is not a fit of the sample with the default sets\n",
                     fit_name);
        status = 1;
    } else {
        for (int w = 0; w < 2; ++w) {
            std::printf("wavelength %.3f um\n", torvel::get_parametric_pupil_wavelength(fit, w));
            compare_series("amplitude",
                           torvel::get_parametric_pupil_amplitude_zernike_coeff(fit, w),
                           torvel::get_parametric_pupil_amplitude_zernike_coeff(truth, w));
            compare_series("phase", torvel::get_parametric_pupil_phase_zernike_coeff(fit, w),
                           torvel::get_parametric_pupil_phase_zernike_coeff(truth, w));
        }
    }
    torvel::destroy_parametric_pupil(truth);
    torvel::destroy_parametric_pupil(fit);
    return status;
}

int write_truth(const char* name) {
    torvel::ParametricPupil* truth = make_truth();
    std::int32_t code = 0;
    const bool ok = truth && torvel::write_parametric_pupil(truth, name, &code);
    torvel::destroy_parametric_pupil(truth);
    if (!ok) std::fprintf(stderr, "make_sample_pupil: cannot write %s\n", name);
    return ok ? 0 : 1;
}

bool parse_int_option(const char* arg, const char* prefix, int* value) {
    const std::size_t len = std::strlen(prefix);
    if (std::strncmp(arg, prefix, len) != 0) return false;
    char* end = nullptr;
    *value = static_cast<int>(std::strtol(arg + len, &end, 10));
    return end != arg + len && *end == '\0';
}

int usage() {
    std::fprintf(stderr,
                 "usage: make_sample_pupil image.mrc [-size=N] [-mode=2|4] [-noise=0|1]\n"
                 "       make_sample_pupil --truth fit.txt\n"
                 "       make_sample_pupil --compare fit.txt\n");
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "--compare") == 0) return compare(argv[2]);
    if (argc == 3 && std::strcmp(argv[1], "--truth") == 0) return write_truth(argv[2]);
    if (argc < 2 || argv[1][0] == '-') return usage();
    Options o;
    o.image = argv[1];
    for (int i = 2; i < argc; ++i) {
        int noise = 1;
        if (parse_int_option(argv[i], "-size=", &o.size) && o.size >= 8 && o.size <= 4096) continue;
        if (parse_int_option(argv[i], "-mode=", &o.mode) && (o.mode == 2 || o.mode == 4)) continue;
        if (parse_int_option(argv[i], "-noise=", &noise)) {
            o.noise = noise != 0;
            continue;
        }
        return usage();
    }
    return write_image(o);
}
