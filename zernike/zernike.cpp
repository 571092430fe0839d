#include <torvel/zernike.hpp>

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace torvel {

namespace {

// Binomials for every n, k up to zernike_table_max_order. Built once by the
// very routine that evaluate_rnm calls, so a looked-up value is the computed
// one; it spares the radial polynomials of high order a binomial loop per
// pixel and per term.
struct BinomialTable {
    static constexpr int size = zernike_table_max_order + 1;
    double value[size][size];

    BinomialTable() {
        for (int n = 0; n < size; ++n) {
            for (int k = 0; k < size; ++k) {
                value[n][k] = evaluate_num_combinations(n, k);
            }
        }
    }
};

const BinomialTable& binomial_table() {
    static const BinomialTable table;
    return table;
}

// The reduced polynomial R_n^m / rho^m times rho^m, with rho^j from power(j)
// and binomials from binomial(n, k). Every variant of the radial polynomial
// goes through this one body, so that they agree bit for bit: the case is
// chosen by h = (n - m) / 2 alone, and each case keeps its own operation order.
template <class Power, class Binomial>
double radial_polynomial(int n, int m, Power power, Binomial binomial) {
    const int d = n - m;
    const int h = d / 2;
    double reduced = 0.0;
    if (h == 0) {
        reduced = 1.0;
    } else if (h == 1) {
        reduced = n * power(2) - (n - 1);
    } else if (h == 2) {
        // Both halvings are of even integers, so they are exact; 64-bit
        // products keep orders beyond 46340 from overflowing.
        const std::int64_t n64 = n;
        const double constant = static_cast<double>((n64 - 3) * (n64 - 2) / 2);
        const double quartic = static_cast<double>((n64 * n64 - n64) / 2);
        const double quadratic = static_cast<double>((n64 - 1) * (n64 - 2));
        reduced = constant + power(2) * (quartic * power(2) - quadratic);
    } else {
        // The standard sum; binom(s, s - j) * binom(n - j, s) is
        // (n - j)! / (j! (s - j)! (h - j)!). A negative h runs no term.
        const int s = (n + m) / 2;
        double sign = 1.0;
        for (int j = 0; j <= h; ++j) {
            reduced = reduced + sign * power(d - 2 * j) * binomial(s, s - j) * binomial(n - j, s);
            sign = -sign;
        }
    }
    return reduced * power(m);
}

// rho^j from the math library's pow, j as a double. Kept out of every caller's
// sight (noipa): the compiler folds pow(rho, 2.0) with a constant exponent
// into rho * rho, which differs from the library's pow in the last bit now
// and then, and the tables must hold exactly what evaluate_rnm computes.
[[gnu::noipa]] double library_pow(double rho, int j) {
    return std::pow(rho, static_cast<double>(j));
}

// Powers as evaluate_rnm takes them.
struct PowPower {
    double rho;
    double operator()(int j) const { return library_pow(rho, j); }
};

struct ArrayPower {
    const double* powers;
    double operator()(int j) const { return powers[j]; }
};

struct ComputedBinomial {
    double operator()(int n, int k) const { return evaluate_num_combinations(n, k); }
};

struct TableBinomial {
    const BinomialTable* table;
    double operator()(int n, int k) const {
        if (n >= 0 && n < BinomialTable::size && k >= 0 && k < BinomialTable::size) {
            return table->value[n][k];
        }
        return evaluate_num_combinations(n, k);
    }
};

// Walks the terms of (n, m), adding each coefficient times its basis function
// in slot order. radial(k, l) gives R_k^l, cos_sin(l, &c, &s) the cosine and
// sine of l theta; both paths of the series evaluation share this walk.
template <class Radial, class CosSin>
double sum_series(int n, int m, const double* coeffs, Radial radial, CosSin cos_sin) {
    double sum = 0.0;
    int i = 0;
    for_each_zernike_term(n, m, [&](int k, int l) {
        const double r = radial(k, l);
        if (l == 0) {
            sum = sum + r * coeffs[i];
            i += 1;
        } else {
            double c = 0.0;
            double s = 0.0;
            cos_sin(l, &c, &s);
            sum = sum + r * (coeffs[i] * c + coeffs[i + 1] * s);
            i += 2;
        }
    });
    return sum;
}

}  // namespace

int zernike_term_count(int n, int m) {
    if (n < 0) {
        return 0;
    }
    const std::int64_t n64 = n;
    return static_cast<int>(n64 * (n64 + 1) / 2 + m + 1);
}

int zernike_term_index(int k, int l) {
    const std::int64_t k64 = k;
    const int first = static_cast<int>(k64 * (k64 + 1) / 2);
    return l == 0 ? first : first + l - 1;
}

double evaluate_num_combinations(int n, int k) {
    const int limit = 2147483647 / std::max(n, 1);
    const int a = n - k;
    const int small = std::min(k, a);
    const int large = std::max(k, a);
    // While r < limit and large + i <= n, r * (large + i) stays below 2^31.
    std::int64_t r = 1;
    int i = 1;
    while (i <= small && r < limit) {
        r = r * (large + i) / i;
        ++i;
    }
    double x = static_cast<double>(r);
    while (i <= small) {
        x = x * (large + i) / i;
        ++i;
    }
    return x;
}

double evaluate_rnm(double rho, int n, int m) {
    return radial_polynomial(n, m, PowPower{rho}, ComputedBinomial{});
}

double evaluate_rnm_precomputed_powers(int n, int m, const double* powers) {
    return radial_polynomial(n, m, ArrayPower{powers}, ComputedBinomial{});
}

ZernikeTableSize zernike_table_size(int n, int m) {
    if (n < 0) {
        return {0, 0};
    }
    // Orders below n reach frequency n - 1; the top order reaches m.
    return {std::max(n, m), std::max({n - 1, m, 0})};
}

bool fill_zernike_tables(double rho, double theta, ZernikeTableSize size, ZernikeTables* tables) {
    if (size.order > zernike_table_max_order || size.frequency > zernike_table_max_order) {
        return false;
    }
    fill_zernike_powers(rho, size.order, tables);
    fill_zernike_angles(theta, size.frequency, tables);
    return true;
}

void fill_zernike_powers(double rho, int order, ZernikeTables* tables) {
    tables->order = order;
    // pow(x, 0) is 1 for every x, a NaN included, so the call is skipped.
    tables->powers[0] = 1.0;
    for (int j = 1; j <= order; ++j) {
        tables->powers[j] = library_pow(rho, j);
    }
}

void fill_zernike_angles(double theta, int frequency, ZernikeTables* tables) {
    tables->frequency = frequency;
    tables->cos_sin[0] = 1.0;
    tables->cos_sin[1] = 0.0;
    for (int l = 1; l <= frequency; ++l) {
        ::sincos(static_cast<double>(l) * theta, &tables->cos_sin[2 * l + 1],
                 &tables->cos_sin[2 * l]);
    }
}

int zernike_radial_count(int n, int m) {
    int count = 0;
    for_each_zernike_term(n, m, [&](int, int) { ++count; });
    return count;
}

void evaluate_zernike_radials(const ZernikeTables& tables, int n, int m, double* radials) {
    const TableBinomial binomial{&binomial_table()};
    int i = 0;
    for_each_zernike_term(n, m, [&](int k, int l) {
        radials[i++] = radial_polynomial(k, l, ArrayPower{tables.powers}, binomial);
    });
}

void combine_zernike_basis(const double* radials, const ZernikeTables& tables, int n, int m,
                           double* values) {
    int i = 0;
    int r = 0;
    for_each_zernike_term(n, m, [&](int, int l) {
        const double radial = radials[r++];
        if (l == 0) {
            values[i++] = radial;
            return;
        }
        values[i++] = radial * tables.cos_sin[2 * l];
        values[i++] = radial * tables.cos_sin[2 * l + 1];
    });
}

double evaluate_zernike_series_from_tables(const ZernikeTables& tables, int n, int m,
                                           const double* coeffs) {
    const TableBinomial binomial{&binomial_table()};
    return sum_series(
        n, m, coeffs,
        [&](int k, int l) { return radial_polynomial(k, l, ArrayPower{tables.powers}, binomial); },
        [&](int l, double* c, double* s) {
            *c = tables.cos_sin[2 * l];
            *s = tables.cos_sin[2 * l + 1];
        });
}

double evaluate_zernike_series_from_radials(const double* radials, const ZernikeTables& tables,
                                            int n, int m, const double* coeffs) {
    int r = 0;
    return sum_series(
        n, m, coeffs, [&](int, int) { return radials[r++]; },
        [&](int l, double* c, double* s) {
            *c = tables.cos_sin[2 * l];
            *s = tables.cos_sin[2 * l + 1];
        });
}

double evaluate_zernike_series_direct(double rho, double theta, int n, int m,
                                      const double* coeffs) {
    return sum_series(
        n, m, coeffs, [&](int k, int l) { return evaluate_rnm(rho, k, l); },
        [&](int l, double* c, double* s) { ::sincos(static_cast<double>(l) * theta, s, c); });
}

double evaluate_zernike_series(double rho, double theta, int n, int m, const double* coeffs) {
    ZernikeTables tables;
    if (fill_zernike_tables(rho, theta, zernike_table_size(n, m), &tables)) {
        return evaluate_zernike_series_from_tables(tables, n, m, coeffs);
    }
    return evaluate_zernike_series_direct(rho, theta, n, m, coeffs);
}

// ---- the recurrence -----------------------------------------------------------

namespace {

// R_k^l(rho) for the terms of a set asked for in visiting order: each time
// the order k grows, the next row of the recurrence is made from the two
// before. Three rows of n + 2 values (orders k - 2, k - 1, k, indexed by l)
// live in the caller's scratch and take turns; the recurrence reads only
// entries of a row's own parity up to its order, which are always fresh.
class RecurrentRadials {
public:
    RecurrentRadials(double rho, int n, double* rows)
        : rho_(rho), width_(std::size_t(n) + 2), older_(rows), old_(rows + width_),
          current_(rows + 2 * width_) {
        std::fill(rows, rows + 3 * width_, 0.0);
    }

    double operator()(int k, int l) {
        while (order_ < k) advance();
        return current_[l];
    }

private:
    void advance() {
        std::swap(older_, old_);
        std::swap(old_, current_);  // current_ now holds order - 2, overwritten below
        const int k = ++order_;
        for (int l = k % 2; l <= k; l += 2) {
            if (k == 0) {
                current_[l] = 1.0;
            } else if (l == k) {
                current_[l] = rho_ * old_[l - 1];
            } else {
                const double below = old_[l == 0 ? 1 : l - 1];
                current_[l] = rho_ * (below + old_[l + 1]) - older_[l];
            }
        }
    }

    double rho_;
    std::size_t width_;
    double* older_;
    double* old_;
    double* current_;
    int order_ = -1;
};

}  // namespace

void zernike_set_in_use(int n, int m, const double* coeffs, int* used_n, int* used_m) {
    *used_n = -1;
    *used_m = -1;
    int slot = 0;
    for_each_zernike_term(n, m, [&](int k, int l) {
        const int width = l == 0 ? 1 : 2;
        for (int i = 0; i < width; ++i) {
            if (coeffs[slot + i] != 0.0) {  // true for a NaN too
                *used_n = k;
                *used_m = l;
            }
        }
        slot += width;
    });
}

int zernike_recurrent_scratch_size(int n) {
    return n < 0 ? 0 : 3 * (n + 2) + 2 * (n + 1);
}

void evaluate_zernike_radials_recurrent(double rho, int n, int m, double* radials,
                                        double* scratch) {
    if (n < 0) return;
    RecurrentRadials radial(rho, n, scratch);
    int i = 0;
    for_each_zernike_term(n, m, [&](int k, int l) { radials[i++] = radial(k, l); });
}

double evaluate_zernike_series_recurrent(double rho, double theta, int n, int m,
                                         const double* coeffs, double* scratch) {
    if (n < 0) return 0.0;
    RecurrentRadials radial(rho, n, scratch);
    double* cos_sin = scratch + 3 * (std::size_t(n) + 2);
    const int frequency = std::max({n - 1, m, 0});
    for (int l = 1; l <= frequency; ++l)
        ::sincos(static_cast<double>(l) * theta, &cos_sin[2 * l + 1], &cos_sin[2 * l]);
    return sum_series(n, m, coeffs, radial, [&](int l, double* c, double* s) {
        *c = cos_sin[2 * l];
        *s = cos_sin[2 * l + 1];
    });
}

}  // namespace torvel
