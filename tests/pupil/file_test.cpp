#include <torvel/pupil.hpp>

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "record_view.hpp"

namespace torvel {
namespace {

namespace fs = std::filesystem;
using namespace testing_view;

// A valid file that exercises every keyword, with term lines out of order and
// a block of wavelength 1 before one of wavelength 0; each error case damages
// one line of it.
const std::vector<std::string> kValid = {
    "#parametric_pupil_format 0",            // 1
    "# note",                                // 2
    "#numerical_aperture 1.400",             // 3
    "#immersion_refractive_index 1.51500",   // 4
    "#lens_id 12",                           // 5
    "#zernike_set_for_amplitude 2 2",        // 6
    "#zernike_set_for_phase 1 1",            // 7
    "#polar_fourier_set_for_amplitude 1 1",  // 8
    "#polar_fourier_set_for_phase -1 -1",    // 9
    "#wavelength_count 2",                   // 10
    "#wavelengths_um 0.525000 0.600000",     // 11
    "#zernike_coeff_amplitude_1",            // 12
    "  0   0 0.5",                           // 13
    "  2   2 6 7",                           // 14
    "  1   1 2 3",                           // 15
    "  2   0 4",                             // 16
    "#polar_fourier_coeff_amplitude_0",      // 17
    "  1   1 11 12 13 14",                   // 18
    "  0   0 1",                             // 19
    "  0   1 2 3",                           // 20
    "  1   0 4 5",                           // 21
    "",                                      // 22
    "#zernike_coeff_phase_0",                // 23
    "  0   0 -1.5",                          // 24
    "  1   1 0.25 1e-05",                    // 25
};

std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) text += line + "\n";
    return text;
}

std::string with_line(int line, const std::string& replacement) {
    std::vector<std::string> lines = kValid;
    lines[std::size_t(line) - 1] = replacement;
    return joined(lines);
}

// One scratch directory per test process, removed when the process ends.
std::string scratch(const std::string& name) {
    static const struct Dir {
        fs::path path = fs::temp_directory_path() / ("torvel_pupil_" + std::to_string(::getpid()));
        Dir() { fs::create_directories(path); }
        ~Dir() {
            std::error_code ignored;
            fs::remove_all(path, ignored);
        }
    } dir;
    return (dir.path / name).string();
}

// Writes p to out.txt and returns the text written.
std::string written(ParametricPupil* p) {
    std::int32_t code = -9;
    EXPECT_EQ(write_parametric_pupil(p, scratch("out.txt").c_str(), &code), p);
    EXPECT_EQ(code, -9);
    std::stringstream text;
    text << std::ifstream(scratch("out.txt"), std::ios::binary).rdbuf();
    return text.str();
}

struct Outcome {
    Pupil pupil;
    std::array<std::int32_t, 3> where = {-9, -9, -9};  // code, line, column
};

Outcome read_file(const std::string& name) {
    Outcome out;
    out.pupil.reset(
        read_parametric_pupil(name.c_str(), &out.where[0], &out.where[1], &out.where[2]));
    return out;
}

Outcome read_text(const std::string& text) {
    std::ofstream(scratch("in.txt"), std::ios::binary) << text;
    return read_file(scratch("in.txt"));
}

TEST(PupilFile, writes_the_exact_text_of_a_fitted_record_then_of_labels_and_polar_fourier_blocks) {
    Pupil p(create_parametric_pupil());
    set_parametric_pupil_lens_id(p.get(), 12);
    set_parametric_pupil_na_nimm(p.get(), 1.4f, 1.515f);
    set_parametric_pupil_amplitude_zernike_orders(p.get(), 2, 2);
    set_parametric_pupil_phase_zernike_orders(p.get(), 3, 1);
    set_parametric_pupil_wavelength_count(p.get(), 1);
    set_parametric_pupil_wavelength(p.get(), 0, 0.525f);
    double* phase = get_parametric_pupil_phase_zernike_coeff(p.get(), 0);
    for (int k = 0; k < 8; ++k) phase[k] = 10 + k;  // distinct values show each slot
    EXPECT_EQ(written(p.get()),
              "#parametric_pupil_format 0\n"
              "#numerical_aperture 1.400\n"
              "#immersion_refractive_index 1.51500\n"
              "#lens_id 12\n"
              "#zernike_set_for_amplitude 2 2\n"
              "#zernike_set_for_phase 3 1\n"
              "#polar_fourier_set_for_amplitude -1 -1\n"
              "#polar_fourier_set_for_phase -1 -1\n"
              "#wavelength_count 1\n"
              "#wavelengths_um 0.525000\n"
              "#zernike_coeff_amplitude_0\n"
              "  0   0 0.707107\n"
              "  1   1 0 0\n"
              "  2   0 0\n"
              "  2   2 0 0\n"
              "#zernike_coeff_phase_0\n"
              "  0   0 10\n"
              "  1   1 11 12\n"
              "  2   0 13\n"
              "  2   2 14 15\n"
              "  3   1 16 17\n");

    // A label is written after a blank; polar Fourier blocks follow the Zernike
    // blocks of their wavelength, their lines in slot order.
    insert_parametric_pupil_label(p.get(), 0, " note");
    set_parametric_pupil_amplitude_polarf_orders(p.get(), 1, 2);
    set_parametric_pupil_phase_polarf_orders(p.get(), 0, 0);
    double* amplitude = get_parametric_pupil_amplitude_polarf_coeff(p.get(), 0);
    for (int k = 0; k < 15; ++k) amplitude[k] = k;
    const std::string text = written(p.get());
    EXPECT_EQ(text.substr(0, text.find("#numerical")), "#parametric_pupil_format 0\n#  note\n");
    EXPECT_NE(text.find("_amplitude 1 2\n#polar_fourier_set_for_phase 0 0\n#wavelength_count 1\n"),
              std::string::npos);
    EXPECT_EQ(text.substr(text.find("  3   1 16 17\n") + 14),
              "#polar_fourier_coeff_amplitude_0\n"
              "  0   0 0\n"
              "  0   1 1 2\n"
              "  0   2 3 4\n"
              "  1   0 5 6\n"
              "  1   1 7 8 9 10\n"
              "  1   2 11 12 13 14\n"
              "#polar_fourier_coeff_phase_0\n"
              "  0   0 0\n");

    // Without wavelengths the count line says 0, which the reader refuses.
    set_parametric_pupil_wavelength_count(p.get(), 0);
    written(p.get());
    EXPECT_EQ(read_file(scratch("out.txt")).where, (std::array{13, 10, 18}));
    std::int32_t code = -9;
    EXPECT_EQ(write_parametric_pupil(p.get(), scratch("no/such/dir").c_str(), &code), nullptr);
    EXPECT_EQ(code, 1);
}

TEST(PupilFile, reads_every_keyword_and_reads_back_what_it_writes) {
    Outcome first = read_text(joined(kValid));
    ParametricPupil* p = first.pupil.get();
    ASSERT_NE(p, nullptr) << first.where[0] << " at line " << first.where[1];
    EXPECT_EQ(first.where, (std::array{-9, -9, -9}));  // success writes no output
    EXPECT_EQ(header_of(p),
              (std::vector<double>{1.4f, 1.515f, 12, 1, 2, 2, 2, 1, 1, 1, 1, -1, -1, 6, 3, 9, 0}));
    EXPECT_EQ(get_parametric_pupil_label(p, 0), std::string(" note"));
    // Wavelength, then amplitude Zernike, phase Zernike and amplitude polar
    // Fourier values, each placed by its (n, m) or (i, j).
    EXPECT_EQ(wave_of(p, 0), (std::vector<double>{0.525f, 0.7071067811865475, 0, 0, 0, 0, 0, -1.5,
                                                  0.25, 1e-05, 1, 2, 3, 4, 5, 11, 12, 13, 14}));
    std::vector<double> second = {0.6f, 0.5, 2, 3, 4, 6, 7};
    second.resize(1 + 6 + 3 + 9, 0.0);
    EXPECT_EQ(wave_of(p, 1), second);

    get_parametric_pupil_amplitude_zernike_coeff(p, 0)[0] = 0.75;  // a value %g keeps whole
    written(p);
    Outcome again = read_file(scratch("out.txt"));
    ASSERT_NE(again.pupil, nullptr);
    EXPECT_EQ(header_of(again.pupil.get()), header_of(p));
    for (int w : {0, 1}) EXPECT_EQ(wave_of(again.pupil.get(), w), wave_of(p, w)) << w;
    EXPECT_EQ(get_parametric_pupil_label(again.pupil.get(), 0), std::string("  note"));
}

struct Damage {
    int line;                           // of kValid, replaced by text; 0: text is the whole file
    const char* text;                   // the damaged line
    std::array<std::int32_t, 3> where;  // code, line, column
};

const Damage kDamages[] = {
    {1, "#parametric_pupil_formaT 0", {10, 1, 1}},
    {0, "#parametric_pupil_form", {10, 1, 1}},
    {0, "#parametric_pupil_format 0", {10, 1, 0}},  // unended: no first line
    {1, "#parametric_pupil_format 1", {11, 1, 25}},
    {1, "#parametric_pupil_formatx 0", {12, 1, 25}},
    {2, "note", {12, 2, 1}},
    {2, "   ", {12, 2, 1}},
    // Keyword values, at the column after the keyword.
    {3, "#numerical_aperture -1", {13, 3, 20}},
    {4, "#immersion_refractive_index 0", {13, 4, 28}},
    {5, "#lens_id twelve", {12, 5, 9}},
    {6, "#zernike_set_for_amplitude 2", {12, 6, 27}},
    {7, "#zernike_set_for_phase 3 0", {13, 7, 23}},
    {8, "#polar_fourier_set_for_amplitude x", {12, 8, 33}},
    {10, "#wavelength_count 0", {13, 10, 18}},
    {11, "#wavelengths_um 0.5", {12, 11, 20}},
    {11, "#wavelengths_um", {12, 11, 16}},
    {12, "#zernike_coeff_amplitude_2", {13, 12, 26}},
    {12, "#zernike_coeff_amplitude_", {12, 12, 26}},
    {17, "#polar_fourier_coeff_amplitude_-1", {13, 17, 32}},
    // Malformed term lines, after the last field read (a second value without the + 1).
    {15, "  1", {12, 15, 4}},
    {15, "  1   1", {12, 15, 8}},
    {15, "x", {12, 15, 0}},
    {15, "  1   1 2", {12, 15, 9}},
    {18, "  1   1 11 12", {12, 18, 14}},
    {18, "  1   1 11", {12, 18, 11}},
    {20, "  0   1 2", {12, 20, 9}},
    // Term lines outside their set: too high, wrong parity, negative, overflowing.
    {15, "  3   1 1 1", {13, 15, 1}},
    {15, "  2   1 1 1", {13, 15, 1}},
    {15, " -1   1 1 1", {13, 15, 1}},
    {16, "  2  -2 1 1", {13, 16, 1}},
    {16, "2147483647 1 1 1", {13, 16, 1}},
    {21, "  2   0 4 5", {13, 21, 1}},
    {21, "  1   2 4 5 6 7", {13, 21, 1}},
    {21, " -1   0 4 5", {13, 21, 1}},
};

TEST(PupilFile, reports_each_damage_with_its_code_line_and_column) {
    for (const Damage& d : kDamages) {
        SCOPED_TRACE(d.text);
        Outcome out = read_text(d.line > 0 ? with_line(d.line, d.text) : d.text);
        EXPECT_EQ(out.pupil, nullptr);
        EXPECT_EQ(out.where, d.where);
    }
    EXPECT_EQ(read_file(scratch("absent.txt")).where, (std::array{1, 1, 1}));
}

TEST(PupilFile, accepts_a_bare_file_an_empty_label_and_a_file_ending_inside_a_block) {
    Pupil fresh(create_parametric_pupil());
    Outcome bare = read_text("#parametric_pupil_format 0\n");
    ASSERT_NE(bare.pupil, nullptr);
    EXPECT_EQ(header_of(bare.pupil.get()), header_of(fresh.get()));
    Outcome empty_label = read_text(with_line(2, "#"));
    ASSERT_NE(empty_label.pupil, nullptr);
    EXPECT_EQ(get_parametric_pupil_label(empty_label.pupil.get(), 0), std::string());

    Outcome cut = read_text(joined({kValid.begin(), kValid.begin() + 14}));
    ASSERT_NE(cut.pupil, nullptr);  // slots not read keep their defaults
    EXPECT_EQ(values(get_parametric_pupil_amplitude_zernike_coeff(cut.pupil.get(), 1), 6),
              (std::vector<double>{0.5, 0, 0, 0, 6, 7}));
    Outcome unended = read_text(joined(kValid).substr(0, joined(kValid).size() - 1));
    ASSERT_NE(unended.pupil, nullptr);  // its last line is lost
    EXPECT_EQ(values(get_parametric_pupil_phase_zernike_coeff(unended.pupil.get(), 0), 3),
              (std::vector<double>{-1.5, 0, 0}));
}

TEST(PupilFile, reads_lines_longer_than_its_first_256_byte_buffer_whole) {
    for (std::size_t length : {254, 255, 511, 600, 100000}) {  // lines of length + 1 and a newline
        const std::string label(length, 'x');
        Outcome out = read_text(with_line(2, "#" + label) + "#" + label + "\n");
        ASSERT_NE(out.pupil, nullptr) << length;
        EXPECT_EQ(get_parametric_pupil_label(out.pupil.get(), 0), label);
        EXPECT_EQ(get_parametric_pupil_label(out.pupil.get(), 1), label);
    }
}

}  // namespace
}  // namespace torvel
