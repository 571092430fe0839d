// Reading a fit file for the report, and the figures of merit of one
// wavelength: exact RMS sums over coefficients, a peak to valley searched on
// a fine polar grid, the Marechal estimate, the amplitude's mean and spread.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <memory>
#include <numbers>
#include <utility>

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

// Largest minus smallest value over the polar grid of two series a and b of
// the set (n, m), into *pv_a and *pv_b; b's terms must be among a's. The
// radial values of a radius are made once and folded into a polynomial in
// theta per series, so a point costs O(n) and a radius O(n^2).
void peaks_to_valleys(const std::vector<double>& a, const std::vector<double>& b, int n, int m,
                      double* pv_a, double* pv_b) {
    *pv_a = *pv_b = 0.0;
    if (a.empty()) return;
    zernike_set_in_use(n, m, a.data(), &n, &m);
    if (n < 0) return;
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
    ring_series ring_a{std::vector<double>(frequency + 1), std::vector<double>(frequency + 1)};
    ring_series ring_b = ring_a;
    value_range range_a, range_b;
    for (int i = 0; i < kPeakToValleyRadii; ++i) {
        const double rho = double(i) / (kPeakToValleyRadii - 1);
        evaluate_zernike_radials_recurrent(rho, n, m, radials.data(), scratch.data());
        ring_a.set(a, n, m, radials);
        ring_b.set(b, n, m, radials);
        for (int j = 0; j < kPeakToValleyAngles; ++j) {
            const double* angle = &cos_sin[2 * (frequency + 1) * std::size_t(j)];
            range_a.add(ring_a.at(angle));
            range_b.add(ring_b.at(angle));
        }
    }
    *pv_a = range_a.hi - range_a.lo;
    *pv_b = range_b.hi - range_b.lo;
}

// The phase with piston and tilt (and defocus when asked) set to zero.
std::vector<double> without_low_orders(std::vector<double> c, bool without_defocus) {
    const int last = without_defocus ? zernike_term_index(2, 0) : zernike_term_index(1, 1) + 1;
    for (int slot = 0; slot <= last && slot < int(c.size()); ++slot) c[slot] = 0.0;
    return c;
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
        std::fprintf(stderr, "torvel-report: %s: the fit holds no wavelength\n",
                     model.file.c_str());
        return 1;
    }
    for (std::size_t w = 0; w < model.waves.size(); ++w) {
        // Figures are given for the wavelength as the fit file writes it, to
        // six decimals of a micrometre; one that rounds to 0 has none.
        const float um = model.waves[w].wavelength_um;
        if (!(std::round(double(um) * 1e6) > 0.0) || !std::isfinite(um)) {
            std::fprintf(stderr,
                         "torvel-report: %s: wavelength %zu is %g um; a wavelength must be "
                         "positive (at least 0.000001 um as fit files write it)\n",
                         model.file.c_str(), w, double(um));
            return 1;
        }
    }
    return 0;
}

}  // namespace

int load_report_model(const char* file, report_model* model) {
    std::int32_t code = 0, line = 0, column = 0;
    std::unique_ptr<ParametricPupil, pupil_deleter> pupil(
        read_parametric_pupil(file, &code, &line, &column));
    if (!pupil) {
        std::fprintf(stderr, "torvel-report: %s:%d:%d: %s\n", file, int(line), int(column),
                     read_parametric_pupil_error_text(code));
        return 1;
    }
    ParametricPupil* p = pupil.get();
    char unusable[200];
    if (find_unusable_pupil_value(p, unusable, sizeof unusable) != 0) {
        std::fprintf(stderr, "torvel-report: %s: %s\n", file, unusable);
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

int check_wavelength_metrics(const report_model& model, const wavelength_metrics& w) {
    const std::pair<const char*, double> figures[] = {
        {"rms", w.rms_rad},
        {"rms without defocus", w.rms_nodefocus_rad},
        {"peak to valley", w.pv_rad},
        {"peak to valley without defocus", w.pv_nodefocus_rad},
        {"mean amplitude", w.mean_amplitude},
        {"relative amplitude rms", w.amplitude_relative_rms},
        {"defocus", w.defocus_nm},
        {"spherical aberration", w.spherical_nm},
    };
    for (const auto& [name, value] : figures) {
        if (std::isfinite(value)) continue;
        std::fprintf(stderr, "torvel-report: %s: the %s at %g nm is %g%s\n", model.file.c_str(),
                     name, w.wavelength_nm, value,
                     w.mean_amplitude == 0.0 ? " (the mean amplitude is 0)" : "");
        return 1;
    }
    return 0;
}

wavelength_metrics compute_wavelength_metrics(const report_model& model, int wave) {
    const report_wavelength& fit = model.waves[std::size_t(wave)];
    const int n = model.phase_n, m = model.phase_m;
    wavelength_metrics out{};
    // The wavelength as the file writes it (micrometres to 6 decimals), not
    // the float it was read into.
    out.wavelength_nm = std::round(double(fit.wavelength_um) * 1e6) / 1e3;
    out.rms_rad = std::sqrt(sum_of_squares(fit.phase, n, m, 2, false));
    out.rms_nodefocus_rad = std::sqrt(sum_of_squares(fit.phase, n, m, 2, true));
    peaks_to_valleys(without_low_orders(fit.phase, false), without_low_orders(fit.phase, true), n,
                     m, &out.pv_rad, &out.pv_nodefocus_rad);
    out.strehl = std::exp(-out.rms_rad * out.rms_rad);
    out.strehl_nodefocus = std::exp(-out.rms_nodefocus_rad * out.rms_nodefocus_rad);
    if (fit.amplitude.empty()) {
        out.mean_amplitude = 1.0;  // no series: the model's amplitude is 1
        out.amplitude_relative_rms = 0.0;
    } else {
        out.mean_amplitude = fit.amplitude[0];
        out.amplitude_relative_rms = std::sqrt(sum_of_squares(fit.amplitude, model.amplitude_n,
                                                              model.amplitude_m, 1, false)) /
                                     std::fabs(out.mean_amplitude);
    }
    out.defocus_nm = radians_to_nm(
        coefficient(fit.phase, zernike_term_index(2, 0)) * std::sqrt(zernike_mean_square(2, 0)),
        out.wavelength_nm);
    out.spherical_nm = radians_to_nm(
        coefficient(fit.phase, zernike_term_index(4, 0)) * std::sqrt(zernike_mean_square(4, 0)),
        out.wavelength_nm);
    out.largest = rank_aberrations(fit.phase, n, m, out.wavelength_nm);
    return out;
}

}  // namespace torvel
