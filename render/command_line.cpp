// The command line and usage text of torvel-render, and the reading of the
// model it renders.

#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <system_error>
#include <new>

#include <torvel/messages.hpp>
#include <torvel/pupil.hpp>
#include <torvel/render.hpp>
#include <torvel/safeout.hpp>
#include <torvel/switches.hpp>

namespace torvel {
namespace {

constexpr const char* kProgram = "torvel-render";

constexpr const char* kSizeOption = "-size=";
constexpr const char* kSpacingOption = "-spacing=";
constexpr const char* kCentreOption = "-centre=";
constexpr const char* kWaveOption = "-w=";
constexpr const char* kFormOption = "-form=";
constexpr const char* kDropOption = "-drop=";
constexpr const char* kAmplitudeOption = "-amplitude=";
constexpr const char* kOptions[] = {kSizeOption, kSpacingOption, kCentreOption,   kWaveOption,
                                    kFormOption, kDropOption,    kAmplitudeOption};

constexpr const char* kForms[] = {"complex", "real"};
constexpr const char* kAmplitudes[] = {"model", "uniform"};
constexpr const char* kDropNames[] = {"piston", "tilt", "defocus"};
constexpr zernike_term kDropTerms[] = {{0, 0}, {1, 1}, {2, 0}};

constexpr const char* kUsageLines[] = {
    "usage: torvel-render fit_file pupil_image_output [options]",
    "    Writes the pupil function image of a fitted pupil model (a parametric",
    "    pupil file such as torvel writes), one wavelength after the other, so",
    "    that torvel, an image viewer or a PSF program can read it.  Inside",
    "    each wavelength's pupil disc, and two pixels beyond its edge, the",
    "    amplitude and phase are the model's Zernike series; outside, 0.",
    "    Options:",
    "    -size=nx[:ny]",
    "        Pixels per row and rows of the image; ny defaults to nx.  The",
    "        default is 256.",
    "    -spacing=d",
    "        Pixel spacing in the pupil plane, in reciprocal micrometres.",
    "        By default the disc of the shortest selected wavelength spans",
    "        90% of the smaller side.",
    "    -centre=x0:y0",
    "        Pupil centre in pixels (pixel centres at whole numbers; any",
    "        fraction allowed).  The default is pixel (nx/2, ny/2), rounded",
    "        down.",
    "    -w=w1[:w2...]",
    "        Wavelengths of the model to render, in this order, by zero-based",
    "        index or in nm.  By default all of them (an image holds at most",
    "        five).",
    "    -form=complex|real",
    "        complex, the default, writes one complex section per wavelength",
    "        (mode 4); real writes the amplitude and the unwrapped phase as",
    "        two real sections, z 0 and z 1 (mode 2).",
    "    -drop=term[,term...]",
    "        Phase terms to leave out, so as to see the aberrations alone:",
    "        piston, tilt, defocus, or n:m for both terms of R_n^m.",
    "    -amplitude=model|uniform",
    "        model, the default, evaluates the model's amplitude series (1",
    "        when it has none); uniform writes amplitude 1.",
    "    -h, --help",
    "        Prints this text and exits.",
};

// The switch helpers search argv[1] on; the options begin at argv[3].
struct option_args {
    const char* const* argv;
    int argc;
};

// Every argument must be one of the options, each given once.
int check_option_names(const option_args& args) {
    int error = 0;
    for (int i = 1; i < args.argc; ++i) {
        const char* arg = args.argv[i];
        const char* known = nullptr;
        for (const char* option : kOptions)
            if (std::strncmp(arg, option, std::strlen(option)) == 0) known = option;
        if (known == nullptr) {
            print_message("%s: unrecognized option %s\n", kProgram, arg);
            error = 1;
            continue;
        }
        for (int j = 1; j < i; ++j) {
            if (std::strncmp(args.argv[j], known, std::strlen(known)) == 0) {
                print_message("%s: %s given more than once\n", kProgram, known);
                error = 1;
                break;
            }
        }
    }
    return error;
}

int parse_size(const option_args& args, render_inputs* inputs) {
    int values[2] = {0, 0};
    const int count = get_intswitchc(kSizeOption, args.argv, args.argc, 2, values);
    if (count == -1) return 0;
    if (count == 1) values[1] = values[0];
    if ((count != 1 && count != 2) || values[0] < 1 || values[1] < 1) {
        print_message("%s: %s expects one or two positive integers, nx[:ny]\n", kProgram,
                      kSizeOption);
        return 1;
    }
    inputs->nx = values[0];
    inputs->ny = values[1];
    return 0;
}

int parse_spacing(const option_args& args, render_inputs* inputs) {
    float value = 0.0f;
    const int count = get_floatswitch(kSpacingOption, args.argv, args.argc, 1, &value);
    if (count == -1) return 0;
    if (count != 1 || !(value > 0.0f) || !std::isfinite(value)) {
        print_message("%s: %s expects one positive number\n", kProgram, kSpacingOption);
        return 1;
    }
    inputs->spacing = value;
    return 0;
}

int parse_centre(const option_args& args, render_inputs* inputs) {
    float values[2] = {0.0f, 0.0f};
    const int count = get_floatswitch(kCentreOption, args.argv, args.argc, 2, values);
    if (count == -1) return 0;
    if (count != 2 || !std::isfinite(values[0]) || !std::isfinite(values[1])) {
        print_message("%s: %s expects two numbers, x0:y0\n", kProgram, kCentreOption);
        return 1;
    }
    inputs->centre_given = true;
    inputs->x0 = values[0];
    inputs->y0 = values[1];
    return 0;
}

// The value text of option, or null when it is not given.
const char* option_value(const option_args& args, const char* option) {
    for (int i = 1; i < args.argc; ++i)
        if (std::strncmp(args.argv[i], option, std::strlen(option)) == 0)
            return args.argv[i] + std::strlen(option);
    return nullptr;
}

// Index of the value of option in names, -1 when it is not given, -2 after a
// message when it is none of them.
template <int N>
int parse_name(const option_args& args, const char* option, const char* const (&names)[N]) {
    const char* value = option_value(args, option);
    if (value == nullptr) return -1;
    const int index = search_string_list(names, N, value);
    if (index < 0) {
        print_invalid_name(kProgram, option, value, names, N);
        return -2;
    }
    return index;
}

// One -drop= item of length characters at item: a name of kDropNames, or
// n:m with 0 <= m <= n, n - m even.
bool parse_drop_item(const char* item, std::size_t length, zernike_term* term) {
    char text[32] = "";
    if (length >= sizeof text) return false;
    std::memcpy(text, item, length);
    const int named = search_string_list(kDropNames, 3, text);
    if (named >= 0) {
        *term = kDropTerms[named];
        return true;
    }
    int values[2] = {0, 0};
    if (extract_switch_ints(text, 2, values) != 2) return false;
    const int n = values[0], m = values[1];
    if (m < 0 || m > n || n > kMaxZernikeOrder || (n - m) % 2 != 0) return false;
    *term = {n, m};
    return true;
}

int parse_drop(const option_args& args, render_inputs* inputs) {
    const char* value = option_value(args, kDropOption);
    if (value == nullptr) return 0;
    inputs->drop_text = value;
    int error = 0;
    for (const char* item = value;;) {
        const char* end = std::strchr(item, ',');
        const std::size_t length = end ? std::size_t(end - item) : std::strlen(item);
        zernike_term term{};
        if (!parse_drop_item(item, length, &term)) {
            print_message(
                "%s: %s expects piston, tilt, defocus or n:m (0 <= m <= n, n - m even), "
                "separated by commas; not \"%.*s\"\n",
                kProgram, kDropOption, static_cast<int>(length), item);
            error = 1;
        } else if (inputs->drop_count == kMaxDroppedTerms) {
            print_message("%s: %s names at most %d terms\n", kProgram, kDropOption,
                          kMaxDroppedTerms);
            return 1;
        } else {
            inputs->drop[inputs->drop_count++] = term;
        }
        if (end == nullptr) return error;
        item = end + 1;
    }
}

// The wavelengths to render: all of the model's, or those -w= selects, by
// index or nm.
int select_wavelengths(const option_args& args, const ParametricPupil& model,
                       render_inputs* inputs) {
    const std::int32_t count = get_parametric_pupil_wavelength_count(&model);
    const char* value = option_value(args, kWaveOption);
    if (value == nullptr) {
        if (count > kMaxSelectedWavelengths) {
            print_message(
                "%s: %s holds %d wavelengths and an image at most %d: choose them with "
                "%s\n",
                kProgram, inputs->model_name, count, kMaxSelectedWavelengths, kWaveOption);
            return 1;
        }
        for (int k = 0; k < count; ++k) inputs->wavelength_index[k] = k;
        inputs->wavelength_index[count] = -1;
        inputs->wavelength_count = count;
        return 0;
    }
    std::unique_ptr<float[]> nm(new (std::nothrow) float[std::size_t(count)]);
    if (!nm) {
        print_message("%s: insufficient memory\n", kProgram);
        return 1;
    }
    for (int k = 0; k < count; ++k) nm[k] = get_parametric_pupil_wavelength(&model, k) * 1000.0f;
    if (handle_wave_switch(kProgram, kWaveOption, value, nm.get(), count, kMaxSelectedWavelengths,
                           inputs->wavelength_index) != 0)
        return 1;
    inputs->wavelength_count = 0;
    while (inputs->wavelength_index[inputs->wavelength_count] >= 0) ++inputs->wavelength_count;
    return 0;
}

// What the model must be for torvel to read the image back: positive
// wavelengths, an aperture within the immersion index, and no series that
// this program cannot evaluate.
int check_model(const ParametricPupil& model, const render_inputs& inputs) {
    int error = 0;
    for (int k = 0; k < inputs.wavelength_count; ++k) {
        const float um = get_parametric_pupil_wavelength(&model, inputs.wavelength_index[k]);
        if (!(um > 0.0f) || !std::isfinite(um)) {
            print_message("%s: %s: invalid wavelength, %g um, at index %d\n", kProgram,
                          inputs.model_name, double(um), inputs.wavelength_index[k]);
            error = 1;
        }
    }
    const float na = get_parametric_pupil_numerical_aperture(&model);
    const float n_imm = get_parametric_pupil_immersion_refractive_index(&model);
    if (!(na / n_imm <= 1.0f)) {
        print_message(
            "%s: %s: numerical aperture %g above the immersion index %g; torvel would "
            "refuse the image\n",
            kProgram, inputs.model_name, double(na), double(n_imm));
        error = 1;
    }
    if (get_parametric_pupil_amplitude_polarf_count(&model) > 0 ||
        get_parametric_pupil_phase_polarf_count(&model) > 0) {
        print_message(
            "%s: %s: the model holds a polar Fourier series; torvel-render renders "
            "Zernike series only\n",
            kProgram, inputs.model_name);
        error = 1;
    }
    return error;
}

// The image must not replace the model it is made from.
int check_image_name(const render_inputs& inputs) {
    if (!same_file(inputs.image_name, inputs.model_name)) return 0;
    print_message("%s: %s is the fit file; it is not overwritten\n", kProgram, inputs.image_name);
    return 1;
}

// Every option but the wavelength selection, which needs the model.
int parse_model_free_options(const option_args& args, render_inputs* inputs) {
    int error = check_option_names(args);
    error |= parse_size(args, inputs);
    error |= parse_spacing(args, inputs);
    error |= parse_centre(args, inputs);
    const int form = parse_name(args, kFormOption, kForms);
    if (form >= 0) inputs->complex_form = form == 0;
    const int amplitude = parse_name(args, kAmplitudeOption, kAmplitudes);
    if (amplitude >= 0) inputs->uniform_amplitude = amplitude == 1;
    error |= (form == -2 || amplitude == -2) ? 1 : 0;
    error |= parse_drop(args, inputs);
    return error;
}

}  // namespace

void print_render_usage(std::FILE* stream) {
    for (const char* line : kUsageLines) std::fprintf(stream, "%s\n", line);
}

int render_help_requested(int argc, char** argv) {
    if (help_requested(argc, argv)) return 1;
    for (int i = 1; i < argc; ++i)
        if (std::strcmp(argv[i], "--help") == 0) return 1;
    return 0;
}

pupil_ptr read_render_model(const char* name) {
    std::int32_t code = 0, line = 0, column = 0;
    pupil_ptr model(read_parametric_pupil(name, &code, &line, &column));
    if (!model)
        print_message("%s: %s:%d:%d: %s\n", kProgram, name, line, column,
                      read_parametric_pupil_error_text(code));
    return model;
}

int parse_render_command_line(int argc, char** argv, render_inputs* inputs, pupil_ptr* model) {
    if (argc < 3) {
        print_render_usage(stderr);
        return 1;
    }
    inputs->model_name = argv[1];
    inputs->image_name = argv[2];
    *model = read_render_model(inputs->model_name);
    const int error = check_image_name(*inputs);
    // Without a model the options are still checked, so that one run reports
    // every problem; there are no wavelengths to choose from.
    if (!*model) return parse_model_free_options({argv + 2, argc - 2}, inputs) | 1;
    return error | parse_render_options(argc - 2, argv + 2, **model, inputs);
}

int parse_render_options(int argc, const char* const* argv, const ParametricPupil& model,
                         render_inputs* inputs) {
    const option_args args{argv, argc};
    int error = parse_model_free_options(args, inputs);
    const int selection = select_wavelengths(args, model, inputs);
    error |= selection;
    if (selection == 0) error |= check_model(model, *inputs);
    return error;
}

}  // namespace torvel
