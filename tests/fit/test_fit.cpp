// Pixel selection, design matrix and least-squares fit.

#include "fit/fit.hpp"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "tests/fit/pupil_fixture.hpp"
#include "zernike/zernike.hpp"

namespace torvel {
namespace {

std::vector<double> filled_matrix(const Geometry& g, int n, int m, int nrow) {
    const int ncol = zernike_term_count(n, m);
    std::vector<double> matrix(static_cast<std::size_t>(ncol) * nrow);
    fill_matrix(g.x0, g.y0, g.dx, g.dy, g.cutoff, g.nx, g.ny, ncol, nrow, n, m, matrix.data());
    return matrix;
}

// The design matrix straight from the definition: evaluate_rnm for every
// column and one sincos of l * theta for every pair.
std::vector<double> naive_matrix(const Geometry& g, int n, int m, const std::vector<int>& pixels) {
    const int nrow = static_cast<int>(pixels.size());
    std::vector<double> matrix(static_cast<std::size_t>(zernike_term_count(n, m)) * nrow);
    for (int irow = 0; irow < nrow; ++irow) {
        double rho = 0.0, theta = 0.0;
        pupil_coordinates(g, pixels[irow], &rho, &theta);
        int col = 0;
        for_each_zernike_term(n, m, [&](int k, int l) {
            double s = 0.0, c = 1.0;
            if (l > 0) ::sincos(static_cast<double>(l) * theta, &s, &c);
            matrix[at(irow, col++, nrow)] =
                l > 0 ? evaluate_rnm(rho, k, l) * c : evaluate_rnm(rho, k, 0);
            if (l > 0) matrix[at(irow, col++, nrow)] = evaluate_rnm(rho, k, l) * s;
        });
    }
    return matrix;
}

struct FitOutcome {
    int status;
    std::string out, err;
};

FitOutcome fit(const Geometry& g, const float* section, int n, int m, double* coeff, float tol) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int status =
        compute_fit(g.x0, g.y0, g.dx, g.dy, g.cutoff, g.nx, g.ny, section, n, m, coeff, tol);
    std::string out = testing::internal::GetCapturedStdout();
    return {status, out, testing::internal::GetCapturedStderr()};
}

int printed_rank(const std::string& out) {
    int rank = -1;
    const std::size_t line = out.find("rank ");
    return line != std::string::npos && std::sscanf(out.c_str() + line, "rank %d", &rank) == 1
               ? rank
               : -1;
}

constexpr Geometry kWholeEdges{5.0f, 5.0f, 1.0f, 1.0f, 2.0f, 10, 10};
constexpr Geometry kDisc{31.3f, 32.6f, 0.05f, 0.05f, 1.4f, 64, 64};

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
    } cases[] = {{kDisc, 8, 0},
                 {kDisc, 8, 8},
                 {{20.5f, 11.25f, 0.031f, 0.047f, 0.6f, 41, 23}, 16, 16},
                 {{-3.7f, 40.2f, 0.1f, 0.09f, 2.3f, 30, 45}, 7, 3},
                 {{4.0f, 3.0f, 1.0f, 1.0f, 2.5f, 9, 7}, zernike_table_max_order + 2, 0}};
    for (const auto& c : cases) {
        const std::vector<int> pixels = selected_pixels(c.g);
        ASSERT_FALSE(pixels.empty());
        const std::vector<double> fast =
            filled_matrix(c.g, c.n, c.m, static_cast<int>(pixels.size()));
        const std::vector<double> naive = naive_matrix(c.g, c.n, c.m, pixels);
        std::size_t differing = 0;
        for (std::size_t i = 0; i < fast.size(); ++i) differing += (fast[i] != naive[i]);
        EXPECT_EQ(differing, 0u) << "set (" << c.n << ", " << c.m << ")";
    }
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

TEST(ComputeFit, recovers_the_coefficients_of_a_noiseless_pupil) {
    for (auto [n, m] : {std::pair{4, 2}, {5, 3}}) {
        std::vector<double> truth(zernike_term_count(n, m));
        for (std::size_t i = 0; i < truth.size(); ++i) truth[i] = std::cos(0.7 * i + 0.2);
        // 99 outside the disc would spoil any fit that used it.
        const std::vector<float> section = series_plane(kDisc, n, m, truth, 99.0f);
        std::vector<double> coeff(truth.size(), -7.0);
        const FitOutcome r = fit(kDisc, section.data(), n, m, coeff.data(), 1e-4f);
        ASSERT_EQ(r.status, 0) << r.err;
        const std::string unknowns = std::to_string(truth.size());
        EXPECT_EQ(r.out, unknowns + " unknowns " + std::to_string(selected_pixels(kDisc).size()) +
                             " measurements\nrank " + unknowns + "\n");
        // The section holds the series rounded to float, noise of half a float
        // ulp per pixel that thousands of pixels average down.
        for (std::size_t i = 0; i < truth.size(); ++i)
            EXPECT_NEAR(coeff[i], truth[i], FLT_EPSILON / 4) << i;
    }
}

TEST(ComputeFit, gives_the_mean_for_one_constant_term_and_lower_rank_for_a_large_tolerance) {
    std::vector<float> section(static_cast<std::size_t>(kDisc.nx) * kDisc.ny);
    for (std::size_t i = 0; i < section.size(); ++i)
        section[i] = static_cast<float>((i * 7919) % 1000) / 100.0f;
    long double sum = 0;
    const std::vector<int> pixels = selected_pixels(kDisc);
    for (int p : pixels) sum += section[p];
    double mean = 0.0;
    ASSERT_EQ(fit(kDisc, section.data(), 0, 0, &mean, 1e-4f).status, 0);
    EXPECT_NEAR(mean, static_cast<double>(sum / pixels.size()), 1e-12);

    std::vector<double> coeff(zernike_term_count(6, 6), 1.0);
    const std::vector<float> pupil = series_plane(kDisc, 6, 6, coeff, 0.0f);
    EXPECT_EQ(printed_rank(fit(kDisc, pupil.data(), 6, 6, coeff.data(), 1e-4f).out), 28);
    const int coarse = printed_rank(fit(kDisc, pupil.data(), 6, 6, coeff.data(), 0.5f).out);
    EXPECT_GT(coarse, 0);
    EXPECT_LT(coarse, 28);
}

TEST(ComputeFit, fails_with_its_messages_and_leaves_the_coefficients_alone) {
    std::vector<float> section(100, 1.0f);
    std::vector<double> coeff(15, -7.0);
    FitOutcome r = fit(kWholeEdges, section.data(), 4, 4, coeff.data(), 1e-4f);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "15 unknowns 10 measurements\n");
    EXPECT_EQ(r.err, "torvel: more parameters (15) than measurements (10)\n");
    r = fit({5.0f, 5.0f, 1.0f, 1.0f, 1e6f, 10, 10}, section.data(), 4, 4, coeff.data(), 1e-4f);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out + r.err, "torvel: too large of a matrix to handle\n");
    r = fit(kWholeEdges, section.data(), 30000, 0, coeff.data(), 1e-4f);  // 8 * ncol > 2^31
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out + r.err, "torvel: too large of a matrix to handle\n");
    EXPECT_EQ(coeff, std::vector<double>(15, -7.0));
    r = fit(kWholeEdges, section.data(), 2, 0, nullptr, 1e-4f);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out + r.err, "torvel: internal error: NULL coefficient array\n");
    r = fit(kWholeEdges, section.data(), -1, -1, nullptr, 1e-4f);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out + r.err, "");
}

}  // namespace
}  // namespace torvel
