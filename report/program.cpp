// The command line of torvel-report, its usage text, and the run: read every
// fit file, print the tables, write the files asked for.

#include <cstdio>
#include <cstring>
#include <new>
#include <string>

#include <torvel/messages.hpp>
#include <torvel/report.hpp>
#include <torvel/safeout.hpp>
#include <torvel/switches.hpp>

namespace torvel {
namespace {

constexpr const char* kProgram = "torvel-report";

constexpr const char* kUsageLines[] = {
    "usage: torvel-report fit_file... [options]",
    "    Reports what torvel's fit files (parametric pupil files) say, one row per",
    "    file and wavelength on standard output: the RMS wavefront error in rad,",
    "    waves and nm with piston and tilt removed, its peak to valley and the",
    "    Marechal estimate of the Strehl ratio; the same at best focus, where the",
    "    focus shift dz (um) of the fit's aperture and immersion index is removed",
    "    as well; the mean amplitude and its relative RMS; the largest",
    "    aberrations at best focus by name with their Noll and OSA/ANSI indices;",
    "    and the focus shift and spherical aberration against wavelength. No",
    "    output file is written unless every fit file could be read.",
    "    where options can include any of the following:",
    "    -json=name",
    "        Writes every coefficient of every wavelength of every fit file, the",
    "        figures above, the optics and the conventions (basis normalisation,",
    "        angle origin and direction, phase sign, units) as JSON.",
    "    -csv=name",
    "        Writes every coefficient of every wavelength of every fit file as",
    "        CSV, one row each, with the conventions in leading \"#\" lines.",
    "    -png=name",
    "        Draws the fitted amplitude and phase of each wavelength over the",
    "        pupil disc, the phase at best focus and the model's PSF there (x-y",
    "        and x-z sections, log scale) as a PNG figure. Needs exactly one fit",
    "        file.",
    "    -image=name",
    "        With -png=, draws beside the fit the measured amplitude and the",
    "        unwrapped phase of the pupil function image the fit was made from.",
    "    -residual=name",
    "        With -png=, draws the residual image that torvel wrote with the fit",
    "        as amplitude and phase differences, measured minus fitted.",
    "    -h, -H, -help, -Help, --help",
    "        Prints this text and exits.",
};

// The switches, in the order of report_inputs' name fields.
constexpr const char* kSwitchNames[] = {"json", "csv", "png", "image", "residual"};

const char** switch_field(report_inputs* inputs, int which) {
    const char** fields[] = {&inputs->json_name, &inputs->csv_name, &inputs->png_name,
                             &inputs->image_name, &inputs->residual_name};
    return fields[which];
}

// Takes one "-name=value" argument. Returns 0, or 1 after its message.
int take_switch(const char* arg, report_inputs* inputs) {
    const char* equals = std::strchr(arg, '=');
    const std::string name = equals ? std::string(arg + 1, equals) : std::string(arg + 1);
    const int which = search_string_list(kSwitchNames, int(std::size(kSwitchNames)), name.c_str());
    if (which < 0 || equals == nullptr) {
        print_message("%s: unknown option %s (see %s -h)\n", kProgram, arg, kProgram);
        return 1;
    }
    if (equals[1] == '\0') {
        print_message("%s: -%s= needs a file name\n", kProgram, name.c_str());
        return 1;
    }
    *switch_field(inputs, which) = equals + 1;  // as in torvel, a later one wins
    return 0;
}

// Refuses outputs that would overwrite an input or each other. Returns 0, or
// 1 after a message per clash.
int check_output_names(const report_inputs& in) {
    std::vector<const char*> inputs = in.fit_files;
    if (in.image_name) inputs.push_back(in.image_name);
    if (in.residual_name) inputs.push_back(in.residual_name);
    const char* outputs[] = {in.json_name, in.csv_name, in.png_name};
    int status = 0;
    for (std::size_t i = 0; i < std::size(outputs); ++i) {
        if (outputs[i] == nullptr) continue;
        for (const char* input : inputs) {
            if (same_file(input, outputs[i])) {
                print_message("%s: %s is an input; it is not overwritten\n", kProgram, outputs[i]);
                status = 1;
                break;
            }
        }
        for (std::size_t j = 0; j < i; ++j) {
            if (same_file(outputs[j], outputs[i])) {
                print_message("%s: %s is named for two outputs\n", kProgram, outputs[i]);
                status = 1;
            }
        }
    }
    return status;
}

// The containers of the report grow with the input; running out of memory
// for them ends the run with this message rather than an exception.
int report_no_memory() {
    print_message("%s: insufficient memory\n", kProgram);
    return 1;
}

}  // namespace

void print_report_usage(std::FILE* stream) {
    for (const char* line : kUsageLines) std::fprintf(stream, "%s\n", line);
}

bool report_help_requested(int argc, const char* const* argv) {
    for (int k = 1; k < argc; ++k) {
        if (std::strcmp(argv[k], "--help") == 0) return true;
    }
    return help_requested(argc, argv) != 0;
}

int parse_report_command_line(int argc, const char* const* argv, report_inputs* inputs) {
    int status = 0;
    for (int k = 1; k < argc; ++k) {
        if (argv[k][0] == '-' && argv[k][1] != '\0') {
            status |= take_switch(argv[k], inputs);
        } else {
            inputs->fit_files.push_back(argv[k]);
        }
    }
    if (inputs->fit_files.empty()) {
        print_message("%s: no fit file given (see %s -h)\n", kProgram, kProgram);
        status = 1;
    }
    if (inputs->png_name == nullptr && (inputs->image_name || inputs->residual_name)) {
        print_message("%s: -image= and -residual= are drawn only with -png=\n", kProgram);
        status = 1;
    }
    if (inputs->png_name != nullptr && inputs->fit_files.size() > 1) {
        print_message("%s: -png= draws one fit file, and %zu are given\n", kProgram,
                      inputs->fit_files.size());
        status = 1;
    }
    status |= check_output_names(*inputs);
    return status;
}

int load_report_entries(const report_inputs& inputs, std::vector<report_entry>* entries) try {
    int status = 0;
    for (const char* file : inputs.fit_files) {
        report_entry entry;
        if (load_report_model(file, &entry.model) != 0) {
            status = 1;
            continue;
        }
        int usable = 0;
        for (int w = 0; w < int(entry.model.waves.size()) && usable == 0; ++w) {
            entry.metrics.push_back(compute_wavelength_metrics(entry.model, w));
            usable = check_wavelength_metrics(entry.model, entry.metrics.back());
        }
        if (usable != 0) {
            status = 1;
            continue;
        }
        entries->push_back(std::move(entry));
    }
    return status;
} catch (const std::bad_alloc&) {
    return report_no_memory();
}

int write_report_outputs(const report_inputs& inputs, std::span<const report_entry> entries) try {
    int status = 0;
    if (inputs.json_name) status |= write_report_json(inputs.json_name, entries);
    if (inputs.csv_name) status |= write_report_csv(inputs.csv_name, entries);
    if (inputs.png_name && !entries.empty())
        status |= write_report_figure(inputs.png_name, entries.front(), inputs.image_name,
                                      inputs.residual_name);
    return status;
} catch (const std::bad_alloc&) {
    return report_no_memory();
}

}  // namespace torvel
