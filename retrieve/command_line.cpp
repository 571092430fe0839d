// The command line and usage text of torvel-retrieve.

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <torvel/render.hpp>
#include <torvel/retrieve.hpp>
#include <torvel/safeout.hpp>
#include <torvel/switches.hpp>
#include <torvel/messages.hpp>

namespace torvel {
namespace {

constexpr const char* kProgram = "torvel-retrieve";

constexpr const char* kNaOption = "-na=";
constexpr const char* kIndexOption = "-n=";
constexpr const char* kLensOption = "-lens=";
constexpr const char* kWaveOption = "-w=";
constexpr const char* kDxOption = "-dx=";
constexpr const char* kDzOption = "-dz=";
constexpr const char* kSizeOption = "-size=";
constexpr const char* kIterationsOption = "-iterations=";
constexpr const char* kTolOption = "-tol=";
constexpr const char* kBackgroundOption = "-background=";
constexpr const char* kModelOption = "-model=";
constexpr const char* kPsfOption = "-psf=";
constexpr const char* kLogOption = "-log=";
constexpr const char* kOptions[] = {kNaOption,         kIndexOption, kLensOption,      kWaveOption,
                                    kDxOption,         kDzOption,    kSizeOption,      kIterationsOption,
                                    kTolOption,        kBackgroundOption, kModelOption, kPsfOption,
                                    kLogOption};
constexpr const char* kModels[] = {"scalar", "vector"};

constexpr int kMinSize = 16;
constexpr int kMaxSize = 1024;
constexpr int kMaxIterations = 100000;

constexpr const char* kUsageLines[] = {
    "usage: torvel-retrieve stack pupil_image [options]",
    "    Retrieves the pupil function of a microscope from a z-stack of a",
    "    sub-resolution bead (an MRC file, or a TIFF ImageJ hyperstack or",
    "    multi-page TIFF) and writes it as a complex pupil image that torvel",
    "    fits.  Plane k lies at z = (k - nz/2) dz from the focal plane; the",
    "    stack is cropped around the bead, and the pupil is the FFT grid of",
    "    the crop: N x N pixels of 1/(N dx) um^-1, centre at pixel (N/2, N/2),",
    "    one section per wavelength, 0 outside the disc NA/wavelength.",
    "    Options:",
    "    -na=value -n=value",
    "        Numerical aperture and immersion refractive index; both required.",
    "    -lens=number",
    "        Lens number written to the pupil image's header (default 0).",
    "    -w=nm[:nm...]",
    "        Emission wavelength of each of the stack's wavelengths, needed",
    "        when the file names none; overrides the file's.",
    "    -dx=nm -dz=nm",
    "        Lateral pixel size and plane spacing, needed when the file gives",
    "        none; override the file's.",
    "    -size=N",
    "        Lateral crop around the bead, N x N pixels (default 64).",
    "    -iterations=k",
    "        Most iterations (default 200).",
    "    -tol=value",
    "        Stop when the pupil changes by less than this fraction of its norm",
    "        in an iteration (default 1e-6).",
    "    -background=auto|value",
    "        The stack's background per voxel, in its units; auto (the default)",
    "        starts from the median of the image border and refines it with the",
    "        pupil.",
    "    -model=scalar|vector",
    "        The forward model inside the retrieval, as torvel-psf's (default",
    "        scalar; vector for high apertures).",
    "    -psf=name",
    "        Also write the PSF of the retrieved pupil on the crop's grid, with",
    "        the bead's scale and background, as an MRC or TIFF stack.",
    "    -log=name.csv",
    "        Also write the error of every iteration.",
    "    -h, --help",
    "        Print this text and exit.",
};

using option_args = switch_args;

// One positive finite number, or nothing.
int parse_positive(const option_args& args, const char* option, const char* what, double* value) {
    float v = 0.0f;
    const int count = get_floatswitch(option, args.argv, args.argc, 1, &v);
    if (count == -1) return 0;
    if (count != 1 || !(v > 0.0f) || !std::isfinite(v)) {
        print_message("%s: %s expects one positive number%s\n", kProgram, option, what);
        return 1;
    }
    *value = v;
    return 0;
}

int parse_integer(const option_args& args, const char* option, int low, int high, int* value) {
    int v = 0;
    const int count = get_intswitch_within(option, args.argv, args.argc, 1, low, high, &v);
    if (count == -1) return 0;
    if (count != 1 || v < low || v > high) {
        print_message("%s: %s expects one integer from %d to %d\n", kProgram, option, low,
                     high);
        return 1;
    }
    *value = v;
    return 0;
}

int parse_wavelengths(const option_args& args, retrieve_inputs* inputs) {
    float values[5] = {};
    const int count = get_floatswitch(kWaveOption, args.argv, args.argc, 5, values);
    if (count == -1) return 0;
    bool good = count >= 1 && count <= 5;
    for (int i = 0; good && i < count; ++i) good = values[i] >= 200.0f && values[i] < 2000.0f;
    if (!good) {
        print_message("%s: %s expects one to five wavelengths in nm, 200 to 1999\n",
                     kProgram, kWaveOption);
        return 1;
    }
    inputs->wavelength_count = count;
    for (int i = 0; i < count; ++i) inputs->wavelength_nm[i] = values[i];
    return 0;
}

int parse_background(const option_args& args, retrieve_inputs* inputs) {
    const char* text = option_value(args.argv, args.argc, kBackgroundOption);
    if (text == nullptr || std::strcmp(text, "auto") == 0) return 0;
    char* end = nullptr;
    const double v = std::strtod(text, &end);
    if (end == text || *end != '\0' || !std::isfinite(v) || v < 0) {
        print_message("%s: %s expects auto or a number, 0 or more\n", kProgram,
                     kBackgroundOption);
        return 1;
    }
    inputs->background_auto = false;
    inputs->background = v;
    return 0;
}

// The pupil image, when written, must be an MRC file, and no output may be
// the stack or another output.
int check_output_names(const retrieve_inputs& inputs) {
    int error = 0;
    const char* dot = inputs.output_name ? std::strrchr(inputs.output_name, '.') : nullptr;
    if (inputs.output_name != nullptr && (dot == nullptr || std::strcmp(dot, ".mrc") != 0)) {
        print_message("%s: %s: the pupil image's name must end in .mrc\n", kProgram,
                     inputs.output_name);
        error = 1;
    }
    const char* names[] = {inputs.output_name, inputs.psf_name, inputs.log_name};
    for (const char* name : names) {
        if (name != nullptr && same_file(name, inputs.stack_name)) {
            print_message("%s: %s is the bead stack; it is not overwritten\n", kProgram,
                         name);
            error = 1;
        }
    }
    for (int a = 0; a < 3; ++a)
        for (int b = a + 1; b < 3; ++b)
            if (names[a] != nullptr && names[b] != nullptr && same_file(names[a], names[b])) {
                print_message("%s: %s is named for two outputs\n", kProgram, names[b]);
                error = 1;
            }
    return error;
}

}  // namespace

void print_retrieve_usage(std::FILE* stream) {
    for (const char* line : kUsageLines) std::fprintf(stream, "%s\n", line);
}

int parse_retrieve_command_line(int argc, char** argv, retrieve_inputs* inputs) {
    if (argc < 3) {
        print_retrieve_usage(stderr);
        return 1;
    }
    inputs->stack_name = argv[1];
    inputs->output_name = argv[2];
    return parse_retrieve_options(argc - 2, argv + 2, inputs);
}

int parse_retrieve_options(int argc, const char* const* argv, retrieve_inputs* inputs) {
    const option_args args{argv, argc};
    int error = check_option_names(kProgram, args.argv, args.argc, kOptions);
    error |= parse_positive(args, kNaOption, "", &inputs->na);
    error |= parse_positive(args, kIndexOption, "", &inputs->n);
    error |= parse_integer(args, kLensOption, 0, 999999, &inputs->lens);
    error |= parse_wavelengths(args, inputs);
    error |= parse_positive(args, kDxOption, " of nm", &inputs->dx_nm);
    error |= parse_positive(args, kDzOption, " of nm", &inputs->dz_nm);
    error |= parse_integer(args, kSizeOption, kMinSize, kMaxSize, &inputs->size);
    error |= parse_integer(args, kIterationsOption, 1, kMaxIterations, &inputs->iterations);
    double tol = inputs->tol;
    const int tol_error = parse_positive(args, kTolOption, "", &tol);
    if (tol_error == 0) inputs->tol = tol;
    error |= tol_error;
    error |= parse_background(args, inputs);
    const int form = option_name_index(kProgram, args.argv, args.argc, kModelOption, kModels);
    if (form >= 0) inputs->vector = form == 1;
    error |= form == -2 ? 1 : 0;
    inputs->psf_name = option_value(args.argv, args.argc, kPsfOption);
    inputs->log_name = option_value(args.argv, args.argc, kLogOption);
    for (const char* option : {kNaOption, kIndexOption}) {
        if (option_value(args.argv, args.argc, option) == nullptr) {
            print_message("%s: %s is required: the stack does not record it\n", kProgram,
                         option);
            error = 1;
        }
    }
    if (inputs->na > 0 && inputs->n > 0 && inputs->na >= inputs->n) {
        print_message("%s: the aperture %g is not below the immersion index %g\n", kProgram,
                     inputs->na, inputs->n);
        error = 1;
    }
    error |= check_output_names(*inputs);
    return error;
}

}  // namespace torvel
