#pragma once
// torvel-retrieve: the pupil function of a microscope from a measured bead
// z-stack, by iterative phase retrieval on torvel-psf's forward model.
//
// Conventions, those of torvel-psf: plane k of the stack lies at
// z = (k - nz/2) dz from the focal plane (halves rounded down); laterally the
// stack is cropped to N x N pixels around the bead, and the pupil's mean
// phase gradient is removed, which puts the bead's in-focus centroid at pixel
// (N/2, N/2). The pupil image is the FFT grid of the crop: N x N pixels of
// 1 / (N dx) µm⁻¹, centre at pixel (N/2, N/2), one complex section per
// wavelength, 0 outside the disc NA/λ, its mean amplitude over the disc 1.
//
// The algorithm (docs/retrieve.md): the measured voxels y are modelled as
// |E|² + b, E the field of the current pupil on a grid several times wider
// than the crop (so defocused planes spread beyond the crop instead of
// wrapping into it) with the disc edge area-weighted, b the background. Each
// iteration replaces, plane by plane, the field by E sqrt(y / (|E|² + b)) on
// the crop, takes the change back to the pupil with the adjoint of the
// forward model, and adds the mean over the planes to the pupil.

#include <complex>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>

#include <torvel/imageio.hpp>
#include <torvel/psf.hpp>

namespace torvel {

// Everything the command line settles. Names point into argv; 0 means not
// given for the numbers that have no default.
struct retrieve_inputs {
    const char* stack_name;
    const char* output_name;
    const char* psf_name;  // -psf=, or null
    const char* log_name;  // -log=, or null
    double na, n;          // required
    std::int32_t lens;
    std::int32_t wavelength_count;  // -w= values given
    double wavelength_nm[5];
    double dx_nm, dz_nm;
    std::int32_t size;
    std::int32_t iterations;
    double tol;
    bool background_auto;
    double background;  // photons (the stack's units) when not auto
    bool vector;
};

// The defaults main starts from: 64-pixel crop, 200 iterations, tolerance
// 1e-6, background estimated, scalar model, lens 0.
inline constexpr retrieve_inputs kDefaultRetrieveInputs = {
    nullptr, nullptr, nullptr, nullptr, 0.0, 0.0, 0, 0, {}, 0.0, 0.0, 64, 200, 1e-6, true, 0.0,
    false};

// Writes the usage text of torvel-retrieve to stream.
void print_retrieve_usage(std::FILE* stream);

// Fills *inputs from `torvel-retrieve stack pupil_image [options]`. Reports
// every problem on stderr, one line each beginning "torvel-retrieve: ";
// returns 1 if there was any, else 0.
int parse_retrieve_command_line(int argc, char** argv, retrieve_inputs* inputs);

// Fills *inputs from the options argv[1 .. argc - 1] (argv[0] is not looked
// at), for a caller that names the stack (inputs->stack_name, as messages
// name it) and the pupil image (inputs->output_name, null when the pupil is
// kept in memory) itself. Reports every problem, the names included;
// returns 1 if there was any, else 0.
int parse_retrieve_options(int argc, const char* const* argv, retrieve_inputs* inputs);

// One wavelength's measurement, cropped around the bead: nz planes of
// size x size voxels, in the stack's units.
struct bead_stack {
    std::int32_t size = 0, nz = 0;
    double dx_um = 0, dz_um = 0, wavelength_um = 0;
    double background = 0;        // the estimate or the given value
    bool background_fixed = false;  // given: not refined by the iteration
    std::int32_t x0 = 0, y0 = 0;  // the crop's first column and row in the stack
    std::int32_t bead_x = 0, bead_y = 0, bead_z = 0;
    std::unique_ptr<float[]> voxels;
};

// Every wavelength of the stack, cropped; the stack as read for -psf=.
struct bead_data {
    std::int32_t wavelengths = 0;
    bead_stack stacks[5];
    image_stack_header header{};  // the stack file's, with the spacing and wavelengths used
};

// Reads inputs.stack_name and checks it against inputs: spacing and
// wavelength known, at least 3 planes, finite voxels, the crop within the
// image, a bead found away from the stack's edges, NA within the index.
// Estimates the background and crops each wavelength around its bead.
// Returns 0, or 1 after one message.
int load_bead_data(const retrieve_inputs& inputs, bead_data* data);

// As load_bead_data for a stack already in memory: voxels laid out as
// read_image_stack gives them for header, whose spacing and wavelengths
// (0 where unknown) the options override; inputs.stack_name names it in
// messages.
int load_bead_voxels(const retrieve_inputs& inputs, image_stack_header header,
                     std::span<const float> voxels, bead_data* data);

// The background of one wavelength's stack (nx x ny x nz voxels) when none
// is given: the median of the voxels on the image border of every plane.
double estimate_background(std::span<const float> voxels, int nx, int ny, int nz);

// The state and result of one wavelength's retrieval on its propagator's
// pupil grid (side² values, psf_propagator's layout).
struct retrieval {
    psf_propagator propagator;
    std::unique_ptr<std::complex<float>[]> pupil;
    double background = 0;
    std::int32_t iterations_done = 0;
    double error = 0;  // the last iteration's
};

// The error of each iteration, in order, for -log= and the progress line.
struct retrieval_log {
    std::unique_ptr<double[]> error;
    std::int32_t count = 0;
};

// Retrieves the pupil of bead with the options of inputs, printing the
// error per iteration as progress on a terminal and recording it in *log.
// Stops after inputs.iterations, or when the pupil changes by less than
// inputs.tol relative to its norm. Returns 0, or 1 after one message when
// memory runs out or the iteration diverges or goes non-finite.
int retrieve_pupil(const retrieve_inputs& inputs, const bead_stack& bead, retrieval* result,
                   retrieval_log* log);

// The pupil of result on the pupil image grid: size x size complex values
// (row after row), pixel (i, j) at k = ((i - size/2), (j - size/2)) / (size dx),
// 0 outside the disc, mean amplitude over the disc 1, mean phase gradient
// removed.
void pupil_on_image_grid(const retrieval& result, int size, std::span<std::complex<float>> image);

// The pupil image's geometry and header values: size x size pixels of
// 1 / (size dx) µm⁻¹, centre pixel (size/2, size/2), aperture, index, lens
// and wavelengths.
render_plan retrieved_pupil_plan(const retrieve_inputs& inputs, const bead_data& data);

// Writes the pupil image (type 8000, mode 4, one section per wavelength)
// through the image layer. images holds wavelengths planes of size² values.
// Returns 0, or 1 after one message; a failed run leaves what was at the
// name before untouched.
int write_retrieved_pupil(const retrieve_inputs& inputs, const bead_data& data,
                          std::span<const std::complex<float>> images);

// Writes the PSF of each retrieved pupil on the crop's grid (size x size x nz
// per wavelength), scaled and offset by the background as the bead stack is,
// to inputs.psf_name. Returns 0, or 1 after one message.
int write_retrieved_psf(const retrieve_inputs& inputs, const bead_data& data,
                        std::span<const retrieval> results);

// Writes the error per iteration of each wavelength as CSV to inputs.log_name.
// Returns 0, or 1 after one message.
int write_retrieval_log(const retrieve_inputs& inputs, const bead_data& data,
                        std::span<const retrieval_log> logs);

// Writes the pupil image of every wavelength's result, then the -psf= and
// -log= outputs asked for. Returns 0, or 1 after one message.
int write_retrieval_outputs(const retrieve_inputs& inputs, const bead_data& data,
                            std::span<const retrieval> results,
                            std::span<const retrieval_log> logs);

}  // namespace torvel
