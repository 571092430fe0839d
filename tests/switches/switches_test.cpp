#include "switches/switches.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace torvel {
namespace {

// Runs action and returns what it wrote to standard error.
template <typename Action>
std::string stderr_of(Action action)
{
    testing::internal::CaptureStderr();
    action();
    return testing::internal::GetCapturedStderr();
}

TEST(HelpRequested, accepts_only_the_four_exact_texts_after_the_program_name)
{
    for (const char* help : {"-h", "-H", "-help", "-Help"}) {
        const char* argv[] = {"prog", "in", help, "-tol=1"};
        EXPECT_EQ(help_requested(4, argv), 1) << help;
    }
    const char* near_misses[] = {"-h", "--help", "-helpme", "-HELP", "h", "-h="};
    EXPECT_EQ(help_requested(6, near_misses), 0);
    EXPECT_EQ(help_requested(1, near_misses), 0);
}

TEST(ExtractSwitchInts, reads_colon_lists_and_fails_on_anything_else)
{
    struct Case {
        const char* text;
        int count;
        std::vector<int> values;
    };
    const Case cases[] = {
        {"", 0, {}},         {"1:", 0, {}},          {"1,2", 0, {}},
        {"3 ", 0, {}},       {":3", 0, {}},          {"x", 0, {}},
        {" 7", 1, {7}},      {"3 4", 2, {3, 4}},     {"3-4", 2, {3, -4}},
        {"-2:+5", 2, {-2, 5}}, {"1::2", 0, {}},
    };
    for (const Case& c : cases) {
        int values[2] = {99, 99};
        ASSERT_EQ(extract_switch_ints(c.text, 2, values), c.count) << c.text;
        for (int i = 0; i < c.count; ++i) {
            EXPECT_EQ(values[i], c.values[i]) << c.text;
        }
    }
}

TEST(ExtractSwitchInts, counts_values_beyond_room_without_storing_them)
{
    int values[3] = {0, 0, 99};
    EXPECT_EQ(extract_switch_ints("1:2:3", 2, values), 3);
    EXPECT_EQ(values[0], 1);
    EXPECT_EQ(values[1], 2);
    EXPECT_EQ(values[2], 99);
}

TEST(ExtractSwitchFloats, reads_float_syntax_with_the_same_separators)
{
    float values[2] = {0, 0};
    EXPECT_EQ(extract_switch_floats("1e-3", 1, values), 1);
    EXPECT_EQ(values[0], 1e-3f);
    EXPECT_EQ(extract_switch_floats("2.5:-.25", 2, values), 2);
    EXPECT_EQ(values[0], 2.5f);
    EXPECT_EQ(values[1], -0.25f);
    EXPECT_EQ(extract_switch_floats("1e-3:2", 1, values), 2);
    EXPECT_EQ(extract_switch_floats("", 1, values), 0);
    EXPECT_EQ(extract_switch_floats("0.5 ", 1, values), 0);
}

TEST(GetSwitch, takes_the_first_argument_after_the_program_that_begins_with_the_prefix)
{
    const char* argv[] = {"-n=9", "in", "-n=1:2", "-n=3", "-x=abcdef", "-f=0.5"};
    int ints[2] = {0, 0};
    EXPECT_EQ(get_intswitchc("-n=", argv, 6, 2, ints), 2);
    EXPECT_EQ(ints[0], 1);
    EXPECT_EQ(ints[1], 2);
    EXPECT_EQ(get_intswitchc("-n=", argv, 2, 2, ints), -1);
    EXPECT_EQ(get_intswitchc("-f=", argv, 6, 2, ints), 0);

    float f = 0;
    EXPECT_EQ(get_floatswitch("-f=", argv, 6, 1, &f), 1);
    EXPECT_EQ(f, 0.5f);
    EXPECT_EQ(get_floatswitch("-g=", argv, 6, 1, &f), -1);

    char out[7] = "old";
    EXPECT_EQ(get_charswitchc("-x=", argv, 6, 7, out), 1);
    EXPECT_STREQ(out, "abcdef");
    char small[6] = "old";
    EXPECT_EQ(get_charswitchc("-x=", argv, 6, 6, small), 1);
    EXPECT_STREQ(small, "old");
    EXPECT_EQ(get_charswitchc("-n=", argv, 1, 6, small), -1);
}

TEST(HandleRangeSwitch, stores_valid_values_and_names_each_problem)
{
    const std::string two_value_format =
        "p: -r= expects one or two non-negative integer values\n"
        "    the second must be at least as large as the first\n";
    const std::string three_value_format =
        "p: -r= expects one to three integer values; the first\n"
        "    two must be non-negative; the second must at least as\n"
        "    large as the first; the third must be positive\n";
    const std::string first_too_big =
        "p: first argument to -r= greater than or equal to dimension size 10\n";
    const std::string second_too_big =
        "p: second argument to -r= greater than or equal to dimension size 10\n";
    struct Case {
        const char* text;
        int allow_third;
        int result;
        std::string message;
        int range[3];
    };
    const Case cases[] = {
        {"4:2", 0, 1, two_value_format, {4, -7, -7}},
        {"4:12", 0, 1, second_too_big, {4, -7, -7}},
        {"10:12", 0, 1, first_too_big + second_too_big, {-7, -7, -7}},
        {"-1", 0, 1, two_value_format, {-7, -7, -7}},
        {"1:2:3", 0, 1, two_value_format, {-7, -7, -7}},
        {"", 0, 1, two_value_format, {-7, -7, -7}},
        {"1:5:0", 1, 1, three_value_format, {1, 5, -7}},
        {"1:5:2", 1, 0, "", {1, 5, 2}},
        {"3", 1, 0, "", {3, -7, -7}},
        {"0:9", 0, 0, "", {0, 9, -7}},
    };
    for (const Case& c : cases) {
        int range[3] = {-7, -7, -7};
        int result = -1;
        EXPECT_EQ(stderr_of([&] {
                      result = handle_range_switch("p", "-r=", c.text, 10,
                                                   c.allow_third, range);
                  }),
                  c.message)
            << c.text;
        EXPECT_EQ(result, c.result) << c.text;
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(range[i], c.range[i]) << c.text << " entry " << i;
        }
    }
}

TEST(HandleWaveSwitch, takes_indices_first_then_wavelengths_within_half_a_nanometre)
{
    const float two[] = {528.0f, 617.4f};
    int indices[4] = {-9, -9, -9, -9};
    std::string message = stderr_of([&] {
        EXPECT_EQ(handle_wave_switch("p", "-w=", "1:617:3", two, 2, 3, indices), 1);
    });
    EXPECT_EQ(message, "p: values passed to -w= are expected to be wavelengths or indices\n");
    EXPECT_EQ(indices[0], 1);
    EXPECT_EQ(indices[1], 1);
    EXPECT_EQ(indices[2], -9);
    EXPECT_EQ(indices[3], -1);

    message = stderr_of([&] {
        EXPECT_EQ(handle_wave_switch("p", "-w=", "618:617:0", two, 2, 3, indices), 1);
    });
    EXPECT_EQ(message, "p: wavelength 618 is not present in the input file\n");
    EXPECT_EQ(indices[1], 1);
    EXPECT_EQ(indices[2], 0);

    const float five[] = {450.0f, 528.0f, 617.0f, 700.0f, 1999.5f};
    EXPECT_EQ(handle_wave_switch("p", "-w=", "700:3:1999:4", five, 5, 5, indices), 0);
    EXPECT_EQ(indices[0], 3);
    EXPECT_EQ(indices[1], 3);
    EXPECT_EQ(indices[2], 4);
    EXPECT_EQ(indices[3], 4);
    EXPECT_EQ(indices[4], -1);

    message = stderr_of([&] {
        EXPECT_EQ(handle_wave_switch("p", "-w=", "199:2000:-1", five, 5, 5, indices), 1);
    });
    const std::string not_wave_or_index =
        "p: values passed to -w= are expected to be wavelengths or indices\n";
    EXPECT_EQ(message, not_wave_or_index + not_wave_or_index + not_wave_or_index);
}

TEST(HandleWaveSwitch, rejects_an_empty_or_too_long_list_before_looking_at_values)
{
    const float waves[] = {528.0f, 617.0f};
    int indices[3] = {-9, -9, -9};
    int result = 0;
    EXPECT_EQ(stderr_of([&] {
                  result = handle_wave_switch("p", "-w=", "0:1:5000", waves, 2, 2, indices);
              }),
              "p: -w= expects at most 2 values\n");
    EXPECT_EQ(result, 1);
    EXPECT_EQ(stderr_of([&] {
                  result = handle_wave_switch("p", "-w=", "", waves, 2, 2, indices);
              }),
              "p: -w= expects at least one value\n");
    EXPECT_EQ(result, 1);
    EXPECT_EQ(indices[0], -9);
}

TEST(SearchStringList, finds_the_first_exact_match)
{
    const char* list[] = {"real", "complex", "Real", "complex"};
    EXPECT_EQ(search_string_list(list, 4, "complex"), 1);
    EXPECT_EQ(search_string_list(list, 4, "Real"), 2);
    EXPECT_EQ(search_string_list(list, 4, "rea"), -1);
    EXPECT_EQ(search_string_list(list, 0, "real"), -1);
}

TEST(PrintInvalidName, lists_the_valid_names_on_one_line)
{
    const char* valid[] = {"a", "bb", "ccc"};
    EXPECT_EQ(stderr_of([&] { print_invalid_name("p", "-m=", "x", valid, 3); }),
              "p: invalid argument, x, to -m=; valid values are: a, bb, ccc\n");
    EXPECT_EQ(stderr_of([&] { print_invalid_name("p", "-m=", "x", valid, 1); }),
              "p: invalid argument, x, to -m=; valid values are: a\n");
}

}  // namespace
}  // namespace torvel
