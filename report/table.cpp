// The report on standard output: four small tables, a row per fit file and
// wavelength, with column names that scripts can use as they are.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numbers>
#include <string>

#include <torvel/report.hpp>

namespace torvel {
namespace {

// Width of the file column: the longest name, at least the header's.
int file_column_width(std::span<const report_entry> entries) {
    std::size_t width = 4;
    for (const report_entry& e : entries) width = std::max(width, e.model.file.size());
    return int(width);
}

// "5, 6" for a cos/sin pair, "4" for a single term.
std::string index_pair(const int index[2]) {
    std::string text = std::to_string(index[0]);
    if (index[1] >= 0) text += "," + std::to_string(index[1]);
    return text;
}

// Calls row(e, w) for every fit file and wavelength, in order: the rows of
// every table.
template <class Row>
void for_each_row(std::span<const report_entry> entries, Row row) {
    for (const report_entry& e : entries)
        for (const wavelength_metrics& w : e.metrics) row(e, w);
}

void print_wavefront(std::FILE* out, std::span<const report_entry> entries, int fw) {
    std::fprintf(out,
                 "wavefront: phase with piston and tilt removed; RMS exact over the pupil disc, "
                 "P-V on %d x %d polar points;\n"
                 "strehl = exp(-rms_rad^2) (Marechal); _bf: at best focus, where piston, tilt and "
                 "the focus shift dz_um\n"
                 "of the fit's NA and immersion index are removed by least squares (dz_um > 0: "
                 "the focus lies at +z)\n",
                 kPeakToValleyRadii, kPeakToValleyAngles);
    std::fprintf(out, "%-*s %8s %9s %9s %9s %9s %9s %9s %9s %9s %9s\n", fw, "file", "wave_nm",
                 "rms_rad", "rms_waves", "rms_nm", "pv_nm", "strehl", "dz_um", "rms_nm_bf",
                 "pv_nm_bf", "strehl_bf");
    for_each_row(entries, [&](const report_entry& e, const wavelength_metrics& w) {
        const double nm = w.wavelength_nm;
        std::fprintf(out, "%-*s %8.1f %9.4f %9.4f %9.2f %9.2f %9.4f %9.4f %9.2f %9.2f %9.4f\n", fw,
                     e.model.file.c_str(), nm, w.rms_rad, w.rms_rad / (2.0 * std::numbers::pi),
                     radians_to_nm(w.rms_rad, nm), radians_to_nm(w.pv_rad, nm), w.strehl,
                     w.focus_shift_um, radians_to_nm(w.rms_best_focus_rad, nm),
                     radians_to_nm(w.pv_best_focus_rad, nm), w.strehl_best_focus);
    });
}

void print_amplitude(std::FILE* out, std::span<const report_entry> entries, int fw) {
    std::fprintf(out,
                 "\namplitude: mean over the pupil disc and RMS about it relative to the mean "
                 "(exact)\n");
    std::fprintf(out, "%-*s %8s %9s %9s\n", fw, "file", "wave_nm", "mean", "rel_rms");
    for_each_row(entries, [&](const report_entry& e, const wavelength_metrics& w) {
        std::fprintf(out, "%-*s %8.1f %9.5f %9.5f\n", fw, e.model.file.c_str(), w.wavelength_nm,
                     w.mean_amplitude, w.amplitude_relative_rms);
    });
}

void print_largest(std::FILE* out, std::span<const report_entry> entries, int fw) {
    std::fprintf(
        out,
        "\nlargest aberrations at best focus: RMS contribution in nm, cos and sin terms of "
        "one shape combined;\nnoll from 1, osa (OSA/ANSI) from 0, a pair given as "
        "cos,sin\n");
    std::fprintf(out, "%-*s %8s %4s %-24s %6s %6s %9s\n", fw, "file", "wave_nm", "rank",
                 "aberration", "noll", "osa", "rms_nm");
    for_each_row(entries, [&](const report_entry& e, const wavelength_metrics& w) {
        const int shown = std::min<int>(kLargestAberrations, int(w.largest.size()));
        for (int r = 0; r < shown; ++r) {
            const aberration_share& a = w.largest[std::size_t(r)];
            std::fprintf(out, "%-*s %8.1f %4d %-24s %6s %6s %9.2f\n", fw, e.model.file.c_str(),
                         w.wavelength_nm, r + 1, a.name.c_str(), index_pair(a.noll).c_str(),
                         index_pair(a.osa).c_str(), a.rms_nm);
        }
    });
}

void print_against_wavelength(std::FILE* out, std::span<const report_entry> entries, int fw) {
    std::fprintf(out,
                 "\nfocus and spherical against wavelength: dz_um the focus shift of best focus; "
                 "spherical_nm_bf the signed\nRMS-normalised R_4^0 (Noll 11) left at best focus, "
                 "in nm\n");
    std::fprintf(out, "%-*s %8s %9s %15s\n", fw, "file", "wave_nm", "dz_um", "spherical_nm_bf");
    for_each_row(entries, [&](const report_entry& e, const wavelength_metrics& w) {
        std::fprintf(out, "%-*s %8.1f %9.4f %15.2f\n", fw, e.model.file.c_str(), w.wavelength_nm,
                     w.focus_shift_um, w.spherical_best_focus_nm);
    });
}

}  // namespace

void print_report_table(std::FILE* stream, std::span<const report_entry> entries) {
    if (entries.empty()) return;
    const int fw = file_column_width(entries);
    print_wavefront(stream, entries, fw);
    print_amplitude(stream, entries, fw);
    print_largest(stream, entries, fw);
    print_against_wavelength(stream, entries, fw);
}

}  // namespace torvel
