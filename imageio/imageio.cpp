#include <torvel/messages.hpp>
#include <torvel/imageio.hpp>
#include <torvel/safeout.hpp>

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <utility>

namespace torvel {
namespace {

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

// The numeric fields as (offset, count, width); everything else is text or
// unused bytes that keep their order. Used to turn a big-endian header around.
struct Field {
    int offset;
    int count;
    int width;
};
constexpr Field kPlainFields[] = {{0, 24, 4}, {kNversion, 1, 4}, {kOrigin, 3, 4}, {kRms, 2, 4}};
constexpr Field kBlockFields[] = {
    {kType, 2, 4}, {kN1, 2, 2}, {kP1, 2, 4}, {kNw, 4, 2}, {kWaves, 13, 4}};

std::uint32_t load_u32(const unsigned char* p, bool big) {
    if (big) {
        return std::uint32_t(p[0]) << 24 | std::uint32_t(p[1]) << 16 | std::uint32_t(p[2]) << 8 |
               p[3];
    }
    return std::uint32_t(p[3]) << 24 | std::uint32_t(p[2]) << 16 | std::uint32_t(p[1]) << 8 | p[0];
}

std::uint16_t load_u16(const unsigned char* p, bool big) {
    return big ? std::uint16_t(p[0] << 8 | p[1]) : std::uint16_t(p[1] << 8 | p[0]);
}

void store_u32(unsigned char* p, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<unsigned char>(v >> (8 * i));
}

void store_u16(unsigned char* p, std::uint16_t v) {
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
}

std::int32_t get_i32(const Header& h, int at) {
    return static_cast<std::int32_t>(load_u32(&h[at], false));
}
float get_f32(const Header& h, int at) {
    return std::bit_cast<float>(load_u32(&h[at], false));
}
int get_i16(const Header& h, int at) {
    return static_cast<std::int16_t>(load_u16(&h[at], false));
}
void set_i32(Header& h, int at, std::int32_t v) {
    store_u32(&h[at], static_cast<std::uint32_t>(v));
}
void set_f32(Header& h, int at, float v) {
    store_u32(&h[at], std::bit_cast<std::uint32_t>(v));
}
void set_i16(Header& h, int at, int v) {
    store_u16(&h[at], static_cast<std::uint16_t>(v));
}
void set_text(Header& h, int at, const char (&text)[5]) {
    std::memcpy(&h[at], text, 4);
}

bool block_present(const Header& h) {
    return std::memcmp(&h[kTag], "TVL1", 4) == 0;
}

// A header without the block reads as one wavelength and one time point; the
// first setter that touches the block writes it with those values.
void ensure_block(Header& h) {
    if (block_present(h)) return;
    std::memset(&h[kTag], 0, kBlockEnd - kTag);
    set_text(h, kTag, "TVL1");
    set_i16(h, kNw, 1);
    set_i16(h, kNt, 1);
}

int block_i16(const Header& h, int at, int absent) {
    return block_present(h) ? get_i16(h, at) : absent;
}
int block_i32(const Header& h, int at) {
    return block_present(h) ? get_i32(h, at) : 0;
}
float block_f32(const Header& h, int at) {
    return block_present(h) ? get_f32(h, at) : 0.0f;
}

struct Layout {
    int nz;  // per (wavelength, time point)
    int nw;
    int nt;
    int interleave;
};

Layout layout_of(const Header& h) {
    Layout l{0, block_i16(h, kNw, 1), block_i16(h, kNt, 1), block_i16(h, kInterleave, 0)};
    const int per_z = l.nw * l.nt;
    if (per_z > 0) l.nz = get_i32(h, kNx + 8) / per_z;
    return l;
}

void reverse_fields(Header& h, const Field& f) {
    for (int i = 0; i < f.count; ++i) {
        unsigned char* p = &h[f.offset + i * f.width];
        for (int a = 0, b = f.width - 1; a < b; ++a, --b) std::swap(p[a], p[b]);
    }
}

void set_little_endian_stamp(Header& h) {
    const unsigned char stamp[4] = {0x44, 0x44, 0x00, 0x00};
    std::memcpy(&h[kStamp], stamp, 4);
}

void big_to_little_endian(Header& h) {
    for (const Field& f : kPlainFields) reverse_fields(h, f);
    if (block_present(h)) {
        for (const Field& f : kBlockFields) reverse_fields(h, f);
    }
    set_little_endian_stamp(h);
}

// ---------------------------------------------------------------------------
// Pixel modes. A mode is a kind of stored value and how many of them make one
// pixel; complex modes hold two (real, imaginary).

enum class Value { int8, int16, uint16, float16, float32 };

struct Mode {
    Value value;
    int per_pixel;
};

bool find_mode(int mode, Mode* out) {
    switch (mode) {
        case 0:
            *out = {Value::int8, 1};
            return true;
        case 1:
            *out = {Value::int16, 1};
            return true;
        case 2:
            *out = {Value::float32, 1};
            return true;
        case 3:
            *out = {Value::int16, 2};
            return true;
        case 4:
            *out = {Value::float32, 2};
            return true;
        case 6:
            *out = {Value::uint16, 1};
            return true;
        case 12:
            *out = {Value::float16, 1};
            return true;
        default:
            return false;
    }
}

std::uint64_t value_bytes(Value v) {
    switch (v) {
        case Value::int8:
            return 1;
        case Value::float32:
            return 4;
        default:
            return 2;
    }
}

float half_to_float(std::uint16_t h) {
    const std::uint32_t sign = std::uint32_t(h >> 15) << 31;
    const std::uint32_t exponent = (h >> 10) & 0x1f;
    const std::uint32_t fraction = h & 0x3ff;
    if (exponent == 0) {  // zero or subnormal: fraction * 2^-24, exact in float
        const float magnitude = std::ldexp(static_cast<float>(fraction), -24);
        return sign ? -magnitude : magnitude;
    }
    if (exponent == 31) {  // infinity or NaN, payload kept
        return std::bit_cast<float>(sign | 0x7f800000u | fraction << 13);
    }
    return std::bit_cast<float>(sign | (exponent + 112) << 23 | fraction << 13);
}

void decode_values(Value kind, bool big, const unsigned char* raw, std::size_t count, float* out) {
    for (std::size_t i = 0; i < count; ++i) {
        switch (kind) {
            case Value::int8:
                out[i] = static_cast<signed char>(raw[i]);
                break;
            case Value::int16:
                out[i] = static_cast<std::int16_t>(load_u16(raw + 2 * i, big));
                break;
            case Value::uint16:
                out[i] = load_u16(raw + 2 * i, big);
                break;
            case Value::float16:
                out[i] = half_to_float(load_u16(raw + 2 * i, big));
                break;
            case Value::float32:
                out[i] = std::bit_cast<float>(load_u32(raw + 4 * i, big));
                break;
        }
    }
}

// Integer modes store the nearest value within their range; NaN has no
// nearest integer and is stored as 0.
long to_integer(float v, float lo, float hi) {
    if (std::isnan(v)) return 0;
    return std::lround(std::fmin(std::fmax(v, lo), hi));
}

void encode_values(Value kind, const float* in, std::size_t count, unsigned char* raw) {
    for (std::size_t i = 0; i < count; ++i) {
        switch (kind) {
            case Value::int8:
                raw[i] = static_cast<unsigned char>(to_integer(in[i], -128.0f, 127.0f));
                break;
            case Value::int16:
                store_u16(raw + 2 * i,
                          static_cast<std::uint16_t>(to_integer(in[i], -32768.0f, 32767.0f)));
                break;
            case Value::uint16:
                store_u16(raw + 2 * i,
                          static_cast<std::uint16_t>(to_integer(in[i], 0.0f, 65535.0f)));
                break;
            case Value::float32:
                store_u32(raw + 4 * i, std::bit_cast<std::uint32_t>(in[i]));
                break;
            case Value::float16:
                break;  // refused before encoding starts
        }
    }
}

// ---------------------------------------------------------------------------
// Sizes from a file may be anything; products saturate rather than wrap so a
// huge promise compares as larger than any file.

std::uint64_t saturating_product(std::uint64_t a, std::uint64_t b) {
    std::uint64_t p = 0;
    return __builtin_mul_overflow(a, b, &p) ? std::numeric_limits<std::uint64_t>::max() : p;
}

// Bytes of one section; the header's mode must be a known one.
std::uint64_t section_bytes(const Header& h) {
    Mode m{};
    find_mode(get_i32(h, kMode), &m);
    const std::uint64_t values =
        saturating_product(saturating_product(std::uint64_t(std::max(get_i32(h, kNx), 0)),
                                              std::uint64_t(std::max(get_i32(h, kNx + 4), 0))),
                           std::uint64_t(m.per_pixel));
    return saturating_product(values, value_bytes(m.value));
}

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
std::array<std::unique_ptr<Stream>, kStreams + 1> g_streams;  // slot 0 unused
bool g_messages_on = true;
const char* g_program = "torvel";

// Prints "<program>: <subject>: <reason>" as one line, unless messages are off.
[[gnu::format(printf, 2, 3)]] void report(const char* subject, const char* format, ...) {
    if (!g_messages_on) return;
    char reason[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(reason, sizeof reason, format, args);
    va_end(args);
    print_message("%s: %s: %s\n", g_program, subject, reason);
}

bool in_range(int stream) {
    return stream >= 1 && stream <= kStreams;
}

// The open stream numbered `stream`, or null after a message.
Stream* find_stream(int stream) {
    if (in_range(stream) && g_streams[stream]) return g_streams[stream].get();
    char subject[32];
    std::snprintf(subject, sizeof subject, "stream %d", stream);
    report(subject, "not open");
    return nullptr;
}

// The open "new" stream numbered `stream`, or null after a message.
Stream* find_writable(int stream) {
    Stream* s = find_stream(stream);
    if (s && !s->writable) {
        report(s->name.get(), "opened read only; its header cannot be changed");
        return nullptr;
    }
    return s;
}

std::unique_ptr<Stream> make_stream(const char* name) {
    std::unique_ptr<Stream> s(new (std::nothrow) Stream);
    if (!s) return s;
    const std::size_t length = std::strlen(name);
    s->name.reset(new (std::nothrow) char[length + 1]);
    if (!s->name) return nullptr;
    std::memcpy(s->name.get(), name, length + 1);
    return s;
}

// ---------------------------------------------------------------------------
// Opening an existing file.

bool plausible_as(const Header& raw, bool big) {
    Mode m{};
    const auto word = [&](int at) { return static_cast<std::int32_t>(load_u32(&raw[at], big)); };
    return find_mode(word(kMode), &m) && word(kNx) > 0 && word(kNx + 4) > 0 && word(kNx + 8) > 0;
}

// MACHST decides; a file without a known stamp is read in the order that makes
// its mode and sizes sensible, little-endian when neither or both do.
bool is_big_endian(const Header& raw) {
    const unsigned char* stamp = &raw[kStamp];
    if (stamp[0] == 0x44 && (stamp[1] == 0x44 || stamp[1] == 0x41)) return false;
    if (stamp[0] == 0x11 && stamp[1] == 0x11) return true;
    return !plausible_as(raw, false) && plausible_as(raw, true);
}

bool check_block(const char* name, const Header& h) {
    if (!block_present(h)) return true;
    const Layout l = layout_of(h);
    if (l.nw < 0 || l.nw > kMaxWavelengths) {
        report(name, "wavelength count %d is outside 0 to %d", l.nw, kMaxWavelengths);
        return false;
    }
    if (l.nt < 0) {
        report(name, "time point count %d is negative", l.nt);
        return false;
    }
    if (l.interleave < 0 || l.interleave > 2) {
        report(name, "interleave order %d is not 0, 1 or 2", l.interleave);
        return false;
    }
    const int per_z = l.nw * l.nt;
    if (per_z > 0 && get_i32(h, kNx + 8) % per_z != 0) {
        report(name, "NZ = %d is not a multiple of %d wavelengths times %d time points",
               get_i32(h, kNx + 8), l.nw, l.nt);
        return false;
    }
    return true;
}

// Checks a header (already little-endian) against a file of file_size bytes.
bool check_header(const char* name, const Header& h, std::uint64_t file_size) {
    const std::int32_t nx = get_i32(h, kNx), ny = get_i32(h, kNx + 4), nz = get_i32(h, kNx + 8);
    if (nx < 0 || ny < 0 || nz < 0) {
        report(name, "negative size NX = %d, NY = %d, NZ = %d", nx, ny, nz);
        return false;
    }
    Mode m{};
    if (!find_mode(get_i32(h, kMode), &m)) {
        report(name, "pixel mode %d is not supported", get_i32(h, kMode));
        return false;
    }
    if (!check_block(name, h)) return false;
    const std::int32_t nsymbt = get_i32(h, kNsymbt);
    if (nsymbt < 0) {
        report(name, "extended header size NSYMBT = %d is negative", nsymbt);
        return false;
    }
    const std::uint64_t after_header = file_size - kHeaderBytes;
    if (std::uint64_t(nsymbt) > after_header) {
        report(name, "header promises %d bytes of extended header, file holds %llu", nsymbt,
               static_cast<unsigned long long>(after_header));
        return false;
    }
    const std::uint64_t promised = saturating_product(section_bytes(h), std::uint64_t(nz));
    const std::uint64_t held = after_header - std::uint64_t(nsymbt);
    if (promised > held) {
        report(name, "header promises %llu bytes of sections, file holds %llu",
               static_cast<unsigned long long>(promised), static_cast<unsigned long long>(held));
        return false;
    }
    return true;
}

// A stream on name opened with fopen mode ("rb" or "wb"), or null after one
// message saying what failed; purpose ("reading", "writing") names the use.
std::unique_ptr<Stream> open_stream(const char* name, const char* mode, const char* purpose) {
    std::unique_ptr<Stream> s = make_stream(name);
    if (!s) {
        report(name, "not enough memory to open");
        return nullptr;
    }
    s->file.reset(std::fopen(name, mode));
    if (!s->file) {
        report(name, "cannot open for %s: %s", purpose, std::strerror(errno));
        return nullptr;
    }
    return s;
}

int open_for_reading(int stream, const char* name) {
    std::unique_ptr<Stream> s = open_stream(name, "rb", "reading");
    if (!s) return 1;
    struct stat info {};
    if (fstat(fileno(s->file.get()), &info) != 0 || !S_ISREG(info.st_mode)) {
        report(name, "not a regular file");
        return 1;
    }
    const std::uint64_t size = static_cast<std::uint64_t>(info.st_size);
    if (size < kHeaderBytes) {
        report(name, "file holds %llu bytes, less than the %d-byte header",
               static_cast<unsigned long long>(size), kHeaderBytes);
        return 1;
    }
    if (std::fread(s->header.data(), 1, kHeaderBytes, s->file.get()) != kHeaderBytes) {
        report(name, "cannot read the header");
        return 1;
    }
    s->big_endian = is_big_endian(s->header);
    if (s->big_endian) big_to_little_endian(s->header);
    if (!check_header(name, s->header, size)) return 1;
    s->data_offset = kHeaderBytes + std::uint64_t(get_i32(s->header, kNsymbt));
    g_streams[stream] = std::move(s);
    return 0;
}

// ---------------------------------------------------------------------------
// New files.

void fill_default_header(Header& h) {
    h.fill(0);
    set_i32(h, kMode, 2);
    for (int axis = 0; axis < 3; ++axis) {
        set_i32(h, kSampling + 4 * axis, 1);
        set_f32(h, kCell + 4 * axis, 1.0f);
        set_f32(h, kAngles + 4 * axis, 90.0f);
        set_i32(h, kAxes + 4 * axis, axis + 1);
    }
    set_text(h, kExttyp, "    ");
    set_i32(h, kNversion, kVersion);
    ensure_block(h);
    set_text(h, kMap, "MAP ");
    set_little_endian_stamp(h);
    set_f32(h, kRms, -1.0f);
    std::memset(&h[kLabels], ' ', kMaxLabels * kLabelBytes);
}

// A new image is written beside its final name and takes that name when it
// is closed, so that what was there before survives a run that dies.
int open_new(int stream, const char* name) {
    std::unique_ptr<Stream> s = make_stream(name);
    if (!s) {
        report(name, "not enough memory to open");
        return 1;
    }
    if (safe_output_open(name, "w+b", &s->output) != 0) {
        report(name, "cannot open for writing: %s", std::strerror(errno));
        return 1;
    }
    s->writable = true;
    s->header_dirty = true;
    fill_default_header(s->header);
    g_streams[stream] = std::move(s);
    return 0;
}

// ---------------------------------------------------------------------------
// Labels.

int label_count(const Header& h) {
    return std::clamp(get_i32(h, kNlabl), 0, kMaxLabels);
}

unsigned char* label_at(Header& h, int index) {
    return &h[kLabels + index * kLabelBytes];
}

void add_label(Header& h, const char* text) {
    int n = label_count(h);
    if (n == kMaxLabels) {  // the oldest label makes room
        std::memmove(label_at(h, 0), label_at(h, 1), (kMaxLabels - 1) * kLabelBytes);
        n = kMaxLabels - 1;
    }
    unsigned char* label = label_at(h, n);
    std::memset(label, ' ', kLabelBytes);
    std::memcpy(label, text, strnlen(text, kLabelBytes));
    set_i32(h, kNlabl, n + 1);
}

// ---------------------------------------------------------------------------
// Spacing: float(CELLA) / float(M), in single precision.

float spacing_along(const Header& h, int axis) {
    const std::int32_t m = get_i32(h, kSampling + 4 * axis);
    return m > 0 ? get_f32(h, kCell + 4 * axis) / static_cast<float>(m) : 0.0f;
}

// The cell length for a spacing: one rounding of spacing * m. The format
// stores a cell, not a spacing, so some spacings cannot come back exactly
// (0.03 with m = 5); a search over many m and spacings found no case where
// another cell length would have come back when this one does not.
float cell_for_spacing(float spacing, std::int32_t m) {
    return spacing * static_cast<float>(m);
}

void set_spacing_along(Header& h, int axis, float spacing) {
    const int at = kSampling + 4 * axis;
    if (get_i32(h, at) <= 0) {
        const std::int32_t n = axis < 2 ? get_i32(h, kNx + 4 * axis) : 0;
        set_i32(h, at, n > 0 ? n : 1);
    }
    set_f32(h, kCell + 4 * axis, cell_for_spacing(spacing, get_i32(h, at)));
}

// ---------------------------------------------------------------------------
// Writing the header of a new file.

// The fields that make the bytes a valid file of this layer, whatever was
// copied or set before.
void prepare_for_writing(Header& h) {
    ensure_block(h);
    set_text(h, kMap, "MAP ");
    set_little_endian_stamp(h);
    set_i32(h, kNversion, kVersion);
    set_f32(h, kRms, -1.0f);
    if (get_i32(h, kNsymbt) == 0) set_text(h, kExttyp, "    ");
    const int n = label_count(h);
    set_i32(h, kNlabl, n);
    std::memset(label_at(h, n), ' ', (kMaxLabels - n) * kLabelBytes);
}

// Reports a failed write of s, the first one only: the later ones of the same
// file (a full disk fails every write) add nothing to it.
void report_write_failure(Stream& s, const char* what) {
    if (!s.write_failed) report(s.name.get(), "cannot write %s: %s", what, std::strerror(errno));
    s.write_failed = true;
}

bool write_header_to_file(Stream& s) {
    prepare_for_writing(s.header);
    std::FILE* f = s.fp();
    if (std::fseek(f, 0, SEEK_SET) != 0 ||
        std::fwrite(s.header.data(), 1, kHeaderBytes, f) != kHeaderBytes || std::fflush(f) != 0) {
        report_write_failure(s, "the header");
        return false;
    }
    s.header_dirty = false;
    return true;
}

// ---------------------------------------------------------------------------
// Sections.

// The current section's place in the file and a buffer for its raw bytes.
struct SectionBytes {
    std::uint64_t count = 0;
    std::uint64_t offset = 0;
    bool direct = false;
    std::unique_ptr<unsigned char[]> raw;
};

// Whether the file reaches to byte end. A read from a file cut short after it
// was opened goes through a buffer of its own, so that the caller's is left
// as it was when the read fails.
bool file_holds(std::FILE* file, std::uint64_t end) {
    struct stat st;
    return fstat(fileno(file), &st) == 0 && std::uint64_t(st.st_size) >= end;
}

// Prepares the transfer of the current section; false after a message when
// there is no such section or no memory for its bytes. Float pixels already
// in the machine's byte order need no conversion: they are moved between the
// file and the caller's buffer directly (direct set, no raw buffer), which
// spares a copy of the section and the memory for it.
bool prepare_section(const Stream& s, Value kind, bool big, SectionBytes* io) {
    const std::int32_t nz = get_i32(s.header, kNx + 8);
    if (s.section >= std::uint64_t(std::max(nz, 0))) {
        report(s.name.get(), "no section %llu: the image has %d",
               static_cast<unsigned long long>(s.section), nz);
        return false;
    }
    io->count = section_bytes(s.header);
    io->offset = s.data_offset + s.section * io->count;
    io->direct = kind == Value::float32 && big == (std::endian::native == std::endian::big) &&
                 io->count > 0 && (s.writable || file_holds(s.fp(), io->offset + io->count));
    if (io->direct) return true;
    io->raw.reset(new (std::nothrow) unsigned char[io->count]);
    if (!io->raw) {
        report(s.name.get(), "not enough memory for a section of %llu bytes",
               static_cast<unsigned long long>(io->count));
        return false;
    }
    return true;
}

}  // namespace

// ---------------------------------------------------------------------------

int image_open(int stream, const char* name, const char* access) noexcept {
    if (!name) name = "(no name)";
    if (!in_range(stream)) {
        report(name, "stream %d is outside 1 to %d", stream, kStreams);
        return 1;
    }
    if (g_streams[stream]) {
        report(name, "stream %d is already open on %s", stream, g_streams[stream]->name.get());
        return 1;
    }
    if (access && std::strcmp(access, "ro") == 0) return open_for_reading(stream, name);
    if (access && std::strcmp(access, "new") == 0) return open_new(stream, name);
    report(name, "access \"%s\" is neither \"ro\" nor \"new\"", access ? access : "");
    return 1;
}

int image_close(int stream) noexcept {
    if (!in_range(stream) || !g_streams[stream]) return 0;
    Stream& s = *g_streams[stream];
    if (s.writable && s.header_dirty && !s.write_failed) write_header_to_file(s);
    if (s.writable && s.write_failed) {
        // A file some of whose writes failed is not passed off as complete:
        // it is discarded, and what was at its name before stays.
        g_streams[stream].reset();
        return 1;
    }
    int status = 0;
    if (s.writable ? safe_output_commit(&s.output) != 0 : std::fclose(s.file.release()) != 0) {
        report(s.name.get(), "cannot finish writing: %s", std::strerror(errno));
        status = s.writable ? 1 : 0;
    }
    g_streams[stream].reset();
    return status;
}

void image_set_program_name(const char* name) noexcept {
    if (name != nullptr) g_program = name;
}

void image_discard(int stream) noexcept {
    if (!in_range(stream) || !g_streams[stream]) return;
    g_streams[stream].reset();  // an uncommitted output removes its temporary file
}

void image_set_message_printing(int on) noexcept {
    g_messages_on = on != 0;
}

void image_read_header(int stream, int dims[3], int second[3], int* mode, float* dmin, float* dmax,
                       float* dmean) noexcept {
    const Stream* s = find_stream(stream);
    for (int i = 0; i < 3; ++i) {
        dims[i] = s ? get_i32(s->header, kNx + 4 * i) : 0;
        second[i] = s ? get_i32(s->header, kStart + 4 * i) : 0;
    }
    *mode = s ? get_i32(s->header, kMode) : 0;
    *dmin = s ? get_f32(s->header, kDmin) : 0.0f;
    *dmax = s ? get_f32(s->header, kDmax) : 0.0f;
    *dmean = s ? get_f32(s->header, kDmean) : 0.0f;
}

void image_get_zwt_sizes(int stream, int* nz, int* nw, int* nt, int* interleave) noexcept {
    const Stream* s = find_stream(stream);
    const Layout l = s ? layout_of(s->header) : Layout{0, 0, 0, 0};
    *nz = l.nz;
    *nw = l.nw;
    *nt = l.nt;
    *interleave = l.interleave;
}

void image_get_type_info(int stream, int* type, int* lens, int* n1, int* n2, float* p1,
                         float* p2) noexcept {
    const Stream* s = find_stream(stream);
    Header none{};
    const Header& h = s ? s->header : none;
    *type = block_i32(h, kType);
    *lens = block_i32(h, kLens);
    *n1 = block_i16(h, kN1, 0);
    *n2 = block_i16(h, kN2, 0);
    *p1 = block_f32(h, kP1);
    *p2 = block_f32(h, kP2);
}

void image_get_pixel_spacing(int stream, float* dx, float* dy, float* dz) noexcept {
    const Stream* s = find_stream(stream);
    *dx = s ? spacing_along(s->header, 0) : 0.0f;
    *dy = s ? spacing_along(s->header, 1) : 0.0f;
    *dz = s ? spacing_along(s->header, 2) : 0.0f;
}

void image_get_origin(int stream, float* x, float* y, float* z) noexcept {
    const Stream* s = find_stream(stream);
    *x = s ? get_f32(s->header, kOrigin) : 0.0f;
    *y = s ? get_f32(s->header, kOrigin + 4) : 0.0f;
    *z = s ? get_f32(s->header, kOrigin + 8) : 0.0f;
}

void image_get_wavelengths(int stream, int* count, float waves[5]) noexcept {
    const Stream* s = find_stream(stream);
    *count = s ? layout_of(s->header).nw : 0;
    for (int i = 0; i < kMaxWavelengths; ++i)
        waves[i] = s ? block_f32(s->header, kWaves + 4 * i) : 0.0f;
}

void image_get_wavelength_min_max(int stream, int w, float* wmin, float* wmax) noexcept {
    const Stream* s = find_stream(stream);
    *wmin = *wmax = 0.0f;
    if (!s || w < 0 || w >= kMaxWavelengths) return;
    if (w == 0) {
        *wmin = get_f32(s->header, kDmin);
        *wmax = get_f32(s->header, kDmax);
    } else {
        *wmin = block_f32(s->header, kWaveMinMax + 8 * (w - 1));
        *wmax = block_f32(s->header, kWaveMinMax + 8 * (w - 1) + 4);
    }
}

int image_get_label_count(int stream) noexcept {
    const Stream* s = find_stream(stream);
    return s ? label_count(s->header) : 0;
}

int image_get_label(int stream, int index, char text[81]) noexcept {
    text[0] = '\0';
    Stream* s = find_stream(stream);
    if (!s || index < 0 || index >= label_count(s->header)) return 1;
    const char* label = reinterpret_cast<const char*>(label_at(s->header, index));
    std::size_t length = strnlen(label, kLabelBytes);
    while (length > 0 && label[length - 1] == ' ') --length;
    std::memcpy(text, label, length);
    text[length] = '\0';
    return 0;
}

int image_seek_section(int stream, int z, int w, int t) noexcept {
    Stream* s = find_stream(stream);
    if (!s) return 1;
    const Layout l = layout_of(s->header);
    if (z < 0 || z >= l.nz || w < 0 || w >= l.nw || t < 0 || t >= l.nt) return 1;
    const std::uint64_t nz = std::uint64_t(l.nz), nw = std::uint64_t(l.nw),
                        nt = std::uint64_t(l.nt);
    const std::uint64_t uz = std::uint64_t(z), uw = std::uint64_t(w), ut = std::uint64_t(t);
    switch (l.interleave) {
        case 0:
            s->section = uz + nz * (ut + nt * uw);
            break;
        case 1:
            s->section = uw + nw * (uz + nz * ut);
            break;
        default:
            s->section = uz + nz * (uw + nw * ut);
            break;
    }
    return 0;
}

int image_read_section(int stream, float* buffer) noexcept {
    Stream* s = find_stream(stream);
    if (!s) return 1;
    if (s->writable) {
        report(s->name.get(), "opened for writing; sections cannot be read back");
        return 1;
    }
    Mode m{};
    find_mode(get_i32(s->header, kMode), &m);
    SectionBytes io;
    if (!prepare_section(*s, m.value, s->big_endian, &io)) return 1;
    unsigned char* bytes = io.direct ? reinterpret_cast<unsigned char*>(buffer) : io.raw.get();
    const std::size_t got = std::fseek(s->fp(), static_cast<long>(io.offset), SEEK_SET) == 0
                                ? std::fread(bytes, 1, io.count, s->fp())
                                : 0;
    if (got != io.count) {
        report(s->name.get(), "section %llu: read %zu of %llu bytes",
               static_cast<unsigned long long>(s->section), got,
               static_cast<unsigned long long>(io.count));
        return 1;
    }
    if (!io.direct)
        decode_values(m.value, s->big_endian, bytes, io.count / value_bytes(m.value), buffer);
    ++s->section;
    return 0;
}

int image_write_section(int stream, const float* buffer) noexcept {
    Stream* s = find_writable(stream);
    if (!s) return 1;
    Mode m{};
    find_mode(get_i32(s->header, kMode), &m);
    if (m.value == Value::float16) {
        report(s->name.get(), "pixel mode 12 cannot be written");
        return 1;
    }
    SectionBytes io;
    if (!prepare_section(*s, m.value, false, &io)) return 1;
    const unsigned char* bytes =
        io.direct ? reinterpret_cast<const unsigned char*>(buffer) : io.raw.get();
    if (!io.direct) encode_values(m.value, buffer, io.count / value_bytes(m.value), io.raw.get());
    if (std::fseek(s->fp(), static_cast<long>(io.offset), SEEK_SET) != 0 ||
        std::fwrite(bytes, 1, io.count, s->fp()) != io.count) {
        char what[32];
        std::snprintf(what, sizeof what, "section %llu",
                      static_cast<unsigned long long>(s->section));
        report_write_failure(*s, what);
        return 1;
    }
    ++s->section;
    return 0;
}

void image_copy_header(int stream, int source) noexcept {
    Stream* to = find_writable(stream);
    const Stream* from = find_stream(source);
    if (!to || !from || to == from) return;
    to->header = from->header;
    set_i32(to->header, kNsymbt, 0);
    set_text(to->header, kExttyp, "    ");
    to->header_dirty = true;
}

void image_set_resolutions(int stream, int a, int b) noexcept {
    Stream* s = find_writable(stream);
    if (s && a != 1)
        report(s->name.get(), "%d resolution levels (factor %d) asked for; files hold one", a, b);
}

void image_set_extended_header_size(int stream, int a, int b, int c) noexcept {
    Stream* s = find_writable(stream);
    if (!s) return;
    if (a != 0 || b != 0 || c != 0) {
        report(s->name.get(),
               "extended header of %d integers and %d floats for %d sections asked for; only none "
               "is supported",
               a, b, c);
        return;
    }
    set_i32(s->header, kNsymbt, 0);
    set_text(s->header, kExttyp, "    ");
    s->header_dirty = true;
}

void image_set_zwt_sizes(int stream, int nz, int nw, int nt, int interleave) noexcept {
    Stream* s = find_writable(stream);
    if (!s) return;
    const std::int64_t total = std::int64_t(nz) * nw * nt;
    if (nz < 0 || nw < 0 || nw > kMaxWavelengths || nt < 0 ||
        nt > std::numeric_limits<std::int16_t>::max() || interleave < 0 || interleave > 2 ||
        total > std::numeric_limits<std::int32_t>::max()) {
        report(s->name.get(), "invalid layout nz = %d, nw = %d, nt = %d, interleave order %d", nz,
               nw, nt, interleave);
        return;
    }
    ensure_block(s->header);
    set_i32(s->header, kNx + 8, static_cast<std::int32_t>(total));
    set_i16(s->header, kNw, nw);
    set_i16(s->header, kNt, nt);
    set_i16(s->header, kInterleave, interleave);
    s->header_dirty = true;
}

void image_set_wavelengths(int stream, int count, const float* waves) noexcept {
    Stream* s = find_writable(stream);
    if (!s) return;
    if (count < 0 || count > kMaxWavelengths || (count > 0 && !waves)) {
        report(s->name.get(), "%d wavelengths given; 0 to %d fit", count, kMaxWavelengths);
        return;
    }
    ensure_block(s->header);
    for (int i = 0; i < kMaxWavelengths; ++i)
        set_f32(s->header, kWaves + 4 * i, i < count ? waves[i] : 0.0f);
    s->header_dirty = true;
}

void image_set_pixel_mode(int stream, int mode) noexcept {
    Stream* s = find_writable(stream);
    if (!s) return;
    Mode m{};
    if (!find_mode(mode, &m)) {
        report(s->name.get(), "pixel mode %d is not supported", mode);
        return;
    }
    set_i32(s->header, kMode, mode);
    s->header_dirty = true;
}

void image_set_wavelength_min_max(int stream, int w, float wmin, float wmax) noexcept {
    Stream* s = find_writable(stream);
    if (!s) return;
    if (w < 0 || w >= kMaxWavelengths) {
        report(s->name.get(), "wavelength %d is outside 0 to %d", w, kMaxWavelengths - 1);
        return;
    }
    const int at = w == 0 ? kDmin : kWaveMinMax + 8 * (w - 1);
    ensure_block(s->header);
    set_f32(s->header, at, wmin);
    set_f32(s->header, w == 0 ? kDmax : at + 4, wmax);
    s->header_dirty = true;
}

void image_set_dimensions(int stream, int nx, int ny) noexcept {
    Stream* s = find_writable(stream);
    if (!s) return;
    if (nx < 0 || ny < 0) {
        report(s->name.get(), "negative size %d x %d", nx, ny);
        return;
    }
    const int sizes[2] = {nx, ny};
    for (int axis = 0; axis < 2; ++axis) {
        const float spacing = spacing_along(s->header, axis);
        set_i32(s->header, kNx + 4 * axis, sizes[axis]);
        if (sizes[axis] > 0) {
            set_i32(s->header, kSampling + 4 * axis, sizes[axis]);
            set_spacing_along(s->header, axis, spacing);
        }
    }
    s->header_dirty = true;
}

void image_set_type_info(int stream, int type, int lens, int n1, int n2, float p1,
                         float p2) noexcept {
    Stream* s = find_writable(stream);
    if (!s) return;
    constexpr int lo = std::numeric_limits<std::int16_t>::min(),
                  hi = std::numeric_limits<std::int16_t>::max();
    if (n1 < lo || n1 > hi || n2 < lo || n2 > hi) {
        report(s->name.get(), "type integers %d and %d do not fit in 16 bits", n1, n2);
        return;
    }
    ensure_block(s->header);
    set_i32(s->header, kType, type);
    set_i32(s->header, kLens, lens);
    set_i16(s->header, kN1, n1);
    set_i16(s->header, kN2, n2);
    set_f32(s->header, kP1, p1);
    set_f32(s->header, kP2, p2);
    s->header_dirty = true;
}

void image_set_pixel_spacing(int stream, float dx, float dy, float dz) noexcept {
    Stream* s = find_writable(stream);
    if (!s) return;
    set_spacing_along(s->header, 0, dx);
    set_spacing_along(s->header, 1, dy);
    set_spacing_along(s->header, 2, dz);
    s->header_dirty = true;
}

void image_set_origin(int stream, float x, float y, float z) noexcept {
    Stream* s = find_writable(stream);
    if (!s) return;
    set_f32(s->header, kOrigin, x);
    set_f32(s->header, kOrigin + 4, y);
    set_f32(s->header, kOrigin + 8, z);
    s->header_dirty = true;
}

void image_add_label(int stream, const char* text) noexcept {
    Stream* s = find_writable(stream);
    if (!s || !text) return;
    add_label(s->header, text);
    s->header_dirty = true;
}

void image_write_header(int stream, const char* title, int title_flag, float dmin, float dmax,
                        float dmean) noexcept {
    Stream* s = find_writable(stream);
    if (!s) return;
    if (title_flag < -1 || title_flag > 1) {
        report(s->name.get(), "title flag %d is not -1, 0 or 1", title_flag);
        return;
    }
    set_f32(s->header, kDmin, dmin);
    set_f32(s->header, kDmax, dmax);
    set_f32(s->header, kDmean, dmean);
    if (title && title_flag == 0) set_i32(s->header, kNlabl, 0);
    if (title && title_flag >= 0) add_label(s->header, title);
    write_header_to_file(*s);
}

}  // namespace torvel
