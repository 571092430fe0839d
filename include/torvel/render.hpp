#pragma once
// torvel-render: a fitted pupil model (a parametric pupil file) back into a
// pupil function image that torvel reads. Inside each wavelength's pupil
// disc, and on a rim two pixels wide just beyond it, the amplitude and phase
// are the model's series evaluated at exactly the pupil coordinates that
// torvel's fit samples; further out the pupil is 0. render/main.cpp strings
// the steps together; everything here is in the library so tests and other
// programs reach it.

#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>

#include <torvel/driver.hpp>
#include <torvel/pupil.hpp>

namespace torvel {

// Most phase terms -drop= can name in one run.
inline constexpr int kMaxDroppedTerms = 16;

// A term R_n^m of a Zernike series: for m > 0 both its cosine and its sine.
struct zernike_term {
    std::int32_t n, m;
};

// What a companion program takes of a fit file's model (torvel-render and
// torvel-psf share the options -w=, -drop= and -amplitude=):
// wavelength_index holds up to five zero-based model wavelength indices, in
// the order they are written, ended by -1.
struct model_choice {
    std::int32_t wavelength_index[kMaxSelectedWavelengths + 1];
    std::int32_t wavelength_count;
    bool uniform_amplitude;  // true: amplitude 1 whatever the model says
    std::int32_t drop_count;
    zernike_term drop[kMaxDroppedTerms];
    const char* drop_text;  // the -drop= value as given, for labels
};

// Every wavelength, the model's amplitude, nothing dropped.
inline constexpr model_choice kDefaultModelChoice = {{-1, 0, 0, 0, 0, 0}, 0, false, 0, {}, nullptr};

// Everything the command line settles. Names point into argv, never copies.
// spacing 0 means: chosen so that the disc of the shortest selected
// wavelength spans 90% of the smaller side.
struct render_inputs {
    const char* model_name;
    const char* image_name;
    std::int32_t nx, ny;
    float spacing;
    bool centre_given;  // false: the pupil centre is pixel (nx / 2, ny / 2)
    float x0, y0;
    bool complex_form;  // true: mode 4; false: amplitude and phase, mode 2
    model_choice model;
};

// The defaults main copies before parsing: 256 x 256 pixels, the spacing and
// centre chosen from them, every wavelength, complex, the model's amplitude,
// nothing dropped.
inline constexpr render_inputs kDefaultRenderInputs = {
    nullptr, nullptr, 256, 256, 0.0f, false, 0.0f, 0.0f, true, kDefaultModelChoice};

// A record owned by its holder and destroyed with it.
using pupil_ptr = std::unique_ptr<ParametricPupil, pupil_deleter>;

// ---- shared by the programs that read a fit file --------------------------

// 1 when any argument from argv[1] on asks for help: "-h", "-H", "-help",
// "-Help" or "--help"; else 0.
int companion_help_requested(int argc, char** argv);

// Reads the parametric pupil file name into a new record. Returns it, or
// null after one message "program: name:line:column: what is wrong".
pupil_ptr read_model_file(const char* program, const char* name);

// Checks that each of argv[1..argc-1] begins with one of options and that
// none is given twice, one message per problem. Returns 1 if any, else 0.
int check_option_names(const char* program, const char* const* argv, int argc,
                       std::span<const char* const> options);

// The text after option in the first of argv[1..argc-1] that begins with
// it, or null.
const char* option_value(const char* const* argv, int argc, const char* option);

// Index in names of the value of option: -1 when it is not given, -2 after
// a message when it is none of names.
int option_name_index(const char* program, const char* const* argv, int argc, const char* option,
                      std::span<const char* const> names);

// Fills *choice from -w=, -drop= and -amplitude= in argv[1..argc-1] and
// checks model (read from model_name) for what a companion program can
// evaluate: positive wavelengths, an aperture within the immersion index,
// finite coefficients, no polar Fourier series; a null model (one that could
// not be read) has only the options checked. Reports every problem; returns
// 1 if any, else 0.
int parse_model_choice(const char* program, const char* const* argv, int argc,
                       const char* model_name, const ParametricPupil* model, model_choice* choice);

// Sets to 0, in every wavelength of model, the phase coefficients of the
// terms choice.drop names (cosine and sine for m > 0); a term outside the
// model's phase set is left alone, as there is nothing to leave out.
void drop_phase_terms(const model_choice& choice, ParametricPupil* model);

// The usage lines of the options -w=, -drop= and -amplitude=, and of -h,
// which end both programs' usage texts.
void print_model_choice_usage(std::FILE* stream);

// ---- torvel-render ----------------------------------------------------------

// Writes the usage text of torvel-render to stream.
void print_render_usage(std::FILE* stream);

// Fills *inputs from `torvel-render fit_file image [options]`, reading the
// model first into *model (its wavelengths are what -w= selects from). Checks
// every option, and the model against what an image can hold, reporting
// every problem on stderr; returns 1 if there was any, else 0.
int parse_render_command_line(int argc, char** argv, render_inputs* inputs, pupil_ptr* model);

// Fills *inputs from the options argv[1 .. argc - 1] (argv[0], the image
// name on the command line, is not looked at) for the model in memory, whose
// wavelengths -w= selects from; inputs->model_name names the model in
// messages. Checks every option and the model against what an image can
// hold, reporting every problem; returns 1 if there was any, else 0.
int parse_render_options(int argc, const char* const* argv, const ParametricPupil& model,
                         render_inputs* inputs);

// The image about to be written, as far as the options and the model settle
// it: its size, spacing, requested pupil centre and the type information and
// wavelengths of its header.
struct render_plan {
    std::int32_t nx, ny;
    float spacing;  // reciprocal micrometres, along x and y
    float x0, y0;   // pupil centre, pixels
    float p1, p2;   // aperture x 10, immersion index x 100
    std::int32_t lens_id;
    std::int32_t wavelength_count;
    float wavelength_nm[kMaxSelectedWavelengths];
};

// Settles the plan for inputs and model (default spacing and centre).
// Returns 0, or 1 after one message when a plane of the image would hold
// more pixels than torvel reads.
int plan_render(const render_inputs& inputs, const ParametricPupil& model, render_plan* plan);

// One wavelength's pupil on the image as torvel sees it when it reads the
// image back: centre and spacing from the header, cutoff NA / wavelength.
struct pupil_grid {
    float x0, y0, dx, dy, cutoff;
    std::int32_t nx, ny;
};

// Fills plane (2 * nx * ny floats) with model wavelength w on grid:
// (real, imaginary) pairs when inputs.complex_form, else the amplitude
// plane followed by the phase plane. Pixels that torvel samples, and those
// within two pixels beyond the disc edge, get the model (amplitude 1 when
// inputs.model.uniform_amplitude or the model has no amplitude series, phase 0
// when it has no phase series); all others 0. Returns 0, or 1 after a
// message when memory runs out.
int render_wavelength(const render_inputs& inputs, ParametricPupil* model, int w,
                       const pupil_grid& grid, float* plane);

// Fills plane (2 * nx * ny floats, as render_wavelength does) with the
// pupil of wavelength slot on grid. Returns 0, or 1 after a message (the
// write then stops and keeps nothing).
using pupil_plane_filler = int (*)(void* context, int slot, const pupil_grid& grid, float* plane);

// Writes a pupil image to name as planned: type, aperture, index, lens,
// wavelengths, spacing and centre of plan in its header, label as its
// label, complex sections (mode 4) or amplitude and phase (mode 2), each
// wavelength's planes from fill on the geometry torvel will read back.
// Returns 0, or 1 after a message beginning with program; a failed run
// leaves no file under the name and whatever was there before untouched.
int write_pupil_image(const char* program, const char* name, const render_plan& plan,
                      bool complex_form, const char* label, pupil_plane_filler fill,
                      void* context);

// Writes the image inputs.image_name as planned, every selected wavelength
// rendered on the geometry torvel will read back from its header. Returns
// 0, or 1 after a message; a failed run leaves no file under the name and
// whatever was there before untouched.
int write_rendered_image(const render_inputs& inputs, ParametricPupil* model,
                         const render_plan& plan);

}  // namespace torvel
