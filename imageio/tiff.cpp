// Image stacks as TIFF files, through libtiff: written as ImageJ hyperstacks
// of 32-bit floats, read from ImageJ hyperstacks and plain multi-page files.

#include "stack.hpp"

#include <sys/stat.h>
#include <tiffio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <string_view>

namespace torvel::stack {
namespace {

using mrc::report;
using mrc::saturating_product;

// ---------------------------------------------------------------------------
// libtiff on a descriptor that stays ours: the library reads, writes and
// seeks through these, closes nothing and maps nothing, and its messages are
// kept (the first error) rather than printed, so that a failure is told as
// one line of this layer.

struct Handle {
    const char* name = "";  // libtiff begins many messages with it; it is said once
    int fd = -1;
    int write_errno = 0;  // errno of the first failed write
    char error[256] = {};  // libtiff's first error
};

Handle& handle_of(thandle_t h) {
    return *static_cast<Handle*>(h);
}

tmsize_t read_proc(thandle_t h, void* buffer, tmsize_t size) {
    auto* p = static_cast<char*>(buffer);
    tmsize_t done = 0;
    while (done < size) {
        const ssize_t n = ::read(handle_of(h).fd, p + done, std::size_t(size - done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += n;
    }
    return done;
}

tmsize_t write_proc(thandle_t h, void* buffer, tmsize_t size) {
    const auto* p = static_cast<const char*>(buffer);
    tmsize_t done = 0;
    while (done < size) {
        const ssize_t n = ::write(handle_of(h).fd, p + done, std::size_t(size - done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (handle_of(h).write_errno == 0) handle_of(h).write_errno = n < 0 ? errno : ENOSPC;
            return -1;
        }
        done += n;
    }
    return done;
}

toff_t seek_proc(thandle_t h, toff_t offset, int whence) {
    if (offset > toff_t(std::numeric_limits<off_t>::max())) return toff_t(-1);
    const off_t at = ::lseek(handle_of(h).fd, off_t(offset), whence);
    return at < 0 ? toff_t(-1) : toff_t(at);
}

int close_proc(thandle_t) {
    return 0;
}

toff_t size_proc(thandle_t h) {
    struct stat info {};
    return fstat(handle_of(h).fd, &info) == 0 ? toff_t(info.st_size) : 0;
}

int map_proc(thandle_t, void**, toff_t*) {
    return 0;
}

void unmap_proc(thandle_t, void*, toff_t) {}

int keep_error(TIFF*, void* user, const char*, const char* format, va_list args) {
    auto& h = *static_cast<Handle*>(user);
    if (h.error[0] != '\0') return 1;
    std::vsnprintf(h.error, sizeof h.error, format, args);
    const std::size_t n = std::strlen(h.name);
    if (std::strncmp(h.error, h.name, n) == 0 && std::strncmp(h.error + n, ": ", 2) == 0)
        std::memmove(h.error, h.error + n + 2, std::strlen(h.error + n + 2) + 1);
    return 1;
}

int drop_warning(TIFF*, void*, const char*, const char*, va_list) {
    return 1;
}

struct TiffCloser {
    void operator()(TIFF* t) const noexcept { TIFFClose(t); }
};
using Tiff = std::unique_ptr<TIFF, TiffCloser>;

// libtiff on handle's descriptor with mode ("r", "w" or "w8" for BigTIFF); a
// single allocation of libtiff's own is held to max_alloc bytes.
Tiff open_tiff(const char* name, const char* mode, Handle* handle, tmsize_t max_alloc) {
    TIFFOpenOptions* options = TIFFOpenOptionsAlloc();
    if (!options) return nullptr;
    TIFFOpenOptionsSetErrorHandlerExtR(options, keep_error, handle);
    TIFFOpenOptionsSetWarningHandlerExtR(options, drop_warning, nullptr);
    TIFFOpenOptionsSetMaxSingleMemAlloc(options, max_alloc);
    Tiff t(TIFFClientOpenExt(name, mode, handle, read_proc, write_proc, seek_proc, close_proc,
                             size_proc, map_proc, unmap_proc, options));
    TIFFOpenOptionsFree(options);
    return t;
}

// What went wrong, in libtiff's words when it said something.
const char* reason(const Handle& h, const char* otherwise) {
    if (h.write_errno != 0) return std::strerror(h.write_errno);
    return h.error[0] ? h.error : otherwise;
}

// ---------------------------------------------------------------------------
// Writing.

// The ImageJ description of the stack: ImageJ reads a hyperstack's shape,
// spacing and unit from it, and tifffile and Fiji both recognise the file by
// its first line. "1.11a" is the version that tifffile also writes.
[[gnu::format(printf, 3, 4)]] void append(char* text, std::size_t size, const char* format, ...) {
    const std::size_t used = std::strlen(text);
    va_list args;
    va_start(args, format);
    std::vsnprintf(text + used, size - used, format, args);
    va_end(args);
}

// The shortest decimal text that reads back as v ("0.15", not "0.150000006").
void shortest(float v, char (&text)[32]) {
    for (int digits = 6; digits <= 9; ++digits) {
        std::snprintf(text, sizeof text, "%.*g", digits, double(v));
        if (std::strtof(text, nullptr) == v) return;
    }
}

void imagej_description(const image_stack_header& h, std::span<const float> voxels, char* text,
                        std::size_t size) {
    text[0] = '\0';
    const auto add = [&](auto... pieces) { append(text, size, pieces...); };
    add("ImageJ=1.11a\nimages=%lld\n", (long long)h.nz * h.nw);
    if (h.nw > 1) add("channels=%d\n", h.nw);
    if (h.nz > 1) add("slices=%d\n", h.nz);
    if (h.nw > 1 && h.nz > 1) add("%s", "hyperstack=true\n");
    if (h.nw > 1) add("%s", "mode=grayscale\n");
    if (h.dx_um > 0 || h.dy_um > 0 || h.dz_um > 0) add("%s", "unit=micron\n");
    char number[32];
    if (h.dz_um > 0) {
        shortest(h.dz_um, number);
        add("spacing=%s\n", number);
    }
    add("%s", "loop=false\n");
    float lo = std::numeric_limits<float>::infinity(), hi = -lo;
    for (const float v : voxels) {
        lo = std::fmin(lo, v);
        hi = std::fmax(hi, v);
    }
    if (std::isfinite(lo) && std::isfinite(hi)) {
        shortest(lo, number);
        add("min=%s\n", number);
        shortest(hi, number);
        add("max=%s\n", number);
    }
}

bool set_page_fields(TIFF* t, const image_stack_header& h, const char* description) {
    bool ok = TIFFSetField(t, TIFFTAG_IMAGEWIDTH, std::uint32_t(h.nx)) &&
              TIFFSetField(t, TIFFTAG_IMAGELENGTH, std::uint32_t(h.ny)) &&
              TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 32) &&
              TIFFSetField(t, TIFFTAG_SAMPLEFORMAT, SAMPLEFORMAT_IEEEFP) &&
              TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, 1) &&
              TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK) &&
              TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_NONE) &&
              TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, std::uint32_t(h.ny));
    // Pixels per micrometre, the unit the description names, as ImageJ keeps
    // it; an unknown spacing has no tag.
    if (ok && h.dx_um > 0) ok = TIFFSetField(t, TIFFTAG_XRESOLUTION, 1.0 / double(h.dx_um));
    if (ok && h.dy_um > 0) ok = TIFFSetField(t, TIFFTAG_YRESOLUTION, 1.0 / double(h.dy_um));
    if (ok && (h.dx_um > 0 || h.dy_um > 0))
        ok = TIFFSetField(t, TIFFTAG_RESOLUTIONUNIT, RESUNIT_NONE);
    if (ok && description) ok = TIFFSetField(t, TIFFTAG_IMAGEDESCRIPTION, description);
    return ok;
}

// ImageJ reads a hyperstack from its first page only, taking the pixels of
// every page to follow that page's without a gap; other readers follow the
// pages. So every page's directory is written first, its strip's place left
// open, then the pixels page after page, each strip's place filled in.
bool write_pages(TIFF* t, const image_stack_header& h, std::span<const float> voxels,
                 const char* description) {
    const std::uint64_t pages = std::uint64_t(h.nz) * std::uint64_t(h.nw);
    for (std::uint64_t p = 0; p < pages; ++p) {
        if (!set_page_fields(t, h, p == 0 ? description : nullptr) ||
            !TIFFWriteCheck(t, 0, "write_image_stack") || !TIFFDeferStrileArrayWriting(t) ||
            !TIFFWriteDirectory(t))
            return false;
    }
    const std::size_t plane = std::size_t(h.nx) * std::size_t(h.ny);
    // libtiff takes the pixels as writable memory: a copy of each plane is given.
    std::unique_ptr<float[]> copy(new (std::nothrow) float[plane]);
    if (!copy) return false;
    for (std::uint64_t p = 0; p < pages; ++p) {
        // Pages run channel fastest (ImageJ's order); the voxels wavelength by wavelength.
        const std::uint64_t w = p % std::uint64_t(h.nw), z = p / std::uint64_t(h.nw);
        std::copy_n(voxels.data() + (w * std::uint64_t(h.nz) + z) * plane, plane, copy.get());
        // Directory after directory: TIFFSetDirectory(p) would walk from the first each time.
        if (!(p == 0 ? TIFFSetDirectory(t, 0) : TIFFReadDirectory(t)) ||
            TIFFWriteEncodedStrip(t, 0, copy.get(), tmsize_t(plane * sizeof(float))) < 0 ||
            !TIFFForceStrileArrayWriting(t))
            return false;
    }
    return TIFFFlush(t) != 0;
}

}  // namespace

int write_tiff(const char* name, const image_stack_header& h, std::span<const float> voxels) {
    if (std::int64_t(h.nz) * h.nw > std::int64_t(std::numeric_limits<tdir_t>::max())) {
        report(name, "%d planes of %d wavelengths: a TIFF file holds at most %u pages", h.nz,
               h.nw, unsigned(std::numeric_limits<tdir_t>::max()));
        return 1;
    }
    safe_output out;
    if (safe_output_open(name, "w+b", &out) != 0) {
        report(name, "cannot open for writing: %s", std::strerror(errno));
        return 1;
    }
    char description[512];
    imagej_description(h, voxels, description, sizeof description);
    // Classic TIFF addresses 4 GiB; a larger stack is written as BigTIFF
    // (which ImageJ itself does not open; Fiji's Bio-Formats and tifffile do).
    const std::uint64_t pages = std::uint64_t(h.nz) * std::uint64_t(h.nw);
    const bool big = voxels.size_bytes() + pages * 256 + sizeof description >= (1ull << 32);
    Handle handle;
    handle.name = name;
    handle.fd = fileno(out.stream);
    bool ok = false;
    {
        // No bound on libtiff's allocations: they follow the stack, not a file.
        Tiff t = open_tiff(name, big ? "w8" : "w", &handle, 0);
        ok = t && write_pages(t.get(), h, voxels, description);
    }  // closed here, before the file takes its name
    if (!ok) {
        report(name, "cannot write: %s", reason(handle, "libtiff could not write it"));
        return 1;
    }
    if (safe_output_commit(&out) != 0) {
        report(name, "cannot finish writing: %s", std::strerror(errno));
        return 1;
    }
    return 0;
}

namespace {

// ---------------------------------------------------------------------------
// Reading.

// What a page holds, as far as the stack cares.
struct PageFormat {
    std::uint32_t width = 0, height = 0;
    std::uint16_t bits = 0, format = SAMPLEFORMAT_UINT, samples = 1, compression = 0;
    bool tiled = false;
    bool operator==(const PageFormat&) const = default;
};

PageFormat format_of(TIFF* t) {
    PageFormat f;
    TIFFGetField(t, TIFFTAG_IMAGEWIDTH, &f.width);
    TIFFGetField(t, TIFFTAG_IMAGELENGTH, &f.height);
    TIFFGetFieldDefaulted(t, TIFFTAG_BITSPERSAMPLE, &f.bits);
    TIFFGetFieldDefaulted(t, TIFFTAG_SAMPLEFORMAT, &f.format);
    TIFFGetFieldDefaulted(t, TIFFTAG_SAMPLESPERPIXEL, &f.samples);
    TIFFGetFieldDefaulted(t, TIFFTAG_COMPRESSION, &f.compression);
    f.tiled = TIFFIsTiled(t) != 0;
    return f;
}

// How many times its stored size a page's pixels may take once decoded: the
// most each scheme reaches (Deflate about 1032, LZW about 1400, PackBits 64)
// with room to spare. It bounds what a small file can make this reader
// allocate.
std::uint64_t expansion_limit(std::uint16_t compression) {
    switch (compression) {
        case COMPRESSION_NONE:
            return 1;
        case COMPRESSION_PACKBITS:
            return 128;
        case COMPRESSION_LZW:
        case COMPRESSION_ADOBE_DEFLATE:
        case COMPRESSION_DEFLATE:
            return 4096;
        default:
            return 0;
    }
}

bool is_integer(std::uint16_t format) {
    return format == SAMPLEFORMAT_UINT || format == SAMPLEFORMAT_INT ||
           format == SAMPLEFORMAT_VOID;
}

// Whether the stack can take pages of format f; false after a message.
bool check_format(const char* name, const PageFormat& f) {
    if (f.width < 1 || f.height < 1 || f.width > std::uint32_t(std::numeric_limits<int>::max()) ||
        f.height > std::uint32_t(std::numeric_limits<int>::max())) {
        report(name, "pages of %u x %u pixels: expected 1 to %d along each side", f.width, f.height,
               std::numeric_limits<int>::max());
        return false;
    }
    if (f.samples != 1) {
        report(name, "%u samples per pixel: expected grey values, one sample per pixel",
               unsigned(f.samples));
        return false;
    }
    if (!((f.bits == 8 || f.bits == 16) && is_integer(f.format)) &&
        !(f.bits == 32 && f.format == SAMPLEFORMAT_IEEEFP)) {
        report(name, "%u-bit %s samples: expected 8- or 16-bit integers or 32-bit floats",
               unsigned(f.bits), f.format == SAMPLEFORMAT_IEEEFP ? "float" : "integer");
        return false;
    }
    if (f.tiled) {
        report(name, "pixels stored in tiles: expected strips");
        return false;
    }
    if (expansion_limit(f.compression) == 0 || !TIFFIsCODECConfigured(f.compression)) {
        report(name, "compression scheme %u: expected none, LZW, Deflate or PackBits",
               unsigned(f.compression));
        return false;
    }
    return true;
}

// The ImageJ description's fields that shape and scale a stack.
struct ImageJ {
    bool present = false;
    std::uint64_t images = 0, channels = 0, slices = 0, frames = 0;  // 0: not given
    double spacing = 0;
    double unit_um = 0;  // micrometres per unit; 0 for none or an unknown one
};

double micrometres_per(std::string_view unit) {
    if (unit == "micron" || unit == "um" || unit == "\xC2\xB5m" || unit == "\\u00B5m") return 1;
    if (unit == "nm") return 1e-3;
    if (unit == "mm") return 1e3;
    if (unit == "cm") return 1e4;
    if (unit == "m" || unit == "meter") return 1e6;
    if (unit == "inch") return 25400;
    return 0;
}

// A count of 1 to 2^31 - 1, or 0 for anything else.
std::uint64_t parse_count(std::string_view v) {
    std::uint64_t n = 0;
    if (v.empty() || v.size() > 10) return 0;
    for (const char c : v) {
        if (c < '0' || c > '9') return 0;
        n = n * 10 + std::uint64_t(c - '0');
    }
    return n <= std::uint64_t(std::numeric_limits<int>::max()) ? n : 0;
}

ImageJ parse_imagej(const char* description) {
    ImageJ ij;
    if (!description || std::strncmp(description, "ImageJ=", 7) != 0) return ij;
    ij.present = true;
    std::string_view rest(description);
    while (!rest.empty()) {
        const std::size_t end = std::min(rest.find('\n'), rest.size());
        const std::string_view line = rest.substr(0, end);
        rest.remove_prefix(std::min(end + 1, rest.size()));
        const std::size_t eq = line.find('=');
        if (eq == std::string_view::npos) continue;
        const std::string_view key = line.substr(0, eq), value = line.substr(eq + 1);
        if (key == "images") ij.images = parse_count(value);
        if (key == "channels") ij.channels = parse_count(value);
        if (key == "slices") ij.slices = parse_count(value);
        if (key == "frames") ij.frames = parse_count(value);
        if (key == "unit") ij.unit_um = micrometres_per(value);
        if (key == "spacing" && value.size() < 32) {
            char number[32] = {};
            value.copy(number, value.size());
            char* stop = nullptr;
            const double s = std::strtod(number, &stop);
            if (stop == number + value.size() && std::isfinite(s) && s > 0) ij.spacing = s;
        }
    }
    return ij;
}

// What the first page tells about the whole file.
struct FirstPage {
    PageFormat format;
    ImageJ imagej;
    float xres = 0, yres = 0;
    std::uint16_t resolution_unit = RESUNIT_INCH;
};

FirstPage read_first_page(TIFF* t) {
    FirstPage first;
    first.format = format_of(t);
    const char* description = nullptr;
    if (TIFFGetField(t, TIFFTAG_IMAGEDESCRIPTION, &description)) first.imagej = parse_imagej(description);
    TIFFGetField(t, TIFFTAG_XRESOLUTION, &first.xres);
    TIFFGetField(t, TIFFTAG_YRESOLUTION, &first.yres);
    TIFFGetFieldDefaulted(t, TIFFTAG_RESOLUTIONUNIT, &first.resolution_unit);
    return first;
}

// A length in micrometres as a spacing: 0 (unknown) unless positive and finite as a float.
float spacing_um(double length) {
    return length > 0 && length < double(std::numeric_limits<float>::max()) ? float(length) : 0.0f;
}

// The spacing, as ImageJ reads it: a unit named in the description is the
// unit of the resolution tags and of spacing=; without one, the tags' own
// unit (inch or centimetre). 72 pixels per inch is the default of programs
// that know no pixel size, not a measurement, and is taken as unknown.
void set_spacing(const FirstPage& f, image_stack_header* h) {
    double unit = f.imagej.unit_um;
    if (unit == 0 && f.resolution_unit == RESUNIT_CENTIMETER) unit = 1e4;
    if (unit == 0 && f.resolution_unit == RESUNIT_INCH && f.xres != 72.0f) unit = 25400;
    // Resolutions are pixels per unit; a NaN or 0 one gives 0 through spacing_um.
    h->dx_um = spacing_um(unit / f.xres);
    h->dy_um = spacing_um(unit / f.yres);
    h->dz_um = spacing_um(unit * f.imagej.spacing);
}

// Walks every page from the first, checking that each has the first page's
// format and that its strips lie within the file; stores the page count and
// the bytes their strips take. False after a message.
bool survey_pages(const char* name, TIFF* t, const Handle& handle, std::uint64_t file_size,
                  const PageFormat& first, std::uint64_t* pages, std::uint64_t* stored) {
    *pages = 0;
    *stored = 0;
    do {
        if (!(format_of(t) == first)) {
            report(name, "page %llu differs from page 0 in size, sample type or compression",
                   static_cast<unsigned long long>(*pages));
            return false;
        }
        // Each strip takes bytes of the file for its place and length; a
        // count beyond that is a made-up one, not walked.
        const std::uint32_t strips = TIFFNumberOfStrips(t);
        if (strips > file_size) {
            report(name, "page %llu: %u strips in a file of %llu bytes",
                   static_cast<unsigned long long>(*pages), strips,
                   static_cast<unsigned long long>(file_size));
            return false;
        }
        for (std::uint32_t s = 0; s < strips; ++s) {
            int failed = 0;
            const std::uint64_t at = TIFFGetStrileOffsetWithErr(t, s, &failed);
            const std::uint64_t bytes = TIFFGetStrileByteCountWithErr(t, s, &failed);
            if (failed || at > file_size || bytes > file_size - at) {
                report(name, "page %llu: strip %u lies beyond the file's %llu bytes",
                       static_cast<unsigned long long>(*pages), s,
                       static_cast<unsigned long long>(file_size));
                return false;
            }
            *stored += bytes;
        }
        ++*pages;
    } while (TIFFReadDirectory(t));
    if (handle.error[0]) {
        report(name, "page %llu: %s", static_cast<unsigned long long>(*pages), handle.error);
        return false;
    }
    return true;
}

// The stack's shape from the page count and, when there is one, the ImageJ
// description (pages in ImageJ's order: channel fastest, then slice, then
// frame); false after a message.
bool set_shape(const char* name, const FirstPage& f, std::uint64_t pages, image_stack_header* h) {
    h->nx = int(f.format.width);
    h->ny = int(f.format.height);
    std::uint64_t channels = 1, planes = pages;
    const ImageJ& ij = f.imagej;
    if (ij.present && (ij.channels || ij.slices || ij.frames)) {
        channels = std::max<std::uint64_t>(ij.channels, 1);
        const std::uint64_t slices = std::max<std::uint64_t>(ij.slices, 1),
                            frames = std::max<std::uint64_t>(ij.frames, 1);
        if (slices > 1 && frames > 1) {
            report(name, "%llu time points of %llu slices: expected a stack of one",
                   static_cast<unsigned long long>(frames),
                   static_cast<unsigned long long>(slices));
            return false;
        }
        planes = slices * frames;
        if (channels * planes != pages) {
            report(name, "ImageJ description promises %llu channels x %llu planes, file holds %llu pages",
                   static_cast<unsigned long long>(channels),
                   static_cast<unsigned long long>(planes),
                   static_cast<unsigned long long>(pages));
            return false;
        }
    } else if (ij.present && ij.images != 0 && ij.images != pages) {
        report(name, "ImageJ description promises %llu images, file holds %llu pages",
               static_cast<unsigned long long>(ij.images), static_cast<unsigned long long>(pages));
        return false;
    }
    if (channels > std::uint64_t(kMaxWavelengths)) {
        report(name, "%llu channels: expected 1 to %d wavelengths",
               static_cast<unsigned long long>(channels), kMaxWavelengths);
        return false;
    }
    if (planes > std::uint64_t(std::numeric_limits<int>::max())) {
        report(name, "%llu planes: expected at most %d", static_cast<unsigned long long>(planes),
               std::numeric_limits<int>::max());
        return false;
    }
    h->nw = int(channels);
    h->nz = int(planes);
    return true;
}

// Floats from a plane of samples of format f.
void convert(const PageFormat& f, const unsigned char* raw, std::size_t count, float* out) {
    const bool is_signed = f.format == SAMPLEFORMAT_INT;
    for (std::size_t i = 0; i < count; ++i) {
        if (f.bits == 8) {
            out[i] = is_signed ? float(static_cast<std::int8_t>(raw[i])) : float(raw[i]);
        } else {
            std::uint16_t v;
            std::memcpy(&v, raw + 2 * i, 2);
            out[i] = is_signed ? float(static_cast<std::int16_t>(v)) : float(v);
        }
    }
}

// Decodes the current page into `bytes` (plane_bytes of them); false after a message.
bool read_page(const char* name, TIFF* t, const Handle& handle, std::uint64_t page,
               const PageFormat& f, unsigned char* bytes, std::uint64_t plane_bytes) {
    std::uint32_t rows_per_strip = f.height;
    TIFFGetFieldDefaulted(t, TIFFTAG_ROWSPERSTRIP, &rows_per_strip);
    rows_per_strip = std::clamp<std::uint32_t>(rows_per_strip, 1, f.height);
    const std::uint64_t row_bytes = plane_bytes / f.height;
    const std::uint32_t strips = TIFFNumberOfStrips(t);
    std::uint64_t done = 0;
    for (std::uint32_t s = 0; s < strips && done < plane_bytes; ++s) {
        const std::uint64_t want =
            std::min<std::uint64_t>(std::uint64_t(rows_per_strip) * row_bytes, plane_bytes - done);
        const tmsize_t got = TIFFReadEncodedStrip(t, s, bytes + done, tmsize_t(want));
        if (got != tmsize_t(want)) {
            report(name, "page %llu, strip %u: %s", static_cast<unsigned long long>(page), s,
                   reason(handle, "fewer bytes than its rows need"));
            return false;
        }
        done += want;
    }
    if (done != plane_bytes) {
        report(name, "page %llu: its strips hold %llu of %llu bytes",
               static_cast<unsigned long long>(page), static_cast<unsigned long long>(done),
               static_cast<unsigned long long>(plane_bytes));
        return false;
    }
    return true;
}

// Reads every page into v (pages in the order set_shape took them); false after a message.
bool read_pages(const char* name, TIFF* t, const Handle& handle, const PageFormat& f,
                const image_stack_header& h, float* v) {
    const std::uint64_t plane = std::uint64_t(h.nx) * std::uint64_t(h.ny);
    const std::uint64_t plane_bytes = plane * (f.bits / 8);
    std::unique_ptr<unsigned char[]> raw;
    if (f.bits != 32) {
        raw.reset(new (std::nothrow) unsigned char[plane_bytes]);
        if (!raw) {
            report(name, "not enough memory for a page of %llu bytes",
                   static_cast<unsigned long long>(plane_bytes));
            return false;
        }
    }
    const std::uint64_t pages = std::uint64_t(h.nz) * std::uint64_t(h.nw);
    for (std::uint64_t p = 0; p < pages; ++p) {
        if ((p == 0 ? !TIFFSetDirectory(t, 0) : !TIFFReadDirectory(t)) || !(format_of(t) == f)) {
            report(name, "page %llu: %s", static_cast<unsigned long long>(p),
                   reason(handle, "changed while it was read"));
            return false;
        }
        const std::uint64_t w = p % std::uint64_t(h.nw), z = p / std::uint64_t(h.nw);
        float* out = v + (w * std::uint64_t(h.nz) + z) * plane;
        unsigned char* bytes = raw ? raw.get() : reinterpret_cast<unsigned char*>(out);
        if (!read_page(name, t, handle, p, f, bytes, plane_bytes)) return false;
        if (raw) convert(f, bytes, plane, out);
    }
    return true;
}

}  // namespace

int read_tiff(const char* name, std::FILE* file, std::uint64_t size, image_stack_header* header,
              std::unique_ptr<float[]>* voxels) {
    Handle handle;
    handle.name = name;
    handle.fd = fileno(file);
    if (::lseek(handle.fd, 0, SEEK_SET) != 0) {
        report(name, "cannot read: %s", std::strerror(errno));
        return 1;
    }
    // libtiff's own allocations (directories, strip tables, compressed
    // strips) follow what the file holds.
    const tmsize_t max_alloc = tmsize_t(4 * std::min<std::uint64_t>(size, 1ull << 40) + (16 << 20));
    Tiff t = open_tiff(name, "rm", &handle, max_alloc);
    if (!t) {
        report(name, "not a readable TIFF file: %s", reason(handle, "no image directory"));
        return 1;
    }
    const FirstPage first = read_first_page(t.get());
    if (!check_format(name, first.format)) return 1;
    std::uint64_t pages = 0, stored = 0;
    if (!survey_pages(name, t.get(), handle, size, first.format, &pages, &stored)) return 1;
    image_stack_header h;
    if (!set_shape(name, first, pages, &h)) return 1;
    // Strips of different pages may not share bytes, and no page decodes to
    // more than its scheme can make of them: so the pixels are bounded by
    // the file's length before they are allocated.
    const std::uint64_t samples = voxel_count(h);
    const std::uint64_t decoded = saturating_product(samples, first.format.bits / 8);
    if (stored > size ||
        decoded > saturating_product(stored, expansion_limit(first.format.compression))) {
        report(name, "pages promise %llu bytes of pixels, their strips hold %llu of the file's %llu",
               static_cast<unsigned long long>(decoded), static_cast<unsigned long long>(stored),
               static_cast<unsigned long long>(size));
        return 1;
    }
    set_spacing(first, &h);
    std::unique_ptr<float[]> v = allocate_voxels(name, samples);
    if (!v || !read_pages(name, t.get(), handle, first.format, h, v.get())) return 1;
    *header = h;
    *voxels = std::move(v);
    return 0;
}

}  // namespace torvel::stack
