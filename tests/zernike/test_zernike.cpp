#include <torvel/zernike.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <utility>
#include <vector>

namespace torvel {
namespace {

using TermList = std::vector<std::pair<int, int>>;

TermList terms_of(int n, int m) {
    TermList terms;
    for_each_zernike_term(n, m, [&](int k, int l) { terms.emplace_back(k, l); });
    return terms;
}

TEST(ZernikeTermOrder, walk_index_and_count_agree_with_the_slot_table) {
    const TermList order4 = {{0, 0}, {1, 1}, {2, 0}, {2, 2}, {3, 1},
                             {3, 3}, {4, 0}, {4, 2}, {4, 4}};
    EXPECT_EQ(terms_of(4, 4), order4);
    EXPECT_EQ(terms_of(4, 2), TermList(order4.begin(), order4.end() - 1));
    EXPECT_TRUE(terms_of(-1, -1).empty());
    EXPECT_EQ(zernike_term_count(-2, 0), 0);
    for (int n = 0; n <= 20; ++n) {
        for (int m = n % 2; m <= n; m += 2) {
            int slot = 0;
            for_each_zernike_term(n, m, [&](int k, int l) {
                ASSERT_EQ(zernike_term_index(k, l), slot) << n << "," << m;
                slot += (l == 0) ? 1 : 2;
            });
            EXPECT_EQ(slot, zernike_term_count(n, m)) << n << "," << m;
        }
    }
}

TEST(EvaluateNumCombinations, is_exact_through_the_integer_phase_and_beyond) {
    std::vector<double> row = {1.0};  // Pascal's triangle, exact in double here
    for (int n = 1; n <= 50; ++n) {
        std::vector<double> next(n + 1, 1.0);
        for (int k = 1; k < n; ++k) next[k] = row[k - 1] + row[k];
        row = next;
        for (int k = 0; k <= n; ++k) ASSERT_EQ(evaluate_num_combinations(n, k), row[k]) << n;
    }
    EXPECT_EQ(evaluate_num_combinations(5, 7) + evaluate_num_combinations(5, -1), 2.0);
}

TEST(EvaluateRnm, matches_the_closed_forms_including_odd_differences_and_m_above_n) {
    // Coefficients by power of rho; each case (h = 0, 1, 2, general sum)
    // with valid and with odd n - m.
    const struct {
        int n, m;
        std::vector<double> c;
    } cases[] = {
        {2, 0, {-1, 0, 2}},
        {8, 0, {1, 0, -20, 0, 90, 0, -140, 0, 70}},
        {6, 2, {0, 0, 6, 0, -20, 0, 15}},
        {7, 1, {0, -4, 0, 30, 0, -60, 0, 35}},
        {4, 3, {0, 0, 0, 1}},                             // odd, h = 0
        {5, 2, {0, 0, -4, 0, 5}},                         // odd, h = 1
        {7, 2, {0, 0, 10, 0, -30, 0, 21}},                // odd, h = 2
        {9, 2, {0, 0, 0, -60, 0, 210, 0, -280, 0, 126}},  // odd, s = 11 / 2 truncated
        {3, 4, {0, 0, 0, 0, 1}},                          // n - m = -1
        {3, 5, {}},
    };
    for (const auto& t : cases) {
        for (double rho : {0.0, 0.3, 0.75, 1.0, 1.4}) {
            double expected = 0.0, scale = 0.0;
            for (std::size_t j = 0; j < t.c.size(); ++j) {
                expected += t.c[j] * std::pow(rho, j);
                scale += std::fabs(t.c[j]) * std::pow(rho, j);
            }
            EXPECT_NEAR(evaluate_rnm(rho, t.n, t.m), expected, 1e-14 * scale)
                << t.n << "," << t.m << " at " << rho;
        }
    }
}

TEST(EvaluateRnm, is_one_at_the_rim_and_its_table_variants_agree_bit_for_bit) {
    for (double rho : {0.0, 0.123456789, 0.5, 0.999999, 1.0, 1.3, -0.4}) {
        ZernikeTables tables;
        ASSERT_TRUE(fill_zernike_tables(rho, 0.0, zernike_table_size(30, 30), &tables));
        // Every valid pair up to order 30, in the order the radial table holds them.
        double radials[zernike_table_max_terms];
        evaluate_zernike_radials(tables, 30, 30, radials);
        int i = 0;
        for_each_zernike_term(30, 30, [&](int n, int m) {
            const double direct = evaluate_rnm(rho, n, m);
            EXPECT_EQ(evaluate_rnm_precomputed_powers(n, m, tables.powers), direct);
            EXPECT_EQ(radials[i++], direct) << n << "," << m;
            if (rho == 1.0 && n <= 20) {
                EXPECT_DOUBLE_EQ(direct, 1.0) << n << "," << m;
            }
        });
    }
}

TEST(EvaluateZernikeSeries, follows_the_small_sets_and_the_direct_path_exactly) {
    const double c[] = {0.7, -1.3, 2.1, 0.4};
    for (double rho : {0.0, 0.35, 1.0}) {
        for (double theta : {0.0, 1.1, -2.5}) {
            EXPECT_EQ(evaluate_zernike_series(rho, theta, 0, 0, c), c[0]);
            const double tilt = rho * (c[1] * std::cos(theta) + c[2] * std::sin(theta));
            EXPECT_NEAR(evaluate_zernike_series(rho, theta, 1, 1, c), c[0] + tilt, 1e-15);
            EXPECT_NEAR(evaluate_zernike_series(rho, theta, 2, 0, c),
                        c[0] + tilt + c[3] * (2 * rho * rho - 1), 1e-15);
        }
    }
    std::vector<double> coeffs(zernike_term_count(20, 20));
    for (std::size_t i = 0; i < coeffs.size(); ++i) coeffs[i] = std::sin(1.0 + i);
    for (auto [n, m] : TermList{{0, 0}, {3, 1}, {8, 8}, {16, 16}, {20, 2}}) {
        for (double rho : {0.0, 0.2, 0.77, 1.0, 1.05}) {
            for (double theta : {0.0, 0.4, 3.0, -1.9}) {
                EXPECT_EQ(evaluate_zernike_series(rho, theta, n, m, coeffs.data()),
                          evaluate_zernike_series_direct(rho, theta, n, m, coeffs.data()))
                    << n << "," << m << " at " << rho << "," << theta;
            }
        }
    }
}

// The companion programs' path: the recurrence agrees with torvel's sums to
// rounding where those are accurate (orders up to 20, where the explicit
// sums lose little to cancellation), its radial values come in visiting
// order, and a series is cut back to its last term that is not zero.
TEST(EvaluateZernikeSeriesRecurrent, agrees_with_the_sums_and_trims_to_the_terms_in_use) {
    std::vector<double> coeffs(zernike_term_count(20, 20));
    for (std::size_t i = 0; i < coeffs.size(); ++i) coeffs[i] = std::sin(1.0 + i);
    std::vector<double> scratch(zernike_recurrent_scratch_size(20));
    std::vector<double> radials(zernike_radial_count(20, 20));
    for (auto [n, m] : TermList{{0, 0}, {1, 1}, {3, 1}, {8, 8}, {20, 2}, {20, 20}}) {
        for (double rho : {0.0, 0.2, 0.77, 1.0}) {
            evaluate_zernike_radials_recurrent(rho, n, m, radials.data(), scratch.data());
            int r = 0;
            for_each_zernike_term(n, m, [&](int k, int l) {
                EXPECT_NEAR(radials[r++], evaluate_rnm(rho, k, l), 1e-10) << k << "," << l;
            });
            for (double theta : {0.0, 3.0, -1.9}) {
                EXPECT_NEAR(
                    evaluate_zernike_series_recurrent(rho, theta, n, m, coeffs.data(),
                                                      scratch.data()),
                    evaluate_zernike_series(rho, theta, n, m, coeffs.data()), 1e-9)
                    << n << "," << m << " at " << rho << "," << theta;
            }
        }
    }
    std::vector<double> sparse(zernike_term_count(9, 9), 0.0);
    int n = 0, m = 0;
    zernike_set_in_use(9, 9, sparse.data(), &n, &m);
    EXPECT_EQ(std::pair(n, m), std::pair(-1, -1));
    sparse[std::size_t(zernike_term_index(6, 4)) + 1] = std::nan("");  // the sine of R_6^4
    zernike_set_in_use(9, 9, sparse.data(), &n, &m);
    EXPECT_EQ(std::pair(n, m), std::pair(6, 4));
}

}  // namespace
}  // namespace torvel
