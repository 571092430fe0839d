// Pixel selection, design matrix, least-squares fit, residual and the split
// into amplitude and phase.

#include <torvel/fit.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include <torvel/zernike.hpp>

namespace torvel {
namespace {

struct Geometry {
    float x0, y0, dx, dy, cutoff;
    int nx, ny;
};

constexpr Geometry kWholeEdges{5.0f, 5.0f, 1.0f, 1.0f, 2.0f, 10, 10};
constexpr Geometry kDisc{31.3f, 32.6f, 0.05f, 0.05f, 1.4f, 64, 64};

// Indices (iy * nx + ix) of the pixels fill_rhs selects, in its order.
std::vector<int> selected_pixels(const Geometry& g) {
    std::vector<float> section(static_cast<std::size_t>(g.nx) * g.ny);
    for (std::size_t i = 0; i < section.size(); ++i) section[i] = static_cast<float>(i);
    std::vector<double> rhs(section.size() + 1);
    int nrow = -1;
    fill_rhs(g.x0, g.y0, g.dx, g.dy, g.cutoff, g.nx, g.ny, section.data(), rhs.data(), &nrow);
    return std::vector<int>(rhs.begin(), rhs.begin() + nrow);
}

// Pupil coordinates (rho, theta) of a pixel, as the mapping defines them.
std::pair<double, double> pupil_coordinates(const Geometry& g, int pixel) {
    const float x = (static_cast<float>(pixel % g.nx) - g.x0) * g.dx;
    const float y = (static_cast<float>(pixel / g.nx) - g.y0) * g.dy;
    const double rho =
        std::sqrt(static_cast<double>(x * x + y * y)) / static_cast<double>(g.cutoff);
    return {rho, rho > 0.0 ? std::atan2(static_cast<double>(y), static_cast<double>(x)) : 0.0};
}

// A plane holding the series (n, m, c) rounded to float on the selected
// pixels and `outside` everywhere else.
std::vector<float> series_plane(const Geometry& g, int n, int m, const std::vector<double>& c,
                                float outside) {
    std::vector<float> plane(static_cast<std::size_t>(g.nx) * g.ny, outside);
    for (int pixel : selected_pixels(g)) {
        const auto [rho, theta] = pupil_coordinates(g, pixel);
        plane[pixel] = static_cast<float>(evaluate_zernike_series(rho, theta, n, m, c.data()));
    }
    return plane;
}

std::vector<double> filled_matrix(const Geometry& g, int n, int m, int nrow) {
    const int ncol = zernike_term_count(n, m);
    std::vector<double> matrix(static_cast<std::size_t>(ncol) * nrow);
    fill_matrix(g.x0, g.y0, g.dx, g.dy, g.cutoff, g.nx, g.ny, ncol, nrow, n, m, matrix.data());
    return matrix;
}

TEST(FillRhs, selects_lower_edges_not_upper_ones_and_clips_to_the_section) {
    // ry = 2: rows 3 .. 6; row 3 has half-width 0 and so no pixel; row 5 runs
    // from column 3 (= x0 - 2) to 6, column 7 (= x0 + 2) being out.
    EXPECT_EQ(selected_pixels(kWholeEdges),
              (std::vector<int>{44, 45, 46, 53, 54, 55, 56, 64, 65, 66}));
    EXPECT_EQ(selected_pixels({0.0f, 0.0f, 1.0f, 1.0f, 3.0f, 10, 10}),
              (std::vector<int>{0, 1, 2, 10, 11, 12, 20, 21, 22}));
    EXPECT_EQ(selected_pixels({9.0f, 9.0f, 1.0f, 1.0f, 3.0f, 10, 10}),
              (std::vector<int>{77, 78, 79, 87, 88, 89, 96, 97, 98, 99}));
    EXPECT_TRUE(selected_pixels({5.0f, 20.0f, 1.0f, 1.0f, 3.0f, 10, 10}).empty());
    EXPECT_TRUE(selected_pixels({-20.0f, 5.0f, 1.0f, 1.0f, 3.0f, 10, 10}).empty());
}

TEST(FillMatrix, writes_the_columns_of_small_sets_in_slot_order) {
    const int nrow = static_cast<int>(selected_pixels(kWholeEdges).size());
    // Measurement 3 is pixel (3, 5): rho 1, theta pi; measurement 5 the centre.
    const std::vector<double> a = filled_matrix(kWholeEdges, 2, 0, nrow);
    const double edge[] = {1.0, -1.0, 0.0, 1.0}, centre[] = {1.0, 0.0, 0.0, -1.0};
    for (int j = 0; j < 4; ++j) {
        EXPECT_NEAR(a[at(3, j, nrow)], edge[j], 1e-15) << j;
        EXPECT_EQ(a[at(5, j, nrow)], centre[j]) << j;
    }
    // Measurement 0 is pixel (4, 4): rho = r = sqrt(1/2), theta = -3pi/4.
    const std::vector<double> b = filled_matrix(kWholeEdges, 3, 1, nrow);
    const double r = std::sqrt(0.5), r31 = 3 * r * r * r - 2 * r;
    const double expected[] = {1.0, -r * r, -r * r, 2 * r * r - 1, 0.0, r * r, -r31 * r, -r31 * r};
    for (int j = 0; j < 8; ++j) EXPECT_NEAR(b[at(0, j, nrow)], expected[j], 1e-15) << j;
}

TEST(FillMatrix, equals_the_naive_evaluation_bit_for_bit) {
    const struct {
        Geometry g;
        int n, m;
    } cases[] = {{kDisc, 8, 8},
                 // Centres on whole and half pixels: symmetric pixels share
                 // their radial values, rows and columns alike.
                 {{32.0f, 31.5f, 0.05f, 0.05f, 1.4f, 64, 64}, 8, 0},
                 {{20.0f, 12.0f, 0.031f, 0.047f, 0.6f, 41, 23}, 12, 6},
                 {{20.5f, 11.25f, 0.031f, 0.047f, 0.6f, 41, 23}, 16, 16},
                 {{-3.7f, 40.2f, 0.1f, 0.09f, 2.3f, 30, 45}, 7, 3},
                 {{4.0f, 3.0f, 1.0f, 1.0f, 2.5f, 9, 7}, zernike_table_max_order + 2, 0},
                 // Enough pixels to be filled in parts on several threads.
                 {{90.0f, 90.0f, 0.01f, 0.01f, 0.85f, 181, 181}, 8, 2}};
    for (const auto& c : cases) {
        const std::vector<int> pixels = selected_pixels(c.g);
        const int nrow = static_cast<int>(pixels.size());
        ASSERT_GT(nrow, 0);
        const std::vector<double> fast = filled_matrix(c.g, c.n, c.m, nrow);
        // From the definition: evaluate_rnm per column, one sincos per pair.
        std::size_t differing = 0;
        for (int irow = 0; irow < nrow; ++irow) {
            const auto [rho, theta] = pupil_coordinates(c.g, pixels[irow]);
            int col = 0;
            for_each_zernike_term(c.n, c.m, [&](int k, int l) {
                double s = 0.0, co = 1.0;
                if (l > 0) ::sincos(static_cast<double>(l) * theta, &s, &co);
                differing += fast[at(irow, col++, nrow)] != evaluate_rnm(rho, k, l) * co;
                if (l > 0) differing += fast[at(irow, col++, nrow)] != evaluate_rnm(rho, k, l) * s;
            });
        }
        EXPECT_EQ(differing, 0u) << "set (" << c.n << ", " << c.m << ")";
    }
}

// The design matrix and the residual take a row mirrored through the centre
// row from its twin: the same cosines and negated sines. That holds while the
// C library's atan2 is odd in y and its sincos odd in the argument, bit for
// bit, as checked here on the offsets and angles such rows give.
TEST(MirroredRows, rely_on_atan2_and_sincos_being_odd_bit_for_bit) {
    auto bits = [](double v) { return std::bit_cast<std::uint64_t>(v); };
    std::size_t broken = 0;
    for (const float spacing : {0.05f, 0.031f, 2.0f / 1024.0f}) {
        for (int iy = 1; iy <= 48; ++iy) {
            for (int ix = -48; ix <= 48; ++ix) {
                const double x = static_cast<float>(ix) * spacing;
                const double y = static_cast<float>(iy) * spacing;
                const double theta = std::atan2(y, x);
                broken += bits(std::atan2(-y, x)) != bits(-theta);
                for (int l = 1; l <= zernike_table_max_order; ++l) {
                    double s = 0.0, c = 0.0, s_mirror = 0.0, c_mirror = 0.0;
                    ::sincos(static_cast<double>(l) * theta, &s, &c);
                    ::sincos(static_cast<double>(l) * -theta, &s_mirror, &c_mirror);
                    broken += bits(s_mirror) != bits(-s) || bits(c_mirror) != bits(c);
                }
            }
        }
    }
    EXPECT_EQ(broken, 0u);
}

TEST(FillMatrixDeathTest, aborts_when_the_matrix_is_smaller_than_the_walk) {
    const int nrow = static_cast<int>(selected_pixels(kWholeEdges).size());
    std::vector<double> matrix(100);
    auto fill = [&](int ncol, int rows, int n, int m) {
        fill_matrix(5.0f, 5.0f, 1.0f, 1.0f, 2.0f, 10, 10, ncol, rows, n, m, matrix.data());
    };
    EXPECT_DEATH(fill(1, nrow - 1, 0, 0), "fill_matrix: Assertion `irow < nrow' failed");
    EXPECT_DEATH(fill(3, nrow, 2, 0), "Assertion `offset < ntot' failed");
    EXPECT_DEATH(fill(2, nrow, 2, 0), "Assertion `offset < ntot - nrow' failed");
}

// compute_fit's status, ":", then what it printed: standard output first.
std::string fit(const Geometry& g, const float* section, int n, int m, double* coeff, float tol) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int status =
        compute_fit(g.x0, g.y0, g.dx, g.dy, g.cutoff, g.nx, g.ny, section, n, m, coeff, tol);
    const std::string out = testing::internal::GetCapturedStdout();
    return std::to_string(status) + ":" + out + testing::internal::GetCapturedStderr();
}

TEST(ComputeFit, recovers_known_coefficients_and_the_mean_and_lowers_the_rank_by_tolerance) {
    // Every term is a polynomial with integer coefficients in x / cutoff and
    // y / cutoff; with whole offsets, a cutoff of 8 and coefficients in
    // eighths the series is exact in float, so the section carries no noise.
    const Geometry g{10.0f, 10.0f, 1.0f, 1.0f, 8.0f, 20, 20};
    const std::vector<int> pixels = selected_pixels(g);
    std::vector<float> section;
    for (auto [n, m] : {std::pair{4, 2}, {5, 3}}) {
        std::vector<double> truth(zernike_term_count(n, m));
        for (std::size_t i = 0; i < truth.size(); ++i)
            truth[i] = (i % 5 + 1) * (i % 2 ? -0.125 : 0.25);
        section = series_plane(g, n, m, truth, 99.0f);  // 99 would spoil any fit using it
        std::vector<double> coeff(truth.size(), -7.0);
        const std::string unknowns = std::to_string(truth.size());
        EXPECT_EQ(fit(g, section.data(), n, m, coeff.data(), 1e-4f),
                  "0:" + unknowns + " unknowns " + std::to_string(pixels.size()) +
                      " measurements\nrank " + unknowns + "\n");
        for (std::size_t i = 0; i < truth.size(); ++i)
            EXPECT_NEAR(coeff[i], truth[i], 1e-9 * std::fabs(truth[i])) << i;
    }
    long double sum = 0;
    for (int p : pixels) sum += section[p];
    double mean = 0.0;
    ASSERT_EQ(fit(g, section.data(), 0, 0, &mean, 1e-4f)[0], '0');
    EXPECT_NEAR(mean, static_cast<double>(sum / pixels.size()), 1e-12);
    std::vector<double> coeff(28);
    auto rank = [&](float tol) {
        const std::string out = fit(g, section.data(), 6, 6, coeff.data(), tol);
        return std::stoi(out.substr(out.rfind("rank ") + 5));  // throws if it is missing
    };
    EXPECT_EQ(rank(1e-4f), 28);
    const int coarse = rank(0.5f);
    EXPECT_GT(coarse, 0);
    EXPECT_LT(coarse, 28);
}

TEST(ComputeFit, fails_with_its_messages_and_leaves_the_coefficients_alone) {
    const std::string too_large = "torvel: too large of a matrix to handle\n";
    std::vector<float> section(100, 1.0f);
    std::vector<double> coeff(15, -7.0);
    EXPECT_EQ(fit(kWholeEdges, section.data(), 4, 4, coeff.data(), 1e-4f),
              "1:15 unknowns 10 measurements\n"
              "torvel: more parameters (15) than measurements (10)\n");
    EXPECT_EQ(
        fit({5.0f, 5.0f, 1.0f, 1.0f, 1e6f, 10, 10}, section.data(), 4, 4, coeff.data(), 1e-4f),
        "1:" + too_large);
    EXPECT_EQ(fit(kWholeEdges, section.data(), 30000, 0, coeff.data(), 1e-4f),
              "1:" + too_large);  // 8 ncol > 2^31
    EXPECT_EQ(coeff, std::vector<double>(15, -7.0));
    EXPECT_EQ(fit(kWholeEdges, section.data(), 2, 0, nullptr, 1e-4f),
              "1:torvel: internal error: NULL coefficient array\n");
    EXPECT_EQ(fit(kWholeEdges, section.data(), -1, -1, nullptr, 1e-4f), "0:");
}

// compute_fit_pair against two compute_fit calls. With one set, one dgelsd
// call serves both fits: it must print what two calls print, and give each
// fit its own call's coefficients to the last bits, which LAPACK builds
// round differently (tests/lapack runs this under each build). With two
// sets, the smaller one's matrix being the larger one's first columns, the
// coefficients must be those of the separate fits exactly.
TEST(TwoRightHandSides, give_the_fits_of_separate_calls) {
    const Geometry g{40.0f, 39.5f, 0.021f, 0.021f, 0.8f, 80, 80};
    std::vector<float> amplitude(80 * 80), phase(80 * 80);
    std::uint32_t state = 12345;
    for (std::size_t i = 0; i < amplitude.size(); ++i) {
        state = state * 1664525u + 1013904223u;
        const double noise = (state >> 8) / 16777216.0 - 0.5;
        const double x = (i % 80 - 40.0) / 38, y = (i / 80 - 39.5) / 38;
        amplitude[i] =
            static_cast<float>(0.9 - 0.2 * (x * x + y * y) + 0.1 * x * y * y + 0.01 * noise);
        phase[i] = static_cast<float>(7 * (x * x + y * y) + 0.9 * x - 0.3 * x * y +
                                      0.5 * y * y * y + 0.02 * noise);
    }
    const struct {
        int na, ma, np, mp;
        float tol;
    } cases[] = {
        {8, 8, 8, 8, 1e-4f}, {12, 4, 12, 4, 0.01f}, {6, 2, 10, 4, 1e-4f}, {10, 4, 6, 2, 0.3f}};
    for (const auto& c : cases) {
        std::vector<double> a(zernike_term_count(c.na, c.ma)), p(zernike_term_count(c.np, c.mp));
        std::vector<double> pair_a(a.size()), pair_p(p.size());
        const std::string fit_a = fit(g, amplitude.data(), c.na, c.ma, a.data(), c.tol);
        const std::string fit_p = fit(g, phase.data(), c.np, c.mp, p.data(), c.tol);
        ASSERT_EQ(fit_a.substr(0, 2) + fit_p.substr(0, 2), "0:0:");
        testing::internal::CaptureStdout();
        const int status =
            compute_fit_pair(g.x0, g.y0, g.dx, g.dy, g.cutoff, g.nx, g.ny,
                             {"A\n", amplitude.data(), c.na, c.ma, pair_a.data()},
                             {"P\n", phase.data(), c.np, c.mp, pair_p.data()}, c.tol);
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  "A\n" + fit_a.substr(2) + "P\n" + fit_p.substr(2));
        EXPECT_EQ(status, 0);
        for (auto [mine, theirs] : {std::pair{&pair_a, &a}, {&pair_p, &p}}) {
            for (std::size_t i = 0; i < mine->size(); ++i) {
                if (c.na != c.np) {
                    EXPECT_EQ((*mine)[i], (*theirs)[i]) << i;
                    continue;
                }
                char printed[2][32];
                std::snprintf(printed[0], 32, "%g", (*mine)[i]);
                std::snprintf(printed[1], 32, "%g", (*theirs)[i]);
                EXPECT_STREQ(printed[0], printed[1]) << i;
                EXPECT_NEAR((*mine)[i], (*theirs)[i], 1e-10 * std::fabs((*theirs)[0])) << i;
            }
        }
    }
    // The second fit fails where it always has: after the first one's rank.
    std::vector<double> a(4), p(15, -7.0);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int status = compute_fit_pair(kWholeEdges.x0, kWholeEdges.y0, kWholeEdges.dx,
                                        kWholeEdges.dy, kWholeEdges.cutoff, kWholeEdges.nx,
                                        kWholeEdges.ny, {"A\n", amplitude.data(), 2, 0, a.data()},
                                        {"P\n", phase.data(), 4, 4, p.data()}, 1e-4f);
    EXPECT_EQ(testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr(),
              "A\n4 unknowns 10 measurements\nrank 4\nP\n15 unknowns 10 measurements\n"
              "torvel: more parameters (15) than measurements (10)\n");
    EXPECT_EQ(status, 1);
    EXPECT_EQ(p, std::vector<double>(15, -7.0));
}

struct Series {
    int n, m;
    std::vector<double> coeffs;
};

// The residual image and, after it, the three statistics and the printed line.
std::pair<std::vector<float>, std::string> residual_of(const Geometry& g,
                                                       const std::vector<float>& amplitude,
                                                       const std::vector<float>& phase,
                                                       const Series& a, const Series& p) {
    std::vector<float> r(2 * amplitude.size(), -99.0f);
    float stats[3] = {0, 0, 0};
    testing::internal::CaptureStdout();
    compute_residual(g.x0, g.y0, g.dx, g.dy, g.cutoff, g.nx, g.ny, amplitude.data(), phase.data(),
                     a.n, a.m, a.coeffs.data(), p.n, p.m, p.coeffs.data(), r.data(), stats);
    r.insert(r.end(), stats, stats + 3);
    return {r, testing::internal::GetCapturedStdout()};
}

TEST(ComputeResidual, subtracts_the_fitted_series_inside_the_disc_only) {
    // The measured pupil is the fitted one inside the disc; outside it has
    // amplitude 2 and phase 1. The discs cross the section's borders or lie
    // wholly beyond one side.
    Series a{4, 2, std::vector<double>(zernike_term_count(4, 2))};
    Series p{3, 1, std::vector<double>(zernike_term_count(3, 1))};
    for (std::size_t i = 0; i < a.coeffs.size(); ++i) a.coeffs[i] = 0.1 * std::cos(1.0 + i);
    for (std::size_t i = 0; i < p.coeffs.size(); ++i) p.coeffs[i] = std::sin(2.0 + i);
    a.coeffs[0] = 1.0;
    for (auto [x0, y0] : {std::pair{19.0f, 14.5f},
                          {12.0f, -50.0f},
                          {12.0f, 90.0f},
                          {-50.0f, 10.0f},
                          {90.0f, 10.0f}}) {
        const Geometry g{x0, y0, 0.1f, 0.1f, 0.75f, 24, 20};
        const std::vector<float> amplitude = series_plane(g, a.n, a.m, a.coeffs, 2.0f);
        const std::vector<float> phase = series_plane(g, p.n, p.m, p.coeffs, 1.0f);
        std::vector<bool> inside(amplitude.size());
        for (int pixel : selected_pixels(g)) inside[pixel] = true;
        const std::vector<float> r = residual_of(g, amplitude, phase, a, p).first;
        for (std::size_t i = 0; i < 2 * inside.size(); ++i) {
            const double angle = static_cast<double>(phase[i / 2]);
            const double measured = amplitude[i / 2] * (i % 2 ? std::sin(angle) : std::cos(angle));
            if (inside[i / 2]) {
                ASSERT_NEAR(r[i], 0.0f, 1e-6) << i;  // the float rounding of the planes
            } else {
                ASSERT_EQ(r[i], static_cast<float>(measured)) << i;
            }
        }
    }
}

TEST(ComputeResidual, takes_statistics_of_the_real_parts_over_every_pixel) {
    // 2 x 2 pixels; the disc holds pixel 0 only, where the fit without
    // terms (amplitude 1, phase 0) is exact.
    const float pi = static_cast<float>(M_PI);
    const Series none{-1, -1, {}};
    const auto [r, out] = residual_of({0.0f, 0.0f, 1.0f, 1.0f, 0.5f, 2, 2}, {1, 1, 2, 4},
                                      {0, 0, pi, pi / 2}, none, none);
    // The residual, then minimum, maximum and mean.
    const float expected[] = {0, 0, 1, 0, -2, 0, 0, 4, -2, 1, -0.25f};
    for (int i = 0; i < 11; ++i) EXPECT_NEAR(r[i], expected[i], 1e-6) << i;
    EXPECT_EQ(out, "\nroot mean square error 2.29129\n");  // sqrt(21 / 4)
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
    // Enough pixels to be split in parts on several threads: each as alone.
    std::vector<float> many(2 * 50000), many_phase(50000);
    for (std::size_t i = 0; i < many.size(); ++i) many[i] = std::sin(0.37f * static_cast<float>(i));
    const std::vector<float> before = many;
    separate_amplitude_phase(50000, many.data(), many_phase.data());
    // Split into memory apart from the samples: the same values, the
    // samples left as they were.
    std::vector<float> apart(50000), apart_phase(50000);
    split_amplitude_phase(50000, before.data(), apart.data(), apart_phase.data());
    EXPECT_EQ(apart, std::vector<float>(many.begin(), many.begin() + 50000));
    EXPECT_EQ(apart_phase, many_phase);
    for (std::size_t i = 0; i < many_phase.size(); ++i) {
        std::vector<float> one(before.begin() + 2 * i, before.begin() + 2 * i + 2);
        float one_phase = 0.0f;
        separate_amplitude_phase(1, one.data(), &one_phase);
        ASSERT_EQ(many[i], one[0]) << i;
        ASSERT_EQ(many_phase[i], one_phase) << i;
    }
    separate_amplitude_phase(0, samples.data(), phase.data());
    separate_amplitude_phase(-3, samples.data(), phase.data());
    EXPECT_EQ(samples[0], 1.0f);  // nothing written
    EXPECT_EQ(phase[0], 0.0f);
}

TEST(ComplexArithmetic, multiplies_and_divides_in_single_precision_without_guards) {
    const fcomplex product = cmult({1, 2}, {3, 4}), quotient = cdiv(product, {3, 4});
    EXPECT_EQ(std::vector<float>({product.re, product.im, quotient.re, quotient.im}),
              std::vector<float>({-5, 10, 1, 2}));
    EXPECT_TRUE(std::isnan(cdiv({1, 0}, {0, 0}).re));
}

}  // namespace
}  // namespace torvel
