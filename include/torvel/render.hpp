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

#include <torvel/driver.hpp>
#include <torvel/pupil.hpp>

namespace torvel {

// Most phase terms -drop= can name in one run.
inline constexpr int kMaxDroppedTerms = 16;

// A term R_n^m of a Zernike series: for m > 0 both its cosine and its sine.
struct zernike_term {
    std::int32_t n, m;
};

// Everything the command line settles. Names point into argv, never copies.
// wavelength_index holds up to five zero-based model wavelength indices, in
// image order, ended by -1. spacing 0 means: chosen so that the disc of the
// shortest selected wavelength spans 90% of the smaller side.
struct render_inputs {
    const char* model_name;
    const char* image_name;
    std::int32_t nx, ny;
    float spacing;
    bool centre_given;  // false: the pupil centre is pixel (nx / 2, ny / 2)
    float x0, y0;
    std::int32_t wavelength_index[kMaxSelectedWavelengths + 1];
    std::int32_t wavelength_count;
    bool complex_form;       // true: mode 4; false: amplitude and phase, mode 2
    bool uniform_amplitude;  // true: amplitude 1 whatever the model says
    std::int32_t drop_count;
    zernike_term drop[kMaxDroppedTerms];
    const char* drop_text;  // the -drop= value as given, for the image's label
};

// The defaults main copies before parsing: 256 x 256 pixels, the spacing and
// centre chosen from them, every wavelength, complex, the model's amplitude,
// nothing dropped.
inline constexpr render_inputs kDefaultRenderInputs = {
    nullptr, nullptr, 256,   256, 0.0f, false,  0.0f, 0.0f, {-1, 0, 0, 0, 0, 0},
    0,       true,    false, 0,   {},   nullptr};

// A record owned by its holder and destroyed with it.
using pupil_ptr = std::unique_ptr<ParametricPupil, pupil_deleter>;

// Writes the usage text of torvel-render to stream.
void print_render_usage(std::FILE* stream);

// 1 when any argument from argv[1] on asks for help: "-h", "-H", "-help",
// "-Help" or "--help"; else 0.
int render_help_requested(int argc, char** argv);

// Reads the parametric pupil file name into a new record. Returns it, or
// null after one message "torvel-render: name:line:column: what is wrong".
pupil_ptr read_render_model(const char* name);

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

// Sets to 0, in every wavelength of model, the phase coefficients of the
// terms inputs.drop names (cosine and sine for m > 0); a term outside the
// model's phase set is left alone, as there is nothing to leave out.
void drop_phase_terms(const render_inputs& inputs, ParametricPupil* model);

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
// inputs.uniform_amplitude or the model has no amplitude series, phase 0
// when it has no phase series); all others 0.
void render_wavelength(const render_inputs& inputs, ParametricPupil* model, int w,
                       const pupil_grid& grid, float* plane);

// Writes the image inputs.image_name as planned, every selected wavelength
// rendered on the geometry torvel will read back from its header. Returns
// 0, or 1 after a message; a failed run leaves no file under the name and
// whatever was there before untouched.
int write_rendered_image(const render_inputs& inputs, ParametricPupil* model,
                         const render_plan& plan);

}  // namespace torvel
