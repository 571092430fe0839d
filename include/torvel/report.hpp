#pragma once
// torvel-report: what a fit file says, in the numbers microscopists quote and
// the pictures they look at. Wavefront RMS, peak to valley and Strehl
// estimate, the amplitude's mean and spread, the largest aberrations named
// with their Noll and OSA/ANSI indices, a JSON and a CSV export of every
// coefficient with its conventions, and a PNG figure of the fitted (and
// measured, and residual) pupil.
//
// Conventions used throughout. Coefficients are stored for torvel's
// unnormalised basis (R_n^m(1) = 1), phase ones in radians. A term's RMS over
// the unit disc is |c| sqrt(zernike_mean_square(n, m)), and the terms are
// orthogonal, so every RMS figure here is an exact sum over coefficients, not
// a sum over pixels. A phase in radians becomes a wavefront in nm as
// rad / (2 pi) * wavelength in nm; fit files keep wavelengths in micrometres.
//
// This module is a library of its own (torvel_report), apart from torvel, so
// that programs using torvel need neither cairo nor a JSON library.

#include <cstdio>
#include <span>
#include <string>
#include <vector>

#include <torvel/pupil.hpp>

namespace torvel {

// ---- terms and conventions ---------------------------------------------------

// Which part of a term: R_n^0 alone (m = 0), or R_n^m times cos or sin(m theta).
enum class zernike_part { radial, cosine, sine };

// Noll's index (from 1): terms ordered by n, then by m; of a cos/sin pair
// the cosine term takes the even index and the sine term the odd one.
int noll_index(int n, int m, zernike_part part);

// OSA/ANSI index (from 0): (n(n + 2) + s) / 2 with s = m for the cosine (and
// R_n^0) and s = -m for the sine.
int osa_index(int n, int m, zernike_part part);

// Common name of the aberration of radial order n and angular frequency m:
// "piston", "tilt", "defocus", "astigmatism", "coma", "trefoil",
// "spherical", "tetrafoil", "pentafoil", ...; higher orders of the same shape
// are "secondary", "tertiary", "quaternary", "quinary", then "6th order", ...
std::string aberration_name(int n, int m);

// Mean of (R_n^m(rho) cos(m theta))^2 over the unit disc: 1 / (n + 1) for
// m = 0 and 1 / (2 (n + 1)) for m > 0 (the sine term has the same).
double zernike_mean_square(int n, int m);

// A phase in radians as a wavefront in nm at the given wavelength.
double radians_to_nm(double radians, double wavelength_nm);

// A file name as valid UTF-8, which JSON and the figure's text must be:
// valid sequences are kept, and every other byte becomes the four
// characters \xNN (its value in hex), as a shell's quoting shows it.
std::string utf8_name(const std::string& name);

// ---- the model of one fit file -----------------------------------------------

// One wavelength of a fit: coefficients in torvel's slot order.
struct report_wavelength {
    float wavelength_um;
    std::vector<double> amplitude;  // empty: no amplitude series (amplitude 1)
    std::vector<double> phase;      // empty: no phase series (phase 0)
};

// What the report takes from one fit file.
struct report_model {
    std::string file;
    float na;
    float n_imm;
    int lens_id;
    int amplitude_n, amplitude_m;  // (-1, -1): no series
    int phase_n, phase_m;
    std::vector<report_wavelength> waves;
};

// The aperture and immersion index as the fit file writes them (3 and 5
// decimals), not the floats they were read into.
double model_aperture(const report_model& model);
double model_immersion_index(const report_model& model);

// Reads a fit file into *model. Returns 0, or 1 after one message
// "torvel-report: file:line:column: what is wrong" on standard error, or one
// naming the file when it holds no wavelength, a wavelength that is not
// positive, or an aperture above the immersion index (no focus shift is
// defined then).
int load_report_model(const char* file, report_model* model);

// Fills *model from the record pupil, with file as its name in the report.
// Returns 0, or 1 after one message when the report cannot give figures for
// it (no wavelength, a wavelength that is not positive).
int take_report_model(const char* file, ParametricPupil* pupil, report_model* model);

// ---- figures of merit --------------------------------------------------------

// The RMS contribution of one aberration: a cos/sin pair of (n, m) combined.
struct aberration_share {
    int n, m;
    int noll[2];  // cos, sin; noll[1] = osa[1] = -1 when m = 0
    int osa[2];
    double rms_nm;
    std::string name;
};

// The figures of one wavelength of a fit. "Wavefront" is the phase with
// piston and tilt removed. "Best focus" removes, by least squares over the
// disc, piston, tilt and the phase of a focus shift dz of the objective, as
// focus_shift_phase gives it; "paraxial" removes R_2^0 instead, the
// small-aperture stand-in for focus.
struct wavelength_metrics {
    double wavelength_nm;
    double rms_rad, pv_rad, strehl;  // with focus; P-V over the polar grid below
    double focus_shift_um;           // dz of best focus; > 0: the focus lies at +z
    double focus_mean_path;          // mean of sqrt(n^2 - NA^2 rho^2) over the disc
    double rms_best_focus_rad, pv_best_focus_rad, strehl_best_focus;
    double focus_shift_paraxial_um;  // from R_2^0, see paraxial_focus_shift_um
    // R_2^0 removed instead of the focus shift
    double rms_paraxial_rad, pv_paraxial_rad, strehl_paraxial;
    double mean_amplitude;                  // exact: the R_0^0 coefficient
    double amplitude_relative_rms;          // exact RMS about the mean, over the mean
    double defocus_nm, spherical_nm;        // signed RMS-normalised R_2^0 and R_4^0 as fitted
    double spherical_best_focus_nm;         // R_4^0 left at best focus, the same way
    std::vector<aberration_share> largest;  // at best focus, by RMS, descending, n >= 2
};

// The phase in radians that a shift of the focus by dz_um micrometres to +z
// gives the pupil at radius rho: -2 pi dz sqrt(n^2 - NA^2 rho^2) / lambda,
// for a field at z of the integral of pupil(k) exp(2 pi i (kx x + ky y + kz
// z)) over the pupil, kz = sqrt((n / lambda)^2 - |k|^2) and |k| = rho NA /
// lambda. mean_path (focus_mean_path of the metrics) is subtracted from the
// square root, so that the phase has mean 0 over the disc.
double focus_shift_phase(const report_model& model, double wavelength_nm, double dz_um,
                         double mean_path, double rho);

// The focus shift that R_2^0 of coefficient c20 (radians) stands for when
// focus is taken for R_2^0 alone, with the rim-to-centre path difference of a
// real shift: c20 lambda / (pi (n - sqrt(n^2 - NA^2))).
double paraxial_focus_shift_um(const report_model& model, double wavelength_nm, double c20);

// The polar grid of the peak-to-valley search: rho = i / (radii - 1) for
// i = 0 .. radii - 1 (the rim included) and theta = 2 pi j / angles.
inline constexpr int kPeakToValleyRadii = 257;
inline constexpr int kPeakToValleyAngles = 720;

// How many aberrations the table names per wavelength.
inline constexpr int kLargestAberrations = 5;

// The figures of wavelength `wave` of model.
wavelength_metrics compute_wavelength_metrics(const report_model& model, int wave);

// Refuses figures that are not finite (the relative amplitude RMS of a
// zero mean amplitude, sums that overflow): a table, JSON or CSV must not
// carry nan, inf or null. Returns 0, or 1 after one message naming the file,
// the figure and the wavelength.
int check_wavelength_metrics(const report_model& model, const wavelength_metrics& w);

// A fit file with the figures of each of its wavelengths.
struct report_entry {
    report_model model;
    std::vector<wavelength_metrics> metrics;
};

// Writes the report tables (wavefront, amplitude, largest aberrations,
// defocus and spherical against wavelength) of every entry to stream.
void print_report_table(std::FILE* stream, std::span<const report_entry> entries);

// ---- exports -----------------------------------------------------------------

// Writes every coefficient of every wavelength of every entry, the figures,
// the optics and the conventions as JSON to name, through safeout. Returns 0,
// or 1 after one message.
int write_report_json(const char* name, std::span<const report_entry> entries);

// The JSON text write_report_json writes, newline-ended.
std::string report_json_text(std::span<const report_entry> entries);

// Writes every coefficient of every wavelength of every entry as CSV to name,
// with the conventions and optics in leading "#" lines, through safeout.
// Returns 0, or 1 after one message.
int write_report_csv(const char* name, std::span<const report_entry> entries);

// Draws the figure of one fit to a PNG file named png_name, through safeout:
// per wavelength an amplitude row and a phase row with the fitted model;
// beside it the measured amplitude and unwrapped phase when image_name is not
// null, and the residual (measured minus fitted amplitude, and phase) when
// residual_name is not null; then the phase at best focus and the model's
// PSF there (x-y and x-z sections, vector model, log scale). Returns 0, or 1
// after one message per problem (images that cannot be read or do not match
// the model, memory for the PSF).
int write_report_figure(const char* png_name, const report_entry& entry, const char* image_name,
                        const char* residual_name);

// ---- the program -------------------------------------------------------------

// What the command line of torvel-report settles. Names point into argv.
struct report_inputs {
    std::vector<const char*> fit_files;
    const char* json_name = nullptr;
    const char* csv_name = nullptr;
    const char* png_name = nullptr;
    const char* image_name = nullptr;
    const char* residual_name = nullptr;
};

// Writes the usage text of torvel-report to stream.
void print_report_usage(std::FILE* stream);

// Returns true when any argument asks for help: -h, -H, -help, -Help or --help.
bool report_help_requested(int argc, const char* const* argv);

// Fills *inputs from `torvel-report fit_file... [options]`. Reports every
// problem, one line each, and returns 1 if there was any, else 0.
int parse_report_command_line(int argc, const char* const* argv, report_inputs* inputs);

// Reads every fit file and computes its figures; a file the reader rejects is
// reported and skipped. Returns 0 when all were read, else 1.
int load_report_entries(const report_inputs& inputs, std::vector<report_entry>* entries);

// Writes the outputs the command line asks for. Returns 0, or 1 when any
// failed (each failure reported).
int write_report_outputs(const report_inputs& inputs, std::span<const report_entry> entries);

}  // namespace torvel
