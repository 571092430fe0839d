// The forward model of torvel-psf against what it must equal: the Airy
// pattern and the paraxial axial intensity of a clear low-NA pupil, the
// defining integral computed by an independent quadrature (Gauss-Legendre in
// the pupil radius, uniform in angle, so the disc edge is integrated exactly)
// for aberrated high-NA pupils in both models, and the way astigmatism and
// tilt move the light.

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <cstdio>
#include <functional>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include <torvel/psf.hpp>
#include <torvel/zernike.hpp>

namespace torvel {
namespace {

constexpr double kPi = 3.14159265358979323846;
using pupil_function = std::function<std::complex<double>(double rho, double theta)>;

struct stack {
    int nx, ny, nz;
    double dx, dz;
    std::vector<float> voxels;
    float at(int i, int j, int k) const { return voxels[(std::size_t(k) * ny + j) * nx + i]; }
    double x(int i) const { return (i - nx / 2) * dx; }
    double y(int j) const { return (j - ny / 2) * dx; }
    double z(int k) const { return (k - nz / 2) * dz; }
};

// The pupil on propagator pr's sample points.
std::vector<std::complex<float>> sampled(const psf_propagator& pr, const psf_optics& optics,
                                         const pupil_function& pupil) {
    const double cutoff = optics.numerical_aperture / optics.wavelength_um;
    std::vector<std::complex<float>> values(std::size_t(pr.side) * pr.side);
    for (std::size_t at = 0; at < values.size(); ++at)
        values[at] =
            std::complex<float>(pupil(std::hypot(pr.sample_kx[at], pr.sample_ky[at]) / cutoff,
                                      std::atan2(pr.sample_ky[at], pr.sample_kx[at])));
    return values;
}

// torvel-psf's stack of pupil on the given grid, in µm⁻⁴.
stack computed(const psf_optics& optics, int nx, int ny, int nz, double dx, double dz, bool vector,
               const pupil_function& pupil) {
    psf_propagator pr;
    EXPECT_EQ(make_psf_propagator(optics, {nx, ny, dx}, vector, kDefaultDiscPixels, &pr), 0);
    const std::vector<std::complex<float>> values = sampled(pr, optics, pupil);
    stack s{nx, ny, nz, dx, dz, std::vector<float>(std::size_t(nx) * ny * nz)};
    const psf_plan plan{nx, ny, nz, 1, dx, dz, {optics.wavelength_um}};
    EXPECT_EQ(compute_psf_stack(plan, pr, values, s.voxels, nullptr, nullptr), 0);
    return s;
}

// Nodes and weights of n-point Gauss-Legendre quadrature on [0, 1].
void gauss_legendre(int n, std::vector<double>* nodes, std::vector<double>* weights) {
    nodes->resize(std::size_t(n));
    weights->resize(std::size_t(n));
    for (int i = 0; i < n; ++i) {
        double x = std::cos(kPi * (i + 0.75) / (n + 0.5)), derivative = 0;
        for (int iteration = 0; iteration < 100; ++iteration) {
            double p0 = 1, p1 = x;
            for (int k = 2; k <= n; ++k) {
                const double p2 = ((2 * k - 1) * x * p1 - (k - 1) * p0) / k;
                p0 = p1;
                p1 = p2;
            }
            derivative = n * (x * p1 - p0) / (x * x - 1);
            const double step = p1 / derivative;
            x -= step;
            if (std::abs(step) < 1e-15) break;
        }
        (*nodes)[std::size_t(i)] = 0.5 * (1 - x);
        (*weights)[std::size_t(i)] = 1.0 / ((1 - x * x) * derivative * derivative) * 2 * 0.5;
    }
}

// The defining integral at (x, y, z) by polar quadrature over the disc.
double exact_intensity(const psf_optics& optics, const pupil_function& pupil, bool vector, double x,
                       double y, double z) {
    constexpr int kRadial = 120, kAngular = 320;
    std::vector<double> r, wr;
    gauss_legendre(kRadial, &r, &wr);
    const double cutoff = optics.numerical_aperture / optics.wavelength_um;
    const double n_over_lambda = optics.immersion_index / optics.wavelength_um;
    std::complex<double> e[kVectorFactors] = {};
    for (int a = 0; a < kRadial; ++a) {
        const double k = r[std::size_t(a)] * cutoff;
        const double kz = std::sqrt(n_over_lambda * n_over_lambda - k * k);
        const double w = wr[std::size_t(a)] * cutoff * k * (2 * kPi / kAngular);
        for (int b = 0; b < kAngular; ++b) {
            const double theta = 2 * kPi * b / kAngular;
            const double kx = k * std::cos(theta), ky = k * std::sin(theta);
            const std::complex<double> term = w * pupil(r[std::size_t(a)], theta) *
                                              std::polar(1.0, 2 * kPi * (kx * x + ky * y + kz * z));
            if (!vector) {
                e[0] += term;
                continue;
            }
            const double sin_t = k / n_over_lambda, cos_t = std::sqrt(1 - sin_t * sin_t);
            const double c = std::cos(theta), s = std::sin(theta);
            const double f[kVectorFactors] = {cos_t * c * c + s * s, (cos_t - 1) * s * c,
                                              -sin_t * c, cos_t * s * s + c * c, -sin_t * s};
            for (int i = 0; i < kVectorFactors; ++i) e[i] += term * f[i];
        }
    }
    if (!vector) return std::norm(e[0]);
    return 0.5 * (std::norm(e[0]) + 2 * std::norm(e[1]) + std::norm(e[2]) + std::norm(e[3]) +
                  std::norm(e[4]));
}

double peak(const stack& s) {
    return *std::max_element(s.voxels.begin(), s.voxels.end());
}

// Largest difference from the exact integral, over the brightest voxel, the
// axis and random voxels, relative to the stack's peak.
double error_against_exact(const psf_optics& optics, int nx, int ny, int nz, double dx, double dz,
                           bool vector, const pupil_function& pupil) {
    const stack s = computed(optics, nx, ny, nz, dx, dz, vector, pupil);
    const auto brightest =
        std::size_t(std::max_element(s.voxels.begin(), s.voxels.end()) - s.voxels.begin());
    std::vector<std::array<int, 3>> voxels = {
        {int(brightest % nx), int(brightest / nx % ny), int(brightest / (std::size_t(nx) * ny))}};
    for (int k = 0; k < nz; k += 16) voxels.push_back({nx / 2, ny / 2, k});
    std::mt19937 random(7);
    for (int v = 0; v < 8; ++v)
        voxels.push_back({int(random() % nx), int(random() % ny), int(random() % nz)});
    double worst = 0;
    for (const auto& [i, j, k] : voxels) {
        const double exact = exact_intensity(optics, pupil, vector, s.x(i), s.y(j), s.z(k));
        worst = std::max(worst, std::abs(s.at(i, j, k) - exact));
    }
    return worst / peak(s);
}

// Astigmatism, coma, spherical aberration and an apodised amplitude, in radians.
std::complex<double> aberrated(double rho, double theta) {
    const double r2 = rho * rho;
    const double phase = 1.9 * r2 * std::cos(2 * theta) +
                         1.2 * (3 * r2 - 2) * rho * std::cos(theta) +
                         0.9 * (6 * r2 * r2 - 6 * r2 + 1);
    return std::polar(1 - 0.3 * r2, phase);
}

std::complex<double> clear(double, double) {
    return 1.0;
}

constexpr psf_optics kOil{1.4, 1.515, 0.525};

TEST(PsfModel, AiryPatternInFocusAtLowAperture) {
    const psf_optics optics{0.2, 1.0, 0.5};
    const stack s = computed(optics, 64, 64, 1, 0.1, 0.1, false, clear);
    const double centre = s.at(32, 32, 0);
    for (int i = 0; i < 64; ++i) {
        const double r = std::hypot(s.x(i), s.y(40));
        const double v = 2 * kPi * optics.numerical_aperture * r / optics.wavelength_um;
        const double airy = v == 0 ? 1.0 : std::pow(2 * std::cyl_bessel_j(1.0, v) / v, 2);
        EXPECT_NEAR(s.at(i, 40, 0) / centre, airy, 1e-4) << "x " << s.x(i);
    }
}

TEST(PsfModel, ParaxialAxialIntensity) {
    // At NA 0.1 the first term beyond the paraxial one shifts the phase by
    // 2π z NA⁴ / (8 λ), below 1e-3 rad over these planes.
    const psf_optics optics{0.1, 1.0, 0.5};
    const stack s = computed(optics, 16, 16, 81, 0.5, 0.25, false, clear);
    const double centre = s.at(8, 8, 40);
    for (int k = 0; k < 81; ++k) {
        const double u = s.z(k) * optics.numerical_aperture * optics.numerical_aperture /
                         (2 * optics.immersion_index * optics.wavelength_um);
        const double paraxial = u == 0 ? 1.0 : std::pow(std::sin(kPi * u) / (kPi * u), 2);
        EXPECT_NEAR(s.at(8, 8, k) / centre, paraxial, 1e-3) << "z " << s.z(k);
    }
}

TEST(PsfModel, WithinOneThousandthOfPeakOfExactIntegral) {
    ParametricPupil* record =
        read_parametric_pupil(TORVEL_SOURCE_DIR "/sample/model_fit.txt", nullptr, nullptr, nullptr);
    ASSERT_NE(record, nullptr);
    std::int32_t an, am, pn, pm;
    get_parametric_pupil_amplitude_zernike_orders(record, &an, &am);
    get_parametric_pupil_phase_zernike_orders(record, &pn, &pm);
    const double* amplitude = get_parametric_pupil_amplitude_zernike_coeff(record, 0);
    const double* phase = get_parametric_pupil_phase_zernike_coeff(record, 0);
    const pupil_function sample = [&](double rho, double theta) {
        return std::polar(evaluate_zernike_series(rho, theta, an, am, amplitude),
                          evaluate_zernike_series(rho, theta, pn, pm, phase));
    };
    const psf_optics sample_optics{get_parametric_pupil_numerical_aperture(record),
                                   get_parametric_pupil_immersion_refractive_index(record),
                                   get_parametric_pupil_wavelength(record, 0)};
    struct named_pupil {
        const char* name;
        psf_optics optics;
        pupil_function pupil;
    };
    const named_pupil cases[] = {{"aberrated", kOil, aberrated}, {"sample", sample_optics, sample}};
    for (const named_pupil& c : cases) {
        const double na = c.optics.numerical_aperture, n = c.optics.immersion_index;
        const double dx = c.optics.wavelength_um / (4 * na);
        const double dz = c.optics.wavelength_um / (2 * n * (1 - std::sqrt(1 - na * na / (n * n))));
        for (const bool vector : {false, true}) {
            // Nyquist sampling, twice as fine, and a pixel of 0.8 λ/NA on
            // an odd, oblong window, which is computed on a finer grid.
            const struct {
                const char* name;
                int nx, ny;
                double dx, dz;
            } samplings[] = {{"default", 32, 32, dx, dz},
                             {"2x finer", 32, 32, dx / 2, dz / 2},
                             {"coarse", 17, 10, 3.2 * dx, dz}};
            for (const auto& g : samplings) {
                const double error =
                    error_against_exact(c.optics, g.nx, g.ny, 64, g.dx, g.dz, vector, c.pupil);
                std::printf("%-9s %-6s %s sampling: largest error %.2e of the peak\n", c.name,
                            vector ? "vector" : "scalar", g.name, error);
                EXPECT_LT(error, 1e-3) << c.name << (vector ? " vector " : " scalar ") << g.name;
            }
        }
    }
    destroy_parametric_pupil(record);
}

// Second moments of one plane about its centre: the difference of the x and
// y spreads, positive when the light lies along x.
double elongation(const stack& s, int k) {
    double xx = 0, yy = 0;
    for (int j = 0; j < s.ny; ++j)
        for (int i = 0; i < s.nx; ++i) {
            xx += s.at(i, j, k) * s.x(i) * s.x(i);
            yy += s.at(i, j, k) * s.y(j) * s.y(j);
        }
    return (xx - yy) / (xx + yy);
}

TEST(PsfModel, AstigmatismTurnsTheFocalLineThroughFocus) {
    const pupil_function astigmatic = [](double rho, double theta) {
        return std::polar(1.0, 2.0 * rho * rho * std::cos(2 * theta));
    };
    for (const bool vector : {false, true}) {
        // Phase 2ρ² cos 2θ adds curvature along x and takes it along y:
        // the light focuses in x beyond the focal plane (a line along y)
        // and in y before it (a line along x).
        const stack s = computed(kOil, 48, 48, 9, 0.047, 0.2, vector, astigmatic);
        EXPECT_GT(elongation(s, 0), 0.2) << vector;
        EXPECT_LT(elongation(s, 8), -0.2) << vector;
    }
}

TEST(PsfModel, TiltMovesTheSpotAgainstItsCoefficient) {
    // Phase c ρ cos θ is c kx / (NA/λ): the field's shift theorem puts the
    // spot at x = -c λ / (2π NA).
    const double c = 4.0;
    const pupil_function tilted = [c](double rho, double theta) {
        return std::polar(1.0, c * rho * std::cos(theta));
    };
    const stack s = computed(kOil, 64, 64, 1, 0.02, 0.1, false, tilted);
    const auto brightest =
        std::size_t(std::max_element(s.voxels.begin(), s.voxels.end()) - s.voxels.begin());
    const double expected = -c * kOil.wavelength_um / (2 * kPi * kOil.numerical_aperture);
    EXPECT_NEAR(s.x(int(brightest % 64)), expected, s.dx);
    EXPECT_EQ(int(brightest / 64), 32);

    // The single-plane field agrees with the stack's intensity.
    psf_propagator pr;
    ASSERT_EQ(make_psf_propagator(kOil, {64, 64, 0.02}, false, kDefaultDiscPixels, &pr), 0);
    psf_work work;
    ASSERT_EQ(make_psf_work(pr, psf_work_use::fields, &work), 0);
    std::vector<std::complex<float>> field(64 * 64);
    psf_field_plane(pr, sampled(pr, kOil, tilted), 0.0, -1, &work, field);
    for (std::size_t at = 0; at < field.size(); at += 97)
        EXPECT_NEAR(std::norm(field[at]), s.voxels[at], 1e-5 * s.voxels[brightest]);
}

}  // namespace
}  // namespace torvel
