#include "imageio/imageio.hpp"

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
#include <string>
#include <vector>

using namespace torvel;
namespace fs = std::filesystem;

namespace {

// One scratch directory per test process, removed when the process ends.
std::string scratch(const std::string& name) {
  struct Dir {
    fs::path path = fs::temp_directory_path() / ("torvel_imageio_" + std::to_string(getpid()));
    Dir() { fs::create_directories(path); }
    ~Dir() { std::error_code ignored; fs::remove_all(path, ignored); }
  };
  static Dir dir;
  return (dir.path / name).string();
}

using Bytes = std::vector<unsigned char>;

void put(Bytes& b, std::size_t at, std::uint32_t v, int width, bool big) {
  for (int i = 0; i < width; ++i) b[at + (big ? width - 1 - i : i)] = static_cast<unsigned char>(v >> (8 * i));
}
void put_i32(Bytes& b, std::size_t at, std::int32_t v, bool big = false) { put(b, at, std::uint32_t(v), 4, big); }
void put_i16(Bytes& b, std::size_t at, int v, bool big = false) { put(b, at, std::uint32_t(v), 2, big); }
void put_f32(Bytes& b, std::size_t at, float v, bool big = false) { put(b, at, std::bit_cast<std::uint32_t>(v), 4, big); }

// A hand-made file header, written without the layer, in either byte order;
// the pixels are appended by the caller.
Bytes hand_header(bool big, int nx, int ny, int mode, int nw, int nt, int interleave, int nz_per) {
  Bytes b(1024, 0);
  const int dims[3] = {nx, ny, nz_per * nw * nt};
  for (int i = 0; i < 3; ++i) {
    put_i32(b, 4 * i, dims[i], big);
    put_i32(b, 28 + 4 * i, i < 2 ? dims[i] : 1, big);
    put_f32(b, 40 + 4 * i, 0.25f * float(i + 1) * float(i < 2 ? dims[i] : 1), big);
    put_i32(b, 64 + 4 * i, i + 1, big);
    put_f32(b, 196 + 4 * i, -1.5f * float(i + 1), big);
  }
  put_i32(b, 12, mode, big);
  put_i32(b, 108, 20141, big);
  std::memcpy(&b[112], "TVL1", 4);
  put_i32(b, 116, 8000, big);
  put_i32(b, 120, 10612, big);
  put_i16(b, 124, -2, big);
  put_i16(b, 126, 300, big);
  put_f32(b, 128, 14.0f, big);
  put_f32(b, 132, 151.5f, big);
  put_i16(b, 136, nw, big);
  put_i16(b, 138, nt, big);
  put_i16(b, 140, interleave, big);
  for (int w = 0; w < nw; ++w) put_f32(b, 144 + 4 * w, 450.0f + 50.0f * float(w), big);
  put_f32(b, 168, 0.125f, big);  // maximum of wavelength 1
  std::memcpy(&b[208], "MAP ", 4);
  b[212] = b[213] = big ? 0x11 : 0x44;
  put_i32(b, 220, 1, big);
  std::memset(&b[224], ' ', 800);
  std::memcpy(&b[224], "hand made", 9);
  return b;
}

void save(const std::string& path, const Bytes& b) {
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(b.data()), std::streamsize(b.size()));
}

std::vector<float> load_floats(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::vector<float> v(fs::file_size(path) / 4);
  in.read(reinterpret_cast<char*>(v.data()), std::streamsize(v.size() * 4));
  return v;
}

std::vector<float> read_sections(int stream, int count, std::size_t floats_each) {
  std::vector<float> all(floats_each * std::size_t(count));
  for (int k = 0; k < count; ++k) EXPECT_EQ(0, image_read_section(stream, all.data() + floats_each * k));
  return all;
}

// The pupil function image of the round trips: 5 x 4 pixels, wavelengths 528
// and 617 nm, one complex or two real sections per wavelength. Returns the
// values written, section by section in file order.
constexpr int kNx = 5, kNy = 4;
std::vector<float> write_pupil(const std::string& path, int mode) {
  const bool complex = mode == 3 || mode == 4;
  const int nz = complex ? 1 : 2;
  const std::size_t each = kNx * kNy * (complex ? 2 : 1);
  std::vector<float> values(each * 2 * nz);
  for (std::size_t i = 0; i < values.size(); ++i) values[i] = float(i) * 0.37f - 11.0f;
  EXPECT_EQ(0, image_open(9, path.c_str(), "new"));
  image_set_dimensions(9, kNx, kNy);
  image_set_pixel_mode(9, mode);
  image_set_type_info(9, 8000, 10612, -7, 300, 14.0f, 151.5f);
  image_set_zwt_sizes(9, nz, 2, 1, 0);
  const float waves[2] = {528.0f, 617.0f};
  image_set_wavelengths(9, 2, waves);
  image_set_pixel_spacing(9, 0.0123f, 0.0457f, 0.3f);
  image_set_origin(9, -0.0615f, -0.114f, 0.5f);
  image_add_label(9, "first label");
  image_set_wavelength_min_max(9, 1, -2.5f, 9.75f);
  for (int w = 1; w >= 0; --w) {  // out of file order on purpose
    for (int z = 0; z < nz; ++z) {
      EXPECT_EQ(0, image_seek_section(9, z, w, 0));
      EXPECT_EQ(0, image_write_section(9, values.data() + each * std::size_t(z + nz * w)));
    }
  }
  image_write_header(9, "title line", 1, 1.0f, 0.0f, -1.0f);  // "not computed" statistics
  image_close(9);
  return values;
}

void expect_pupil(const std::string& path, int mode, const std::vector<float>& values) {
  ASSERT_EQ(0, image_open(1, path.c_str(), "ro"));
  const int nz = mode == 4 ? 1 : 2;
  int dims[3], second[3], got_mode, nz_got, nw, nt, il, type, lens, n1, n2, count;
  float dmin, dmax, dmean, p1, p2, dx, dy, dz, x, y, z, waves[5], wmin, wmax;
  image_read_header(1, dims, second, &got_mode, &dmin, &dmax, &dmean);
  EXPECT_EQ((std::vector<int>{kNx, kNy, 2 * nz, 0, 0, 0, mode}),
            (std::vector<int>{dims[0], dims[1], dims[2], second[0], second[1], second[2], got_mode}));
  EXPECT_EQ((std::vector<float>{1.0f, 0.0f, -1.0f}), (std::vector<float>{dmin, dmax, dmean}));
  image_get_zwt_sizes(1, &nz_got, &nw, &nt, &il);
  EXPECT_EQ((std::vector<int>{nz, 2, 1, 0}), (std::vector<int>{nz_got, nw, nt, il}));
  image_get_type_info(1, &type, &lens, &n1, &n2, &p1, &p2);
  EXPECT_EQ((std::vector<int>{8000, 10612, -7, 300}), (std::vector<int>{type, lens, n1, n2}));
  image_get_pixel_spacing(1, &dx, &dy, &dz);
  image_get_origin(1, &x, &y, &z);
  image_get_wavelengths(1, &count, waves);
  image_get_wavelength_min_max(1, 1, &wmin, &wmax);
  EXPECT_EQ((std::vector<float>{14.0f, 151.5f, 0.0123f, 0.0457f, 0.3f, -0.0615f, -0.114f, 0.5f, -2.5f, 9.75f}),
            (std::vector<float>{p1, p2, dx, dy, dz, x, y, z, wmin, wmax}));
  EXPECT_EQ(2, count);
  EXPECT_EQ((std::vector<float>{528.0f, 617.0f, 0.0f, 0.0f, 0.0f}), std::vector<float>(waves, waves + 5));
  char label[81];
  ASSERT_EQ(2, image_get_label_count(1));
  EXPECT_EQ(0, image_get_label(1, 1, label));
  EXPECT_STREQ("title line", label);
  EXPECT_EQ(0, image_seek_section(1, 0, 0, 0));
  EXPECT_EQ(values, read_sections(1, 2 * nz, values.size() / std::size_t(2 * nz)));
  image_close(1);
}

int python(const std::string& args) {
  return std::system(("/usr/bin/python3 " TORVEL_SOURCE_DIR "/tests/imageio/mrcfile_interop.py " + args).c_str());
}

void require_mrcfile() {
  ASSERT_EQ(0, std::system("/usr/bin/python3 -c 'import mrcfile'"))
      << "/usr/bin/python3 cannot import mrcfile: install Debian's python3-mrcfile";
}

}  // namespace

TEST(PupilImageRoundTrip, keeps_every_header_value_and_pixel_in_mode_2) {
  const std::string path = scratch("real.mrc");
  expect_pupil(path, 2, write_pupil(path, 2));
}

TEST(PupilImageRoundTrip, keeps_every_header_value_and_pixel_in_mode_4) {
  const std::string path = scratch("complex.mrc");
  expect_pupil(path, 4, write_pupil(path, 4));
}

TEST(HandMadeFile, delivers_mode_3_exactly_like_mode_4) {
  const std::vector<int> parts = {-32768, 32767, 0, -1, 1234, -4321, 7, 8, -9, 10, 11, -12};
  Bytes b = hand_header(false, 3, 2, 3, 1, 1, 0, 1);
  b.resize(1024 + 2 * parts.size());
  for (std::size_t i = 0; i < parts.size(); ++i) put_i16(b, 1024 + 2 * i, parts[i]);
  save(scratch("mode3.mrc"), b);
  const std::vector<float> expected(parts.begin(), parts.end());
  ASSERT_EQ(0, image_open(2, scratch("mode4.mrc").c_str(), "new"));
  image_set_dimensions(2, 3, 2);
  image_set_pixel_mode(2, 4);
  image_set_zwt_sizes(2, 1, 1, 1, 0);
  EXPECT_EQ(0, image_write_section(2, expected.data()));
  image_close(2);
  for (const char* name : {"mode3.mrc", "mode4.mrc"}) {
    ASSERT_EQ(0, image_open(1, scratch(name).c_str(), "ro")) << name;
    EXPECT_EQ(expected, read_sections(1, 1, 12)) << name;
    image_close(1);
  }
}

TEST(HandMadeFile, reads_big_endian_by_its_stamp_or_else_by_its_sizes) {
  Bytes b = hand_header(true, 3, 2, 2, 2, 1, 0, 1);
  const std::vector<float> pixels = {1.5e-3f, -2.0f, 3.25f, 1e30f, -0.1f, 6.0f, 7.0f, 8.5f, -9.0f, 10.0f, 1e-38f, 12.0f};
  b.resize(1024 + 4 * pixels.size());
  for (std::size_t i = 0; i < pixels.size(); ++i) put_f32(b, 1024 + 4 * i, pixels[i], true);
  for (int stamp : {0x11, 0x00}) {
    SCOPED_TRACE(stamp);
    b[212] = b[213] = static_cast<unsigned char>(stamp);
    save(scratch("big.mrc"), b);
    ASSERT_EQ(0, image_open(1, scratch("big.mrc").c_str(), "ro"));
    int nz, nw, nt, il, type, lens, n1, n2, count;
    float p1, p2, dx, dy, dz, waves[5], wmin, wmax;
    image_get_zwt_sizes(1, &nz, &nw, &nt, &il);
    image_get_type_info(1, &type, &lens, &n1, &n2, &p1, &p2);
    EXPECT_EQ((std::vector<int>{1, 2, 1, 0, 8000, 10612, -2, 300}), (std::vector<int>{nz, nw, nt, il, type, lens, n1, n2}));
    image_get_pixel_spacing(1, &dx, &dy, &dz);
    image_get_wavelengths(1, &count, waves);
    image_get_wavelength_min_max(1, 1, &wmin, &wmax);
    EXPECT_EQ((std::vector<float>{14.0f, 151.5f, 0.25f, 0.5f, 0.75f, 450.0f, 500.0f, 0.0f, 0.125f}),
              (std::vector<float>{p1, p2, dx, dy, dz, waves[0], waves[1], wmin, wmax}));
    EXPECT_EQ(0, image_seek_section(1, 0, 1, 0));
    const std::vector<float> second = read_sections(1, 1, 6);
    EXPECT_EQ(std::vector<float>(pixels.begin() + 6, pixels.end()), second);
    image_close(1);
  }
}

TEST(SectionAddressing, follows_each_interleave_order) {
  // nz 2, nw 3, nt 2, one pixel per section holding its section number.
  for (int order = 0; order < 3; ++order) {
    Bytes b = hand_header(false, 1, 1, 2, 3, 2, order, 2);
    b.resize(1024 + 4 * 12);
    for (int s = 0; s < 12; ++s) put_f32(b, 1024 + 4 * std::size_t(s), float(s));
    save(scratch("order.mrc"), b);
    ASSERT_EQ(0, image_open(1, scratch("order.mrc").c_str(), "ro"));
    float section = -1.0f;
    EXPECT_EQ(0, image_seek_section(1, 0, 1, 1));
    EXPECT_EQ(0, image_read_section(1, &section));
    EXPECT_EQ(float(6 + order), section) << "interleave order " << order;  // 6, 7, 8 worked out by hand
    EXPECT_EQ(0, image_seek_section(1, 1, 2, 1));
    EXPECT_EQ(0, image_read_section(1, &section));
    EXPECT_EQ(11.0f, section) << "interleave order " << order;
    image_close(1);
  }
}

TEST(SectionAddressing, refuses_seeks_outside_nz_nw_or_nt) {
  Bytes b = hand_header(false, 1, 1, 2, 3, 2, 0, 2);
  b.resize(1024 + 4 * 12);
  save(scratch("seek.mrc"), b);
  ASSERT_EQ(0, image_open(1, scratch("seek.mrc").c_str(), "ro"));
  for (const auto& [z, w, t] : std::vector<std::array<int, 3>>{{2, 0, 0}, {0, 3, 0}, {0, 0, 2}, {-1, 0, 0}, {0, -1, 0}}) {
    EXPECT_NE(0, image_seek_section(1, z, w, t)) << z << " " << w << " " << t;
  }
  EXPECT_EQ(0, image_seek_section(1, 1, 2, 1));
  image_close(1);
  EXPECT_NE(0, image_seek_section(1, 0, 0, 0));
}

TEST(OpeningRefuses, damaged_files_with_one_message_naming_the_file) {
  Bytes valid = hand_header(false, 4, 4, 2, 2, 1, 0, 1);
  valid.resize(1024 + 128);
  struct Damage {
    std::function<void(Bytes&)> apply;
    std::string reason;
  };
  const std::vector<Damage> damages = {
      {[](Bytes& b) { b.pop_back(); }, "header promises 128 bytes of sections, file holds 127"},
      {[](Bytes& b) { b.resize(1000); }, "file holds 1000 bytes, less than the 1024-byte header"},
      {[](Bytes& b) { put_i32(b, 4, -4); }, "negative size NX = 4, NY = -4, NZ = 2"},
      {[](Bytes& b) { put_i32(b, 12, 5); }, "pixel mode 5 is not supported"},
      {[](Bytes& b) { put_i16(b, 136, 6); }, "wavelength count 6 is outside 0 to 5"},
      {[](Bytes& b) { put_i16(b, 138, -1); }, "time point count -1 is negative"},
      {[](Bytes& b) { put_i16(b, 140, 3); }, "interleave order 3 is not 0, 1 or 2"},
      {[](Bytes& b) { put_i32(b, 8, 3); }, "NZ = 3 is not a multiple of 2 wavelengths times 1 time points"},
      {[](Bytes& b) { put_i32(b, 92, -4); }, "NSYMBT = -4 is negative"},
      {[](Bytes& b) { put_i32(b, 92, 200); }, "header promises 200 bytes of extended header, file holds 128"},
      {[](Bytes& b) { for (int at : {0, 4, 8}) put_i32(b, at, 2147483646); put_i32(b, 12, 4); },
       "header promises 18446744073709551615 bytes of sections, file holds 128"},
      {[](Bytes& b) { for (std::size_t i = 0; i < b.size(); ++i) b[i] = static_cast<unsigned char>(i * 151 + 7); },
       ""},  // garbage: any reason will do
  };
  const std::string path = scratch("damaged.mrc");
  for (const Damage& damage : damages) {
    Bytes b = valid;
    damage.apply(b);
    save(path, b);
    testing::internal::CaptureStderr();
    EXPECT_NE(0, image_open(1, path.c_str(), "ro"));
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(0u, err.rfind("torvel: " + path + ": ", 0)) << err;
    EXPECT_NE(std::string::npos, err.find(damage.reason)) << err;
    EXPECT_EQ(1, std::count(err.begin(), err.end(), '\n')) << err;
    image_close(1);
  }
}

TEST(OpeningRefuses, silently_when_messages_are_off) {
  const std::string missing = scratch("missing.mrc");
  image_set_message_printing(0);
  testing::internal::CaptureStderr();
  EXPECT_NE(0, image_open(1, missing.c_str(), "ro"));
  EXPECT_EQ("", testing::internal::GetCapturedStderr());
  image_set_message_printing(1);
  testing::internal::CaptureStderr();
  EXPECT_NE(0, image_open(1, missing.c_str(), "ro"));
  EXPECT_EQ(0u, testing::internal::GetCapturedStderr().rfind("torvel: " + missing + ": cannot open for reading", 0));
}

TEST(SectionRead, reports_a_file_cut_short_after_opening_and_leaves_the_buffer_alone) {
  const std::string path = scratch("cut.mrc");
  write_pupil(path, 2);
  ASSERT_EQ(0, image_open(1, path.c_str(), "ro"));
  fs::resize_file(path, 1024 + 3 * kNx * kNy * 4 + 6);
  std::vector<float> buffer(kNx * kNy, 42.0f);
  EXPECT_EQ(0, image_seek_section(1, 1, 1, 0));
  testing::internal::CaptureStderr();
  EXPECT_NE(0, image_read_section(1, buffer.data()));
  EXPECT_EQ("torvel: " + path + ": section 3: read 6 of 80 bytes\n", testing::internal::GetCapturedStderr());
  EXPECT_EQ(std::vector<float>(kNx * kNy, 42.0f), buffer);
  image_close(1);
}

TEST(NewFile, title_flags_replace_append_or_keep_the_labels) {
  ASSERT_EQ(0, image_open(3, scratch("labels.mrc").c_str(), "new"));
  for (int i = 0; i < 10; ++i) image_add_label(3, ("label " + std::to_string(i)).c_str());
  char text[81];
  image_write_header(3, "appended", 1, 0, 0, 0);  // the oldest label makes room
  EXPECT_EQ(10, image_get_label_count(3));
  EXPECT_EQ(0, image_get_label(3, 0, text));
  EXPECT_STREQ("label 1", text);
  image_write_header(3, "kept out", -1, 0, 0, 0);
  EXPECT_EQ(0, image_get_label(3, 9, text));
  EXPECT_STREQ("appended", text);
  image_write_header(3, std::string(90, 'x').c_str(), 0, 0, 0, 0);
  image_close(3);
  ASSERT_EQ(0, image_open(3, scratch("labels.mrc").c_str(), "ro"));
  EXPECT_EQ(1, image_get_label_count(3));
  EXPECT_EQ(0, image_get_label(3, 0, text));
  EXPECT_EQ(std::string(80, 'x'), text);
  EXPECT_NE(0, image_get_label(3, 1, text));
  image_close(3);
}

TEST(NewFile, closed_early_holds_its_header_and_only_the_sections_written) {
  const std::string path = scratch("early.mrc");
  ASSERT_EQ(0, image_open(2, path.c_str(), "new"));
  image_set_dimensions(2, 2, 2);
  image_set_pixel_mode(2, 4);
  image_set_zwt_sizes(2, 1, 3, 1, 0);
  const float pixels[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  EXPECT_EQ(0, image_write_section(2, pixels));
  image_close(2);  // header never written explicitly
  EXPECT_EQ(1024u + 32u, fs::file_size(path));
  const std::vector<float> words = load_floats(path);
  EXPECT_EQ((std::vector<std::int32_t>{2, 2, 3, 4}),
            (std::vector<std::int32_t>{std::bit_cast<std::int32_t>(words[0]), std::bit_cast<std::int32_t>(words[1]),
                                       std::bit_cast<std::int32_t>(words[2]), std::bit_cast<std::int32_t>(words[3])}));
  EXPECT_EQ(0, std::memcmp(&words[52], "MAP ", 4));
  EXPECT_EQ(std::vector<float>(pixels, pixels + 8), std::vector<float>(words.begin() + 256, words.end()));
}

TEST(NewFile, integer_modes_round_and_clamp_and_mode_12_is_not_written) {
  const float in[6] = {-70000.0f, -1.5f, -0.4f, 2.5f, 70000.0f, NAN};
  const std::vector<std::vector<float>> expected = {
      {-128, -2, 0, 3, 127, 0}, {-32768, -2, 0, 3, 32767, 0}, {0, 0, 0, 3, 65535, 0}};
  const int modes[3] = {0, 1, 6};
  for (int k = 0; k < 3; ++k) {
    ASSERT_EQ(0, image_open(2, scratch("int.mrc").c_str(), "new"));
    image_set_dimensions(2, 6, 1);
    image_set_pixel_mode(2, modes[k]);
    image_set_zwt_sizes(2, 1, 1, 1, 0);
    EXPECT_EQ(0, image_write_section(2, in));
    image_close(2);
    ASSERT_EQ(0, image_open(1, scratch("int.mrc").c_str(), "ro"));
    EXPECT_EQ(expected[std::size_t(k)], read_sections(1, 1, 6)) << "mode " << modes[k];
    image_close(1);
  }
  ASSERT_EQ(0, image_open(2, scratch("half.mrc").c_str(), "new"));
  image_set_dimensions(2, 6, 1);
  image_set_pixel_mode(2, 12);
  image_set_zwt_sizes(2, 1, 1, 1, 0);
  testing::internal::CaptureStderr();
  EXPECT_NE(0, image_write_section(2, in));
  EXPECT_NE("", testing::internal::GetCapturedStderr());
  image_close(2);
}

TEST(ResidualLayout, copies_the_input_header_and_overrides_only_the_layout) {
  write_pupil(scratch("input.mrc"), 2);
  ASSERT_EQ(0, image_open(1, scratch("input.mrc").c_str(), "ro"));
  ASSERT_EQ(0, image_open(2, scratch("residual.mrc").c_str(), "new"));
  image_copy_header(2, 1);
  image_set_resolutions(2, 1, 1);
  image_set_extended_header_size(2, 0, 0, 0);
  image_set_zwt_sizes(2, 1, 2, 1, 0);
  const float waves[2] = {617.0f, 528.0f};
  image_set_wavelengths(2, 2, waves);
  image_set_pixel_mode(2, 4);
  std::vector<float> values(2 * 2 * kNx * kNy);
  for (std::size_t i = 0; i < values.size(); ++i) values[i] = 0.5f * float(i);
  for (int slot = 0; slot < 2; ++slot) {
    EXPECT_EQ(0, image_seek_section(2, 0, slot, 0));
    if (slot > 0) image_set_wavelength_min_max(2, slot, -1.0f, 2.0f);
    EXPECT_EQ(0, image_write_section(2, values.data() + slot * 2 * kNx * kNy));
  }
  image_write_header(2, nullptr, -1, 1.0f, 0.0f, -1.0f);
  image_close(2);
  image_close(1);
  ASSERT_EQ(0, image_open(1, scratch("residual.mrc").c_str(), "ro"));
  int nz, nw, nt, il, type, lens, n1, n2, count;
  float p1, p2, dx, dy, dz, x, y, z, got_waves[5], wmin, wmax;
  image_get_zwt_sizes(1, &nz, &nw, &nt, &il);
  image_get_type_info(1, &type, &lens, &n1, &n2, &p1, &p2);
  EXPECT_EQ((std::vector<int>{1, 2, 1, 0, 8000, 10612, -7, 300, 2}),
            (std::vector<int>{nz, nw, nt, il, type, lens, n1, n2, image_get_label_count(1)}));
  image_get_pixel_spacing(1, &dx, &dy, &dz);
  image_get_origin(1, &x, &y, &z);
  image_get_wavelengths(1, &count, got_waves);
  image_get_wavelength_min_max(1, 1, &wmin, &wmax);
  EXPECT_EQ((std::vector<float>{0.0123f, 0.0457f, -0.0615f, -0.114f, 617.0f, 528.0f, -1.0f, 2.0f}),
            (std::vector<float>{dx, dy, x, y, got_waves[0], got_waves[1], wmin, wmax}));
  EXPECT_EQ(values, read_sections(1, 2, 2 * kNx * kNy));
  image_close(1);
}

TEST(Mrcfile, validates_and_reads_the_layers_mode_2_and_mode_4_files) {
  require_mrcfile();
  for (int mode : {2, 4}) {
    const std::string path = scratch("ours" + std::to_string(mode) + ".mrc");
    const std::vector<float> values = write_pupil(path, mode);
    ASSERT_EQ(0, python("check " + path + " " + path + ".f32")) << "mrcfile refuses " << path;
    EXPECT_EQ(values, load_floats(path + ".f32")) << "mode " << mode;
  }
}

TEST(Mrcfile, files_it_writes_in_every_mode_it_knows_read_back_alike) {
  require_mrcfile();
  const std::string dir = scratch("");
  ASSERT_EQ(0, python("make " + dir));
  for (int mode : {0, 1, 2, 4, 6, 12}) {
    const std::string path = dir + "mode" + std::to_string(mode) + ".mrc";
    ASSERT_EQ(0, image_open(1, path.c_str(), "ro")) << path;
    const std::vector<float> expected = load_floats(dir + "mode" + std::to_string(mode) + ".f32");
    const std::vector<float> got = read_sections(1, 3, expected.size() / 3);
    EXPECT_EQ(0, std::memcmp(expected.data(), got.data(), expected.size() * 4)) << "mode " << mode;
    image_close(1);
  }
}

TEST(Mrcfile, documented_python_example_makes_a_pupil_image) {
  require_mrcfile();
  const std::string path = scratch("example.mrc");
  ASSERT_EQ(0, python("pupil " + path));
  ASSERT_EQ(0, image_open(1, path.c_str(), "ro"));
  int nz, nw, nt, il, type, lens, n1, n2, count;
  float p1, p2, dx, dy, dz, x, y, z, waves[5];
  image_get_zwt_sizes(1, &nz, &nw, &nt, &il);
  image_get_type_info(1, &type, &lens, &n1, &n2, &p1, &p2);
  image_get_wavelengths(1, &count, waves);
  EXPECT_EQ((std::vector<int>{2, 2, 1, 0, 8000, 10612, 2}), (std::vector<int>{nz, nw, nt, il, type, lens, count}));
  EXPECT_EQ((std::vector<float>{14.0f, 151.5f, 528.0f, 617.0f}), (std::vector<float>{p1, p2, waves[0], waves[1]}));
  image_get_pixel_spacing(1, &dx, &dy, &dz);
  image_get_origin(1, &x, &y, &z);
  EXPECT_FLOAT_EQ(3.0f, -x / dx);
  EXPECT_FLOAT_EQ(2.5f, -y / dy);
  std::vector<float> plane(7 * 6);
  for (int zz = 0; zz < 2; ++zz) {
    EXPECT_EQ(0, image_seek_section(1, zz, 1, 0));
    EXPECT_EQ(0, image_read_section(1, plane.data()));
    EXPECT_EQ(zz == 0 ? 5.0f : -0.5f, plane[3 * 7 + 4]);  // wavelength 1 at pixel (4, 3)
  }
  image_close(1);
}
