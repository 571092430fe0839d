// JSON and CSV exports: every coefficient of every wavelength, with the
// conventions spelled out in the file so that nobody has to guess them.

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <numbers>
#include <string>
#include <utility>

#include <nlohmann/json.hpp>

#include <torvel/messages.hpp>
#include <torvel/report.hpp>
#include <torvel/safeout.hpp>
#include <torvel/zernike.hpp>

namespace torvel {
namespace {

using json = nlohmann::ordered_json;

// The conventions, written into both files word for word.
const std::pair<const char*, const char*> kConventions[] = {
    {"basis",
     "torvel's unnormalised Zernike basis: a term is c R_n^m(rho) (m = 0), c R_n^m(rho) "
     "cos(m theta) or c R_n^m(rho) sin(m theta), with R_n^m(1) = 1 and no normalisation factor"},
    {"rms_normalised",
     "the same term's coefficient in the orthonormal basis of Noll and OSA/ANSI (RMS 1 over the "
     "unit disc): c sqrt(1/(n+1)) for m = 0 and c sqrt(1/(2(n+1))) for m > 0; its magnitude is "
     "the term's RMS over the pupil disc"},
    {"rho", "normalised pupil radius, 1 at the edge of the disc of radius NA / wavelength"},
    {"theta",
     "atan2(y, x) in radians with x = (column - x0) * dx along increasing column index and "
     "y = (row - y0) * dy along increasing row index of the pupil image (pixel (column, row) at "
     "row * nx + column); 0 along +x, growing from +x towards +y: counterclockwise when row 0 is "
     "drawn at the bottom (as MRC viewers and torvel-report figures do), clockwise when row 0 is "
     "drawn at the top"},
    {"phase_sign",
     "the phase is the argument of the pupil function as stored in the pupil image, pupil = "
     "amplitude * exp(i phase); the wavefront in nm is phase / (2 pi) * wavelength with the same "
     "sign, nothing is flipped"},
    {"units",
     "phase coefficients in radians, their rms_normalised in nm of wavefront; amplitude "
     "coefficients and their rms_normalised in the pupil image's amplitude units; wavelengths in "
     "micrometres as the fit file keeps them, and in nm"},
    {"noll",
     "Noll's index from 1: terms ordered by n, then m; of a cos/sin pair the cosine takes the "
     "even index and the sine the odd one"},
    {"osa_ansi",
     "OSA/ANSI index from 0: (n (n + 2) + s) / 2, s = m for cos and m = 0 terms, "
     "s = -m for sin terms"},
    {"metrics",
     "wavefront = phase with piston and tilt removed; rms = sqrt of the sum of rms_normalised^2 "
     "over the terms of order 2 and up (exact); pv = largest minus smallest value on a polar grid "
     "of 257 radii (rim included) x 720 angles; strehl = exp(-rms_rad^2) (Marechal); best_focus: "
     "piston, tilt and the phase -2 pi dz (sqrt(n^2 - NA^2 rho^2) - its mean) / wavelength of a "
     "focus shift removed by least squares over the disc, focus_shift_um = dz in micrometres, "
     "positive when the focus lies at +z for a field at z of the integral of pupil(k) exp(2 pi i "
     "(kx x + ky y + kz z)), kz = sqrt((n / wavelength)^2 - |k|^2); paraxial_nodefocus: R_2^0 "
     "removed instead, focus_shift_paraxial_um = c(R_2^0) wavelength / (pi (n - sqrt(n^2 - "
     "NA^2))); aberrations: the terms left at best focus; mean_amplitude = the R_0^0 amplitude "
     "coefficient, amplitude_relative_rms = RMS about it over it (exact); defocus and spherical: "
     "signed rms_normalised of R_2^0 and R_4^0 in nm as fitted, spherical_best_focus the same of "
     "what best focus leaves"},
};

const char* part_name(zernike_part part) {
    return part == zernike_part::radial ? "radial" : part == zernike_part::cosine ? "cos" : "sin";
}

// Calls visit(n, m, part, value, rms_normalised) for every coefficient of a
// set in slot order.
template <class Visit>
void for_each_coefficient(const std::vector<double>& c, int n, int m, Visit&& visit) {
    if (c.empty()) return;
    for_each_zernike_term(n, m, [&](int k, int l) {
        const double norm = std::sqrt(zernike_mean_square(k, l));
        const int slot = zernike_term_index(k, l);
        if (l == 0) {
            visit(k, l, zernike_part::radial, c[slot], c[slot] * norm);
        } else {
            visit(k, l, zernike_part::cosine, c[slot], c[slot] * norm);
            visit(k, l, zernike_part::sine, c[slot + 1], c[slot + 1] * norm);
        }
    });
}

// A phase figure in radians under key_rad, and as key_waves and key_nm.
void put_phase(json* j, const std::string& key, double rad, double wavelength_nm) {
    (*j)[key + "_rad"] = rad;
    (*j)[key + "_waves"] = rad / (2.0 * std::numbers::pi);
    (*j)[key + "_nm"] = radians_to_nm(rad, wavelength_nm);
}

json metrics_json(const wavelength_metrics& w) {
    const double nm = w.wavelength_nm;
    json j;
    put_phase(&j, "rms", w.rms_rad, nm);
    put_phase(&j, "pv", w.pv_rad, nm);
    j["strehl"] = w.strehl;
    j["focus_shift_um"] = w.focus_shift_um;
    put_phase(&j, "rms_best_focus", w.rms_best_focus_rad, nm);
    put_phase(&j, "pv_best_focus", w.pv_best_focus_rad, nm);
    j["strehl_best_focus"] = w.strehl_best_focus;
    j["spherical_best_focus_nm"] = w.spherical_best_focus_nm;
    j["focus_shift_paraxial_um"] = w.focus_shift_paraxial_um;
    put_phase(&j, "rms_paraxial_nodefocus", w.rms_paraxial_rad, nm);
    put_phase(&j, "pv_paraxial_nodefocus", w.pv_paraxial_rad, nm);
    j["strehl_paraxial_nodefocus"] = w.strehl_paraxial;
    j["mean_amplitude"] = w.mean_amplitude;
    j["amplitude_relative_rms"] = w.amplitude_relative_rms;
    j["defocus_nm"] = w.defocus_nm;
    j["spherical_nm"] = w.spherical_nm;
    return j;
}

json aberrations_json(const wavelength_metrics& w) {
    json list = json::array();
    for (const aberration_share& a : w.largest) {
        json j;
        j["name"] = a.name;
        j["n"] = a.n;
        j["m"] = a.m;
        j["noll"] = a.m == 0 ? json::array({a.noll[0]}) : json::array({a.noll[0], a.noll[1]});
        j["osa_ansi"] = a.m == 0 ? json::array({a.osa[0]}) : json::array({a.osa[0], a.osa[1]});
        j["rms_nm"] = a.rms_nm;
        list.push_back(j);
    }
    return list;
}

// The coefficients of one series; phase ones carry their units in the keys.
json coefficients_json(const std::vector<double>& c, int n, int m, bool phase,
                       double wavelength_nm) {
    json list = json::array();
    for_each_coefficient(c, n, m, [&](int k, int l, zernike_part part, double value, double rms) {
        json j;
        j["n"] = k;
        j["m"] = l;
        j["part"] = part_name(part);
        j["noll"] = noll_index(k, l, part);
        j["osa_ansi"] = osa_index(k, l, part);
        j["name"] = aberration_name(k, l);
        j[phase ? "value_rad" : "value"] = value;
        if (phase) {
            j["rms_normalised_nm"] = radians_to_nm(rms, wavelength_nm);
        } else {
            j["rms_normalised"] = rms;
        }
        list.push_back(j);
    });
    return list;
}

json fit_json(const report_entry& e) {
    const report_model& model = e.model;
    json fit;
    fit["file"] = utf8_name(model.file);
    fit["numerical_aperture"] = model_aperture(model);
    fit["immersion_refractive_index"] = model_immersion_index(model);
    fit["lens_id"] = model.lens_id;
    fit["amplitude_zernike_set"] = {model.amplitude_n, model.amplitude_m};
    fit["phase_zernike_set"] = {model.phase_n, model.phase_m};
    json waves = json::array();
    for (std::size_t w = 0; w < model.waves.size(); ++w) {
        const wavelength_metrics& metrics = e.metrics[w];
        json j;
        j["index"] = w;
        j["wavelength_um"] = metrics.wavelength_nm / 1000.0;
        j["wavelength_nm"] = metrics.wavelength_nm;
        j["metrics"] = metrics_json(metrics);
        j["aberrations"] = aberrations_json(metrics);
        j["phase"] = coefficients_json(model.waves[w].phase, model.phase_n, model.phase_m, true,
                                       metrics.wavelength_nm);
        j["amplitude"] = coefficients_json(model.waves[w].amplitude, model.amplitude_n,
                                           model.amplitude_m, false, metrics.wavelength_nm);
        waves.push_back(j);
    }
    fit["wavelengths"] = waves;
    return fit;
}

// Writes text to name through safeout. Returns 0, or 1 after one message.
int write_text_file(const char* name, const std::string& text) {
    safe_output out;
    if (safe_output_open(name, "w", &out) != 0) {
        print_message("torvel-report: unable to open %s for writing: %s\n", name,
                      std::strerror(errno));
        return 1;
    }
    std::fwrite(text.data(), 1, text.size(), out.stream);
    if (safe_output_commit(&out) != 0) {
        print_message("torvel-report: an I/O error occurred while writing %s\n", name);
        return 1;
    }
    return 0;
}

// A CSV field, quoted when it holds a comma, a quote or a line break.
std::string csv_field(const std::string& text) {
    if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
    std::string quoted = "\"";
    for (char ch : text) {
        if (ch == '"') quoted += '"';
        quoted += ch;
    }
    return quoted + "\"";
}

// The shortest text that reads back as the same double.
std::string number(double value) {
    char text[32];
    const auto result = std::to_chars(text, text + sizeof text, value);
    return std::string(text, result.ptr);
}

void append_csv_head(std::string* csv, std::span<const report_entry> entries) {
    *csv += "# torvel-report: every Zernike coefficient of every wavelength of every fit file\n";
    for (const auto& [key, text] : kConventions)
        *csv += "# " + std::string(key) + ": " + text + "\n";
    for (const report_entry& e : entries) {
        char optics[160];
        std::snprintf(optics, sizeof optics,
                      ": numerical aperture %g, immersion refractive index %g, lens id %d\n",
                      double(e.model.na), double(e.model.n_imm), e.model.lens_id);
        *csv += "# fit " + utf8_name(e.model.file) + optics;
        for (const wavelength_metrics& w : e.metrics) {
            const double nm = w.wavelength_nm;
            *csv += "# fit " + utf8_name(e.model.file) + ", " + number(nm) + " nm: focus_shift_um " +
                    number(w.focus_shift_um) + ", rms_best_focus_nm " +
                    number(radians_to_nm(w.rms_best_focus_rad, nm)) +
                    "; paraxial: focus_shift_paraxial_um " + number(w.focus_shift_paraxial_um) +
                    ", rms_paraxial_nodefocus_nm " + number(radians_to_nm(w.rms_paraxial_rad, nm)) +
                    "\n";
        }
    }
    *csv +=
        "file,wavelength_index,wavelength_nm,quantity,n,m,part,noll,osa_ansi,name,value,"
        "value_unit,rms_normalised,rms_normalised_unit\n";
}

void append_csv_series(std::string* csv, const report_entry& e, std::size_t w, bool phase) {
    const report_model& model = e.model;
    const double nm = e.metrics[w].wavelength_nm;
    const std::string head = csv_field(utf8_name(model.file)) + "," + std::to_string(w) + "," + number(nm) +
                             (phase ? ",phase," : ",amplitude,");
    const std::vector<double>& c = phase ? model.waves[w].phase : model.waves[w].amplitude;
    const int n = phase ? model.phase_n : model.amplitude_n;
    const int m = phase ? model.phase_m : model.amplitude_m;
    for_each_coefficient(c, n, m, [&](int k, int l, zernike_part part, double value, double rms) {
        *csv += head + std::to_string(k) + "," + std::to_string(l) + "," + part_name(part) + "," +
                std::to_string(noll_index(k, l, part)) + "," +
                std::to_string(osa_index(k, l, part)) + "," + aberration_name(k, l) + "," +
                number(value) + (phase ? ",rad," : ",amplitude,") +
                number(phase ? radians_to_nm(rms, nm) : rms) + (phase ? ",nm\n" : ",amplitude\n");
    });
}

}  // namespace

std::string report_json_text(std::span<const report_entry> entries) {
    json root;
    root["generator"] = "torvel-report";
    json conventions;
    for (const auto& [key, text] : kConventions) conventions[key] = text;
    root["conventions"] = conventions;
    json fits = json::array();
    for (const report_entry& e : entries) fits.push_back(fit_json(e));
    root["fits"] = fits;
    return root.dump(1) + "\n";
}

int write_report_json(const char* name, std::span<const report_entry> entries) {
    return write_text_file(name, report_json_text(entries));
}

int write_report_csv(const char* name, std::span<const report_entry> entries) {
    std::string csv;
    append_csv_head(&csv, entries);
    for (const report_entry& e : entries) {
        for (std::size_t w = 0; w < e.model.waves.size(); ++w) {
            append_csv_series(&csv, e, w, true);
            append_csv_series(&csv, e, w, false);
        }
    }
    return write_text_file(name, csv);
}

}  // namespace torvel
