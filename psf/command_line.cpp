// The command line and usage text of torvel-psf.

#include <cmath>
#include <cstdio>
#include <cstring>

#include <torvel/psf.hpp>
#include <torvel/safeout.hpp>
#include <torvel/switches.hpp>
#include <torvel/messages.hpp>

namespace torvel {
namespace {

constexpr const char* kProgram = "torvel-psf";

constexpr const char* kSizeOption = "-size=";
constexpr const char* kDxOption = "-dx=";
constexpr const char* kDzOption = "-dz=";
constexpr const char* kModelOption = "-model=";
constexpr const char* kNormalizeOption = "-normalize=";
constexpr const char* kOptions[] = {kSizeOption, kDxOption,     kDzOption,    "-w=",
                                    "-drop=",    "-amplitude=", kModelOption, kNormalizeOption};
constexpr const char* kModels[] = {"scalar", "vector"};
constexpr const char* kNormalizations[] = {"sum", "peak", "none"};

// Sizes beyond this are refused before anything else is looked at; the
// memory check of the plan refuses most smaller stacks that do not fit.
constexpr int kMaxSide = 32768;

constexpr const char* kUsageLines[] = {
    "usage: torvel-psf fit_file psf_output [options]",
    "    Writes the 3D point spread function of a fitted pupil model (a",
    "    parametric pupil file such as torvel writes) as an image stack, one",
    "    wavelength after the other: an MRC file (.mrc) or a 32-bit float",
    "    ImageJ hyperstack TIFF (.tif, .tiff), chosen by the name.  Voxel",
    "    (i, j, k) lies at x = (i - nx/2) dx, y = (j - ny/2) dx,",
    "    z = (k - nz/2) dz (halves rounded down), the emitter at the origin;",
    "    the field is the integral over the pupil disc of the model's pupil",
    "    times exp(2 pi i (kx x + ky y + kz z)), computed within 1e-3 of the",
    "    peak.",
    "    Options:",
    "    -size=nx[:ny[:nz]]",
    "        Voxels per row, rows and planes; ny defaults to nx.  The",
    "        default is 64:64:64.",
    "    -dx=nm",
    "        Lateral voxel size in nm.  The default, Nyquist sampling for",
    "        the shortest selected wavelength, is lambda / (4 NA).  Coarser",
    "        voxels are computed on a finer grid, never aliased.",
    "    -dz=nm",
    "        Plane spacing in nm.  The default, Nyquist sampling along z, is",
    "        lambda / (2 n (1 - cos a)), sin a = NA / n.",
    "    -model=scalar|vector",
    "        scalar, the default, gives |E|^2; vector the mean over x- and",
    "        y-polarised light of the summed |E|^2 of the three field",
    "        components at the focus of the objective.",
    "    -normalize=sum|peak|none",
    "        sum, the default, makes each wavelength's stack sum to 1; peak",
    "        makes its largest voxel 1; none leaves |E|^2 in um^-4.",
};

using option_args = switch_args;

int parse_size(const option_args& args, psf_inputs* inputs) {
    int values[3] = {0, 0, 0};
    const int count =
        get_intswitch_within(kSizeOption, args.argv, args.argc, 3, 1, kMaxSide, values);
    if (count == -1) return 0;
    if (count == 1) values[1] = values[0];
    if (count < 3) values[2] = inputs->nz;
    bool good = count >= 1 && count <= 3;
    for (const int v : values) good = good && v >= 1 && v <= kMaxSide;
    if (!good) {
        print_message("%s: %s expects one to three integers from 1 to %d, nx[:ny[:nz]]\n", kProgram,
                      kSizeOption, kMaxSide);
        return 1;
    }
    inputs->nx = values[0];
    inputs->ny = values[1];
    inputs->nz = values[2];
    return 0;
}

// A spacing in nm: one positive finite number.
int parse_spacing(const option_args& args, const char* option, double* nm) {
    float value = 0.0f;
    const int count = get_floatswitch(option, args.argv, args.argc, 1, &value);
    if (count == -1) return 0;
    if (count != 1 || !(value > 0.0f) || !std::isfinite(value)) {
        print_message("%s: %s expects one positive number of nm\n", kProgram, option);
        return 1;
    }
    *nm = value;
    return 0;
}

// The output must be a stack format the image layer writes, and not the fit file.
int check_output_name(const psf_inputs& inputs) {
    const char* dot = std::strrchr(inputs.output_name, '.');
    const bool known =
        dot != nullptr && (std::strcmp(dot, ".mrc") == 0 || std::strcmp(dot, ".tif") == 0 ||
                           std::strcmp(dot, ".tiff") == 0);
    int error = 0;
    if (!known) {
        print_message("%s: %s: the name must end in .mrc, .tif or .tiff\n", kProgram,
                      inputs.output_name);
        error = 1;
    }
    if (same_file(inputs.output_name, inputs.model_name)) {
        print_message("%s: %s is the fit file; it is not overwritten\n", kProgram,
                      inputs.output_name);
        error = 1;
    }
    return error;
}

// The options after the file names; model is null when it could not be read.
int parse_psf_options_of(const option_args& args, ParametricPupil* model, psf_inputs* inputs) {
    int error = check_option_names(kProgram, args.argv, args.argc, kOptions);
    error |= parse_size(args, inputs);
    error |= parse_spacing(args, kDxOption, &inputs->dx_nm);
    error |= parse_spacing(args, kDzOption, &inputs->dz_nm);
    const int form = option_name_index(kProgram, args.argv, args.argc, kModelOption, kModels);
    if (form >= 0) inputs->vector = form == 1;
    const int normalize =
        option_name_index(kProgram, args.argv, args.argc, kNormalizeOption, kNormalizations);
    if (normalize >= 0) inputs->normalize = static_cast<psf_normalize>(normalize);
    error |= (form == -2 || normalize == -2) ? 1 : 0;
    error |= parse_model_choice(kProgram, args.argv, args.argc, inputs->model_name, model,
                                &inputs->model);
    return error;
}

}  // namespace

void print_psf_usage(std::FILE* stream) {
    for (const char* line : kUsageLines) std::fprintf(stream, "%s\n", line);
    print_model_choice_usage(stream);
}

int parse_psf_command_line(int argc, char** argv, psf_inputs* inputs, pupil_ptr* model) {
    if (argc < 3) {
        print_psf_usage(stderr);
        return 1;
    }
    inputs->model_name = argv[1];
    inputs->output_name = argv[2];
    *model = read_model_file(kProgram, inputs->model_name);
    int error = *model ? 0 : 1;
    error |= check_output_name(*inputs);
    return error | parse_psf_options_of({argv + 2, argc - 2}, model->get(), inputs);
}

int parse_psf_options(int argc, const char* const* argv, const ParametricPupil& model,
                      psf_inputs* inputs) {
    int error = 0;
    if (inputs->output_name != nullptr) error |= check_output_name(*inputs);
    // The record is only read; the choice's helpers take it writable.
    return error | parse_psf_options_of({argv, argc}, const_cast<ParametricPupil*>(&model), inputs);
}

}  // namespace torvel
