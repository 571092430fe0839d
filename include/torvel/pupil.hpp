#pragma once
// The parametric pupil model: a record holding a fitted pupil (optics,
// labels, wavelengths, four order sets and the per-wavelength coefficient
// arrays) and the text file that stores it.
//
// Every setter returns the record on success and null on failure, prints
// nothing and never throws; out of memory is an ordinary failure. A null
// record makes every setter fail and every getter return its default.
// Pointers handed out by getters point into the record and stay valid only
// until that label or wavelength is changed or deleted, the wavelength count
// changes, an order set changes, or the record is destroyed.

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace torvel {

// The four coefficient arrays of one wavelength. An array is null when its
// series had no terms when the array was made, or after the series was
// removed; it may be longer than the current count of its series.
struct WaveAttributes {
    double* amplitude_zernike_coeff;
    double* phase_zernike_coeff;
    double* amplitude_polarf_coeff;
    double* phase_polarf_coeff;
    float wavelength;  // micrometres
};

// One fitted pupil model, owned by whoever created it. Order sets are (n, m)
// for Zernike series and (a, b) for polar Fourier series; (-1, -1) means the
// series is absent. Label slots never hold null: an empty label points to one
// shared static empty string. Capacities grow in multiples of 8 (labels) and
// 5 (wavelengths) and never shrink.
struct ParametricPupil {
    char** labels = nullptr;
    WaveAttributes* waves = nullptr;
    std::int32_t label_count = 0;
    std::int32_t label_capacity = 0;
    std::int32_t wavelength_count = 0;
    std::int32_t wavelength_capacity = 0;
    std::int32_t amplitude_zernike_n = -1, amplitude_zernike_m = -1;
    std::int32_t phase_zernike_n = -1, phase_zernike_m = -1;
    std::int32_t amplitude_polarf_n = -1, amplitude_polarf_m = -1;
    std::int32_t phase_polarf_n = -1, phase_polarf_m = -1;
    std::int32_t lens_id = -1;
    float numerical_aperture = 1.0f;
    float immersion_refractive_index = 1.0f;
};

// Highest Zernike radial order a record accepts: the term count of any set
// up to this order fits in 32 bits.
inline constexpr std::int32_t kMaxZernikeOrder = 65534;

// Term count (2a+1)(2b+1) of a polar Fourier set, computed in 64 bits; 0 when
// a or b is negative, INT64_MAX when the product would not fit.
std::int64_t polarf_term_count(std::int32_t a, std::int32_t b);

// ---- life ------------------------------------------------------------------

// Returns a new empty record with the initial values above, or null when
// memory runs out. The caller owns it and frees it with
// destroy_parametric_pupil.
ParametricPupil* create_parametric_pupil();

// Frees the record with every label and coefficient array it owns. Null is
// accepted and ignored.
void destroy_parametric_pupil(ParametricPupil* pupil);

// Returns a new record holding the same labels, optics, wavelengths, order
// sets and coefficients as pupil, owned by the caller; null when pupil is
// null or memory runs out.
ParametricPupil* copy_parametric_pupil(const ParametricPupil* pupil);

// ---- labels ----------------------------------------------------------------

// Number of labels; 0 for a null record.
std::int32_t get_parametric_pupil_label_count(const ParametricPupil* pupil);

// Sets the number of labels to count (>= 0): new labels are empty, dropped
// ones are freed. Null on a negative count or out of memory (record unchanged).
ParametricPupil* set_parametric_pupil_label_count(ParametricPupil* pupil, std::int32_t count);

// Inserts a copy of text (null: an empty label) at index >= 0, moving later
// labels up; an index past the end fills the gap with empty labels. Null on
// a negative index or out of memory (record unchanged).
ParametricPupil* insert_parametric_pupil_label(ParametricPupil* pupil, std::int32_t index,
                                               const char* text);

// Replaces label index (in [0, count)) by a copy of text (null: empty). Null
// on a bad index or when the copy fails; the old label then stays.
ParametricPupil* set_parametric_pupil_label(ParametricPupil* pupil, std::int32_t index,
                                            const char* text);

// The label at index, owned by the record; null for a null record or an
// index outside [0, count).
const char* get_parametric_pupil_label(const ParametricPupil* pupil, std::int32_t index);

// Removes label index (in [0, count)) and moves later labels down; capacity
// is kept. Null on a bad index.
ParametricPupil* delete_parametric_pupil_label(ParametricPupil* pupil, std::int32_t index);

// ---- optics ----------------------------------------------------------------

// Stores the numerical aperture and immersion index when both are > 0 and
// na / n_imm (in single precision) is <= 1; otherwise returns null and keeps
// the old values.
ParametricPupil* set_parametric_pupil_na_nimm(ParametricPupil* pupil, float na, float n_imm);

// Numerical aperture; 1.0 for a null record.
float get_parametric_pupil_numerical_aperture(const ParametricPupil* pupil);

// Immersion refractive index; 1.0 for a null record.
float get_parametric_pupil_immersion_refractive_index(const ParametricPupil* pupil);

// Stores the objective lens id as given (no check).
ParametricPupil* set_parametric_pupil_lens_id(ParametricPupil* pupil, std::int32_t id);

// Objective lens id; -1 for a null record or when none was set.
std::int32_t get_parametric_pupil_lens_id(const ParametricPupil* pupil);

// ---- wavelengths -----------------------------------------------------------

// Number of wavelengths; 0 for a null record.
std::int32_t get_parametric_pupil_wavelength_count(const ParametricPupil* pupil);

// Sets the number of wavelengths to count (>= 0). Kept wavelengths keep their
// values; new ones get wavelength 0.0 and default coefficients; dropped ones
// are freed. Null on a negative count or out of memory (count unchanged).
ParametricPupil* set_parametric_pupil_wavelength_count(ParametricPupil* pupil, std::int32_t count);

// Inserts a fresh wavelength (0.0, default coefficients) at index >= 0,
// moving later ones up; an index past the end makes fresh gap entries too.
// Null on a negative index or out of memory (record unchanged).
ParametricPupil* insert_parametric_pupil_wavelength(ParametricPupil* pupil, std::int32_t index);

// Removes wavelength index (in [0, count)) with its arrays and moves later
// ones down; capacity is kept. Null on a bad index.
ParametricPupil* delete_parametric_pupil_wavelength(ParametricPupil* pupil, std::int32_t index);

// Stores the wavelength in micrometres (no check of the value) at index in
// [0, count); null on a bad index.
ParametricPupil* set_parametric_pupil_wavelength(ParametricPupil* pupil, std::int32_t index,
                                                 float wavelength_um);

// Wavelength in micrometres at index; -1.0 for a null record or an index
// outside [0, count).
float get_parametric_pupil_wavelength(const ParametricPupil* pupil, std::int32_t index);

// Makes entries [first, end) of waves fresh from the record's current four
// counts: amplitude Zernike slot 0 is 1/sqrt(2), amplitude polar Fourier slot
// 0 is 1.0 only when there is no amplitude Zernike series, everything else
// 0.0, wavelength 0.0. Returns 0, or 1 after freeing every array this call
// made when an allocation fails.
int initialize_wave_attributes(WaveAttributes* waves, const ParametricPupil* pupil,
                               std::int32_t first, std::int32_t end);

// ---- order sets and coefficients -------------------------------------------

// Sets the amplitude Zernike set. For n >= 0 it must be valid (0 <= m <= n,
// n - m even, n <= kMaxZernikeOrder) or null is returned; n < 0 removes the
// series and frees its arrays. Growing zero-fills the new slots of every
// wavelength, keeping old values at their slot; lowering keeps the arrays.
// Null on out of memory, with the stored set unchanged.
ParametricPupil* set_parametric_pupil_amplitude_zernike_orders(ParametricPupil* pupil,
                                                               std::int32_t n, std::int32_t m);

// As set_parametric_pupil_amplitude_zernike_orders, for the phase series.
ParametricPupil* set_parametric_pupil_phase_zernike_orders(ParametricPupil* pupil, std::int32_t n,
                                                           std::int32_t m);

// Sets the amplitude polar Fourier set (a, b); a or b negative removes the
// series. Otherwise as the Zernike setters, with no validation except that the
// term count must fit in 32 bits.
ParametricPupil* set_parametric_pupil_amplitude_polarf_orders(ParametricPupil* pupil,
                                                              std::int32_t a, std::int32_t b);

// As set_parametric_pupil_amplitude_polarf_orders, for the phase series.
ParametricPupil* set_parametric_pupil_phase_polarf_orders(ParametricPupil* pupil, std::int32_t a,
                                                          std::int32_t b);

// Write the stored amplitude Zernike set to *n, *m; -1, -1 for a null record.
void get_parametric_pupil_amplitude_zernike_orders(const ParametricPupil* pupil, std::int32_t* n,
                                                   std::int32_t* m);

// Write the stored phase Zernike set to *n, *m; -1, -1 for a null record.
void get_parametric_pupil_phase_zernike_orders(const ParametricPupil* pupil, std::int32_t* n,
                                               std::int32_t* m);

// Write the stored amplitude polar Fourier set to *a, *b; -1, -1 for null.
void get_parametric_pupil_amplitude_polarf_orders(const ParametricPupil* pupil, std::int32_t* a,
                                                  std::int32_t* b);

// Write the stored phase polar Fourier set to *a, *b; -1, -1 for null.
void get_parametric_pupil_phase_polarf_orders(const ParametricPupil* pupil, std::int32_t* a,
                                              std::int32_t* b);

// Amplitude Zernike term count n(n+1)/2 + m + 1; 0 without a series or record.
std::int32_t get_parametric_pupil_amplitude_zernike_count(const ParametricPupil* pupil);

// Phase Zernike term count; 0 without a series or record.
std::int32_t get_parametric_pupil_phase_zernike_count(const ParametricPupil* pupil);

// Amplitude polar Fourier term count (2a+1)(2b+1); 0 without a series.
std::int32_t get_parametric_pupil_amplitude_polarf_count(const ParametricPupil* pupil);

// Phase polar Fourier term count (2a+1)(2b+1); 0 without a series.
std::int32_t get_parametric_pupil_phase_polarf_count(const ParametricPupil* pupil);

// The amplitude Zernike array of wavelength index, owned by the record and
// writable in place (null when the series is empty); null for a null record
// or an index outside [0, wavelength count).
double* get_parametric_pupil_amplitude_zernike_coeff(ParametricPupil* pupil, std::int32_t index);

// As get_parametric_pupil_amplitude_zernike_coeff, for the phase series.
double* get_parametric_pupil_phase_zernike_coeff(ParametricPupil* pupil, std::int32_t index);

// As get_parametric_pupil_amplitude_zernike_coeff, for the amplitude polar
// Fourier series.
double* get_parametric_pupil_amplitude_polarf_coeff(ParametricPupil* pupil, std::int32_t index);

// As get_parametric_pupil_amplitude_zernike_coeff, for the phase polar
// Fourier series.
double* get_parametric_pupil_phase_polarf_coeff(ParametricPupil* pupil, std::int32_t index);

// ---- checks for the programs that use a model ------------------------------

// The reader stores numbers as the file gives them, "nan", "inf" and 1e308
// included, and a model holding one evaluates to NaN or overflows the
// floats of an image. Writes to text (size bytes, NUL terminated) what the
// first such value of pupil is, e.g. "the phase Zernike coefficient of slot
// 3 at wavelength 1 is nan", and returns 1. Returns 0 when the aperture,
// the immersion index, every wavelength and every coefficient are finite
// and, at every wavelength, the magnitudes of each Zernike series'
// coefficients add up to less than the largest float: as no basis function
// exceeds 1 in magnitude, the series' values then fit in a float
// everywhere on the disc.
int find_unusable_pupil_value(const ParametricPupil* pupil, char* text, std::size_t size);

// ---- text file -------------------------------------------------------------

// Writes the record as a format-0 text file named file_name. Returns the
// record, or null with *error_code (if error_code is not null) set to 1 when
// the file cannot be opened, 2 when the stream reported an error or closing
// failed (a partial file is left behind). A null record writes nothing and
// returns null without setting a code.
ParametricPupil* write_parametric_pupil(ParametricPupil* pupil, const char* file_name,
                                        std::int32_t* error_code);

// Reads a format-0 text file into a new record owned by the caller. On
// failure returns null and sets the error code (1 open, 2 close, 10 not a
// pupil file, 11 version, 12 syntax, 13 invalid value, 20 out of memory, read
// error or overlong line), the 1-based line and the column; on success none
// of them is written. Each output pointer may be null.
ParametricPupil* read_parametric_pupil(const char* file_name, std::int32_t* error_code,
                                       std::int32_t* line, std::int32_t* column);

// What an error code of read_parametric_pupil means, in a few words, for
// the programs' messages ("name:line:column: text").
const char* read_parametric_pupil_error_text(std::int32_t code);

// Reads one whole line of stream into *line (grown by 256 bytes at a time,
// reallocated by this call; *size is its allocation) and drops the newline.
// Returns 0 when a newline-ended line was read, 1 otherwise: at end of file
// (error code untouched; an unended last line is dropped) or with
// *error_code = 20 on a read error, out of memory or a line beyond 2^31
// bytes. *column is 0 on entry and the failing column on error 20.
int read_full_line(std::FILE* stream, char** line, std::int32_t* size, std::int32_t* error_code,
                   std::int32_t* column);

// Reads the term lines of one Zernike block into coeff until count values
// have been read, placing each by its (n, m); *line_number advances per
// line. Returns 0, or 1 at end of file (error code untouched) or on error:
// 12 for a malformed line, 13 for a term outside the set of count terms, or
// the line reader's 20, with *column set.
int read_zernike_coeff(std::FILE* stream, std::int32_t count, double* coeff, char** line,
                       std::int32_t* size, std::int32_t* error_code, std::int32_t* line_number,
                       std::int32_t* column);

// As read_zernike_coeff for a polar Fourier block of orders (a, b): lines
// (i, j) with i in [0, a] and j in [0, b], (2a+1)(2b+1) values in all.
int read_polarf_coeff(std::FILE* stream, std::int32_t a, std::int32_t b, double* coeff, char** line,
                      std::int32_t* size, std::int32_t* error_code, std::int32_t* line_number,
                      std::int32_t* column);

// Writes the block "#<name>_<wavelength_index>" with one term line per
// Zernike term of the count values in coeff; nothing when count < 1.
void write_zernike_coeff(std::FILE* stream, const double* coeff, std::int32_t count,
                         std::int32_t wavelength_index, const char* name);

// Writes the block "#<name>_<wavelength_index>" with the polar Fourier term
// lines of orders (a, b); nothing when a or b is negative.
void write_polarf_coeff(std::FILE* stream, const double* coeff, std::int32_t a, std::int32_t b,
                        std::int32_t wavelength_index, const char* name);

}  // namespace torvel
