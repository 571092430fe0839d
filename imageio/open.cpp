// Opening a stream: an existing file, checked against its length, or a new one.

#include "mrc.hpp"

#include <torvel/imageio.hpp>

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace torvel::mrc {

namespace {

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

}  // namespace

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

}  // namespace torvel::mrc

namespace torvel {

using namespace mrc;

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

}  // namespace torvel
