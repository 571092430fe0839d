// Finishing a stream: writing the header of a new file, closing, discarding.

#include "mrc.hpp"

#include <torvel/imageio.hpp>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace torvel::mrc {

namespace {

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

}  // namespace

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

}  // namespace torvel::mrc

namespace torvel {

using namespace mrc;

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

void image_discard(int stream) noexcept {
    if (!in_range(stream) || !g_streams[stream]) return;
    g_streams[stream].reset();  // an uncommitted output removes its temporary file
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
