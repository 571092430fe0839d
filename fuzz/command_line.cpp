// Fuzz target: the command line. The bytes, split at each zero byte, are the
// arguments after the input name, which names a small pupil image of three
// wavelengths made once; the parse must either fail or settle options that
// the run can use as they are. The switch helpers are driven with the same
// arguments.

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <torvel/driver.hpp>
#include <torvel/imageio.hpp>
#include <torvel/switches.hpp>

#include "check.hpp"
#include "scratch.hpp"

namespace {

using namespace torvel;

constexpr float kFileWaves[3] = {525.0f, 0.0f, 610.5f};

// An image of three wavelengths, one of them without a wavelength.
std::string make_input_image() {
    const std::string path = fuzz::scratch_path("input.mrc");
    constexpr int kStream = 3;
    FUZZ_CHECK(image_open(kStream, path.c_str(), "new") == 0);
    image_set_dimensions(kStream, 4, 4);
    image_set_zwt_sizes(kStream, 2, 3, 1, 0);
    image_set_wavelengths(kStream, 3, kFileWaves);
    image_set_type_info(kStream, 8000, 1, 0, 0, 14.0f, 151.5f);
    const float zeros[16] = {};
    for (int s = 0; s < 6; ++s) FUZZ_CHECK(image_write_section(kStream, zeros) == 0);
    image_close(kStream);
    return path;
}

bool is_valid_set(int n, int m) {
    return (n == -1 && m == -1) || (n >= 0 && m >= 0 && m <= n && (n - m) % 2 == 0);
}

bool is_help(const char* arg) {
    return std::strcmp(arg, "-h") == 0 || std::strcmp(arg, "-H") == 0 ||
           std::strcmp(arg, "-help") == 0 || std::strcmp(arg, "-Help") == 0;
}

// What a successful parse promises the run.
void check_settled(const fit_inputs& in, int argc, char** argv) {
    FUZZ_CHECK(in.input_name == argv[1] && in.output_name == argv[2]);
    FUZZ_CHECK(in.wavelength_count >= 1 && in.wavelength_count <= kMaxSelectedWavelengths);
    FUZZ_CHECK(in.wavelength_index[in.wavelength_count] == -1);
    for (int k = 0; k < in.wavelength_count; ++k) {
        const int w = in.wavelength_index[k];
        FUZZ_CHECK(w >= 0 && w < 3 && in.wavelength[k] == kFileWaves[w] && in.wavelength[k] > 0);
    }
    FUZZ_CHECK(is_valid_set(in.amplitude_n, in.amplitude_m));
    FUZZ_CHECK(is_valid_set(in.phase_n, in.phase_m));
    if (in.residual_name != nullptr) {
        bool from_argv = false;
        for (int i = 3; i < argc; ++i)
            from_argv |= in.residual_name == argv[i] + std::strlen("-residual=");
        FUZZ_CHECK(from_argv);
    }
}

void drive_switch_helpers(int argc, char** argv, unsigned dim_size) {
    int ints[3] = {0, 0, 0};
    float floats[2] = {0, 0};
    char text[16];
    std::memset(text, 'x', sizeof text);
    get_intswitchc("-zernike_amp=", argv, argc, 2, ints);
    get_floatswitch("-tol=", argv, argc, 2, floats);
    if (get_charswitchc("-residual=", argv, argc, sizeof text, text) == 1 && text[0] != 'x')
        FUZZ_CHECK(std::memchr(text, '\0', sizeof text) != nullptr);
    const char* last = argv[argc - 1];
    int range[3] = {-7, -7, -7};
    if (handle_range_switch("torvel", "-range=", last, int(dim_size % 70000), int(dim_size & 1),
                            range) == 0) {
        FUZZ_CHECK(range[0] == -7 || (range[0] >= 0 && range[0] < int(dim_size % 70000)));
    }
    int indices[kMaxSelectedWavelengths + 1];
    if (handle_wave_switch("torvel", "-w=", last, kFileWaves, 3, kMaxSelectedWavelengths,
                           indices) == 0) {
        int k = 0;
        while (k <= kMaxSelectedWavelengths && indices[k] >= 0) FUZZ_CHECK(indices[k++] < 3);
        FUZZ_CHECK(k <= kMaxSelectedWavelengths);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::string input = make_input_image();
    static const bool quiet = std::freopen("/dev/null", "w", stdout) != nullptr;
    (void)quiet;

    std::vector<std::string> words{"torvel", input};
    for (std::string& word : fuzz::split_at_zero_bytes(data, size)) words.push_back(word);
    std::vector<char*> argv;
    for (std::string& w : words) argv.push_back(w.data());
    argv.push_back(nullptr);
    const int argc = int(words.size());

    bool help = false;
    for (int i = 1; i < argc; ++i) help |= is_help(argv[i]);
    FUZZ_CHECK(help_requested(argc, argv.data()) == (help ? 1 : 0));

    fit_inputs inputs = kDefaultFitInputs;
    if (parse_command_line(argc, argv.data(), &inputs) == 0) {
        check_settled(inputs, argc, argv.data());
        print_input_summary(inputs);
        check_output_names(inputs);
    }
    drive_switch_helpers(argc, argv.data(), size > 0 ? data[0] * 277u : 0u);
    return 0;
}
