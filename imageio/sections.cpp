// Sections: finding one and moving it between the file and the caller.

#include "mrc.hpp"

#include <torvel/imageio.hpp>

#include <sys/stat.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <new>

namespace torvel::mrc {

namespace {

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

}  // namespace torvel::mrc

namespace torvel {

using namespace mrc;

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

}  // namespace torvel
