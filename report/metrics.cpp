// Reading a fit file for the report, and the figures of merit of one
// wavelength: exact RMS sums over coefficients, a peak to valley searched on
// a fine polar grid, the Marechal estimate, the amplitude's mean and spread.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <memory>
#include <numbers>

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

double dot(const std::vector<double>& c, const std::vector<double>& basis) {
    double sum = 0.0;
    for (std::size_t k = 0; k < c.size(); ++k) sum += c[k] * basis[k];
    return sum;
}

// Largest minus smallest value over the polar grid of two series a and b of
// the set (n, m), into *pv_a and *pv_b. The radial values of a radius are
// shared by every angle and the basis of a point by both series; orders
// beyond the tables are summed point by point.
void peaks_to_valleys(const std::vector<double>& a, const std::vector<double>& b, int n, int m,
                      double* pv_a, double* pv_b) {
    *pv_a = *pv_b = 0.0;
    if (a.empty()) return;
    const ZernikeTableSize size = zernike_table_size(n, m);
    const bool tabled = size.order <= zernike_table_max_order;
    const std::size_t per_radius = tabled ? std::size_t(zernike_radial_count(n, m)) : 0;
    std::vector<double> radials(per_radius * kPeakToValleyRadii), basis(a.size());
    auto rho_of = [](int i) { return double(i) / (kPeakToValleyRadii - 1); };
    ZernikeTables tables;
    for (int i = 0; tabled && i < kPeakToValleyRadii; ++i) {
        fill_zernike_powers(rho_of(i), size.order, &tables);
        evaluate_zernike_radials(tables, n, m, &radials[std::size_t(i) * per_radius]);
    }
    value_range range_a, range_b;
    for (int j = 0; j < kPeakToValleyAngles; ++j) {
        const double theta = 2.0 * std::numbers::pi * j / kPeakToValleyAngles;
        if (tabled) fill_zernike_angles(theta, size.frequency, &tables);
        for (int i = 0; i < kPeakToValleyRadii; ++i) {
            if (tabled) {
                combine_zernike_basis(&radials[std::size_t(i) * per_radius], tables, n, m,
                                      basis.data());
                range_a.add(dot(a, basis));
                range_b.add(dot(b, basis));
            } else {
                range_a.add(evaluate_zernike_series(rho_of(i), theta, n, m, a.data()));
                range_b.add(evaluate_zernike_series(rho_of(i), theta, n, m, b.data()));
            }
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
        print_message("torvel-report: %s: the fit holds no wavelength\n", model.file.c_str());
        return 1;
    }
    for (std::size_t w = 0; w < model.waves.size(); ++w) {
        const float um = model.waves[w].wavelength_um;
        if (!(um > 0.0f) || !std::isfinite(um)) {
            print_message(
                "torvel-report: %s: wavelength %zu is %g um; a wavelength must be "
                "positive\n",
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
        print_message("torvel-report: %s:%d:%d: %s\n", file, int(line), int(column),
                      read_parametric_pupil_error_text(code));
        return 1;
    }
    return take_report_model(file, pupil.get(), model);
}

int take_report_model(const char* file, ParametricPupil* pupil, report_model* model) {
    ParametricPupil* p = pupil;
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
