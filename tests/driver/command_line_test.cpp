#include <torvel/driver.hpp>

#include <gtest/gtest.h>

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

// The sample image: two wavelengths, 525 and 617 nm.
const std::string kSample = TORVEL_SOURCE_DIR "/sample/pupil.mrc";

struct Parsed {
    std::vector<std::string> args;  // the argv texts the record points into
    int result;
    std::string messages;
    fit_inputs inputs;
};

// Parses `torvel input out.txt options...` from a default record.
Parsed parse(const std::string& input, std::vector<std::string> options) {
    Parsed parsed{{"torvel", input, "out.txt"}, -1, "", kDefaultFitInputs};
    parsed.args.insert(parsed.args.end(), options.begin(), options.end());
    std::vector<char*> argv;
    for (std::string& arg : parsed.args) argv.push_back(arg.data());
    testing::internal::CaptureStderr();
    parsed.result = parse_command_line(static_cast<int>(argv.size()), argv.data(), &parsed.inputs);
    parsed.messages = testing::internal::GetCapturedStderr();
    return parsed;
}

// The summary of the record parsed from options, from its residual line on.
std::string summary_tail(std::vector<std::string> options) {
    const Parsed p = parse(kSample, options);
    EXPECT_EQ(p.result, 0) << p.messages;
    testing::internal::CaptureStdout();
    print_input_summary(p.inputs);
    const std::string summary = testing::internal::GetCapturedStdout();
    const std::string head =
        "torvel: pupil function fit Velquist version 1\n"
        "pupil function image file name  " +
        kSample +
        "\n"
        "output fit file name            out.txt\n";
    EXPECT_EQ(summary.substr(0, head.size()), head);
    return summary.substr(std::min(head.size(), summary.size()));
}

TEST(ParseCommandLine, prints_the_usage_text_to_stderr_without_two_file_names) {
    char* argv[] = {const_cast<char*>("torvel"), const_cast<char*>("in.img")};
    fit_inputs inputs = kDefaultFitInputs;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(parse_command_line(2, argv, &inputs), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), kUsage);
    print_usage(stdout);  // a help request shows the same text on stdout
    EXPECT_EQ(testing::internal::GetCapturedStdout(), kUsage);
}

TEST(ParseCommandLine, accepts_each_option_in_its_valid_forms_and_summarises_the_record) {
    EXPECT_EQ(summary_tail({}),
              "residual file name              not generated\n"
              "wavelengths                     525 (0) 617 (1)\n"
              "tolerance                       0.0001\n"
              "Zernike terms for amp.          8 0\n"
              "Zernike terms for phase         8 0\n");
    // Of repeated options the later one counts; -w= takes indices and nm.
    EXPECT_EQ(summary_tail({"-w=0", "-w=1:0:617", "-residual=res.img", "-tol=-3", "-tol=1e-3",
                            "-zernike_amp=-1:5", "-zernike_phase=6:2"}),
              "residual file name              res.img\n"
              "wavelengths                     617 (1) 525 (0) 617 (1)\n"
              "tolerance                       0.001\n"
              "Zernike terms for amp.          -1 -1\n"
              "Zernike terms for phase         6 2\n");
    EXPECT_EQ(summary_tail({"-residual=", "-zernike_amp=5", "-zernike_phase=-2"}),
              "residual file name              \n"
              "wavelengths                     525 (0) 617 (1)\n"
              "tolerance                       0.0001\n"
              "Zernike terms for amp.          5 5\n"
              "Zernike terms for phase         -1 -1\n");
    // The selection ends with -1, by default and after -w=.
    EXPECT_EQ(parse(kSample, {}).inputs.wavelength_index[2], -1);
    EXPECT_EQ(parse(kSample, {"-w=1:0:617"}).inputs.wavelength_index[3], -1);
}

TEST(ParseCommandLine, rejects_each_malformed_option_with_its_message) {
    const std::string count = "torvel: -zernike_amp= expects one or two integers\n";
    const std::string m_rule =
        "n:m, if n is not negative, then m must satisfy 0 <= m <= n and n - m is even.\n";
    const std::string tol = "torvel: -tol= expects one value\n";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"-zernike_amp=6:3", "torvel: for -zernike_amp=" + m_rule},
        {"-zernike_amp=4:6", "torvel: for -zernike_amp=" + m_rule},
        {"-zernike_phase=1:2:3", count},
        {"-zernike_phase=3:2", "torvel: for -zernike_phase=" + m_rule},
        {"-tol=1e-3:2", tol},
        {"-tol=", tol},
        {"-w=0:1:0:1:0:1", "torvel: -w= expects at most 5 values\n"},
        {"-wave=1", "torvel: unrecognized option -wave=1\n"},
        {"-x", "torvel: unrecognized option -x\n"},
        {"-residual", "torvel: unrecognized option -residual\n"},
        {"-", "torvel: unrecognized option -\n"},
    };
    for (const auto& [option, message] : cases) {
        const Parsed p = parse(kSample, {option});
        EXPECT_EQ(p.result, 1) << option;
        EXPECT_EQ(p.messages, message) << option;
    }
}

TEST(ParseCommandLine, reports_every_problem_in_order_even_for_an_input_it_cannot_open) {
    const std::string missing = kSample + ".missing";
    const Parsed p =
        parse(missing, {"-x", "-tol=", "-zernike_amp=4:6", "-w=528", "-wave=1", "-tol=0.5"});
    EXPECT_EQ(p.result, 1);
    EXPECT_EQ(p.messages, "torvel: unable to open " + missing +
                              " for reading\n"
                              "torvel: unrecognized option -x\n"
                              "torvel: -tol= expects one value\n"
                              "torvel: for -zernike_amp=n:m, if n is not negative, then m must "
                              "satisfy 0 <= m <= n and n - m is even.\n"
                              "torvel: wavelength 528 is not present in the input file\n"
                              "torvel: unrecognized option -wave=1\n"
                              "torvel: invalid wavelength, 0, for output wavelength #0\n");
    EXPECT_EQ(p.inputs.tolerance, 0.5f);  // the good options still count
}

}  // namespace
}  // namespace torvel
