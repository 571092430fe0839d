#pragma once
// Zernike polynomials: the radial polynomials R_n^m, the one order in which
// the terms of a Zernike set stand in every coefficient array, design matrix
// and file, and the value of a series at one pupil point.
//
// A Zernike set (n, m) holds every term of radial order below n and, at order
// n, the terms whose angular frequency is at most m. It is valid when
// 0 <= m <= n and n - m is even; n < 0 means no terms. The basis is not
// normalised: R_n^m(1) = 1, so every basis function peaks at 1 on the rim.
//
// Term order. Orders k = 0, 1, ..., n come in ascending order. Within order k
// an even k starts with the rotationally symmetric term R_k^0 (one slot); then
// each angular frequency l = 2, 4, ... (k even) or l = 1, 3, ... (k odd), up
// to k (up to m at the top order k = n), takes two adjacent slots: first
// R_k^l cos(l theta), then R_k^l sin(l theta). Order k thus holds k + 1 slots
// starting at k(k+1)/2. zernike_term_count, zernike_term_index and
// for_each_zernike_term below are the only code that encodes this order;
// everything that walks coefficients goes through them.

namespace torvel {

// Number of coefficients of the set (n, m): n(n+1)/2 + m + 1, and 0 when
// n < 0. Meant for sets whose count fits in an int (n below 65535).
int zernike_term_count(int n, int m);

// Slot of a term in a coefficient array: k(k+1)/2 for R_k^0 (l = 0); for
// l > 0, k(k+1)/2 + l - 1 for the cosine term of R_k^l, whose sine term takes
// the next slot, k(k+1)/2 + l.
int zernike_term_index(int k, int l);

// Calls visit(k, l) once per term of the set (n, m), in slot order: l = 0 for
// the one-slot term R_k^0, l > 0 for the two-slot pair cos, sin of R_k^l.
// Nothing is visited when n < 0. For a valid set the visited slots number
// exactly zernike_term_count(n, m); an even top order always yields its
// R_n^0 term, whatever m is.
template <class Visit>
void for_each_zernike_term(int n, int m, Visit&& visit) {
    for (int k = 0; k <= n; ++k) {
        const int highest = (k < n) ? k : m;
        if (k % 2 == 0) {
            visit(k, 0);
        }
        for (int l = (k % 2 == 0) ? 2 : 1; l <= highest; l += 2) {
            visit(k, l);
        }
    }
}

// Binomial coefficient n choose k. Integer arithmetic while the running value
// stays below 2147483647 / max(n, 1), double arithmetic after that, so small
// results are exact and large ones never overflow. Returns 1 when k < 0 or
// k > n.
double evaluate_num_combinations(int n, int k);

// R_n^m(rho), taking every power of rho from pow(rho, j). rho is not clamped.
// Pairs outside the valid range are evaluated as well: n - m = 1 gives rho^m,
// n - m <= -2 gives 0, other odd differences follow the same formulas.
double evaluate_rnm(double rho, int n, int m);

// The same value as evaluate_rnm, with rho^j read from powers[j] instead
// (powers[j] == pow(rho, j) for j = 0 .. max(n, m); only read).
double evaluate_rnm_precomputed_powers(int n, int m, const double* powers);

// Value at (rho, theta) of the series of the valid set (n, m), n >= 0, whose
// zernike_term_count(n, m) coefficients in slot order are read from coeffs:
// the sum of coefficient times R_k^l(rho) times 1, cos(l theta) or
// sin(l theta), added in slot order. Uses tables on the stack; allocates
// nothing.
double evaluate_zernike_series(double rho, double theta, int n, int m, const double* coeffs);

// The same sum as evaluate_zernike_series, without tables: every radial value
// from evaluate_rnm and every cosine and sine from its own sincos. It gives
// the same value bit for bit; evaluate_zernike_series uses it for orders too
// large for ZernikeTables.
double evaluate_zernike_series_direct(double rho, double theta, int n, int m, const double* coeffs);

// Highest radial order whose tables fit in ZernikeTables.
inline constexpr int zernike_table_max_order = 64;

// Values shared by every term at one pupil point, filled by
// fill_zernike_tables: powers[j] = pow(rho, j) for j = 0 .. order and
// cos_sin[2l], cos_sin[2l + 1] = cos(l theta), sin(l theta) for
// l = 0 .. frequency, each pair from one sincos of l * theta.
struct ZernikeTables {
    int order;
    int frequency;
    double powers[zernike_table_max_order + 1];
    double cos_sin[2 * (zernike_table_max_order + 1)];
};

// Highest power of rho and highest angular frequency that the terms of the
// set (n, m) read from ZernikeTables; both 0 when n < 0.
struct ZernikeTableSize {
    int order;
    int frequency;
};
ZernikeTableSize zernike_table_size(int n, int m);

// Fills *tables at (rho, theta) for the given size; the values are exactly
// those that evaluate_rnm and a per-term sincos would compute. Returns false,
// touching nothing, when size.order exceeds zernike_table_max_order.
bool fill_zernike_tables(double rho, double theta, ZernikeTableSize size, ZernikeTables* tables);

// The two halves of fill_zernike_tables, for callers that reuse the radial
// part of one point at another of the same rho: the powers of rho up to
// order, and the cosines and sines of l theta up to frequency. Both sizes
// must be within zernike_table_max_order.
void fill_zernike_powers(double rho, int order, ZernikeTables* tables);
void fill_zernike_angles(double theta, int frequency, ZernikeTables* tables);

// Most terms a set within the tables' order can hold.
inline constexpr int zernike_table_max_terms =
    (zernike_table_max_order * (zernike_table_max_order + 1)) / 2 + zernike_table_max_order + 1;

// Number of radial values of the set (n, m): one per term visited by
// for_each_zernike_term (a cosine and sine pair shares one).
int zernike_radial_count(int n, int m);

// Writes R_k^l(rho) of every term of (n, m), in visiting order, to radials
// (zernike_radial_count(n, m) values), reading only the powers of tables.
void evaluate_zernike_radials(const ZernikeTables& tables, int n, int m, double* radials);

// Writes the basis values of (n, m) in slot order from radial values made by
// evaluate_zernike_radials (at any point of the same rho) and the angle part
// of tables, in slot order: R_k^0, or R_k^l cos(l theta) then R_k^l sin(l theta),
// each product formed from R_k^l exactly as evaluate_rnm gives it.
void combine_zernike_basis(const double* radials, const ZernikeTables& tables, int n, int m,
                           double* values);

// evaluate_zernike_series at a point whose radial values, as
// evaluate_zernike_radials gives them for (n, m) or for any set whose terms
// begin with those of (n, m), are radials, and whose angle part is that of
// tables.
double evaluate_zernike_series_from_radials(const double* radials, const ZernikeTables& tables,
                                            int n, int m, const double* coeffs);

// evaluate_zernike_series at the point of tables, which must be filled for at
// least zernike_table_size(n, m).
double evaluate_zernike_series_from_tables(const ZernikeTables& tables, int n, int m,
                                           const double* coeffs);

// ---- series of any order, for the programs that show a fit -------------------
// The functions above are torvel's own arithmetic, kept bit for bit at every
// order; their cost per point grows as n^3 (n^4 beyond the tables). The
// programs that only look at a fit evaluate it with these instead: every
// radial value from the three-term recurrence
//   R_k^l = rho (R_{k-1}^{|l-1|} + R_{k-1}^{l+1}) - R_{k-2}^l,  R_k^k = rho^k,
// which costs a few operations per term, so a point costs O(n^2) at any
// order. The values agree with evaluate_rnm to within rounding (the
// recurrence is the better conditioned of the two at high orders).

// The smallest set (*used_n, *used_m) whose terms hold every coefficient of
// coeffs (slot order of the valid set (n, m)) that is not zero, NaNs
// included; (-1, -1) when every coefficient is zero or n < 0. A series has
// the same value over that set, at a fraction of the work when a file
// declares a large set and fills only its first terms.
void zernike_set_in_use(int n, int m, const double* coeffs, int* used_n, int* used_m);

// Doubles of scratch that the recurrent functions below need for a set of
// radial order n: 3 (n + 2) for three orders of radial values and
// 2 (n + 1) for the cosines and sines.
int zernike_recurrent_scratch_size(int n);

// Writes R_k^l(rho) of every term of (n, m), in the visiting order of
// for_each_zernike_term (zernike_radial_count(n, m) values), to radials.
void evaluate_zernike_radials_recurrent(double rho, int n, int m, double* radials,
                                        double* scratch);

// Value at (rho, theta) of the series of the valid set (n, m), as
// evaluate_zernike_series defines it, with radial values from the
// recurrence; 0 when n < 0. scratch holds zernike_recurrent_scratch_size(n)
// doubles. O(n^2) operations, no allocation.
double evaluate_zernike_series_recurrent(double rho, double theta, int n, int m,
                                         const double* coeffs, double* scratch);

}  // namespace torvel
