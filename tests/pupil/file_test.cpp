#include "pupil/pupil.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace torvel {
namespace {

namespace fs = std::filesystem;

struct Destroy {
    void operator()(ParametricPupil* p) const { destroy_parametric_pupil(p); }
};
using Pupil = std::unique_ptr<ParametricPupil, Destroy>;

std::vector<double> values(const double* array, int count) {
    return std::vector<double>(array, array + count);
}

// A valid file that exercises every keyword; the error cases damage one line.
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
    lines[line - 1] = replacement;
    return joined(lines);
}

class PupilFile : public ::testing::Test {
  protected:
    void SetUp() override {
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        dir_ = fs::temp_directory_path() /
               ("torvel_pupil_" + std::string(info->name()) + "_" + std::to_string(::getpid()));
        fs::create_directories(dir_);
    }
    void TearDown() override { fs::remove_all(dir_); }

    std::string path(const char* name) const { return (dir_ / name).string(); }

    std::string put(const std::string& text) {
        const std::string name = path("in.txt");
        std::ofstream(name, std::ios::binary) << text;
        return name;
    }

    static std::string contents(const std::string& name) {
        std::ifstream in(name, std::ios::binary);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }

    struct Outcome {
        Pupil pupil;
        std::int32_t code = -9, line = -9, column = -9;
    };

    Outcome read_text(const std::string& text) { return read_file(put(text)); }

    static Outcome read_file(const std::string& name) {
        Outcome out;
        out.pupil.reset(read_parametric_pupil(name.c_str(), &out.code, &out.line, &out.column));
        return out;
    }

    // Expects the reader to fail with exactly this code, line and column.
    void expect_error(const std::string& text, int code, int line, int column) {
        Outcome out = read_text(text);
        EXPECT_EQ(out.pupil, nullptr);
        EXPECT_EQ(out.code, code);
        EXPECT_EQ(out.line, line);
        EXPECT_EQ(out.column, column);
    }

    fs::path dir_;
};

// The record whose file text is fixed below: distinct values show each slot.
Pupil fitted_record() {
    Pupil p(create_parametric_pupil());
    set_parametric_pupil_lens_id(p.get(), 12);
    set_parametric_pupil_na_nimm(p.get(), 1.4f, 1.515f);
    set_parametric_pupil_amplitude_zernike_orders(p.get(), 2, 2);
    set_parametric_pupil_phase_zernike_orders(p.get(), 3, 1);
    set_parametric_pupil_wavelength_count(p.get(), 1);
    set_parametric_pupil_wavelength(p.get(), 0, 0.525f);
    double* phase = get_parametric_pupil_phase_zernike_coeff(p.get(), 0);
    for (int k = 0; k < 8; ++k) phase[k] = 10 + k;
    return p;
}

TEST_F(PupilFile, writes_the_exact_text_of_a_fitted_record) {
    Pupil p = fitted_record();
    std::int32_t code = -9;
    ASSERT_EQ(write_parametric_pupil(p.get(), path("out.txt").c_str(), &code), p.get());
    EXPECT_EQ(code, -9);
    EXPECT_EQ(contents(path("out.txt")),
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
    EXPECT_EQ(write_parametric_pupil(p.get(), path("no/such/dir").c_str(), &code), nullptr);
    EXPECT_EQ(code, 1);
}

TEST_F(PupilFile, writes_polar_fourier_blocks_in_slot_order_and_labels_with_a_blank) {
    Pupil p(create_parametric_pupil());
    insert_parametric_pupil_label(p.get(), 0, " note");
    set_parametric_pupil_amplitude_polarf_orders(p.get(), 1, 2);
    set_parametric_pupil_phase_polarf_orders(p.get(), 0, 0);
    set_parametric_pupil_wavelength_count(p.get(), 1);
    double* amplitude = get_parametric_pupil_amplitude_polarf_coeff(p.get(), 0);
    for (int k = 0; k < 15; ++k) amplitude[k] = k;
    ASSERT_NE(write_parametric_pupil(p.get(), path("out.txt").c_str(), nullptr), nullptr);
    EXPECT_EQ(contents(path("out.txt")),
              "#parametric_pupil_format 0\n"
              "#  note\n"
              "#numerical_aperture 1.000\n"
              "#immersion_refractive_index 1.00000\n"
              "#lens_id -1\n"
              "#zernike_set_for_amplitude -1 -1\n"
              "#zernike_set_for_phase -1 -1\n"
              "#polar_fourier_set_for_amplitude 1 2\n"
              "#polar_fourier_set_for_phase 0 0\n"
              "#wavelength_count 1\n"
              "#wavelengths_um 0.000000\n"
              "#polar_fourier_coeff_amplitude_0\n"
              "  0   0 0\n"
              "  0   1 1 2\n"
              "  0   2 3 4\n"
              "  1   0 5 6\n"
              "  1   1 7 8 9 10\n"
              "  1   2 11 12 13 14\n"
              "#polar_fourier_coeff_phase_0\n"
              "  0   0 0\n");
}

TEST_F(PupilFile, reads_back_what_it_writes_to_the_printed_precision) {
    Outcome first = read_text(joined(kValid));
    ASSERT_NE(first.pupil, nullptr) << first.code << " " << first.line;
    EXPECT_EQ(first.code, -9);
    ASSERT_NE(write_parametric_pupil(first.pupil.get(), path("out.txt").c_str(), nullptr), nullptr);
    Outcome again = read_file(path("out.txt"));
    ASSERT_NE(again.pupil, nullptr);
    for (ParametricPupil* p : {first.pupil.get(), again.pupil.get()}) {
        EXPECT_EQ(get_parametric_pupil_numerical_aperture(p), 1.4f);
        EXPECT_EQ(get_parametric_pupil_immersion_refractive_index(p), 1.515f);
        EXPECT_EQ(get_parametric_pupil_lens_id(p), 12);
        EXPECT_EQ(get_parametric_pupil_wavelength(p, 1), 0.6f);
        EXPECT_EQ(values(get_parametric_pupil_amplitude_zernike_coeff(p, 1), 6),
                  (std::vector<double>{0.5, 2, 3, 4, 6, 7}));
        EXPECT_NEAR(get_parametric_pupil_amplitude_zernike_coeff(p, 0)[0], 0.7071067811865475,
                    5e-7);
        EXPECT_EQ(values(get_parametric_pupil_amplitude_polarf_coeff(p, 0), 9),
                  (std::vector<double>{1, 2, 3, 4, 5, 11, 12, 13, 14}));
        EXPECT_EQ(values(get_parametric_pupil_amplitude_polarf_coeff(p, 1), 9),
                  std::vector<double>(9, 0.0));
        EXPECT_EQ(values(get_parametric_pupil_phase_zernike_coeff(p, 0), 3),
                  (std::vector<double>{-1.5, 0.25, 1e-05}));
        EXPECT_EQ(get_parametric_pupil_phase_polarf_count(p), 0);
    }
    // Labels gain the writer's blank on every round trip.
    EXPECT_EQ(std::string(get_parametric_pupil_label(first.pupil.get(), 0)), " note");
    EXPECT_EQ(std::string(get_parametric_pupil_label(again.pupil.get(), 0)), "  note");
}

TEST_F(PupilFile, rejects_a_file_that_is_not_a_format_zero_pupil_file) {
    expect_error(with_line(1, "#parametric_pupil_formaT 0"), 10, 1, 1);
    expect_error("#parametric_pupil_form", 10, 1, 1);
    expect_error(with_line(1, "#parametric_pupil_format 1"), 11, 1, 25);
    expect_error(with_line(1, "#parametric_pupil_formatx 0"), 12, 1, 25);
    // Without its newline the only line is dropped, so no first line is read.
    expect_error("#parametric_pupil_format 0", 10, 1, 0);
    Outcome missing = read_file(path("absent.txt"));
    EXPECT_EQ(missing.pupil, nullptr);
    EXPECT_EQ(missing.code, 1);
    EXPECT_EQ(missing.line, 1);
    EXPECT_EQ(missing.column, 1);

    Outcome bare = read_text("#parametric_pupil_format 0\n");
    ASSERT_NE(bare.pupil, nullptr);
    EXPECT_EQ(get_parametric_pupil_wavelength_count(bare.pupil.get()), 0);
    EXPECT_EQ(get_parametric_pupil_lens_id(bare.pupil.get()), -1);
    EXPECT_EQ(get_parametric_pupil_amplitude_zernike_count(bare.pupil.get()), 0);
}

TEST_F(PupilFile, rejects_a_bad_keyword_value_at_the_column_after_the_keyword) {
    expect_error(with_line(3, "#numerical_aperture -1"), 13, 3, 20);
    expect_error(with_line(4, "#immersion_refractive_index 0"), 13, 4, 28);
    expect_error(with_line(5, "#lens_id twelve"), 12, 5, 9);
    expect_error(with_line(6, "#zernike_set_for_amplitude 2"), 12, 6, 27);
    expect_error(with_line(7, "#zernike_set_for_phase 3 0"), 13, 7, 23);
    expect_error(with_line(8, "#polar_fourier_set_for_amplitude x"), 12, 8, 33);
    expect_error(with_line(10, "#wavelength_count 0"), 13, 10, 18);
    expect_error(with_line(11, "#wavelengths_um 0.5"), 12, 11, 20);
    expect_error(with_line(11, "#wavelengths_um"), 12, 11, 16);
    expect_error(with_line(12, "#zernike_coeff_amplitude_2"), 13, 12, 26);
    expect_error(with_line(12, "#zernike_coeff_amplitude_"), 12, 12, 26);
    expect_error(with_line(17, "#polar_fourier_coeff_amplitude_-1"), 13, 17, 32);
}

TEST_F(PupilFile, rejects_a_line_that_is_neither_empty_nor_a_hash_line) {
    expect_error(with_line(2, "note"), 12, 2, 1);
    expect_error(with_line(2, "   "), 12, 2, 1);
    Outcome empty_label = read_text(with_line(2, "#"));
    ASSERT_NE(empty_label.pupil, nullptr);
    EXPECT_EQ(std::string(get_parametric_pupil_label(empty_label.pupil.get(), 0)), "");
}

TEST_F(PupilFile, rejects_a_malformed_term_line_after_its_last_good_field) {
    expect_error(with_line(15, "  1"), 12, 15, 4);
    expect_error(with_line(15, "  1   1"), 12, 15, 8);
    expect_error(with_line(15, "x"), 12, 15, 0);
    expect_error(with_line(15, "  1   1 2"), 12, 15, 9);  // no + 1 here
    expect_error(with_line(18, "  1   1 11 12"), 12, 18, 14);
    expect_error(with_line(18, "  1   1 11"), 12, 18, 11);
    expect_error(with_line(20, "  0   1 2"), 12, 20, 9);
}

TEST_F(PupilFile, rejects_a_term_line_outside_its_set) {
    expect_error(with_line(15, "  3   1 1 1"), 13, 15, 1);
    expect_error(with_line(15, "  2   1 1 1"), 13, 15, 1);  // wrong parity
    expect_error(with_line(15, " -1   1 1 1"), 13, 15, 1);
    expect_error(with_line(16, "  2  -2 1 1"), 13, 16, 1);
    expect_error(with_line(16, "2147483647 1 1 1"), 13, 16, 1);
    expect_error(with_line(21, "  2   0 4 5"), 13, 21, 1);
    expect_error(with_line(21, "  1   2 4 5 6 7"), 13, 21, 1);
    expect_error(with_line(21, " -1   0 4 5"), 13, 21, 1);
}

TEST_F(PupilFile, accepts_a_file_that_ends_inside_a_block_or_without_a_last_newline) {
    std::vector<std::string> head(kValid.begin(), kValid.begin() + 14);
    Outcome cut = read_text(joined(head));
    ASSERT_NE(cut.pupil, nullptr);
    EXPECT_EQ(values(get_parametric_pupil_amplitude_zernike_coeff(cut.pupil.get(), 1), 6),
              (std::vector<double>{0.5, 0, 0, 0, 6, 7}));

    std::string text = joined(kValid);
    text.pop_back();
    Outcome unended = read_text(text);
    ASSERT_NE(unended.pupil, nullptr);
    EXPECT_EQ(values(get_parametric_pupil_phase_zernike_coeff(unended.pupil.get(), 0), 3),
              (std::vector<double>{-1.5, 0, 0}));
}

TEST_F(PupilFile, refuses_to_read_back_a_record_without_wavelengths) {
    Pupil p(create_parametric_pupil());
    ASSERT_NE(write_parametric_pupil(p.get(), path("out.txt").c_str(), nullptr), nullptr);
    Outcome out = read_file(path("out.txt"));
    EXPECT_EQ(out.pupil, nullptr);
    EXPECT_EQ(out.code, 13);
    EXPECT_EQ(out.line, 9);
    EXPECT_EQ(out.column, 18);
}

TEST_F(PupilFile, reads_long_lines_whole_growing_the_buffer_by_256) {
    const std::string long_label(600, 'x');
    Outcome out = read_text(with_line(2, "#" + long_label));
    ASSERT_NE(out.pupil, nullptr);
    EXPECT_EQ(std::string(get_parametric_pupil_label(out.pupil.get(), 0)), long_label);

    std::FILE* stream =
        std::fopen(put(std::string(255, 'a') + "\n" + long_label + "\n").c_str(), "r");
    ASSERT_NE(stream, nullptr);
    std::int32_t size = 256, error = 0, column = -9;
    char* line = new char[256];
    EXPECT_EQ(read_full_line(stream, &line, &size, &error, &column), 0);
    EXPECT_EQ(std::string(line), std::string(255, 'a'));
    EXPECT_EQ(size, 512);
    EXPECT_EQ(read_full_line(stream, &line, &size, &error, &column), 0);
    EXPECT_EQ(std::string(line), long_label);
    EXPECT_EQ(size, 768);
    EXPECT_EQ(read_full_line(stream, &line, &size, &error, &column), 1);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(column, 0);
    delete[] line;
    std::fclose(stream);
}

}  // namespace
}  // namespace torvel
