#include "zernike/zernike.hpp"

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

// R_n^m from its factorial sum in long double, independent of the binomial
// routine and of the case split.
double radial_by_factorials(double rho, int n, int m) {
    auto factorial = [](int v) {
        long double f = 1;
        for (int i = 2; i <= v; ++i) f *= i;
        return f;
    };
    long double sum = 0;
    for (int j = 0; j <= (n - m) / 2; ++j) {
        const long double c = factorial(n - j) / (factorial(j) * factorial((n + m) / 2 - j) *
                                                  factorial((n - m) / 2 - j));
        sum += ((j % 2) ? -c : c) * std::pow(static_cast<long double>(rho), n - 2 * j);
    }
    return static_cast<double>(sum);
}

TEST(ZernikeTermOrder, walk_index_and_count_agree_with_the_slot_table) {
    const TermList order4 = {{0, 0}, {1, 1}, {2, 0}, {2, 2}, {3, 1},
                             {3, 3}, {4, 0}, {4, 2}, {4, 4}};
    EXPECT_EQ(terms_of(4, 4), order4);
    EXPECT_EQ(terms_of(4, 2), TermList(order4.begin(), order4.end() - 1));
    EXPECT_EQ(terms_of(0, 0), TermList(1, {0, 0}));
    EXPECT_TRUE(terms_of(-1, -1).empty());
    EXPECT_EQ(zernike_term_count(-1, -1), 0);
    EXPECT_EQ(zernike_term_index(3, 3), 8);  // R_3^3 cos 3theta; its sine is slot 9
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
    for (int n = 1; n <= 34; ++n) {
        std::vector<double> next(n + 1, 1.0);
        for (int k = 1; k < n; ++k) next[k] = row[k - 1] + row[k];
        row = next;
        for (int k = 0; k <= n; ++k) ASSERT_EQ(evaluate_num_combinations(n, k), row[k]);
    }
    EXPECT_EQ(evaluate_num_combinations(30, 15), 155117520.0);
    EXPECT_EQ(evaluate_num_combinations(40, 20), 137846528820.0);
    EXPECT_EQ(evaluate_num_combinations(5, 7) + evaluate_num_combinations(5, -1), 2.0);
}

TEST(EvaluateRnm, matches_closed_forms_the_factorial_sum_and_one_at_the_rim) {
    for (double rho : {0.0, 0.3, 0.75, 1.0, 1.4}) {
        const double r2 = rho * rho;
        EXPECT_EQ(evaluate_rnm(rho, 0, 0), 1.0);
        EXPECT_DOUBLE_EQ(evaluate_rnm(rho, 5, 5), std::pow(rho, 5));
        EXPECT_NEAR(evaluate_rnm(rho, 2, 0), 2 * r2 - 1, 1e-15);
        EXPECT_NEAR(evaluate_rnm(rho, 4, 0), 6 * r2 * r2 - 6 * r2 + 1, 1e-14);
        EXPECT_NEAR(evaluate_rnm(rho, 6, 0), 20 * r2 * r2 * r2 - 30 * r2 * r2 + 12 * r2 - 1, 1e-13);
        for (int n = 0; n <= 20; ++n) {
            for (int m = n % 2; m <= n; m += 2) {
                EXPECT_NEAR(evaluate_rnm(rho, n, m), radial_by_factorials(rho, n, m),
                            1e-13 * std::pow(2.0, n) * std::max(1.0, std::pow(rho, n)))
                    << n << "," << m << " at " << rho;
                if (rho == 1.0) {
                    EXPECT_DOUBLE_EQ(evaluate_rnm(rho, n, m), 1.0) << n << "," << m;
                }
            }
        }
    }
}

TEST(EvaluateRnm, evaluates_odd_differences_and_m_above_n_by_the_same_cases) {
    const double r = 0.6;
    EXPECT_DOUBLE_EQ(evaluate_rnm(r, 4, 3), std::pow(r, 3));                            // h = 0
    EXPECT_DOUBLE_EQ(evaluate_rnm(r, 5, 2), (5 * r * r - 4) * r * r);                   // h = 1
    EXPECT_DOUBLE_EQ(evaluate_rnm(r, 7, 2), (10 + r * r * (21 * r * r - 30)) * r * r);  // h = 2
    // h = 3 with s = (9 + 2) / 2 = 5, truncated.
    const double sum = 126 * std::pow(r, 7) - 280 * std::pow(r, 5) + 210 * std::pow(r, 3) - 60 * r;
    EXPECT_NEAR(evaluate_rnm(r, 9, 2), sum * r * r, 1e-13);
    EXPECT_DOUBLE_EQ(evaluate_rnm(r, 3, 4), std::pow(r, 4));  // n - m = -1
    EXPECT_EQ(evaluate_rnm(r, 3, 5), 0.0);
    EXPECT_EQ(evaluate_rnm(r, 2, 8), 0.0);
}

TEST(EvaluateRnm, table_variants_give_the_pow_variant_bit_for_bit) {
    for (double rho : {0.0, 0.123456789, 0.5, 0.999999, 1.0, 1.3, -0.4}) {
        ZernikeTables tables;
        ASSERT_TRUE(fill_zernike_tables(rho, 0.0, zernike_table_size(30, 30), &tables));
        for (int n = 0; n <= 30; ++n) {
            for (int m = n % 2; m <= n; m += 2) {
                const double direct = evaluate_rnm(rho, n, m);
                EXPECT_EQ(evaluate_rnm_precomputed_powers(n, m, tables.powers), direct);
                EXPECT_EQ(evaluate_rnm_from_tables(tables, n, m), direct);
            }
        }
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
    // At rho = 1, theta = 0: the bare cosine and symmetric coefficients.
    double rim = 0.0;
    for_each_zernike_term(6, 4, [&](int k, int l) { rim += coeffs[zernike_term_index(k, l)]; });
    EXPECT_NEAR(evaluate_zernike_series(1.0, 0.0, 6, 4, coeffs.data()), rim, 1e-12);
    for (auto [n, m] : TermList{{0, 0}, {3, 1}, {8, 0}, {8, 8}, {16, 16}, {20, 2}}) {
        for (double rho : {0.0, 0.2, 0.77, 1.0, 1.05}) {
            for (double theta : {0.0, 0.4, 3.0, -1.9}) {
                EXPECT_EQ(evaluate_zernike_series(rho, theta, n, m, coeffs.data()),
                          evaluate_zernike_series_direct(rho, theta, n, m, coeffs.data()))
                    << n << "," << m << " at " << rho << "," << theta;
            }
        }
    }
}

}  // namespace
}  // namespace torvel
