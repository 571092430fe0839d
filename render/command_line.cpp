// The command line and usage text of torvel-render, and the reading of the
// model it renders.

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <system_error>
#include <new>

#include <torvel/pupil.hpp>
#include <torvel/render.hpp>
#include <torvel/safeout.hpp>
#include <torvel/switches.hpp>
#include <torvel/zernike.hpp>
#include <torvel/messages.hpp>

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
    "    -form=complex|real",
    "        complex, the default, writes one complex section per wavelength",
    "        (mode 4); real writes the amplitude and the unwrapped phase as",
    "        two real sections, z 0 and z 1 (mode 2).",
};

constexpr const char* kModelChoiceUsageLines[] = {
    "    -w=w1[:w2...]",
    "        Wavelengths of the model to use, in this order, by zero-based",
    "        index or in nm.  By default all of them (a file holds at most",
    "        five).",
    "    -drop=term[,term...]",
    "        Phase terms to leave out, so as to see the aberrations alone:",
    "        piston, tilt, defocus, or n:m for both terms of R_n^m.",
    "    -amplitude=model|uniform",
    "        model, the default, evaluates the model's amplitude series (1",
    "        when it has none); uniform takes amplitude 1.",
    "    -h, -H, -help, -Help, --help",
    "        Prints this text and exits.",
};

// The switch helpers search argv[1] on; the options begin at argv[3].
using option_args = switch_args;

int parse_size(const option_args& args, render_inputs* inputs) {
    int values[2] = {0, 0};
    const int count =
        get_intswitch_within(kSizeOption, args.argv, args.argc, 2, 1, INT_MAX, values);
    if (count == -1) return 0;
    if (count == 1) values[1] = values[0];
    if (count != 1 && count != 2) {
        print_message("%s: %s expects one or two integers from 1 to %d, nx[:ny]\n",
                     kProgram, kSizeOption, INT_MAX);
        return 1;
    }
    inputs->nx = values[0];
    inputs->ny = values[1];
    return 0;
}

int parse_spacing(const option_args& args, render_inputs* inputs) {
    float value = 0.0f;
    const int count =
        get_floatswitch_within(kSpacingOption, args.argv, args.argc, 1, 0.0, FLT_MAX, &value);
    if (count == -1) return 0;
    if (count != 1 || !(value > 0.0f)) {
        print_message("%s: %s expects one positive number\n", kProgram, kSpacingOption);
        return 1;
    }
    inputs->spacing = value;
    return 0;
}

int parse_centre(const option_args& args, render_inputs* inputs) {
    float values[2] = {0.0f, 0.0f};
    const int count =
        get_floatswitch_within(kCentreOption, args.argv, args.argc, 2, -FLT_MAX, FLT_MAX, values);
    if (count == -1) return 0;
    if (count != 2) {
        print_message("%s: %s expects two numbers, x0:y0\n", kProgram, kCentreOption);
        return 1;
    }
    inputs->centre_given = true;
    inputs->x0 = values[0];
    inputs->y0 = values[1];
    return 0;
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
    if (extract_switch_ints_within(text, 2, 0, kMaxZernikeOrder, values) != 2) return false;
    const int n = values[0], m = values[1];
    if (m > n || (n - m) % 2 != 0) return false;
    *term = {n, m};
    return true;
}

int parse_drop(const char* program, const char* value, model_choice* choice) {
    if (value == nullptr) return 0;
    choice->drop_text = value;
    int error = 0;
    for (const char* item = value;;) {
        const char* end = std::strchr(item, ',');
        const std::size_t length = end ? std::size_t(end - item) : std::strlen(item);
        zernike_term term{};
        if (!parse_drop_item(item, length, &term)) {
            print_message("%s: %s expects piston, tilt, defocus or n:m (0 <= m <= n, n - m even), "
                         "separated by commas; not \"%.*s\"\n",
                         program, kDropOption, static_cast<int>(length), item);
            error = 1;
        } else if (choice->drop_count == kMaxDroppedTerms) {
            print_message("%s: %s names at most %d terms\n", program, kDropOption,
                         kMaxDroppedTerms);
            return 1;
        } else {
            choice->drop[choice->drop_count++] = term;
        }
        if (end == nullptr) return error;
        item = end + 1;
    }
}

// The wavelengths to use: all of the model's, or those -w= selects (value),
// by index or nm.
int select_wavelengths(const char* program, const char* value, const char* model_name,
                       const ParametricPupil& model, model_choice* choice) {
    const std::int32_t count = get_parametric_pupil_wavelength_count(&model);
    if (value == nullptr) {
        if (count > kMaxSelectedWavelengths) {
            print_message("%s: %s holds %d wavelengths and an image at most %d: choose them with "
                         "%s\n",
                         program, model_name, count, kMaxSelectedWavelengths, kWaveOption);
            return 1;
        }
        for (int k = 0; k < count; ++k) choice->wavelength_index[k] = k;
        choice->wavelength_index[count] = -1;
        choice->wavelength_count = count;
        return 0;
    }
    // The selection helper reads its numbers as torvel does, where a number
    // too large for an int wraps to another; here one is refused first.
    int ignored = 0;
    if (extract_switch_ints_within(value, 0, INT_MIN, INT_MAX, &ignored) == 0) {
        print_message("%s: %s expects indices or wavelengths in nm separated by \":\"\n",
                     kProgram, kWaveOption);
        return 1;
    }
    std::unique_ptr<float[]> nm(new (std::nothrow) float[std::size_t(count)]);
    if (!nm) {
        print_message("%s: insufficient memory\n", program);
        return 1;
    }
    for (int k = 0; k < count; ++k) nm[k] = get_parametric_pupil_wavelength(&model, k) * 1000.0f;
    if (handle_wave_switch(program, kWaveOption, value, nm.get(), count, kMaxSelectedWavelengths,
                           choice->wavelength_index) != 0)
        return 1;
    choice->wavelength_count = 0;
    while (choice->wavelength_index[choice->wavelength_count] >= 0) ++choice->wavelength_count;
    return 0;
}

// What the model must be for a companion program to evaluate it and for
// torvel to read an image of it back: positive wavelengths, an aperture
// within the immersion index, finite coefficients, and no series that these
// programs cannot evaluate.
int check_model(const char* program, const char* model_name, const ParametricPupil& model,
                const model_choice& choice) {
    int error = 0;
    for (int k = 0; k < choice.wavelength_count; ++k) {
        const float um = get_parametric_pupil_wavelength(&model, choice.wavelength_index[k]);
        if (!(um > 0.0f) || !std::isfinite(um)) {
            print_message("%s: %s: invalid wavelength, %g um, at index %d\n", program,
                         model_name, double(um), choice.wavelength_index[k]);
            error = 1;
        }
    }
    char what[160];
    if (find_unusable_pupil_value(&model, what, sizeof what) != 0) {
        print_message("%s: %s: %s\n", program, model_name, what);
        error = 1;
    }
    const float na = get_parametric_pupil_numerical_aperture(&model);
    const float n_imm = get_parametric_pupil_immersion_refractive_index(&model);
    if (!(na / n_imm <= 1.0f)) {
        print_message("%s: %s: numerical aperture %g above the immersion index %g; torvel would "
                     "refuse the image\n",
                     program, model_name, double(na), double(n_imm));
        error = 1;
    }
    if (get_parametric_pupil_amplitude_polarf_count(&model) > 0 ||
        get_parametric_pupil_phase_polarf_count(&model) > 0) {
        print_message("%s: %s: the model holds a polar Fourier series; %s evaluates Zernike "
                     "series only\n",
                     program, model_name, program);
        error = 1;
    }
    return error;
}

// The image must not replace the model it is made from.
int check_image_name(const render_inputs& inputs) {
    if (!same_file(inputs.image_name, inputs.model_name)) return 0;
    print_message("%s: %s is the fit file; it is not overwritten\n", kProgram,
                 inputs.image_name);
    return 1;
}

}  // namespace

void print_render_usage(std::FILE* stream) {
    for (const char* line : kUsageLines) std::fprintf(stream, "%s\n", line);
    print_model_choice_usage(stream);
}

void print_model_choice_usage(std::FILE* stream) {
    for (const char* line : kModelChoiceUsageLines) std::fprintf(stream, "%s\n", line);
}

int companion_help_requested(int argc, char** argv) {
    if (help_requested(argc, argv)) return 1;
    for (int i = 1; i < argc; ++i)
        if (std::strcmp(argv[i], "--help") == 0) return 1;
    return 0;
}

pupil_ptr read_model_file(const char* program, const char* name) {
    std::int32_t code = 0, line = 0, column = 0;
    pupil_ptr model(read_parametric_pupil(name, &code, &line, &column));
    if (!model)
        print_message("%s: %s:%d:%d: %s\n", program, name, line, column,
                     read_parametric_pupil_error_text(code));
    return model;
}

int check_option_names(const char* program, const char* const* argv, int argc,
                       std::span<const char* const> options) {
    int error = 0;
    for (int i = 1; i < argc; ++i) {
        const char* arg = argv[i];
        const char* known = nullptr;
        for (const char* option : options)
            if (std::strncmp(arg, option, std::strlen(option)) == 0) known = option;
        if (known == nullptr) {
            print_message("%s: unrecognized option %s\n", program, arg);
            error = 1;
            continue;
        }
        for (int j = 1; j < i; ++j) {
            if (std::strncmp(argv[j], known, std::strlen(known)) == 0) {
                print_message("%s: %s given more than once\n", program, known);
                error = 1;
                break;
            }
        }
    }
    return error;
}

const char* option_value(const char* const* argv, int argc, const char* option) {
    for (int i = 1; i < argc; ++i)
        if (std::strncmp(argv[i], option, std::strlen(option)) == 0)
            return argv[i] + std::strlen(option);
    return nullptr;
}

int option_name_index(const char* program, const char* const* argv, int argc, const char* option,
                      std::span<const char* const> names) {
    const char* value = option_value(argv, argc, option);
    if (value == nullptr) return -1;
    const int count = static_cast<int>(names.size());
    const int index = search_string_list(names.data(), count, value);
    if (index < 0) {
        print_invalid_name(program, option, value, names.data(), count);
        return -2;
    }
    return index;
}

int parse_model_choice(const char* program, const char* const* argv, int argc,
                       const char* model_name, const ParametricPupil* model, model_choice* choice) {
    const int amplitude = option_name_index(program, argv, argc, kAmplitudeOption, kAmplitudes);
    if (amplitude >= 0) choice->uniform_amplitude = amplitude == 1;
    int error = amplitude == -2 ? 1 : 0;
    error |= parse_drop(program, option_value(argv, argc, kDropOption), choice);
    if (model == nullptr) return error;
    const int selection = select_wavelengths(program, option_value(argv, argc, kWaveOption),
                                             model_name, *model, choice);
    error |= selection;
    if (selection == 0) error |= check_model(program, model_name, *model, *choice);
    return error;
}

void drop_phase_terms(const model_choice& choice, ParametricPupil* model) {
    const std::int32_t count = get_parametric_pupil_phase_zernike_count(model);
    for (int w = 0; w < get_parametric_pupil_wavelength_count(model); ++w) {
        double* coeff = get_parametric_pupil_phase_zernike_coeff(model, w);
        for (int k = 0; k < choice.drop_count; ++k) {
            const zernike_term t = choice.drop[k];
            const int first = zernike_term_index(t.n, t.m);
            const int last = t.m == 0 ? first : first + 1;
            if (last >= count) continue;  // not in the model: nothing to leave out
            for (int slot = first; slot <= last; ++slot) coeff[slot] = 0.0;
        }
    }
}

namespace {

// The options that follow the image name, for model (null when it could not
// be read: the options are still checked, so that one run reports every
// problem).
int parse_render_options_of(const option_args& args, const char* model_name,
                            ParametricPupil* model, render_inputs* inputs) {
    int error = check_option_names(kProgram, args.argv, args.argc, kOptions);
    error |= parse_size(args, inputs);
    error |= parse_spacing(args, inputs);
    error |= parse_centre(args, inputs);
    const int form = option_name_index(kProgram, args.argv, args.argc, kFormOption, kForms);
    if (form >= 0) inputs->complex_form = form == 0;
    error |= form == -2 ? 1 : 0;
    error |= parse_model_choice(kProgram, args.argv, args.argc, model_name, model, &inputs->model);
    return error;
}

}  // namespace

int parse_render_command_line(int argc, char** argv, render_inputs* inputs, pupil_ptr* model) {
    if (argc < 3) {
        print_render_usage(stderr);
        return 1;
    }
    inputs->model_name = argv[1];
    inputs->image_name = argv[2];
    *model = read_model_file(kProgram, inputs->model_name);
    int error = *model ? 0 : 1;
    error |= check_image_name(*inputs);
    return error | parse_render_options_of({argv + 2, argc - 2}, inputs->model_name, model->get(),
                                           inputs);
}

int parse_render_options(int argc, const char* const* argv, const ParametricPupil& model,
                         render_inputs* inputs) {
    // The record is only read; the choice's helpers take it writable.
    return parse_render_options_of({argv, argc}, inputs->model_name,
                                   const_cast<ParametricPupil*>(&model), inputs);
}

}  // namespace torvel
