#include "driver/driver.hpp"
#include "imageio/imageio.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <string>
#include <vector>

namespace torvel {
namespace {

const char* const kUsage =
    "usage: torvel pupil_image_input fit_output [options]\n"
    "    where options can include any of the following:\n"
    "    -residual=name\n"
    "        Causes torvel to write an image of the residuals to the file\n"
    "        with the given name.  By default, torvel does not write the\n"
    "        the residuals.\n"
    "    -tol=t\n"
    "        Sets the relative tolerance to use when determining the\n"
    "        rank of the least-squares problem matrix.  The tolerance\n"
    "        should be approximately the largest relative error in the\n"
    "        pupil function input values.  The default tolerance is .0001.\n"
    "    -w=w1[:w2...]\n"
    "        Limits the wavelengths to process.  A wavelength may be\n"
    "        specified by its zero-based index in the input file or by\n"
    "        its wavelength.  By default, torvel processes all\n"
    "        wavelengths in the input.\n"
    "     -zernike_amp=n[:m]\n"
    "         Sets the Zernike polynomials used to fit the pupil function\n"
    "         amplitude:  terms whose radial polynomial is less than\n"
    "         order n or terms whose radial polynomial is order n and\n"
    "         whose angular portion has the form k*theta where k is in\n"
    "         [0, m] are used.  If n is less than zero, the amplitude\n"
    "         is not fit and is assumed to be uniform within the bounds\n"
    "         set by the numerical aperture.  If you omit m, torvel will\n"
    "         assume it is equal to n.  By default n is equal to eight\n"
    "         and m is equal to zero.\n"
    "     -zernike_phase=n[:m]\n"
    "         Sets the Zernike polynomials used to fit the pupil function\n"
    "         phase:  terms whose radial polynomial is less than order\n"
    "         n or terms whose radial polynomial is order n and whose\n"
    "         angular portion has the form k*theta where k is in\n"
    "         [0, m] are used.  If n is less than zero, the phase\n"
    "         is not fit and is assumed to be zero within the bounds\n"
    "         set by the numerical aperture.  If you omit m, torvel will\n"
    "         assume it is equal to n.  By default n is equal to eight\n"
    "         and m is equal to zero.\n";

// Writes a small real-valued pupil image (amplitude and phase sections of
// 4 x 4 zeros per wavelength) with the given wavelengths in nm.
void write_pupil_image(const std::string& path, std::vector<float> waves) {
    const int nw = static_cast<int>(waves.size());
    ASSERT_EQ(image_open(2, path.c_str(), "new"), 0);
    image_set_dimensions(2, 4, 4);
    image_set_zwt_sizes(2, 2, nw, 1, 0);
    image_set_wavelengths(2, nw, waves.data());
    image_set_type_info(2, 8000, 10612, 0, 0, 14.0f, 151.5f);
    image_set_pixel_mode(2, 2);
    const std::vector<float> section(16, 0.0f);
    for (int w = 0; w < nw; ++w) {
        for (int z = 0; z < 2; ++z) {
            ASSERT_EQ(image_seek_section(2, z, w, 0), 0);
            ASSERT_EQ(image_write_section(2, section.data()), 0);
        }
    }
    image_write_header(2, nullptr, -1, 0, 0, 0);
    image_close(2);
}

std::vector<int> zernike_sets(const fit_inputs& inputs) {
    return {inputs.amplitude_n, inputs.amplitude_m, inputs.phase_n, inputs.phase_m};
}

struct Parsed {
    std::vector<std::string> args;  // the argv texts the record points into
    int result;
    std::string messages;
    fit_inputs inputs;
};

class ParseCommandLine : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        // One directory per process: ctest may run the cases of this suite
        // in parallel, each in its own process.
        dir_ = std::filesystem::path(testing::TempDir()) /
               ("torvel_command_line_" + std::to_string(::getpid()));
        std::filesystem::create_directories(dir_);
        write_pupil_image(two_waves(), {528.0f, 617.0f});
        write_pupil_image(bad_waves(), {-5.0f, std::nanf("")});
    }
    static void TearDownTestSuite() { std::filesystem::remove_all(dir_); }

    static std::string two_waves() { return (dir_ / "two.img").string(); }
    static std::string bad_waves() { return (dir_ / "bad.img").string(); }
    static std::string missing() { return (dir_ / "missing.img").string(); }

    // Parses `torvel input out.txt options...` from a default record.
    static Parsed parse(const std::string& input, std::vector<std::string> options) {
        Parsed parsed{{"torvel", input, "out.txt"}, -1, "", kDefaultFitInputs};
        parsed.args.insert(parsed.args.end(), options.begin(), options.end());
        std::vector<char*> argv;
        for (std::string& arg : parsed.args) {
            argv.push_back(arg.data());
        }
        testing::internal::CaptureStderr();
        parsed.result =
            parse_command_line(static_cast<int>(argv.size()), argv.data(), &parsed.inputs);
        parsed.messages = testing::internal::GetCapturedStderr();
        return parsed;
    }

    static std::filesystem::path dir_;
};

std::filesystem::path ParseCommandLine::dir_;

TEST_F(ParseCommandLine, prints_the_usage_text_to_stderr_without_two_file_names) {
    char* argv[] = {const_cast<char*>("torvel"), const_cast<char*>("in.img")};
    fit_inputs inputs = kDefaultFitInputs;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(parse_command_line(2, argv, &inputs), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), kUsage);
    print_usage(stdout);  // a help request shows the same text on stdout
    EXPECT_EQ(testing::internal::GetCapturedStdout(), kUsage);
}

TEST_F(ParseCommandLine, selects_every_file_wavelength_by_default_and_by_index_or_nm) {
    Parsed p = parse(two_waves(), {});
    ASSERT_EQ(p.result, 0) << p.messages;
    EXPECT_EQ(p.inputs.input_name, p.args[1].c_str());
    EXPECT_EQ(p.inputs.output_name, p.args[2].c_str());
    EXPECT_EQ(p.inputs.residual_name, nullptr);
    EXPECT_EQ(p.inputs.wavelength_count, 2);
    EXPECT_EQ(std::vector<int>(p.inputs.wavelength_index, p.inputs.wavelength_index + 3),
              (std::vector<int>{0, 1, -1}));
    EXPECT_EQ(p.inputs.wavelength[1], 617.0f);

    p = parse(two_waves(), {"-w=0", "-w=1:0:617"});  // the later one counts
    ASSERT_EQ(p.result, 0) << p.messages;
    EXPECT_EQ(p.inputs.wavelength_count, 3);
    EXPECT_EQ(std::vector<int>(p.inputs.wavelength_index, p.inputs.wavelength_index + 4),
              (std::vector<int>{1, 0, 1, -1}));
    EXPECT_EQ(std::vector<float>(p.inputs.wavelength, p.inputs.wavelength + 3),
              (std::vector<float>{617.0f, 528.0f, 617.0f}));
}

TEST_F(ParseCommandLine, accepts_each_option_in_its_valid_forms) {
    Parsed p = parse(two_waves(), {"-residual=res.img", "-tol=-3", "-tol=1e-3", "-zernike_amp=-1:5",
                                   "-zernike_phase=6:2"});
    ASSERT_EQ(p.result, 0) << p.messages;
    EXPECT_STREQ(p.inputs.residual_name, "res.img");
    EXPECT_EQ(p.inputs.tolerance, 1e-3f);
    EXPECT_EQ(zernike_sets(p.inputs), (std::vector<int>{-1, -1, 6, 2}));

    p = parse(two_waves(), {"-residual=", "-zernike_amp=5", "-zernike_phase=-2"});
    ASSERT_EQ(p.result, 0) << p.messages;
    EXPECT_STREQ(p.inputs.residual_name, "");
    EXPECT_EQ(zernike_sets(p.inputs), (std::vector<int>{5, 5, -1, -1}));
    EXPECT_EQ(p.inputs.tolerance, kDefaultFitInputs.tolerance);
}

TEST_F(ParseCommandLine, rejects_each_malformed_option_with_its_message) {
    const std::string count = "torvel: -zernike_amp= expects one or two integers\n";
    const std::string amp_m =
        "torvel: for -zernike_amp=n:m, if n is not negative, then m must "
        "satisfy 0 <= m <= n and n - m is even.\n";
    const std::string phase_m =
        "torvel: for -zernike_phase=n:m, if n is not negative, then m must "
        "satisfy 0 <= m <= n and n - m is even.\n";
    const std::string tol = "torvel: -tol= expects one value\n";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"-zernike_amp=6:3", amp_m},
        {"-zernike_amp=4:6", amp_m},
        {"-zernike_amp=4:-2", amp_m},
        {"-zernike_amp=", count},
        {"-zernike_phase=1:2:3", count},
        {"-zernike_phase=3:2", phase_m},
        {"-tol=1e-3:2", tol},
        {"-tol=", tol},
        {"-w=450", "torvel: wavelength 450 is not present in the input file\n"},
        {"-w=0:1:0:1:0:1", "torvel: -w= expects at most 5 values\n"},
        {"-wave=1", "torvel: unrecognized option -wave=1\n"},
        {"-x", "torvel: unrecognized option -x\n"},
        {"-residual", "torvel: unrecognized option -residual\n"},
        {"-zernike=4", "torvel: unrecognized option -zernike=4\n"},
        {"tol=1", "torvel: unrecognized option tol=1\n"},
        {"-", "torvel: unrecognized option -\n"},
    };
    for (const auto& [option, message] : cases) {
        const Parsed p = parse(two_waves(), {option});
        EXPECT_EQ(p.result, 1) << option;
        EXPECT_EQ(p.messages, message) << option;
    }
}

TEST_F(ParseCommandLine, reports_every_bad_option_in_order_and_keeps_the_good_ones) {
    const Parsed p =
        parse(two_waves(), {"-x", "-tol=", "-zernike_amp=4:6", "-w=1", "-wave=1", "-tol=0.5"});
    EXPECT_EQ(p.result, 1);
    EXPECT_EQ(p.messages,
              "torvel: unrecognized option -x\n"
              "torvel: -tol= expects one value\n"
              "torvel: for -zernike_amp=n:m, if n is not negative, then m must "
              "satisfy 0 <= m <= n and n - m is even.\n"
              "torvel: unrecognized option -wave=1\n");
    EXPECT_EQ(p.inputs.tolerance, 0.5f);
    EXPECT_EQ(p.inputs.wavelength_index[0], 1);
}

TEST_F(ParseCommandLine, rejects_an_input_it_cannot_open_or_wavelengths_not_above_zero) {
    const std::string unable = "torvel: unable to open " + missing() + " for reading\n";
    const std::string zero = "torvel: invalid wavelength, 0, for output wavelength #0\n";
    Parsed p = parse(missing(), {});
    EXPECT_EQ(p.result, 1);
    EXPECT_EQ(p.messages, unable + zero);

    p = parse(missing(), {"-w=528", "-tol="});
    EXPECT_EQ(p.result, 1);
    EXPECT_EQ(p.messages, unable +
                              "torvel: wavelength 528 is not present in the input file\n"
                              "torvel: -tol= expects one value\n" +
                              zero);

    p = parse(bad_waves(), {});
    EXPECT_EQ(p.result, 1);
    EXPECT_EQ(p.messages,
              "torvel: invalid wavelength, -5, for output wavelength #0\n"
              "torvel: invalid wavelength, nan, for output wavelength #1\n");
}

TEST(PrintInputSummary, lists_the_settled_options_in_fixed_columns) {
    fit_inputs inputs = {"pupil.img",
                         "fit.txt",
                         nullptr,
                         {1, 0, -1},
                         {617.4f, 527.6f},
                         kDefaultFitInputs.tolerance,
                         2,
                         8,
                         0,
                         -1,
                         -1};
    const std::string head =
        "torvel: pupil function fit Velquist version 1\n"
        "pupil function image file name  pupil.img\n"
        "output fit file name            fit.txt\n";
    const std::string tail =
        "wavelengths                     617 (1) 528 (0)\n"
        "tolerance                       0.0001\n"
        "Zernike terms for amp.          8 0\n"
        "Zernike terms for phase         -1 -1\n";
    testing::internal::CaptureStdout();
    print_input_summary(inputs);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              head + "residual file name              not generated\n" + tail);

    inputs.residual_name = "res.img";
    testing::internal::CaptureStdout();
    print_input_summary(inputs);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              head + "residual file name              res.img\n" + tail);
}

}  // namespace
}  // namespace torvel
