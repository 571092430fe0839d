// The command line, the usage text and the input summary of the driver.

#include <algorithm>
#include <cstdio>
#include <cstring>

#include <torvel/driver.hpp>
#include <torvel/imageio.hpp>
#include <torvel/messages.hpp>
#include <torvel/switches.hpp>

namespace torvel {
namespace {

constexpr const char* kProgram = "torvel";
constexpr int kInputStream = 1;

constexpr const char* kResidualOption = "-residual=";
constexpr const char* kToleranceOption = "-tol=";
constexpr const char* kWaveOption = "-w=";
constexpr const char* kAmplitudeOption = "-zernike_amp=";
constexpr const char* kPhaseOption = "-zernike_phase=";

constexpr const char* kUsageLines[] = {
    "usage: torvel pupil_image_input fit_output [options]",
    "    where options can include any of the following:",
    "    -residual=name",
    "        Causes torvel to write an image of the residuals to the file",
    "        with the given name.  By default, torvel does not write the",
    "        the residuals.",
    "    -tol=t",
    "        Sets the relative tolerance to use when determining the",
    "        rank of the least-squares problem matrix.  The tolerance",
    "        should be approximately the largest relative error in the",
    "        pupil function input values.  The default tolerance is .0001.",
    "    -w=w1[:w2...]",
    "        Limits the wavelengths to process.  A wavelength may be",
    "        specified by its zero-based index in the input file or by",
    "        its wavelength.  By default, torvel processes all",
    "        wavelengths in the input.",
    "     -zernike_amp=n[:m]",
    "         Sets the Zernike polynomials used to fit the pupil function",
    "         amplitude:  terms whose radial polynomial is less than",
    "         order n or terms whose radial polynomial is order n and",
    "         whose angular portion has the form k*theta where k is in",
    "         [0, m] are used.  If n is less than zero, the amplitude",
    "         is not fit and is assumed to be uniform within the bounds",
    "         set by the numerical aperture.  If you omit m, torvel will",
    "         assume it is equal to n.  By default n is equal to eight",
    "         and m is equal to zero.",
    "     -zernike_phase=n[:m]",
    "         Sets the Zernike polynomials used to fit the pupil function",
    "         phase:  terms whose radial polynomial is less than order",
    "         n or terms whose radial polynomial is order n and whose",
    "         angular portion has the form k*theta where k is in",
    "         [0, m] are used.  If n is less than zero, the phase",
    "         is not fit and is assumed to be zero within the bounds",
    "         set by the numerical aperture.  If you omit m, torvel will",
    "         assume it is equal to n.  By default n is equal to eight",
    "         and m is equal to zero.",
};

// The input image's own wavelength list, which -w= selects from.
struct FileWavelengths {
    int count;
    float nm[kMaxSelectedWavelengths];
};

// Reads the wavelength list of the input with the image library's own
// messages silenced, since an unreadable input is reported here in the
// program's words. An input that cannot be opened yields one wavelength of
// 0 nm, which the final wavelength check then rejects: the parse goes on so
// that every other problem of the command line is reported in the same run.
FileWavelengths probe_input_wavelengths(const char* input_name) {
    FileWavelengths list = {1, {0, 0, 0, 0, 0}};
    image_set_message_printing(0);
    if (image_open(kInputStream, input_name, "ro") == 0) {
        int dims[3];
        int second[3];
        int mode = 0;
        float dmin = 0;
        float dmax = 0;
        float dmean = 0;
        image_read_header(kInputStream, dims, second, &mode, &dmin, &dmax, &dmean);
        list.count = 0;
        image_get_wavelengths(kInputStream, &list.count, list.nm);
        image_close(kInputStream);
        // The record has room for five slots; never trust a count beyond it.
        if (list.count < 0) {
            list.count = 0;
        } else if (list.count > kMaxSelectedWavelengths) {
            list.count = kMaxSelectedWavelengths;
        }
    } else {
        print_message("torvel: unable to open %s for reading\n", input_name);
    }
    image_set_message_printing(1);
    return list;
}

// Selects every wavelength of the list in file order.
void select_all_wavelengths(const FileWavelengths& list, fit_inputs* inputs) {
    for (int k = 0; k < list.count; ++k) {
        inputs->wavelength_index[k] = k;
        inputs->wavelength[k] = list.nm[k];
    }
    inputs->wavelength_index[list.count] = -1;
    inputs->wavelength_count = list.count;
}

bool starts_with(const char* text, const char* prefix) {
    return std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

// The option text that arg begins with, or null. The second character picks
// the only option that can match, so "-wave=1" is not taken for "-w=".
const char* recognised_option(const char* arg) {
    if (arg[0] != '-') {
        return nullptr;
    }
    const char* candidates[2] = {nullptr, nullptr};
    switch (arg[1]) {
        case 'r':
            candidates[0] = kResidualOption;
            break;
        case 't':
            candidates[0] = kToleranceOption;
            break;
        case 'w':
            candidates[0] = kWaveOption;
            break;
        case 'z':
            candidates[0] = kAmplitudeOption;
            candidates[1] = kPhaseOption;
            break;
        default:
            break;
    }
    for (const char* option : candidates) {
        if (option != nullptr && starts_with(arg, option)) {
            return option;
        }
    }
    return nullptr;
}

int parse_tolerance(const char* value, fit_inputs* inputs) {
    float tolerance = 0;
    if (extract_switch_floats(value, 1, &tolerance) != 1) {
        print_message("torvel: -tol= expects one value\n");
        return 1;
    }
    inputs->tolerance = tolerance;
    return 0;
}

int parse_wavelength_selection(const char* value, const FileWavelengths& list, fit_inputs* inputs) {
    if (handle_wave_switch(kProgram, kWaveOption, value, list.nm, list.count,
                           kMaxSelectedWavelengths, inputs->wavelength_index) != 0) {
        return 1;
    }
    int count = 0;
    while (inputs->wavelength_index[count] >= 0) {
        inputs->wavelength[count] = list.nm[inputs->wavelength_index[count]];
        ++count;
    }
    inputs->wavelength_count = count;
    return 0;
}

// Reads n or n:m into *n, *m. A negative n turns the fit off, whatever m.
// n is kept even when m is rejected; the run fails anyway. Both options
// report a wrong number of values with the amplitude option's wording.
int parse_zernike_set(const char* option, const char* value, int* n, int* m) {
    int values[2] = {0, 0};
    const int count = extract_switch_ints(value, 2, values);
    if (count != 1 && count != 2) {
        print_message("torvel: -zernike_amp= expects one or two integers\n");
        return 1;
    }
    if (values[0] < 0) {
        *n = -1;
        *m = -1;
        return 0;
    }
    *n = values[0];
    if (count == 1) {
        *m = values[0];
        return 0;
    }
    if (values[1] < 0 || values[1] > values[0] || (values[0] - values[1]) % 2 != 0) {
        print_message(
            "torvel: for %sn:m, if n is not negative, then m must "
            "satisfy 0 <= m <= n and n - m is even.\n",
            option);
        return 1;
    }
    *m = values[1];
    return 0;
}

// Applies one option argument; returns 1 after its message if it is wrong.
int parse_option(const char* arg, const FileWavelengths& list, fit_inputs* inputs) {
    const char* option = recognised_option(arg);
    if (option == nullptr) {
        print_message("torvel: unrecognized option %s\n", arg);
        return 1;
    }
    const char* value = arg + std::strlen(option);
    if (option == kResidualOption) {
        inputs->residual_name = value;
        return 0;
    }
    if (option == kToleranceOption) {
        return parse_tolerance(value, inputs);
    }
    if (option == kWaveOption) {
        return parse_wavelength_selection(value, list, inputs);
    }
    if (option == kAmplitudeOption) {
        return parse_zernike_set(option, value, &inputs->amplitude_n, &inputs->amplitude_m);
    }
    return parse_zernike_set(option, value, &inputs->phase_n, &inputs->phase_m);
}

// Every selected wavelength must be positive; the negated test lets a NaN
// fail as well.
int check_selected_wavelengths(const fit_inputs& inputs) {
    int error = 0;
    for (int k = 0; k < inputs.wavelength_count; ++k) {
        if (!(inputs.wavelength[k] > 0)) {
            print_message(
                "torvel: invalid wavelength, %g, for output "
                "wavelength #%d\n",
                static_cast<double>(inputs.wavelength[k]), k);
            error = 1;
        }
    }
    return error;
}

}  // namespace

void print_usage(std::FILE* stream) {
    for (const char* line : kUsageLines) {
        std::fprintf(stream, "%s\n", line);
    }
}

int parse_command_line(int argc, char** argv, fit_inputs* inputs) {
    if (argc < 3) {
        print_usage(stderr);
        return 1;
    }
    inputs->input_name = argv[1];
    inputs->output_name = argv[2];
    const FileWavelengths list = probe_input_wavelengths(inputs->input_name);
    return parse_fit_options(argc - 3, argv + 3, list.nm, list.count, inputs);
}

int parse_fit_options(int count, const char* const* options, const float* waves_nm, int wave_count,
                      fit_inputs* inputs) {
    FileWavelengths list = {std::clamp(wave_count, 0, kMaxSelectedWavelengths), {0, 0, 0, 0, 0}};
    std::copy(waves_nm, waves_nm + list.count, list.nm);
    select_all_wavelengths(list, inputs);
    int error = 0;
    for (int i = 0; i < count; ++i) {
        error |= parse_option(options[i], list, inputs);
    }
    error |= check_selected_wavelengths(*inputs);
    return error;
}

void print_input_summary(const fit_inputs& inputs) {
    std::printf("torvel: pupil function fit Velquist version 1\n");
    std::printf("pupil function image file name  %s\n", inputs.input_name);
    std::printf("output fit file name            %s\n", inputs.output_name);
    std::printf("residual file name              %s\n",
                inputs.residual_name != nullptr ? inputs.residual_name : "not generated");
    std::printf("wavelengths                    ");
    for (int k = 0; k < inputs.wavelength_count; ++k) {
        std::printf(" %.0f (%d)", static_cast<double>(inputs.wavelength[k]),
                    inputs.wavelength_index[k]);
    }
    std::printf("\n");
    std::printf("tolerance                       %g\n", static_cast<double>(inputs.tolerance));
    std::printf("Zernike terms for amp.          %d %d\n", inputs.amplitude_n, inputs.amplitude_m);
    std::printf("Zernike terms for phase         %d %d\n", inputs.phase_n, inputs.phase_m);
}

}  // namespace torvel
