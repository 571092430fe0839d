// Residual of a fitted pupil, and amplitude and phase separation.

#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "fit/fit.hpp"
#include "tests/fit/pupil_fixture.hpp"
#include "zernike/zernike.hpp"

namespace torvel {
namespace {

struct Series {
    int n, m;
    std::vector<double> coeffs;
};

struct Residual {
    std::vector<float> values;
    float stats[3];
    double printed_rms;
};

// The residual, with its statistics checked against the written values:
// extremes and mean of the real parts, root mean square over every pixel.
Residual residual_of(const Geometry& g, const std::vector<float>& amplitude,
                     const std::vector<float>& phase, const Series& a, const Series& p) {
    Residual r{std::vector<float>(2 * amplitude.size(), -99.0f), {0, 0, 0}, -1.0};
    testing::internal::CaptureStdout();
    compute_residual(g.x0, g.y0, g.dx, g.dy, g.cutoff, g.nx, g.ny, amplitude.data(), phase.data(),
                     a.n, a.m, a.coeffs.data(), p.n, p.m, p.coeffs.data(), r.values.data(),
                     r.stats);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(std::sscanf(out.c_str(), "\nroot mean square error %lg\n", &r.printed_rms), 1) << out;
    const std::size_t count = amplitude.size();
    double low = 1e300, high = -1e300, sum = 0.0, squares = 0.0;
    for (std::size_t i = 0; i < count; ++i) {
        const double re = r.values[2 * i], im = r.values[2 * i + 1];
        low = std::min(low, re);
        high = std::max(high, re);
        sum += re;
        squares += re * re + im * im;
    }
    EXPECT_EQ(r.stats[0], static_cast<float>(low));
    EXPECT_EQ(r.stats[1], static_cast<float>(high));
    // Sums in float: allow their rounding, which grows with the count.
    EXPECT_NEAR(r.stats[2], sum / count, count * FLT_EPSILON * (std::fabs(high) + std::fabs(low)));
    EXPECT_NEAR(r.printed_rms, std::sqrt(squares / count), 1e-5 * std::sqrt(squares / count));
    return r;
}

// A disc that crosses the right and bottom borders of a 24 x 20 section.
constexpr Geometry kCrossing{19.0f, 14.5f, 0.1f, 0.1f, 0.75f, 24, 20};

TEST(ComputeResidual, subtracts_the_fitted_series_inside_the_disc_only) {
    // The measured pupil is the fitted one inside the disc; outside it has
    // amplitude 2 and phase 1.
    Series a{4, 2, std::vector<double>(zernike_term_count(4, 2))};
    Series p{3, 1, std::vector<double>(zernike_term_count(3, 1))};
    for (std::size_t i = 0; i < a.coeffs.size(); ++i)
        a.coeffs[i] = (i == 0) ? 1.0 : 0.1 * std::cos(1.0 + i);
    for (std::size_t i = 0; i < p.coeffs.size(); ++i) p.coeffs[i] = std::sin(2.0 + i);
    const std::vector<float> amplitude = series_plane(kCrossing, a.n, a.m, a.coeffs, 2.0f);
    const std::vector<float> phase = series_plane(kCrossing, p.n, p.m, p.coeffs, 1.0f);
    std::vector<bool> inside(amplitude.size());
    for (int pixel : selected_pixels(kCrossing)) inside[pixel] = true;
    const Residual r = residual_of(kCrossing, amplitude, phase, a, p);
    const Series none{-1, -1, {}};
    const Residual bare = residual_of(kCrossing, amplitude, phase, none, none);
    for (std::size_t i = 0; i < inside.size(); ++i) {
        const double re = amplitude[i] * std::cos(static_cast<double>(phase[i]));
        const double im = amplitude[i] * std::sin(static_cast<double>(phase[i]));
        if (inside[i]) {
            ASSERT_NEAR(r.values[2 * i], 0.0f, 1e-6) << i;  // the float rounding of the planes
            ASSERT_NEAR(r.values[2 * i + 1], 0.0f, 1e-6) << i;
        } else {
            ASSERT_EQ(r.values[2 * i], static_cast<float>(re)) << i;
            ASSERT_EQ(r.values[2 * i + 1], static_cast<float>(im)) << i;
        }
        // Empty sets stand for amplitude 1 and phase 0.
        ASSERT_EQ(bare.values[2 * i], static_cast<float>(inside[i] ? re - 1.0 : re)) << i;
        ASSERT_EQ(bare.values[2 * i + 1], static_cast<float>(im)) << i;
    }
}

TEST(ComputeResidual, gives_the_measured_pupil_for_a_disc_beyond_any_side) {
    const Series a{2, 0, {1.0, 0.2, 0.3, 0.4}}, p{1, 1, {0.5, 0.1, 0.2}};
    std::vector<float> amplitude(24 * 20), phase(24 * 20);
    for (std::size_t i = 0; i < amplitude.size(); ++i) {
        amplitude[i] = 1.0f + 0.01f * static_cast<float>(i % 7);
        phase[i] = 0.1f * static_cast<float>(i % 11) - 0.5f;
    }
    for (auto [x0, y0] :
         {std::pair{12.0f, -50.0f}, {12.0f, 90.0f}, {-50.0f, 10.0f}, {90.0f, 10.0f}}) {
        const Residual r = residual_of({x0, y0, 0.1f, 0.1f, 0.75f, 24, 20}, amplitude, phase, a, p);
        for (std::size_t i = 0; i < amplitude.size(); ++i) {
            const double angle = static_cast<double>(phase[i]);
            ASSERT_EQ(r.values[2 * i], static_cast<float>(amplitude[i] * std::cos(angle)));
            ASSERT_EQ(r.values[2 * i + 1], static_cast<float>(amplitude[i] * std::sin(angle)));
        }
    }
    const Residual one = residual_of({0.0f, 0.0f, 1.0f, 1.0f, 0.5f, 1, 1}, {3.0f}, {0.0f}, a, p);
    EXPECT_EQ(one.stats[2], one.values[0]);  // N = 1
}

TEST(SeparateAmplitudePhase, splits_samples_in_place_with_the_stated_edge_cases) {
    std::vector<float> samples = {1, 0, 0, 1, -1, 0, 0, -1, -1, -0.0f, 0, 0, 3, 4, NAN, 1};
    std::vector<float> phase(8, 42.0f);
    separate_amplitude_phase(8, samples.data(), phase.data());
    const float pi = static_cast<float>(M_PI);
    EXPECT_EQ(std::vector<float>(samples.begin(), samples.begin() + 7),
              (std::vector<float>{1, 1, 1, 1, 1, 0, 5}));
    EXPECT_TRUE(std::isnan(samples[7]));
    EXPECT_EQ(samples[8], -1.0f);  // beyond the amplitudes: stale samples
    EXPECT_EQ(phase, (std::vector<float>{0, pi / 2, pi, -pi / 2, -pi, 0,
                                         static_cast<float>(std::atan2(4.0, 3.0)), 0}));
    std::vector<float> untouched = {3, 4}, no_phase = {42.0f};
    separate_amplitude_phase(0, untouched.data(), no_phase.data());
    separate_amplitude_phase(-3, untouched.data(), no_phase.data());
    EXPECT_EQ(untouched, (std::vector<float>{3, 4}));
    EXPECT_EQ(no_phase[0], 42.0f);
}

TEST(ComplexArithmetic, multiplies_and_divides_in_single_precision_without_guards) {
    const fcomplex product = cmult({1, 2}, {3, 4});
    const fcomplex quotient = cdiv(product, {3, 4});
    EXPECT_EQ(product.re, -5.0f);
    EXPECT_EQ(product.im, 10.0f);
    EXPECT_EQ(quotient.re, 1.0f);
    EXPECT_EQ(quotient.im, 2.0f);
    EXPECT_TRUE(std::isnan(cdiv({1, 0}, {0, 0}).re));
}

}  // namespace
}  // namespace torvel
