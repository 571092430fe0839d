#include <torvel/switches.hpp>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace torvel {
namespace {

TEST(HelpRequested, accepts_only_the_four_exact_texts_anywhere_after_the_program_name) {
    for (const char* help : {"-h", "-H", "-help", "-Help"}) {
        const char* argv[] = {"prog", "in", "out", "-x", help};
        EXPECT_EQ(help_requested(5, argv), 1) << help;
        EXPECT_EQ(help_requested(2, argv + 3), 1) << help;  // no file names
    }
    const char* near_misses[] = {"-h", "--help", "-helpme", "-HELP", "h", "-h="};
    EXPECT_EQ(help_requested(6, near_misses), 0);
}

TEST(ExtractSwitchValues, read_colon_lists_count_values_beyond_room_and_fail_on_anything_else) {
    const std::vector<std::pair<const char*, std::vector<int>>> cases = {
        {"", {}},     {"1:", {}},  {"1,2", {}},     {"3 ", {}},       {":3", {}},
        {"1::2", {}}, {" 7", {7}}, {"3 4", {3, 4}}, {"3-4", {3, -4}}, {"-2:+5", {-2, 5}},
    };
    for (const auto& [text, expected] : cases) {
        int values[2] = {99, 99};
        const int count = extract_switch_ints(text, 2, values);
        EXPECT_EQ(std::vector<int>(values, values + count), expected) << text;
    }
    int values[3] = {0, 0, 99};
    EXPECT_EQ(extract_switch_ints("1:2:3", 2, values), 3);
    EXPECT_EQ(std::vector<int>(values, values + 3), (std::vector<int>{1, 2, 99}));
    float floats[2] = {0, 0};
    EXPECT_EQ(extract_switch_floats("2.5:-1e-3:7", 2, floats), 3);
    EXPECT_EQ(std::vector<float>(floats, floats + 2), (std::vector<float>{2.5f, -1e-3f}));
    EXPECT_EQ(extract_switch_floats("0.5 ", 1, floats), 0);
}

// The companion programs' readers: numbers taken whole and held to a range,
// where the standard scan would wrap 4294967312 to 16.
TEST(ExtractSwitchValuesWithin, refuse_numbers_beyond_the_range_however_written) {
    int ints[2] = {0, 0};
    EXPECT_EQ(extract_switch_ints_within("16:4096", 2, 1, 4096, ints), 2);
    EXPECT_EQ(std::vector<int>(ints, ints + 2), (std::vector<int>{16, 4096}));
    for (const char* text : {"4294967312", "16:4097", "0", "99999999999999999999", "1,2", "1:"})
        EXPECT_EQ(extract_switch_ints_within(text, 2, 1, 4096, ints), 0) << text;
    float floats[2] = {0, 0};
    EXPECT_EQ(extract_switch_floats_within("-2.5:1e3", 2, -1e38, 1e38, floats), 2);
    EXPECT_EQ(std::vector<float>(floats, floats + 2), (std::vector<float>{-2.5f, 1e3f}));
    for (const char* text : {"nan", "inf", "1e39", "1e308", "2:x"})
        EXPECT_EQ(extract_switch_floats_within(text, 2, -3.4e38, 3.4e38, floats), 0) << text;
}

TEST(GetSwitch, uses_the_first_argument_after_the_program_that_begins_with_the_prefix) {
    const char* argv[] = {"-n=9", "-n=1:2", "-n=3", "-x=abcdef", "-f=0.5"};
    int ints[2] = {0, 0};
    float f = 0;
    EXPECT_EQ(get_intswitchc("-n=", argv, 5, 2, ints), 2);  // argv[0] is the program
    EXPECT_EQ(get_intswitchc("-g=", argv, 5, 2, ints), -1);
    EXPECT_EQ(get_floatswitch("-f=", argv, 5, 1, &f), 1);
    EXPECT_EQ(f, 0.5f);
    char out[7] = "old";
    EXPECT_EQ(get_charswitchc("-x=", argv, 5, 6, out), 1);  // too long: untouched
    EXPECT_STREQ(out, "old");
    EXPECT_EQ(get_charswitchc("-x=", argv, 5, 7, out), 1);
    EXPECT_STREQ(out, "abcdef");
}

TEST(HandleRangeSwitch, stores_valid_values_and_names_each_problem) {
    const std::string two =
        "p: -r= expects one or two non-negative integer values\n"
        "    the second must be at least as large as the first\n";
    const std::string three =
        "p: -r= expects one to three integer values; the first\n"
        "    two must be non-negative; the second must at least as\n"
        "    large as the first; the third must be positive\n";
    const std::string big = " argument to -r= greater than or equal to dimension size 10\n";
    const struct {
        const char* text;
        int allow_third;
        std::string message;
        std::vector<int> range;
    } cases[] = {
        {"4:2", 0, two, {4, -7, -7}},
        {"4:12", 0, "p: second" + big, {4, -7, -7}},
        {"10:12", 0, "p: first" + big + "p: second" + big, {-7, -7, -7}},
        {"-1", 0, two, {-7, -7, -7}},
        {"1:2:3", 0, two, {-7, -7, -7}},
        {"1:5:0", 1, three, {1, 5, -7}},
        {"1:5:2", 1, "", {1, 5, 2}},
    };
    for (const auto& c : cases) {
        int range[3] = {-7, -7, -7};
        testing::internal::CaptureStderr();
        const int result = handle_range_switch("p", "-r=", c.text, 10, c.allow_third, range);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), c.message) << c.text;
        EXPECT_EQ(result, c.message.empty() ? 0 : 1) << c.text;
        EXPECT_EQ(std::vector<int>(range, range + 3), c.range) << c.text;
    }
}

TEST(HandleWaveSwitch, prefers_indices_and_matches_wavelengths_within_half_a_nanometre) {
    const std::string neither =
        "p: values passed to -w= are expected to be wavelengths or indices\n";
    const std::vector<float> two = {528.0f, 617.4f};
    const std::vector<float> five = {450.0f, 528.0f, 617.0f, 700.0f, 1999.5f};
    const struct {
        const char* text;
        const std::vector<float>& waves;
        int max;
        std::string message;
        std::vector<int> indices;
    } cases[] = {
        {"1:617:3", two, 3, neither, {1, 1, -9, -1}},
        {"618:0", two, 3, "p: wavelength 618 is not present in the input file\n", {-9, 0, -1, -9}},
        {"700:3:1999:4", five, 5, "", {3, 3, 4, 4, -1}},
        {"199:2000:-1:5", five, 5, neither + neither + neither + neither, {-9, -9, -9, -9, -1}},
        {"0:1:5000", two, 2, "p: -w= expects at most 2 values\n", {-9, -9, -9}},
        {"", two, 2, "p: -w= expects at least one value\n", {-9, -9, -9}},
    };
    for (const auto& c : cases) {
        std::vector<int> indices(c.indices.size(), -9);
        testing::internal::CaptureStderr();
        const int result =
            handle_wave_switch("p", "-w=", c.text, c.waves.data(), static_cast<int>(c.waves.size()),
                               c.max, indices.data());
        EXPECT_EQ(testing::internal::GetCapturedStderr(), c.message) << c.text;
        EXPECT_EQ(result, c.message.empty() ? 0 : 1) << c.text;
        EXPECT_EQ(indices, c.indices) << c.text;
    }
}

TEST(PrintInvalidName, lists_the_valid_names_on_one_line) {
    const char* valid[] = {"real", "complex", "Real"};
    EXPECT_EQ(search_string_list(valid, 3, "Real"), 2);
    EXPECT_EQ(search_string_list(valid, 3, "rea"), -1);
    testing::internal::CaptureStderr();
    print_invalid_name("p", "-m=", "x", valid, 3);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "p: invalid argument, x, to -m=; valid values are: real, complex, Real\n");
}

}  // namespace
}  // namespace torvel
