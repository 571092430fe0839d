#include <torvel/imageio.hpp>

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

using namespace torvel;
namespace fs = std::filesystem;

namespace {

// One scratch directory per test process, removed when the process ends.
std::string scratch(const std::string& name) {
    static const struct Dir {
        fs::path path = fs::temp_directory_path() / ("torvel_imageio_" + std::to_string(getpid()));
        Dir() { fs::create_directories(path); }
        ~Dir() {
            std::error_code ignored;
            fs::remove_all(path, ignored);
        }
    } dir;
    return (dir.path / name).string();
}

using Bytes = std::vector<unsigned char>;

void put(Bytes& b, std::size_t at, std::uint32_t v, int width, bool big = false) {
    for (int i = 0; i < width; ++i)
        b[at + std::size_t(big ? width - 1 - i : i)] = static_cast<unsigned char>(v >> (8 * i));
}
void put_f32(Bytes& b, std::size_t at, float v, bool big = false) {
    put(b, at, std::bit_cast<std::uint32_t>(v), 4, big);
}

// A file header made by hand, without the layer, in either byte order, with
// spacing 0.25, 0.5, 0.75, origin -1.5, -3, -4.5 and one label; the caller
// appends the sections.
Bytes hand_header(bool big, int nx, int ny, int mode, int nz, int nw, int nt, int interleave) {
    Bytes b(1024, 0);
    const int dims[3] = {nx, ny, nz * nw * nt};
    for (int i = 0; i < 3; ++i) {
        put(b, 4 * std::size_t(i), std::uint32_t(dims[i]), 4, big);
        put(b, 28 + 4 * std::size_t(i), std::uint32_t(i < 2 ? dims[i] : 1), 4, big);  // MX MY MZ
        put_f32(b, 40 + 4 * std::size_t(i), 0.25f * float(i + 1) * float(i < 2 ? dims[i] : 1), big);
        put(b, 64 + 4 * std::size_t(i), std::uint32_t(i + 1), 4, big);
        put_f32(b, 196 + 4 * std::size_t(i), -1.5f * float(i + 1), big);
    }
    put(b, 12, std::uint32_t(mode), 4, big);
    std::memcpy(&b[112], "TVL1", 4);
    for (auto [at, v] : {std::pair{116, 8000}, {120, 10612}})
        put(b, std::size_t(at), std::uint32_t(v), 4, big);
    for (auto [at, v] : {std::pair{124, -2}, {126, 300}, {136, nw}, {138, nt}, {140, interleave}})
        put(b, std::size_t(at), std::uint32_t(v), 2, big);
    for (auto [at, v] :
         {std::pair{128, 14.0f}, {132, 151.5f}, {144, 450.0f}, {148, 500.0f}, {168, 0.125f}})
        put_f32(b, std::size_t(at), v, big);
    std::memcpy(&b[208], "MAP ", 4);
    b[212] = b[213] = big ? 0x11 : 0x44;
    put(b, 220, 1, 4, big);
    std::memcpy(&b[224], "hand made", 9);
    return b;
}

// The header followed by one 32-bit float per value, in the header's byte order.
void save(const std::string& path, Bytes b, const std::vector<float>& pixels, bool big = false) {
    const std::size_t start = b.size();
    b.resize(start + 4 * pixels.size());
    for (std::size_t i = 0; i < pixels.size(); ++i) put_f32(b, start + 4 * i, pixels[i], big);
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(b.data()), std::streamsize(b.size()));
}

std::vector<float> load_floats(const std::string& path) {
    std::vector<float> v(fs::file_size(path) / 4);
    std::ifstream(path, std::ios::binary)
        .read(reinterpret_cast<char*>(v.data()), std::streamsize(v.size() * 4));
    return v;
}

std::vector<float> read_sections(int stream, int count, std::size_t floats_each) {
    std::vector<float> all(floats_each * std::size_t(count));
    for (int k = 0; k < count; ++k)
        EXPECT_EQ(0, image_read_section(stream, all.data() + floats_each * std::size_t(k)));
    return all;
}

// The pupil function image of the round trips: 5 x 4 pixels, wavelengths 528
// and 617 nm, one complex or two real sections each, written out of file
// order. Returns the values written, in file order.
constexpr int kNx = 5, kNy = 4;
std::vector<float> write_pupil(const std::string& path, int mode) {
    const int nz = mode == 4 ? 1 : 2;
    const std::size_t each = kNx * kNy * std::size_t(mode == 4 ? 2 : 1);
    std::vector<float> values(each * 2 * std::size_t(nz));
    for (std::size_t i = 0; i < values.size(); ++i) values[i] = float(i) * 0.37f - 11.0f;
    EXPECT_EQ(0, image_open(9, path.c_str(), "new"));
    image_set_dimensions(9, kNx, kNy);
    image_set_pixel_mode(9, mode);
    image_set_zwt_sizes(9, nz, 2, 1, 0);
    image_set_type_info(9, 8000, 10612, -7, 300, 14.0f, 151.5f);
    const float waves[2] = {528.0f, 617.0f};
    image_set_wavelengths(9, 2, waves);
    image_set_pixel_spacing(9, 0.0123f, 0.0457f, 0.3f);
    image_set_origin(9, -0.0615f, -0.114f, 0.5f);
    image_add_label(9, "first label");
    image_set_wavelength_min_max(9, 1, -2.5f, 9.75f);
    for (int w = 1; w >= 0; --w) {
        for (int z = 0; z < nz; ++z) {
            EXPECT_EQ(0, image_seek_section(9, z, w, 0));
            EXPECT_EQ(0, image_write_section(9, &values[each * std::size_t(z + nz * w)]));
        }
    }
    image_write_header(9, "title line", 1, 1.0f, 0.0f, -1.0f);  // statistics marked "not computed"
    image_close(9);
    return values;
}

// Every value the header queries deliver, in one row for one comparison: the
// integers NX NY NZ, NXSTART NYSTART NZSTART, MODE, nz nw nt interleave, type
// lens n1 n2, wavelength count, label count; then the floats DMIN DMAX DMEAN,
// P1 P2, dx dy dz, origin x y z, the five wavelengths, min and max of wavelength 1.
std::vector<double> header_row(int stream) {
    int i[17];
    float f[18];
    image_read_header(stream, i, i + 3, i + 6, f, f + 1, f + 2);
    image_get_zwt_sizes(stream, i + 7, i + 8, i + 9, i + 10);
    image_get_type_info(stream, i + 11, i + 12, i + 13, i + 14, f + 3, f + 4);
    image_get_pixel_spacing(stream, f + 5, f + 6, f + 7);
    image_get_origin(stream, f + 8, f + 9, f + 10);
    image_get_wavelengths(stream, i + 15, f + 11);
    image_get_wavelength_min_max(stream, 1, f + 16, f + 17);
    i[16] = image_get_label_count(stream);
    std::vector<double> row(i, i + 17);
    row.insert(row.end(), f, f + 18);
    return row;
}

std::string label(int stream, int index) {
    char text[81];
    return image_get_label(stream, index, text) == 0 ? text : "(none)";
}

// Runs one damaging step and expects exactly one line "torvel: <path>: ..." holding reason.
void expect_message(const std::function<void()>& step, const std::string& path,
                    const std::string& reason) {
    testing::internal::CaptureStderr();
    step();
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(0u, err.rfind("torvel: " + path + ": ", 0)) << err;
    EXPECT_NE(std::string::npos, err.find(reason)) << err;
    EXPECT_EQ(1, std::count(err.begin(), err.end(), '\n')) << err;
}

// Runs the independent side of the interoperability checks, mrcfile_interop.py
// or another script of tests/imageio.
int python(const std::string& args, const std::string& script = "mrcfile_interop.py") {
    if (std::system("/usr/bin/python3 -c 'import mrcfile, tifffile'") != 0) {
        ADD_FAILURE() << "/usr/bin/python3 cannot import mrcfile and tifffile: install Debian's "
                         "python3-mrcfile and python3-tifffile";
        return -1;
    }
    return std::system(
        ("/usr/bin/python3 " TORVEL_SOURCE_DIR "/tests/imageio/" + script + " " + args).c_str());
}

}  // namespace

TEST(PupilImage, keeps_every_header_value_and_pixel_in_modes_2_and_4_and_mrcfile_agrees) {
    for (int mode : {2, 4}) {
        const std::string path = scratch("pupil" + std::to_string(mode) + ".mrc");
        const std::vector<float> values = write_pupil(path, mode);
        ASSERT_EQ(0, image_open(1, path.c_str(), "ro"));
        const double nz = mode == 4 ? 1 : 2;
        EXPECT_EQ(
            (std::vector<double>{kNx,   kNy,     2 * nz,  0,    0,        0,       double(mode),
                                 nz,    2,       1,       0,    8000,     10612,   -7,
                                 300,   2,       2,       1,    0,        -1,      14,
                                 151.5, 0.0123f, 0.0457f, 0.3f, -0.0615f, -0.114f, 0.5f,
                                 528,   617,     0,       0,    0,        -2.5,    9.75}),
            header_row(1));
        EXPECT_EQ("title line", label(1, 1));
        EXPECT_EQ(0, image_seek_section(1, 0, 0, 0));
        EXPECT_EQ(values, read_sections(1, int(2 * nz), values.size() / std::size_t(2 * nz)));
        image_close(1);
        // A strict outside reader validates the file and finds the same pixels.
        ASSERT_EQ(0, python("check " + path + " " + path + ".f32")) << "mrcfile refuses " << path;
        EXPECT_EQ(values, load_floats(path + ".f32")) << "mode " << mode;
    }
}

TEST(HandMadeFile, delivers_mode_3_in_either_byte_order_exactly_like_mode_4) {
    const std::vector<int> parts = {-32768, 32767, 0, -1, 1234, -4321, 7, 8, -9, 10, 11, -12};
    for (bool big : {false, true}) {
        Bytes b = hand_header(big, 3, 2, 3, 1, 1, 1, 0);
        b.resize(1024 + 2 * parts.size());
        for (std::size_t i = 0; i < parts.size(); ++i)
            put(b, 1024 + 2 * i, std::uint32_t(parts[i]), 2, big);
        save(scratch(big ? "mode3big.mrc" : "mode3.mrc"), b, {});
    }
    const std::vector<float> expected(parts.begin(), parts.end());
    ASSERT_EQ(0, image_open(2, scratch("mode4.mrc").c_str(), "new"));
    image_set_dimensions(2, 3, 2);
    image_set_pixel_mode(2, 4);
    image_set_zwt_sizes(2, 1, 1, 1, 0);
    EXPECT_EQ(0, image_write_section(2, expected.data()));
    image_close(2);  // writes the header, never written explicitly
    for (const char* name : {"mode3.mrc", "mode3big.mrc", "mode4.mrc"}) {
        ASSERT_EQ(0, image_open(1, scratch(name).c_str(), "ro")) << name;
        EXPECT_EQ(expected, read_sections(1, 1, 12)) << name;
        image_close(1);
    }
}

TEST(HandMadeFile, reads_big_endian_by_its_stamp_or_else_by_its_sizes) {
    Bytes b = hand_header(true, 3, 2, 2, 1, 2, 1, 0);
    const std::vector<float> pixels = {1.5e-3f, -2,   3.25f, 1e30f, -0.1f,  6,
                                       7,       8.5f, -9,    10,    1e-38f, 12};
    for (unsigned char stamp : {0x11, 0x00}) {
        b[212] = b[213] = stamp;
        save(scratch("big.mrc"), b, pixels, true);
        ASSERT_EQ(0, image_open(1, scratch("big.mrc").c_str(), "ro")) << int(stamp);
        EXPECT_EQ(
            (std::vector<double>{3,     2,    2,   0,    0,   0,   2, 1, 2,  1,     0,    8000,
                                 10612, -2,   300, 2,    1,   0,   0, 0, 14, 151.5, 0.25, 0.5,
                                 0.75,  -1.5, -3,  -4.5, 450, 500, 0, 0, 0,  0,     0.125}),
            header_row(1))
            << int(stamp);
        EXPECT_EQ(0, image_seek_section(1, 0, 1, 0));
        EXPECT_EQ(std::vector<float>(pixels.begin() + 6, pixels.end()), read_sections(1, 1, 6));
        image_close(1);
    }
}

TEST(SectionAddressing, follows_each_interleave_order_and_refuses_seeks_outside_nz_nw_nt) {
    for (int order = 0; order < 3; ++order) {  // nz 2, nw 3, nt 2; each section holds its number
        std::vector<float> numbers(12);
        std::iota(numbers.begin(), numbers.end(), 0.0f);
        save(scratch("order.mrc"), hand_header(false, 1, 1, 2, 2, 3, 2, order), numbers);
        ASSERT_EQ(0, image_open(1, scratch("order.mrc").c_str(), "ro"));
        // (z, w, t) = (0, 1, 1) is section 6, 7 or 8 (worked out by hand); (1, 2, 1) is 11.
        for (auto [z, w, t, section] : {std::array{0, 1, 1, 6 + order}, {1, 2, 1, 11}}) {
            float value = -1;
            EXPECT_EQ(0, image_seek_section(1, z, w, t));
            EXPECT_EQ(0, image_read_section(1, &value));
            EXPECT_EQ(float(section), value) << "order " << order << " z " << z;
        }
        for (auto [z, w, t] :
             {std::array{2, 0, 0}, {0, 3, 0}, {0, 0, 2}, {-1, 0, 0}, {0, -1, 0}, {0, 0, -1}})
            EXPECT_NE(0, image_seek_section(1, z, w, t)) << z << " " << w << " " << t;
        image_close(1);
    }
}

TEST(OpeningRefuses, damaged_or_missing_files_with_one_message_naming_the_file_unless_silenced) {
    struct Damage {
        std::size_t size;  // bytes kept of the valid file
        int at, width;     // the word changed to value, none when at < 0
        std::int32_t value;
        const char* reason;
    };
    const Damage damages[] = {
        {1151, -1, 0, 0, "header promises 128 bytes of sections, file holds 127"},
        {1000, -1, 0, 0, "file holds 1000 bytes, less than the 1024-byte header"},
        {1152, 4, 4, -4, "negative size NX = 4, NY = -4, NZ = 2"},
        {1152, 12, 4, 5, "pixel mode 5 is not supported"},
        {1152, 136, 2, 6, "wavelength count 6 is outside 0 to 5"},
        {1152, 138, 2, -1, "time point count -1 is negative"},
        {1152, 140, 2, 3, "interleave order 3 is not 0, 1 or 2"},
        {1152, 8, 4, 3, "NZ = 3 is not a multiple of 2 wavelengths times 1 time points"},
        {1152, 92, 4, -4, "NSYMBT = -4 is negative"},
        {1152, 92, 4, 200, "header promises 200 bytes of extended header, file holds 128"},
    };
    const std::string path = scratch("damaged.mrc");
    const auto refused = [&](const Bytes& b, const std::string& reason) {
        save(path, b, {});
        expect_message([&] { EXPECT_NE(0, image_open(1, path.c_str(), "ro")); }, path, reason);
        image_close(1);
    };
    Bytes valid = hand_header(false, 4, 4, 2, 1, 2, 1, 0);
    valid.resize(1024 + 128);
    for (const Damage& d : damages) {
        Bytes b(valid.begin(), valid.begin() + std::ptrdiff_t(d.size));
        if (d.at >= 0) put(b, std::size_t(d.at), std::uint32_t(d.value), d.width);
        refused(b, d.reason);
    }
    Bytes b = valid;  // sizes whose product saturates rather than wraps
    for (int at : {0, 4, 8}) put(b, std::size_t(at), 2147483646, 4);
    put(b, 12, 4, 4);
    refused(b, "header promises 18446744073709551615 bytes of sections, file holds 128");
    for (std::size_t i = 0; i < b.size(); ++i) b[i] = std::uint8_t(i * 151 + 7);
    refused(b, "");  // garbage: any reason will do
    expect_message([] { EXPECT_NE(0, image_open(1, scratch("").c_str(), "ro")); }, scratch(""),
                   "not a regular file");
    fs::remove(path);
    expect_message([&] { EXPECT_NE(0, image_open(1, path.c_str(), "ro")); }, path,
                   "cannot open for reading");
    image_set_message_printing(0);
    testing::internal::CaptureStderr();
    EXPECT_NE(0, image_open(1, path.c_str(), "ro"));
    image_set_message_printing(1);
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

TEST(SectionRead, reports_a_file_cut_short_after_opening_and_leaves_the_buffer_alone) {
    const std::string path = scratch("cut.mrc");
    write_pupil(path, 2);
    ASSERT_EQ(0, image_open(1, path.c_str(), "ro"));
    fs::resize_file(path, 1024 + 3 * kNx * kNy * 4 + 6);
    std::vector<float> buffer(kNx * kNy, 42.0f);
    EXPECT_EQ(0, image_seek_section(1, 1, 1, 0));
    expect_message([&] { EXPECT_NE(0, image_read_section(1, buffer.data())); }, path,
                   "section 3: read 6 of 80 bytes");
    EXPECT_EQ(std::vector<float>(kNx * kNy, 42.0f), buffer);
    image_close(1);
}

TEST(ResidualLayout, copies_the_input_header_without_its_extended_header_and_sets_only_the_layout) {
    Bytes b = hand_header(false, 2, 1, 2, 2, 2, 1, 0);
    put(b, 92, 8, 4);  // NSYMBT: 8 bytes of extended header before the sections
    b.resize(1024 + 8, 0xee);
    save(scratch("input.mrc"), b, {0.5f, 1.5f, 2.5f, 3.5f, 4.5f, 5.5f, 6.5f, 7.5f});
    ASSERT_EQ(0, image_open(1, scratch("input.mrc").c_str(), "ro"));
    EXPECT_EQ(0, image_seek_section(1, 1, 1, 0));
    EXPECT_EQ((std::vector<float>{6.5f, 7.5f}), read_sections(1, 1, 2));
    ASSERT_EQ(0, image_open(2, scratch("residual.mrc").c_str(), "new"));
    image_copy_header(2, 1);  // then the calls the program makes, in its order
    image_set_resolutions(2, 1, 1);
    image_set_extended_header_size(2, 0, 0, 0);
    image_set_zwt_sizes(2, 1, 2, 1, 0);
    const float waves[2] = {617.0f, 528.0f};
    image_set_wavelengths(2, 2, waves);
    image_set_pixel_mode(2, 4);
    const std::vector<float> values = {1, 2, 3, 4, 5, 6, 7, 8};
    for (int slot = 0; slot < 2; ++slot) {
        EXPECT_EQ(0, image_seek_section(2, 0, slot, 0));
        if (slot > 0) image_set_wavelength_min_max(2, slot, -1.0f, 2.0f);
        EXPECT_EQ(0, image_write_section(2, values.data() + 4 * slot));
    }
    image_write_header(2, nullptr, -1, 1.0f, 0.0f, -1.0f);
    image_close(2);
    image_close(1);
    EXPECT_EQ(1024u + 32u, fs::file_size(scratch("residual.mrc")));
    ASSERT_EQ(0, image_open(1, scratch("residual.mrc").c_str(), "ro"));
    EXPECT_EQ((std::vector<double>{2,     1,    2,   0,    0,   0,   4, 1,  2,  1,     0,    8000,
                                   10612, -2,   300, 2,    1,   1,   0, -1, 14, 151.5, 0.25, 0.5,
                                   0.75,  -1.5, -3,  -4.5, 617, 528, 0, 0,  0,  -1,    2}),
              header_row(1));
    EXPECT_EQ("hand made", label(1, 0));
    EXPECT_EQ(values, read_sections(1, 2, 4));
    image_close(1);
}

TEST(Mrcfile, files_it_writes_in_every_mode_it_knows_read_back_bit_for_bit) {
    ASSERT_EQ(0, python("make " + scratch("")));
    for (int mode : {0, 1, 2, 4, 6, 12}) {
        const std::string name = scratch("mode" + std::to_string(mode));
        ASSERT_EQ(0, image_open(1, (name + ".mrc").c_str(), "ro")) << mode;
        const std::vector<float> expected = load_floats(name + ".f32");
        const std::vector<float> got = read_sections(1, 3, expected.size() / 3);
        EXPECT_EQ(0, std::memcmp(expected.data(), got.data(), expected.size() * 4)) << mode;
        image_close(1);
    }
}

TEST(Mrcfile, documented_python_example_makes_a_pupil_image) {
    ASSERT_EQ(0, python("pupil " + scratch("example.mrc")));
    ASSERT_EQ(0, image_open(1, scratch("example.mrc").c_str(), "ro"));
    const std::vector<double> row = header_row(1);
    // nz nw nt interleave, type lens n1 n2, wavelength count; P1 P2; the wavelengths.
    EXPECT_EQ((std::vector<double>{2, 2, 1, 0, 8000, 10612, 0, 0, 2}),
              std::vector<double>(row.begin() + 7, row.begin() + 16));
    EXPECT_EQ((std::vector<double>{14, 151.5, 528, 617}),
              (std::vector<double>{row[20], row[21], row[28], row[29]}));
    EXPECT_FLOAT_EQ(3.0f, float(-row[25] / row[22]));  // pupil centre x = -origin x / dx
    EXPECT_FLOAT_EQ(2.5f, float(-row[26] / row[23]));
    EXPECT_EQ(0, image_seek_section(1, 0, 1, 0));
    const std::vector<float> planes = read_sections(1, 2, 7 * 6);  // z 0 and 1 of wavelength 1
    EXPECT_EQ(5.0f, planes[3 * 7 + 4]);                            // pixel (4, 3): 2x - y
    EXPECT_EQ(-0.5f, planes[42 + 3 * 7 + 4]);                      // and -x / 8
    image_close(1);
}

// ---------------------------------------------------------------------------
// Whole stacks, MRC and TIFF.

namespace {

// The stack stack_interop.py expects: 2 wavelengths of 3 planes of 4 x 5 voxels.
image_stack_header written_header() {
    image_stack_header h;
    h.nx = 5, h.ny = 4, h.nz = 3, h.nw = 2;
    h.dx_um = 0.065f, h.dy_um = 0.07f, h.dz_um = 0.15f;
    h.wavelengths_nm[0] = 520, h.wavelengths_nm[1] = 600;
    return h;
}

std::vector<float> written_voxels() {
    std::vector<float> v(5 * 4 * 3 * 2);
    for (std::size_t i = 0; i < v.size(); ++i) v[i] = float(i) * 0.5f - 3;
    return v;
}

// The header's fields in one row for one comparison.
std::vector<double> stack_row(const image_stack_header& h) {
    std::vector<double> row{double(h.nx), double(h.ny), double(h.nz), double(h.nw),
                            h.dx_um,      h.dy_um,      h.dz_um};
    row.insert(row.end(), h.wavelengths_nm, h.wavelengths_nm + 5);
    return row;
}

}  // namespace

TEST(ImageStack, written_as_mrc_and_tiff_reads_back_here_and_in_mrcfile_and_tifffile) {
    const image_stack_header h = written_header();
    const std::vector<float> v = written_voxels();
    const std::string dir = scratch("");
    for (const char* name : {"written.mrc", "written.tif"}) {
        const std::string path = dir + name;
        ASSERT_EQ(0, write_image_stack(path.c_str(), h, v)) << name;
        image_stack_header got;
        std::unique_ptr<float[]> voxels;
        ASSERT_EQ(0, read_image_stack(path.c_str(), &got, &voxels)) << name;
        image_stack_header want = h;
        if (path.ends_with(".tif")) want.wavelengths_nm[0] = want.wavelengths_nm[1] = 0;
        // The TIFF resolution is a ratio of integers: 1 / 0.065 comes back within a rounding.
        for (float* s : {&got.dx_um, &got.dy_um, &got.dz_um}) *s = float(std::round(*s * 1e6) / 1e6);
        EXPECT_EQ(stack_row(want), stack_row(got)) << name;
        EXPECT_EQ(v, std::vector<float>(voxels.get(), voxels.get() + v.size())) << name;
    }
    EXPECT_EQ(0, python("check " + dir, "stack_interop.py"));
}

TEST(ImageStack, reads_what_tifffile_and_mrcfile_write) {
    const std::string dir = scratch("made/");
    fs::create_directories(dir);
    ASSERT_EQ(0, python("make " + dir, "stack_interop.py"));
    for (const char* file :
         {"hyper.tif", "plain8.tif", "plain16.tif", "plainf.tif", "int16.mrc", "float32.mrc"}) {
        const std::string path = dir + file;
        const std::string base = path.substr(0, path.size() - 4);
        image_stack_header want;
        std::ifstream(base + ".txt") >> want.nx >> want.ny >> want.nz >> want.nw >> want.dx_um >>
            want.dy_um >> want.dz_um;
        image_stack_header got;
        std::unique_ptr<float[]> voxels;
        ASSERT_EQ(0, read_image_stack(path.c_str(), &got, &voxels)) << path;
        for (float* s : {&got.dx_um, &got.dy_um, &got.dz_um}) *s = float(std::round(*s * 1e6) / 1e6);
        EXPECT_EQ(stack_row(want), stack_row(got)) << path;
        const std::vector<float> expected = load_floats(base + ".f32");
        EXPECT_EQ(expected, std::vector<float>(voxels.get(), voxels.get() + expected.size()))
            << path;
    }
}

TEST(ImageStack, damaged_or_unfit_files_and_stacks_are_refused_with_one_message) {
    const std::string dir = scratch("damaged/");
    fs::create_directories(dir);
    const image_stack_header h = written_header();
    const std::vector<float> v = written_voxels();
    // Reading: each file cut short, a broken first directory, colour pages, a
    // complex MRC image; nothing reaches the caller's header or voxels.
    std::vector<std::pair<std::string, std::string>> cases;
    for (const char* ext : {".mrc", ".tif"}) {
        const std::string whole = dir + "whole" + ext;
        ASSERT_EQ(0, write_image_stack(whole.c_str(), h, v));
        const auto size = fs::file_size(whole);
        for (auto keep : {std::uintmax_t(3), std::uintmax_t(8), std::uintmax_t(600), size - 1}) {
            const std::string cut = dir + "cut" + std::to_string(keep) + ext;
            fs::copy_file(whole, cut);
            fs::resize_file(cut, keep);
            cases.push_back({cut, ""});
        }
    }
    Bytes broken(64, 0);
    std::memcpy(broken.data(), "II*\0\x30\0\0\0", 8);  // a directory of 0 entries
    const std::string broken_path = dir + "broken.tif";
    std::ofstream(broken_path, std::ios::binary)
        .write(reinterpret_cast<const char*>(broken.data()), std::streamsize(broken.size()));
    cases.push_back({broken_path, "TIFF"});
    ASSERT_EQ(0, python("make " + dir, "stack_interop.py"));
    cases.push_back({dir + "rgb.tif", "3 samples per pixel"});
    write_pupil(dir + "complex.mrc", 4);
    cases.push_back({dir + "complex.mrc", "complex"});
    for (const auto& [path, reason] : cases) {
        image_stack_header got;
        got.nx = -7;
        std::unique_ptr<float[]> voxels;
        expect_message([&] { EXPECT_NE(0, read_image_stack(path.c_str(), &got, &voxels)); },
                       path, reason);
        EXPECT_EQ(-7, got.nx) << path;
        EXPECT_FALSE(voxels) << path;
    }
    // Writing: a name of no stack format, too few voxels, six wavelengths.
    image_stack_header six = h;
    six.nw = 6;
    const std::string out = dir + "out.tif";
    expect_message([&] { EXPECT_NE(0, write_image_stack((dir + "out.png").c_str(), h, v)); },
                   dir + "out.png", ".mrc, .tif or .tiff");
    expect_message([&] { EXPECT_NE(0, write_image_stack(out.c_str(), h, {v.data(), 5})); }, out,
                   "5 voxels");
    expect_message([&] { EXPECT_NE(0, write_image_stack(out.c_str(), six, v)); }, out,
                   "6 wavelengths");
    EXPECT_FALSE(fs::exists(out));
}
