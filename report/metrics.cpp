// Reading a fit file for the report, and the figures of merit of one
// wavelength: exact RMS sums over coefficients, a peak to valley searched on
// a fine polar grid, the Marechal estimate, the amplitude's mean and spread.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <memory>
#include <numbers>
#include <span>
#include <utility>

#include <torvel/messages.hpp>
#include <torvel/pupil.hpp>
#include <torvel/report.hpp>
#include <torvel/zernike.hpp>

namespace torvel {
namespace {

struct pupil_deleter {
    void operator()(ParametricPupil* pupil) const { destroy_parametric_pupil(pupil); }
};

std::vector<double> copy_coefficients(const double* values, int count) {
    if (values == nullptr || count <= 0) return {};
    return std::vector<double>(values, values + count);
}

// The coefficient of slot, or 0 when the set does not reach it.
double coefficient(const std::vector<double>& c, int slot) {
    return slot < int(c.size()) ? c[slot] : 0.0;
}

// Sum of c^2 times the term's mean square over the disc, for every term of
// (n, m) of radial order at least first_order, leaving out R_2^0 when asked.
double sum_of_squares(const std::vector<double>& c, int n, int m, int first_order,
                      bool without_defocus) {
    double sum = 0.0;
    if (c.empty()) return sum;
    for_each_zernike_term(n, m, [&](int k, int l) {
        if (k < first_order || (without_defocus && k == 2 && l == 0)) return;
        const int slot = zernike_term_index(k, l);
        double squares = c[slot] * c[slot];
        if (l > 0) squares += c[slot + 1] * c[slot + 1];
        sum += squares * zernike_mean_square(k, l);
    });
    return sum;
}

// Smallest and largest of the values it is given.
struct value_range {
    double lo = std::numeric_limits<double>::infinity();
    double hi = -std::numeric_limits<double>::infinity();
    void add(double v) {
        lo = std::min(lo, v);
        hi = std::max(hi, v);
    }
};

// One series whose peak to valley is searched on the polar grid: its
// coefficients for the set, and a value added at each radius of the grid
// (none when empty).
struct pv_search {
    std::vector<double> c;
    std::vector<double> added;
    value_range range;
    double pv() const { return range.hi - range.lo; }
};

double rho_of_pv_radius(int i) {
    return double(i) / (kPeakToValleyRadii - 1);
}

// At one radius a series is a trigonometric polynomial in theta: the sum
// over l of cos_part[l] cos(l theta) + sin_part[l] sin(l theta), each part
// a sum over the terms of frequency l of coefficient times R_k^l(rho).
struct ring_series {
    std::vector<double> cos_part, sin_part;

    // Sets the parts of series c of the set (n, m) from the radial values of
    // one radius, in visiting order.
    void set(const std::vector<double>& c, int n, int m, const std::vector<double>& radials) {
        std::fill(cos_part.begin(), cos_part.end(), 0.0);
        std::fill(sin_part.begin(), sin_part.end(), 0.0);
        int r = 0;
        for_each_zernike_term(n, m, [&](int k, int l) {
            const int slot = zernike_term_index(k, l);
            const double radial = radials[std::size_t(r++)];
            cos_part[std::size_t(l)] += c[std::size_t(slot)] * radial;
            if (l > 0) sin_part[std::size_t(l)] += c[std::size_t(slot) + 1] * radial;
        });
    }

    // The value at the angle whose cos(l theta), sin(l theta) pairs are
    // cos_sin[2l], cos_sin[2l + 1].
    double at(const double* cos_sin) const {
        double sum = 0.0;
        for (std::size_t l = 0; l < cos_part.size(); ++l)
            sum += cos_part[l] * cos_sin[2 * l] + sin_part[l] * cos_sin[2 * l + 1];
        return sum;
    }
};

// Searches the largest and smallest value of every series of the set (n, m)
// over the polar grid, each series up to the last term that any of them
// uses. The radial values of a radius come from the recurrence and are
// folded into a polynomial in theta per series, so a point costs O(n) and a
// radius O(n^2), at any order.
void search_peaks_to_valleys(std::span<pv_search> searches, int n, int m) {
    int used_n = -1, used_m = -1;
    for (const pv_search& s : searches) {
        if (s.c.empty()) continue;
        int sn = -1, sm = -1;
        zernike_set_in_use(n, m, s.c.data(), &sn, &sm);
        if (sn >= 0 && zernike_term_count(sn, sm) > zernike_term_count(used_n, used_m)) {
            used_n = sn;
            used_m = sm;
        }
    }
    n = std::max(used_n, 0);
    m = used_n < 0 ? 0 : used_m;
    const std::size_t frequency = std::size_t(std::max({n - 1, m, 0}));
    std::vector<double> cos_sin(2 * (frequency + 1) * kPeakToValleyAngles);
    for (int j = 0; j < kPeakToValleyAngles; ++j) {
        const double theta = 2.0 * std::numbers::pi * j / kPeakToValleyAngles;
        double* row = &cos_sin[2 * (frequency + 1) * std::size_t(j)];
        for (std::size_t l = 0; l <= frequency; ++l)
            ::sincos(double(l) * theta, &row[2 * l + 1], &row[2 * l]);
    }
    std::vector<double> radials(std::size_t(zernike_radial_count(n, m)));
    std::vector<double> scratch(std::size_t(zernike_recurrent_scratch_size(n)));
    std::vector<ring_series> rings(
        searches.size(), {std::vector<double>(frequency + 1), std::vector<double>(frequency + 1)});
    for (int i = 0; i < kPeakToValleyRadii; ++i) {
        evaluate_zernike_radials_recurrent(rho_of_pv_radius(i), n, m, radials.data(),
                                           scratch.data());
        for (std::size_t k = 0; k < searches.size(); ++k)
            if (!searches[k].c.empty()) rings[k].set(searches[k].c, n, m, radials);
        for (int j = 0; j < kPeakToValleyAngles; ++j) {
            const double* angle = &cos_sin[2 * (frequency + 1) * std::size_t(j)];
            for (std::size_t k = 0; k < searches.size(); ++k) {
                pv_search& s = searches[k];
                double v = rings[k].at(angle);
                if (!s.added.empty()) v += s.added[std::size_t(i)];
                s.range.add(v);
            }
        }
    }
}

// The phase with piston and tilt (and defocus when asked) set to zero.
std::vector<double> without_low_orders(std::vector<double> c, bool without_defocus) {
    const int last = without_defocus ? zernike_term_index(2, 0) : zernike_term_index(1, 1) + 1;
    for (int slot = 0; slot <= last && slot < int(c.size()); ++slot) c[slot] = 0.0;
    return c;
}

// Gauss-Legendre nodes and weights on [-1, 1], exact for polynomials of
// degree below 2 count: Newton's method on the Legendre polynomial.
void gauss_legendre(int count, std::vector<double>* nodes, std::vector<double>* weights) {
    nodes->assign(std::size_t(count), 0.0);
    weights->assign(std::size_t(count), 0.0);
    for (int i = 0; i < count; ++i) {
        double x = std::cos(std::numbers::pi * (i + 0.75) / (count + 0.5));
        double slope = 1.0;
        for (int step = 0; step < 100; ++step) {
            double previous = 1.0, p = x;  // P_(k-1) and P_k, up to k = count
            for (int k = 2; k <= count; ++k) {
                const double next = ((2 * k - 1) * x * p - (k - 1) * previous) / k;
                previous = p;
                p = next;
            }
            slope = count * (x * p - previous) / (x * x - 1.0);
            const double dx = p / slope;
            x -= dx;
            if (std::fabs(dx) < 1e-15) break;
        }
        (*nodes)[std::size_t(i)] = x;
        (*weights)[std::size_t(i)] = 2.0 / ((1.0 - x * x) * slope * slope);
    }
}

// Points of a quadrature of the mean over the unit disc of functions of rho
// alone. With u = rho^2 that mean is the integral over u in [0, 1]; in the
// path t = sqrt(n^2 - NA^2 u), the integral of g(u(t)) 2 t / NA^2 over [t1,
// n], t1 = sqrt(n^2 - NA^2). R_k^0 is a polynomial of degree k / 2 in u and so
// of degree k in t: Gauss-Legendre in t with count points integrates R_k^0
// times a polynomial of degree d in t exactly while k + d + 1 < 2 count, even
// when NA = n, where the path has no derivative at the rim.
struct focus_quadrature {
    std::vector<double> rho, path, weight;
};

focus_quadrature make_focus_quadrature(double na, double n_imm, int count) {
    std::vector<double> x, w;
    gauss_legendre(count, &x, &w);
    const double t1 = std::sqrt((n_imm - na) * (n_imm + na));
    const double half = 0.5 * (n_imm - t1), mid = 0.5 * (n_imm + t1);
    focus_quadrature q;
    for (int i = 0; i < count; ++i) {
        const double t = mid + half * x[std::size_t(i)];
        // n^2 - t^2 as (n - t)(n + t), with n - t = half (1 - x) free of cancellation.
        const double u = half * (1.0 - x[std::size_t(i)]) * (n_imm + t) / (na * na);
        q.rho.push_back(std::sqrt(std::min(1.0, u)));
        q.path.push_back(t);
        q.weight.push_back(2.0 * t * half * w[std::size_t(i)] / (na * na));
    }
    return q;
}

// Least squares over the disc of piston, tilt and the focus shift phase F(rho)
// = -2 pi dz (t - mean t) / lambda against the phase c. Tilt is orthogonal to
// every other term and to F; F is orthogonal to piston; of the other terms
// only the R_k^0 meet F. So dz = <c, F> / <F, F>, and every coefficient of the
// set loses dz <R_k^0, F> / <R_k^0, R_k^0>.
struct best_focus_fit {
    double dz_um = 0.0, mean_path = 0.0;
    double removed_square = 0.0;  // <dz F, dz F>: what best focus takes off sigma^2
    std::vector<double> coefficients;
};

best_focus_fit fit_best_focus(const report_model& model, const std::vector<double>& c,
                              double wavelength_nm) {
    best_focus_fit fit;
    fit.coefficients = without_low_orders(c, false);
    const focus_quadrature q = make_focus_quadrature(
        model_aperture(model), model_immersion_index(model), std::max(model.phase_n, 0) / 2 + 3);
    for (std::size_t i = 0; i < q.rho.size(); ++i) fit.mean_path += q.weight[i] * q.path[i];
    double variance = 0.0, product = 0.0;
    for (std::size_t i = 0; i < q.rho.size(); ++i) {
        const double d = q.path[i] - fit.mean_path;
        variance += q.weight[i] * d * d;
    }
    std::vector<double> projections(c.size(), 0.0);  // <R_k^0, t - mean t> by slot
    for_each_zernike_term(c.empty() ? -1 : model.phase_n, model.phase_m, [&](int k, int l) {
        if (k < 2 || l != 0) return;
        const int slot = zernike_term_index(k, 0);
        for (std::size_t i = 0; i < q.rho.size(); ++i)
            projections[std::size_t(slot)] +=
                q.weight[i] * evaluate_rnm(q.rho[i], k, 0) * (q.path[i] - fit.mean_path);
        product += c[std::size_t(slot)] * projections[std::size_t(slot)];
    });
    const double lambda_um = wavelength_nm / 1000.0;
    const double wavenumber = 2.0 * std::numbers::pi / lambda_um;
    fit.dz_um = product == 0.0 ? 0.0 : -product / (wavenumber * variance);  // no -0 printed
    fit.removed_square = product * product / variance;
    for_each_zernike_term(c.empty() ? -1 : model.phase_n, model.phase_m, [&](int k, int l) {
        if (k < 2 || l != 0) return;
        const int slot = zernike_term_index(k, 0);
        fit.coefficients[std::size_t(slot)] +=
            fit.dz_um * wavenumber * projections[std::size_t(slot)] / zernike_mean_square(k, 0);
    });
    return fit;
}

// Every aberration of order 2 and up, cos/sin pairs combined, largest first.
std::vector<aberration_share> rank_aberrations(const std::vector<double>& c, int n, int m,
                                               double wavelength_nm) {
    std::vector<aberration_share> shares;
    if (c.empty()) return shares;
    for_each_zernike_term(n, m, [&](int k, int l) {
        if (k < 2) return;
        const int slot = zernike_term_index(k, l);
        double squares = c[slot] * c[slot];
        if (l > 0) squares += c[slot + 1] * c[slot + 1];
        const double rms = std::sqrt(squares * zernike_mean_square(k, l));
        aberration_share share{
            k, l, {-1, -1}, {-1, -1}, radians_to_nm(rms, wavelength_nm), aberration_name(k, l)};
        if (l == 0) {
            share.noll[0] = noll_index(k, 0, zernike_part::radial);
            share.osa[0] = osa_index(k, 0, zernike_part::radial);
        } else {
            share.noll[0] = noll_index(k, l, zernike_part::cosine);
            share.noll[1] = noll_index(k, l, zernike_part::sine);
            share.osa[0] = osa_index(k, l, zernike_part::cosine);
            share.osa[1] = osa_index(k, l, zernike_part::sine);
        }
        shares.push_back(share);
    });
    std::stable_sort(
        shares.begin(), shares.end(),
        [](const aberration_share& a, const aberration_share& b) { return a.rms_nm > b.rms_nm; });
    return shares;
}

// Rejects what the report cannot give figures for. Returns 0 or 1 after one
// message.
int check_model(const report_model& model) {
    if (model.waves.empty()) {
        print_message("torvel-report: %s: the fit holds no wavelength\n", model.file.c_str());
        return 1;
    }
    for (std::size_t w = 0; w < model.waves.size(); ++w) {
        // Figures are given for the wavelength as the fit file writes it, to
        // six decimals of a micrometre; one that rounds to 0 has none.
        const float um = model.waves[w].wavelength_um;
        if (!(std::round(double(um) * 1e6) > 0.0) || !std::isfinite(um)) {
            print_message(
                "torvel-report: %s: wavelength %zu is %g um; a wavelength must be "
                "positive (at least 0.000001 um as fit files write it)\n",
                model.file.c_str(), w, double(um));
            return 1;
        }
    }
    if (model_aperture(model) > model_immersion_index(model)) {
        print_message(
            "torvel-report: %s: numerical aperture %g above the immersion index %g; no "
            "focus shift is defined\n",
            model.file.c_str(), double(model.na), double(model.n_imm));
        return 1;
    }
    return 0;
}

}  // namespace

int load_report_model(const char* file, report_model* model) {
    std::int32_t code = 0, line = 0, column = 0;
    std::unique_ptr<ParametricPupil, pupil_deleter> pupil(
        read_parametric_pupil(file, &code, &line, &column));
    if (!pupil) {
        print_message("torvel-report: %s:%d:%d: %s\n", file, int(line), int(column),
                      read_parametric_pupil_error_text(code));
        return 1;
    }
    return take_report_model(file, pupil.get(), model);
}

int take_report_model(const char* file, ParametricPupil* pupil, report_model* model) {
    ParametricPupil* p = pupil;
    char unusable[200];
    if (find_unusable_pupil_value(p, unusable, sizeof unusable) != 0) {
        print_message("torvel-report: %s: %s\n", file, unusable);
        return 1;
    }
    model->file = file;
    model->na = get_parametric_pupil_numerical_aperture(p);
    model->n_imm = get_parametric_pupil_immersion_refractive_index(p);
    model->lens_id = get_parametric_pupil_lens_id(p);
    get_parametric_pupil_amplitude_zernike_orders(p, &model->amplitude_n, &model->amplitude_m);
    get_parametric_pupil_phase_zernike_orders(p, &model->phase_n, &model->phase_m);
    const int amplitude_count = get_parametric_pupil_amplitude_zernike_count(p);
    const int phase_count = get_parametric_pupil_phase_zernike_count(p);
    model->waves.clear();
    for (int w = 0; w < get_parametric_pupil_wavelength_count(p); ++w) {
        model->waves.push_back(
            {get_parametric_pupil_wavelength(p, w),
             copy_coefficients(get_parametric_pupil_amplitude_zernike_coeff(p, w), amplitude_count),
             copy_coefficients(get_parametric_pupil_phase_zernike_coeff(p, w), phase_count)});
    }
    return check_model(*model);
}

double model_aperture(const report_model& model) {
    return std::round(double(model.na) * 1e3) / 1e3;
}

double model_immersion_index(const report_model& model) {
    return std::round(double(model.n_imm) * 1e5) / 1e5;
}

double focus_shift_phase(const report_model& model, double wavelength_nm, double dz_um,
                         double mean_path, double rho) {
    const double na = model_aperture(model) * rho, n = model_immersion_index(model);
    const double path = std::sqrt(std::max(0.0, (n - na) * (n + na)));
    return -2.0 * std::numbers::pi * dz_um * (path - mean_path) / (wavelength_nm / 1000.0);
}

double paraxial_focus_shift_um(const report_model& model, double wavelength_nm, double c20) {
    const double na = model_aperture(model), n = model_immersion_index(model);
    // n - sqrt(n^2 - NA^2) as NA^2 / (n + sqrt(n^2 - NA^2)), exact at small NA too.
    const double rim_path = na * na / (n + std::sqrt((n - na) * (n + na)));
    return c20 * (wavelength_nm / 1000.0) / (std::numbers::pi * rim_path);
}

wavelength_metrics compute_wavelength_metrics(const report_model& model, int wave) {
    const report_wavelength& fit = model.waves[std::size_t(wave)];
    const int n = model.phase_n, m = model.phase_m;
    wavelength_metrics out{};
    // The wavelength as the file writes it (micrometres to 6 decimals), not
    // the float it was read into.
    out.wavelength_nm = std::round(double(fit.wavelength_um) * 1e6) / 1e3;
    const double variance = sum_of_squares(fit.phase, n, m, 2, false);
    out.rms_rad = std::sqrt(variance);
    out.rms_paraxial_rad = std::sqrt(sum_of_squares(fit.phase, n, m, 2, true));
    const double c20 = coefficient(fit.phase, zernike_term_index(2, 0));
    out.focus_shift_paraxial_um = paraxial_focus_shift_um(model, out.wavelength_nm, c20);

    best_focus_fit best = fit_best_focus(model, fit.phase, out.wavelength_nm);
    out.focus_shift_um = best.dz_um;
    out.focus_mean_path = best.mean_path;
    out.rms_best_focus_rad = std::sqrt(std::max(0.0, variance - best.removed_square));

    if (!fit.phase.empty()) {
        pv_search searches[3] = {{without_low_orders(fit.phase, false), {}, {}},
                                 {without_low_orders(fit.phase, true), {}, {}},
                                 {without_low_orders(fit.phase, false), {}, {}}};
        for (int i = 0; i < kPeakToValleyRadii; ++i)
            searches[2].added.push_back(-focus_shift_phase(model, out.wavelength_nm, best.dz_um,
                                                           best.mean_path, rho_of_pv_radius(i)));
        search_peaks_to_valleys(searches, n, m);
        out.pv_rad = searches[0].pv();
        out.pv_paraxial_rad = searches[1].pv();
        out.pv_best_focus_rad = searches[2].pv();
    }
    out.strehl = std::exp(-out.rms_rad * out.rms_rad);
    out.strehl_paraxial = std::exp(-out.rms_paraxial_rad * out.rms_paraxial_rad);
    out.strehl_best_focus = std::exp(-out.rms_best_focus_rad * out.rms_best_focus_rad);
    if (fit.amplitude.empty()) {
        out.mean_amplitude = 1.0;  // no series: the model's amplitude is 1
        out.amplitude_relative_rms = 0.0;
    } else {
        out.mean_amplitude = fit.amplitude[0];
        out.amplitude_relative_rms = std::sqrt(sum_of_squares(fit.amplitude, model.amplitude_n,
                                                              model.amplitude_m, 1, false)) /
                                     std::fabs(out.mean_amplitude);
    }
    const double rms_20 = std::sqrt(zernike_mean_square(2, 0));
    const double rms_40 = std::sqrt(zernike_mean_square(4, 0));
    const int slot_40 = zernike_term_index(4, 0);
    out.defocus_nm = radians_to_nm(c20 * rms_20, out.wavelength_nm);
    out.spherical_nm = radians_to_nm(coefficient(fit.phase, slot_40) * rms_40, out.wavelength_nm);
    out.spherical_best_focus_nm =
        radians_to_nm(coefficient(best.coefficients, slot_40) * rms_40, out.wavelength_nm);
    out.largest = rank_aberrations(best.coefficients, n, m, out.wavelength_nm);
    return out;
}

int check_wavelength_metrics(const report_model& model, const wavelength_metrics& w) {
    const std::pair<const char*, double> figures[] = {
        {"rms", w.rms_rad},
        {"peak to valley", w.pv_rad},
        {"focus shift", w.focus_shift_um},
        {"rms at best focus", w.rms_best_focus_rad},
        {"peak to valley at best focus", w.pv_best_focus_rad},
        {"paraxial focus shift", w.focus_shift_paraxial_um},
        {"paraxial rms", w.rms_paraxial_rad},
        {"paraxial peak to valley", w.pv_paraxial_rad},
        {"mean amplitude", w.mean_amplitude},
        {"relative amplitude rms", w.amplitude_relative_rms},
        {"defocus", w.defocus_nm},
        {"spherical aberration", w.spherical_nm},
    };
    for (const auto& [name, value] : figures) {
        if (std::isfinite(value)) continue;
        print_message("torvel-report: %s: the %s at %g nm is %g%s\n", model.file.c_str(),
                     name, w.wavelength_nm, value,
                     w.mean_amplitude == 0.0 ? " (the mean amplitude is 0)" : "");
        return 1;
    }
    return 0;
}

}  // namespace torvel
