#pragma once
// The program driver: the option record, the command line, the usage text,
// the input summary and the steps of one fitting run. driver/main.cpp strings
// the steps together; everything here is in the library so tests reach it.

#include <cstdint>
#include <cstdio>
#include <memory>

#include <torvel/bulk.hpp>
#include <torvel/pupil.hpp>

namespace torvel {

inline constexpr int kMaxSelectedWavelengths = 5;

// Everything the command line settles. Names point into argv, never copies.
// wavelength_index holds up to five zero-based input indices, in processing
// order, ended by -1; wavelength[k] is the wavelength in nm of slot k.
struct fit_inputs {
    const char* input_name;
    const char* output_name;
    const char* residual_name;  // null: no residual image
    std::int32_t wavelength_index[kMaxSelectedWavelengths + 1];
    float wavelength[kMaxSelectedWavelengths];
    float tolerance;
    std::int32_t wavelength_count;
    std::int32_t amplitude_n, amplitude_m;  // (-1, -1): no amplitude fit
    std::int32_t phase_n, phase_m;          // (-1, -1): no phase fit
};

// The defaults that main copies before parsing. The tolerance is the float
// nearest 0.0001, bit pattern 0x38D1B717.
inline constexpr fit_inputs kDefaultFitInputs = {
    nullptr, nullptr, nullptr, {-1, 0, 0, 0, 0, 0}, {0, 0, 0, 0, 0}, 0.0001f, 0, 8, 0, 8, 0};

// Writes the 36-line usage text to stream.
void print_usage(std::FILE* stream);

// Fills *inputs from the command line `torvel input output [options]`,
// probing the input image (stream 1, messages off) for its wavelength list.
// Reports every problem on stderr and returns 1 if there was any, else 0.
int parse_command_line(int argc, char** argv, fit_inputs* inputs);

// Applies the option arguments options[0 .. count - 1], as they follow the
// two file names on the command line, to *inputs, whose -w= selects from the
// image's wavelengths waves_nm[0 .. wave_count - 1] (at most five): all of
// them, in order, when no -w= is given. Reports every problem on stderr and
// returns 1 if there was any, else 0.
int parse_fit_options(int count, const char* const* options, const float* waves_nm, int wave_count,
                      fit_inputs* inputs);

// Writes the summary of the settled options to standard output.
void print_input_summary(const fit_inputs& inputs);

// Builds the empty fit record: lens id, wavelengths in micrometres, aperture
// and immersion index, the two Zernike sets. Returns the new record (owned by
// the caller), or null after printing one message.
ParametricPupil* setup_parametric_output(const fit_inputs& inputs, std::int32_t lens_id, float na,
                                         float n_imm);

// The image type code of a pupil function image.
inline constexpr int kPupilImageType = 8000;

// Header values of the input image that the run uses, and what follows from
// them: the aperture and immersion index unscaled from P1 and P2, and the
// pupil centre in pixel units.
struct input_header {
    std::int32_t nx, ny, mode;
    std::int32_t nz, nw, nt;
    std::int32_t type, lens_id;
    float dx, dy, xorig, yorig;
    float na, n_imm;
    float x0, y0;
    bool complex_pixels;
};

struct pupil_deleter {
    void operator()(ParametricPupil* pupil) const { destroy_parametric_pupil(pupil); }
};

// What one run owns from its first open to its exit: the input stream (1),
// the residual stream (2) with the statistics kept for its header, the two
// work planes and the fit record. Destroying it is the clean-up of a run
// that failed, in order: input closed, residual header written and the
// image closed as unfinished (kept only where no file was at its name),
// record destroyed, planes freed.
struct fit_run {
    bool input_open = false;
    bool residual_open = false;
    float residual_stats[3] = {0.0f, 0.0f, 0.0f};  // min, max, mean of slot 0
    bulk_array<float> amplitude;                   // A: the whole section as read
    bulk_array<float> phase;                       // B
    std::unique_ptr<ParametricPupil, pupil_deleter> pupil;

    fit_run() = default;
    fit_run(const fit_run&) = delete;
    fit_run& operator=(const fit_run&) = delete;
    ~fit_run();
};

// Opens the input on stream 1 and reads the header values the run uses.
// Returns 0, or 1 after "unable to open".
int open_input_image(const char* name, fit_run* run, input_header* header);

// Reads into *header the values torvel takes from the header of the image
// open on stream (either access), and what follows from them: aperture and
// index unscaled from P1, P2 and the pupil centre (0 - origin) / spacing.
void read_input_header(int stream, input_header* header);

// The pupil radius in the spacing's units, NA / wavelength, as the fit of
// every wavelength computes it (aperture times 1000, then over the nm).
float pupil_cutoff(float na, float wavelength_nm);

// Runs every check of the input header, printing one message per failed
// check in their fixed order. Returns 0 when all pass, else 1.
int check_input_header(const char* name, const input_header& header);

// Refuses a fit file or residual image name that names the input image or
// each other, whether or not the file exists yet (f.txt and ./f.txt, a link
// and its target): writing it would destroy data that the run still reads or
// has just written. Returns 0, or 1 after one message.
int check_output_names(const fit_inputs& inputs);

// Allocates the amplitude (or complex) and phase planes. Returns 0, or 1
// after "insufficient memory".
int allocate_work_planes(const input_header& header, fit_run* run);

// Creates the residual image on stream 2 with the input header copied and
// laid out for one complex section per selected wavelength. Returns 0, or 1
// after "unable to open ... for writing".
int open_residual_image(const fit_inputs& inputs, fit_run* run);

// Reads section w of the input open on stream 1 into the planes: amplitude
// receives the section as read (2 * nx * ny floats for a complex image, split
// in place into nx * ny amplitudes), phase nx * ny floats. Returns 0, or 1
// after a message.
int read_amplitude_and_phase(const input_header& header, int w, float* amplitude, float* phase);

// Fits selected wavelength slot to its planes (nx * ny floats each, on the
// header's geometry) into the slot's coefficient arrays of pupil: amplitude,
// then the phase unwrapped in place. A plane with a NaN or an infinity among
// the pixels the fit uses is refused before any fit. Returns 0, or the
// failing step's status after its message.
int fit_planes(const fit_inputs& inputs, const input_header& header, int slot,
               const float* amplitude, float* phase, ParametricPupil* pupil);

// Writes into residual (2 * nx * ny floats) the complex residual of slot's
// fit in pupil to the planes fit_planes left (the phase unwrapped), and its
// statistics into stats, as compute_residual does.
void compute_slot_residual(const fit_inputs& inputs, const input_header& header, int slot,
                           const float* amplitude, const float* phase, ParametricPupil* pupil,
                           float* residual, float stats[3]);

// Reads and fits selected wavelength slot into the run's planes and record
// and, when a residual image is open, writes the residuals of the slot.
// Returns 0, or the failing step's status after its message.
int fit_wavelength(const fit_inputs& inputs, const input_header& header, int slot, fit_run* run);

// The clean-up of a run that succeeded: closes the input and writes the
// residual image's header and closes it, giving it its name. Returns 0, or
// 1 after the layer's message when the residual image cannot be finished.
int finish_run(fit_run* run);

// Writes the fit record to name. Returns 0, or 1 after a message naming the
// failure; whatever was at name before is then left as it was.
int write_fit_file(ParametricPupil* pupil, const char* name);

}  // namespace torvel
