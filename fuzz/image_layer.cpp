// Fuzz target: the image layer opened on arbitrary bytes. A file the layer
// accepts has every section it promises read, then written back through a
// new stream with the header copied; the copy must open again and give back
// the same header values and the same pixels, bit for bit.

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <torvel/imageio.hpp>

#include "check.hpp"
#include "scratch.hpp"

namespace {

using namespace torvel;

constexpr int kIn = 1;
constexpr int kOut = 2;
// Sections of no bytes cost nothing in the file, so their number is not
// bounded by the input's size; beyond this many the copy is not attempted.
constexpr std::int64_t kMaxSections = 4096;

// Every value the layer's queries give for one stream, as raw words so that
// NaNs compare by their bits.
struct HeaderValues {
    int dims[3], second[3], mode;
    float dmin, dmax, dmean;
    int nz, nw, nt, interleave;
    int type, lens, n1, n2;
    float p1, p2, dx, dy, dz, x, y, z;
    int wave_count;
    float waves[5], wave_min[5], wave_max[5];
    int label_count;
    char labels[10][84];  // 81 used; 84 keeps the record free of padding
};

HeaderValues query(int stream) {
    HeaderValues v;
    std::memset(&v, 0, sizeof v);
    image_read_header(stream, v.dims, v.second, &v.mode, &v.dmin, &v.dmax, &v.dmean);
    image_get_zwt_sizes(stream, &v.nz, &v.nw, &v.nt, &v.interleave);
    image_get_type_info(stream, &v.type, &v.lens, &v.n1, &v.n2, &v.p1, &v.p2);
    image_get_pixel_spacing(stream, &v.dx, &v.dy, &v.dz);
    image_get_origin(stream, &v.x, &v.y, &v.z);
    image_get_wavelengths(stream, &v.wave_count, v.waves);
    for (int w = 0; w < 5; ++w)
        image_get_wavelength_min_max(stream, w, &v.wave_min[w], &v.wave_max[w]);
    v.label_count = image_get_label_count(stream);
    for (int i = 0; i < v.label_count; ++i)
        FUZZ_CHECK(image_get_label(stream, i, v.labels[i]) == 0);
    char past[81];
    FUZZ_CHECK(image_get_label(stream, v.label_count, past) != 0 && past[0] == '\0');
    return v;
}

std::size_t floats_per_section(const HeaderValues& v) {
    const bool complex = v.mode == 3 || v.mode == 4;
    return std::size_t(v.dims[0]) * std::size_t(v.dims[1]) * (complex ? 2 : 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    image_set_message_printing(0);
    const std::string in = fuzz::scratch_path("in.mrc");
    const std::string out = fuzz::scratch_path("out.mrc");
    fuzz::write_bytes(in, data, size);
    if (image_open(kIn, in.c_str(), "ro") != 0) return 0;
    const HeaderValues read = query(kIn);
    // Every section the header promises is in the file, so their pixels
    // together take no more floats than the file has bytes.
    const std::int64_t sections = read.dims[2];
    const std::size_t per_section = floats_per_section(read);
    const bool whole = sections <= kMaxSections;
    std::vector<float> pixels(whole ? per_section * std::size_t(sections) : 0);
    for (std::int64_t s = 0; s < std::min(sections, kMaxSections); ++s) {
        std::vector<float> one(per_section + 1);
        FUZZ_CHECK(image_read_section(kIn, one.data()) == 0);
        if (whole) std::copy(one.begin(), one.end() - 1, pixels.begin() + s * per_section);
    }
    FUZZ_CHECK(!whole || image_read_section(kIn, pixels.data()) != 0);  // no section past NZ
    if (!whole) {
        image_close(kIn);
        return 0;
    }

    FUZZ_CHECK(image_open(kOut, out.c_str(), "new") == 0);
    image_copy_header(kOut, kIn);
    image_close(kIn);
    const int written_mode = read.mode == 12 ? 2 : read.mode;  // half floats are read only
    image_set_pixel_mode(kOut, written_mode);
    for (std::int64_t s = 0; s < sections; ++s)
        FUZZ_CHECK(image_write_section(kOut, pixels.data() + s * per_section) == 0);
    image_close(kOut);

    FUZZ_CHECK(image_open(kIn, out.c_str(), "ro") == 0);
    HeaderValues again = query(kIn);
    again.mode = read.mode;  // compared above through written_mode
    FUZZ_CHECK(query(kIn).mode == written_mode);
    FUZZ_CHECK(std::memcmp(&again, &read, sizeof read) == 0);
    std::vector<float> back(sections > 0 ? per_section + 1 : 0);
    for (std::int64_t s = 0; s < sections; ++s) {
        FUZZ_CHECK(image_read_section(kIn, back.data()) == 0);
        FUZZ_CHECK(per_section == 0 || std::memcmp(back.data(), pixels.data() + s * per_section,
                                                   per_section * sizeof(float)) == 0);
    }
    image_close(kIn);
    return 0;
}
