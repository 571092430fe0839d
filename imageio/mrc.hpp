#pragma once

// The image layer's inner parts, shared by its files and by nothing outside
// imageio/: the 1024-byte header and its fields, the pixel modes, the numbered
// streams and the layer's messages.

#include <torvel/safeout.hpp>

#include <array>
#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>

namespace torvel::mrc {

// File positions go through std::fseek, whose offsets are longs.
static_assert(sizeof(long) >= 8, "section offsets need 64-bit file positions");

// ---------------------------------------------------------------------------
// Header layout. The header is kept in memory as its 1024 bytes, always in
// little-endian order: a big-endian file is converted once when it is opened.
// Keeping the bytes (rather than a struct of decoded fields) means a copied
// header carries every byte we do not interpret, unchanged.

constexpr int kHeaderBytes = 1024;
using Header = std::array<unsigned char, kHeaderBytes>;

constexpr int kNx = 0;  // NX, NY, NZ follow one another
constexpr int kMode = 12;
constexpr int kStart = 16;     // NXSTART, NYSTART, NZSTART
constexpr int kSampling = 28;  // MX, MY, MZ
constexpr int kCell = 40;      // CELLA x, y, z
constexpr int kAngles = 52;    // CELLB
constexpr int kAxes = 64;      // MAPC, MAPR, MAPS
constexpr int kDmin = 76;
constexpr int kDmax = 80;
constexpr int kDmean = 84;
constexpr int kNsymbt = 92;
constexpr int kExttyp = 104;
constexpr int kNversion = 108;
constexpr int kTag = 112;  // the multi-wavelength block runs from here to 196
constexpr int kType = 116;
constexpr int kLens = 120;
constexpr int kN1 = 124;
constexpr int kN2 = 126;
constexpr int kP1 = 128;
constexpr int kP2 = 132;
constexpr int kNw = 136;
constexpr int kNt = 138;
constexpr int kInterleave = 140;
constexpr int kWaves = 144;       // five floats
constexpr int kWaveMinMax = 164;  // (min, max) of wavelengths 1 to 4
constexpr int kBlockEnd = 196;
constexpr int kOrigin = 196;
constexpr int kMap = 208;
constexpr int kStamp = 212;
constexpr int kRms = 216;
constexpr int kNlabl = 220;
constexpr int kLabels = 224;
constexpr int kLabelBytes = 80;
constexpr int kMaxLabels = 10;
constexpr int kMaxWavelengths = 5;
constexpr int kVersion = 20141;

inline std::uint32_t load_u32(const unsigned char* p, bool big) {
    if (big) {
        return std::uint32_t(p[0]) << 24 | std::uint32_t(p[1]) << 16 | std::uint32_t(p[2]) << 8 |
               p[3];
    }
    return std::uint32_t(p[3]) << 24 | std::uint32_t(p[2]) << 16 | std::uint32_t(p[1]) << 8 | p[0];
}

inline std::uint16_t load_u16(const unsigned char* p, bool big) {
    return big ? std::uint16_t(p[0] << 8 | p[1]) : std::uint16_t(p[1] << 8 | p[0]);
}

inline void store_u32(unsigned char* p, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<unsigned char>(v >> (8 * i));
}

inline void store_u16(unsigned char* p, std::uint16_t v) {
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
}

inline std::int32_t get_i32(const Header& h, int at) {
    return static_cast<std::int32_t>(load_u32(&h[at], false));
}
inline float get_f32(const Header& h, int at) {
    return std::bit_cast<float>(load_u32(&h[at], false));
}
inline int get_i16(const Header& h, int at) {
    return static_cast<std::int16_t>(load_u16(&h[at], false));
}
inline void set_i32(Header& h, int at, std::int32_t v) {
    store_u32(&h[at], static_cast<std::uint32_t>(v));
}
inline void set_f32(Header& h, int at, float v) {
    store_u32(&h[at], std::bit_cast<std::uint32_t>(v));
}
inline void set_i16(Header& h, int at, int v) {
    store_u16(&h[at], static_cast<std::uint16_t>(v));
}
inline void set_text(Header& h, int at, const char (&text)[5]) {
    std::memcpy(&h[at], text, 4);
}

inline bool block_present(const Header& h) {
    return std::memcmp(&h[kTag], "TVL1", 4) == 0;
}

// A header without the block reads as one wavelength and one time point; the
// first setter that touches the block writes it with those values.
void ensure_block(Header& h);

int block_i16(const Header& h, int at, int absent);
int block_i32(const Header& h, int at);
float block_f32(const Header& h, int at);

struct Layout {
    int nz;  // per (wavelength, time point)
    int nw;
    int nt;
    int interleave;
};

Layout layout_of(const Header& h);

void set_little_endian_stamp(Header& h);
void big_to_little_endian(Header& h);

// ---------------------------------------------------------------------------
// Pixel modes. A mode is a kind of stored value and how many of them make one
// pixel; complex modes hold two (real, imaginary).

enum class Value { int8, int16, uint16, float16, float32 };

struct Mode {
    Value value;
    int per_pixel;
};

bool find_mode(int mode, Mode* out);
std::uint64_t value_bytes(Value v);
void decode_values(Value kind, bool big, const unsigned char* raw, std::size_t count, float* out);
void encode_values(Value kind, const float* in, std::size_t count, unsigned char* raw);

// ---------------------------------------------------------------------------
// Sizes from a file may be anything; products saturate rather than wrap so a
// huge promise compares as larger than any file.

std::uint64_t saturating_product(std::uint64_t a, std::uint64_t b);

// Bytes of one section; the header's mode must be a known one.
std::uint64_t section_bytes(const Header& h);

// ---------------------------------------------------------------------------
// Streams and messages.

struct FileCloser {
    void operator()(std::FILE* f) const noexcept { std::fclose(f); }
};

struct Stream {
    std::unique_ptr<char[]> name;
    std::unique_ptr<std::FILE, FileCloser> file;  // "ro": the file read
    safe_output output;                           // "new": the file written
    std::FILE* fp() const { return writable ? output.stream : file.get(); }
    Header header{};
    bool writable = false;      // opened "new"
    bool big_endian = false;    // byte order of the pixels on disk
    bool header_dirty = false;  // "new": memory differs from what is on disk
    bool write_failed = false;  // "new": a write failed; the file is not kept
    std::uint64_t data_offset = kHeaderBytes;
    std::uint64_t section = 0;  // current section number
};

constexpr int kStreams = 9;
extern std::array<std::unique_ptr<Stream>, kStreams + 1> g_streams;  // slot 0 unused
extern bool g_messages_on;
extern const char* g_program;

// Prints "<program>: <subject>: <reason>" as one line, unless messages are off.
[[gnu::format(printf, 2, 3)]] void report(const char* subject, const char* format, ...);

bool in_range(int stream);

// The open stream numbered `stream`, or null after a message.
Stream* find_stream(int stream);

// The open "new" stream numbered `stream`, or null after a message.
Stream* find_writable(int stream);

std::unique_ptr<Stream> make_stream(const char* name);

// Opens an existing file (header read and checked against the file's length)
// or a new one (written beside its final name) on a free stream slot; 0, or
// non-zero after one message.
int open_for_reading(int stream, const char* name);
int open_new(int stream, const char* name);

// Labels.
int label_count(const Header& h);
unsigned char* label_at(Header& h, int index);
void add_label(Header& h, const char* text);

// Spacing: float(CELLA) / float(M), in single precision.
float spacing_along(const Header& h, int axis);
void set_spacing_along(Header& h, int axis, float spacing);

// Reports a failed write of s, the first one only: the later ones of the same
// file (a full disk fails every write) add nothing to it.
void report_write_failure(Stream& s, const char* what);

bool write_header_to_file(Stream& s);

}  // namespace torvel::mrc
