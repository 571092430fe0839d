// The parametric pupil text file: a writer and a line-oriented reader that
// reports every failure as an error code with its line and column. The file
// is read through C stdio so that numbers parse exactly as sscanf reads them
// and are written exactly as printf formats them.

#include <torvel/pupil.hpp>
#include <torvel/safeout.hpp>

#include <torvel/zernike.hpp>

#include <algorithm>
#include <cstring>
#include <new>

#include <sys/stat.h>

namespace torvel {
namespace {

constexpr char kMagic[] = "#parametric_pupil_format";
constexpr std::int32_t kMagicLength = 24;
constexpr std::int32_t kInitialLineSize = 256;
constexpr std::int32_t kLineGrowth = 256;
// Beyond this size one more growth step would not fit in 32 bits.
constexpr std::int32_t kMaxLineSizeBeforeGrowth = 0x7FFFFEFF;

constexpr std::int32_t kErrorOpen = 1;
constexpr std::int32_t kErrorClose = 2;
constexpr std::int32_t kErrorNotPupilFile = 10;
constexpr std::int32_t kErrorVersion = 11;
constexpr std::int32_t kErrorSyntax = 12;
constexpr std::int32_t kErrorValue = 13;
constexpr std::int32_t kErrorMemory = 20;

bool is_valid_zernike_set(std::int32_t n, std::int32_t m) {
    return m >= 0 && m <= n && (n - m) % 2 == 0;
}

// A Zernike term lies inside a set of `count` terms exactly when its last
// slot does, since the terms of a set fill slots 0 .. count-1 in order. The
// order bound keeps the term arithmetic within int.
bool zernike_term_inside(std::int32_t n, std::int32_t m, std::int32_t count) {
    return n >= 0 && n <= kMaxZernikeOrder && is_valid_zernike_set(n, m) &&
           zernike_term_count(n, m) <= count;
}

// Lowest radial order whose full set holds at least count terms.
std::int32_t zernike_top_order(std::int32_t count) {
    std::int32_t n = 0;
    while (n < kMaxZernikeOrder && zernike_term_count(n, n) < count) ++n;
    return n;
}

void set_if(std::int32_t* out, std::int32_t value) {
    if (out != nullptr) *out = value;
}

// ---- writing ---------------------------------------------------------------

void write_head(std::FILE* stream, const ParametricPupil* pupil) {
    std::fprintf(stream, "%s 0\n", kMagic);
    // The blank after "#" keeps labels readable; the reader takes everything
    // after "#", so a label gains one leading blank per round trip.
    for (std::int32_t i = 0; i < pupil->label_count; ++i)
        std::fprintf(stream, "# %s\n", pupil->labels[i]);
    std::fprintf(stream, "#numerical_aperture %.3f\n", double(pupil->numerical_aperture));
    std::fprintf(stream, "#immersion_refractive_index %.5f\n",
                 double(pupil->immersion_refractive_index));
    std::fprintf(stream, "#lens_id %d\n", pupil->lens_id);
    std::fprintf(stream, "#zernike_set_for_amplitude %d %d\n", pupil->amplitude_zernike_n,
                 pupil->amplitude_zernike_m);
    std::fprintf(stream, "#zernike_set_for_phase %d %d\n", pupil->phase_zernike_n,
                 pupil->phase_zernike_m);
    std::fprintf(stream, "#polar_fourier_set_for_amplitude %d %d\n", pupil->amplitude_polarf_n,
                 pupil->amplitude_polarf_m);
    std::fprintf(stream, "#polar_fourier_set_for_phase %d %d\n", pupil->phase_polarf_n,
                 pupil->phase_polarf_m);
    std::fprintf(stream, "#wavelength_count %d\n", pupil->wavelength_count);
    if (pupil->wavelength_count <= 0) return;
    std::fputs("#wavelengths_um", stream);
    for (std::int32_t w = 0; w < pupil->wavelength_count; ++w)
        std::fprintf(stream, " %f", double(pupil->waves[w].wavelength));
    std::fputs("\n", stream);
}

void write_blocks(std::FILE* stream, const ParametricPupil* pupil) {
    const std::int32_t amplitude_zernike = get_parametric_pupil_amplitude_zernike_count(pupil);
    const std::int32_t phase_zernike = get_parametric_pupil_phase_zernike_count(pupil);
    for (std::int32_t w = 0; w < pupil->wavelength_count; ++w) {
        const WaveAttributes& wave = pupil->waves[w];
        write_zernike_coeff(stream, wave.amplitude_zernike_coeff, amplitude_zernike, w,
                            "zernike_coeff_amplitude");
        write_zernike_coeff(stream, wave.phase_zernike_coeff, phase_zernike, w,
                            "zernike_coeff_phase");
        write_polarf_coeff(stream, wave.amplitude_polarf_coeff, pupil->amplitude_polarf_n,
                           pupil->amplitude_polarf_m, w, "polar_fourier_coeff_amplitude");
        write_polarf_coeff(stream, wave.phase_polarf_coeff, pupil->phase_polarf_n,
                           pupil->phase_polarf_m, w, "polar_fourier_coeff_phase");
    }
}

// ---- reading ---------------------------------------------------------------

// Everything the reader carries from line to line. The line buffer is
// reallocated by read_full_line and freed once, by read_parametric_pupil.
struct Reader {
    std::FILE* stream = nullptr;
    char* buffer = nullptr;
    std::int32_t size = 0;
    std::int32_t error = 0;
    std::int32_t line = 1;
    std::int32_t column = 1;
    std::int64_t file_bytes = 0;
    ParametricPupil* pupil = nullptr;
};

// ---- what a file can hold --------------------------------------------------

// A count or order set makes the record allocate arrays for values that the
// file may never give. The reader builds no record larger than its file
// could fill, one value per byte, with a floor so that a small file may
// still declare series without listing their values; beyond that it fails as
// it does when memory runs out. Sizes are in 8-byte slots: a value, a
// wavelength entry and each array's allocator overhead.
constexpr std::int64_t kMinRecordSlots = std::int64_t(1) << 20;
constexpr std::int64_t kSlotsPerWavelength = 8;
constexpr std::int64_t kSlotsPerArray = 2;

struct RecordShape {
    std::int64_t wavelengths;
    std::int64_t terms[4];  // amplitude and phase Zernike, amplitude and phase polar Fourier
};

RecordShape shape_of(const ParametricPupil* p) {
    return {p->wavelength_count,
            {get_parametric_pupil_amplitude_zernike_count(p),
             get_parametric_pupil_phase_zernike_count(p),
             polarf_term_count(p->amplitude_polarf_n, p->amplitude_polarf_m),
             polarf_term_count(p->phase_polarf_n, p->phase_polarf_m)}};
}

std::int64_t zernike_terms(std::int64_t n, std::int64_t m) {
    return n < 0 ? 0 : n * (n + 1) / 2 + m + 1;
}

bool file_can_hold(const Reader& r, const RecordShape& shape) {
    if (shape.wavelengths == 0) return true;  // no arrays yet, whatever the sets
    const std::int64_t budget = std::max(r.file_bytes, kMinRecordSlots);
    std::int64_t per_wavelength = kSlotsPerWavelength;
    for (const std::int64_t terms : shape.terms) {
        if (terms > budget) return false;
        if (terms > 0) per_wavelength += terms + kSlotsPerArray;
    }
    return shape.wavelengths <= budget / per_wavelength;
}

bool fail(Reader& r, std::int32_t error) {
    r.error = error;
    return false;
}

// The line buffer's size follows 256-byte steps: each step that the used
// text makes necessary adds 256 bytes, and a step from a size above
// 0x7FFFFEFF fails, so a line is cut off at the same length and column
// whatever memory holds. Memory itself grows by doubling, within one call
// of read_full_line, so that a long line costs time linear in its length.
struct LineBuffer {
    char** line;
    std::int32_t* size;     // the size in 256-byte steps, as reported
    std::int64_t capacity;  // bytes allocated behind *line
};

// The largest size the 256-byte steps reach from size.
std::int64_t last_step_size(std::int32_t size) {
    return size + ((std::int64_t(kMaxLineSizeBeforeGrowth) - size) / kLineGrowth + 1) * kLineGrowth;
}

// Takes one 256-byte step, keeping the used text and its end.
bool grow_line_buffer(LineBuffer* b, std::int32_t used) {
    if (*b->size > kMaxLineSizeBeforeGrowth) return false;
    const std::int32_t grown_size = *b->size + kLineGrowth;
    if (grown_size > b->capacity) {
        const std::int64_t doubled = std::min(2 * b->capacity, last_step_size(*b->size));
        std::int64_t capacity = std::max<std::int64_t>(grown_size, doubled);
        char* grown = new (std::nothrow) char[std::size_t(capacity)];
        if (grown == nullptr && capacity > grown_size) {
            capacity = grown_size;  // all that the step itself needs
            grown = new (std::nothrow) char[std::size_t(capacity)];
        }
        if (grown == nullptr) return false;
        if (used > 0) std::memcpy(grown, *b->line, std::size_t(used) + 1);
        delete[] * b->line;
        *b->line = grown;
        b->capacity = capacity;
    }
    *b->size = grown_size;
    return true;
}

bool check_magic(Reader& r) {
    char head[kMagicLength];
    if (std::fread(head, 1, kMagicLength, r.stream) != kMagicLength ||
        std::memcmp(head, kMagic, kMagicLength) != 0)
        return fail(r, kErrorNotPupilFile);
    std::rewind(r.stream);
    return true;
}

bool read_version_line(Reader& r) {
    if (read_full_line(r.stream, &r.buffer, &r.size, &r.error, &r.column) != 0) {
        if (r.error != kErrorMemory) r.error = kErrorNotPupilFile;
        return false;
    }
    // The first line holds the whole magic, so the version starts right
    // after it; a letter there is a syntax error, not another magic.
    r.column = kMagicLength + 1;
    int version = 0;
    if (std::sscanf(r.buffer + kMagicLength, "%d", &version) != 1) return fail(r, kErrorSyntax);
    if (version != 0) return fail(r, kErrorVersion);
    return true;
}

// Handlers of the keyword lines; `value` points just after the keyword and
// r.column is the keyword length + 1. Each returns false to end the file,
// with r.error set unless a block met the end of the file.

bool read_positive_float(Reader& r, const char* value, float* field) {
    float v = 0.0f;
    if (std::sscanf(value, "%f", &v) != 1) return fail(r, kErrorSyntax);
    if (!(v > 0.0f)) return fail(r, kErrorValue);
    *field = v;
    return true;
}

bool read_numerical_aperture(Reader& r, const char* value) {
    // Stored as read, without the aperture-below-index check of the setter,
    // so a file may name the two in either order.
    return read_positive_float(r, value, &r.pupil->numerical_aperture);
}

bool read_immersion_index(Reader& r, const char* value) {
    return read_positive_float(r, value, &r.pupil->immersion_refractive_index);
}

bool read_lens_id(Reader& r, const char* value) {
    int id = 0;
    if (std::sscanf(value, "%d", &id) != 1) return fail(r, kErrorSyntax);
    r.pupil->lens_id = id;
    return true;
}

using OrderSetter = ParametricPupil* (*)(ParametricPupil*, std::int32_t, std::int32_t);

bool read_order_pair(Reader& r, const char* value, int* first, int* second) {
    if (std::sscanf(value, "%d %d", first, second) != 2) return fail(r, kErrorSyntax);
    return true;
}

bool apply_orders(Reader& r, OrderSetter setter, int first, int second) {
    if (setter(r.pupil, first, second) == nullptr) return fail(r, kErrorMemory);
    return true;
}

// series: the set's place in RecordShape::terms.
bool read_zernike_set(Reader& r, const char* value, OrderSetter setter, int series) {
    int n = 0, m = 0;
    if (!read_order_pair(r, value, &n, &m)) return false;
    if (n >= 0 && !is_valid_zernike_set(n, m)) return fail(r, kErrorValue);
    RecordShape shape = shape_of(r.pupil);
    shape.terms[series] = zernike_terms(n, m);
    if (!file_can_hold(r, shape)) return fail(r, kErrorMemory);
    return apply_orders(r, setter, n, m);
}

bool read_polarf_set(Reader& r, const char* value, OrderSetter setter, int series) {
    int a = 0, b = 0;
    if (!read_order_pair(r, value, &a, &b)) return false;
    RecordShape shape = shape_of(r.pupil);
    shape.terms[series] = polarf_term_count(a, b);
    if (!file_can_hold(r, shape)) return fail(r, kErrorMemory);
    return apply_orders(r, setter, a, b);
}

bool read_amplitude_zernike_set(Reader& r, const char* value) {
    return read_zernike_set(r, value, set_parametric_pupil_amplitude_zernike_orders, 0);
}

bool read_phase_zernike_set(Reader& r, const char* value) {
    return read_zernike_set(r, value, set_parametric_pupil_phase_zernike_orders, 1);
}

bool read_amplitude_polarf_set(Reader& r, const char* value) {
    return read_polarf_set(r, value, set_parametric_pupil_amplitude_polarf_orders, 2);
}

bool read_phase_polarf_set(Reader& r, const char* value) {
    return read_polarf_set(r, value, set_parametric_pupil_phase_polarf_orders, 3);
}

bool read_wavelength_count(Reader& r, const char* value) {
    int count = 0;
    if (std::sscanf(value, "%d", &count) != 1) return fail(r, kErrorSyntax);
    if (count < 1) return fail(r, kErrorValue);
    RecordShape shape = shape_of(r.pupil);
    shape.wavelengths = count;
    if (!file_can_hold(r, shape) ||
        set_parametric_pupil_wavelength_count(r.pupil, count) == nullptr)
        return fail(r, kErrorMemory);
    return true;
}

// One value per wavelength now in the record; the column follows the values
// so that a missing one is reported where it should begin.
bool read_wavelengths(Reader& r, const char* value) {
    for (std::int32_t w = 0; w < r.pupil->wavelength_count; ++w) {
        float wavelength = 0.0f;
        int consumed = 0;
        if (std::sscanf(value, "%f%n", &wavelength, &consumed) != 1) return fail(r, kErrorSyntax);
        r.pupil->waves[w].wavelength = wavelength;
        value += consumed;
        r.column += consumed;
    }
    return true;
}

// The wavelength index of a block header, checked against the wavelength
// count of this moment; -1 after setting the error.
std::int32_t read_block_index(Reader& r, const char* value) {
    int index = 0;
    if (std::sscanf(value, "%d", &index) != 1) {
        r.error = kErrorSyntax;
        return -1;
    }
    if (index < 0 || index >= r.pupil->wavelength_count) {
        r.error = kErrorValue;
        return -1;
    }
    return index;
}

bool read_zernike_block(Reader& r, const char* value, std::int32_t count,
                        double* WaveAttributes::*array) {
    const std::int32_t w = read_block_index(r, value);
    if (w < 0) return false;
    return read_zernike_coeff(r.stream, count, r.pupil->waves[w].*array, &r.buffer, &r.size,
                              &r.error, &r.line, &r.column) == 0;
}

bool read_polarf_block(Reader& r, const char* value, std::int32_t a, std::int32_t b,
                       double* WaveAttributes::*array) {
    const std::int32_t w = read_block_index(r, value);
    if (w < 0) return false;
    return read_polarf_coeff(r.stream, a, b, r.pupil->waves[w].*array, &r.buffer, &r.size, &r.error,
                             &r.line, &r.column) == 0;
}

bool read_amplitude_zernike_block(Reader& r, const char* value) {
    return read_zernike_block(r, value, get_parametric_pupil_amplitude_zernike_count(r.pupil),
                              &WaveAttributes::amplitude_zernike_coeff);
}

bool read_phase_zernike_block(Reader& r, const char* value) {
    return read_zernike_block(r, value, get_parametric_pupil_phase_zernike_count(r.pupil),
                              &WaveAttributes::phase_zernike_coeff);
}

bool read_amplitude_polarf_block(Reader& r, const char* value) {
    return read_polarf_block(r, value, r.pupil->amplitude_polarf_n, r.pupil->amplitude_polarf_m,
                             &WaveAttributes::amplitude_polarf_coeff);
}

bool read_phase_polarf_block(Reader& r, const char* value) {
    return read_polarf_block(r, value, r.pupil->phase_polarf_n, r.pupil->phase_polarf_m,
                             &WaveAttributes::phase_polarf_coeff);
}

struct Keyword {
    const char* text;
    bool (*handle)(Reader&, const char*);
};

// Tested in this order, each by its own length: no keyword is a prefix of an
// earlier one, so the first match is the only one.
constexpr Keyword kKeywords[] = {
    {"#numerical_aperture", read_numerical_aperture},
    {"#immersion_refractive_index", read_immersion_index},
    {"#lens_id", read_lens_id},
    {"#zernike_set_for_amplitude", read_amplitude_zernike_set},
    {"#zernike_set_for_phase", read_phase_zernike_set},
    {"#polar_fourier_set_for_amplitude", read_amplitude_polarf_set},
    {"#polar_fourier_set_for_phase", read_phase_polarf_set},
    {"#wavelength_count", read_wavelength_count},
    {"#wavelengths_um", read_wavelengths},
    {"#zernike_coeff_amplitude_", read_amplitude_zernike_block},
    {"#zernike_coeff_phase_", read_phase_zernike_block},
    {"#polar_fourier_coeff_amplitude_", read_amplitude_polarf_block},
    {"#polar_fourier_coeff_phase_", read_phase_polarf_block},
};

bool read_label(Reader& r) {
    const char* text = r.buffer[1] == '\0' ? nullptr : r.buffer + 1;
    if (insert_parametric_pupil_label(r.pupil, r.pupil->label_count, text) == nullptr)
        return fail(r, kErrorMemory);
    return true;
}

// Acts on one line after the first; false ends the file.
bool read_body_line(Reader& r) {
    r.column = 1;
    for (const Keyword& keyword : kKeywords) {
        const std::size_t length = std::strlen(keyword.text);
        if (std::strncmp(r.buffer, keyword.text, length) == 0) {
            r.column = std::int32_t(length) + 1;
            return keyword.handle(r, r.buffer + length);
        }
    }
    if (r.buffer[0] == '#') return read_label(r);
    if (r.buffer[0] == '\0') return true;
    return fail(r, kErrorSyntax);
}

void read_body(Reader& r) {
    for (;;) {
        ++r.line;
        if (read_full_line(r.stream, &r.buffer, &r.size, &r.error, &r.column) != 0) return;
        if (!read_body_line(r)) return;
    }
}

void read_stream(Reader& r) {
    r.buffer = new (std::nothrow) char[kInitialLineSize];
    if (r.buffer == nullptr) {
        r.error = kErrorMemory;
        return;
    }
    r.size = kInitialLineSize;
    struct stat info {};
    if (fstat(fileno(r.stream), &info) == 0) r.file_bytes = info.st_size;
    if (!check_magic(r)) return;
    r.pupil = create_parametric_pupil();
    if (r.pupil == nullptr) {
        r.error = kErrorMemory;
        return;
    }
    if (!read_version_line(r)) return;
    read_body(r);
}

// The first three values of a term line: two indices and a value. On a
// malformed line sets error 12 with the column after the last field read
// (left as the line reader set it, 0, when none was).
struct TermHead {
    int first = 0;
    int second = 0;
    double value = 0.0;
    int consumed = 0;
};

bool read_term_head(const char* line, TermHead* head, std::int32_t* error_code,
                    std::int32_t* column) {
    int after_first = 0, after_second = 0;
    const int fields = std::sscanf(line, "%d%n %d%n %lg%n", &head->first, &after_first,
                                   &head->second, &after_second, &head->value, &head->consumed);
    if (fields >= 3) return true;
    *error_code = kErrorSyntax;
    if (fields == 1) *column = after_first + 1;
    if (fields == 2) *column = after_second + 1;
    return false;
}

int reject_term(std::int32_t* error_code, std::int32_t* column) {
    *error_code = kErrorValue;
    *column = 1;
    return 1;
}

// Reads the rest of a polar Fourier line with both indices non-zero.
bool read_three_values(const char* line, const TermHead& head, double* values,
                       std::int32_t* error_code, std::int32_t* column) {
    int after_first = 0, after_second = 0;
    const int fields = std::sscanf(line + head.consumed, "%lg%n %lg%n %lg", &values[0],
                                   &after_first, &values[1], &after_second, &values[2]);
    if (fields >= 3) return true;
    *error_code = kErrorSyntax;
    int matched = 0;
    if (fields == 1) matched = after_first;
    if (fields == 2) matched = after_second;
    *column = head.consumed + matched + 1;
    return false;
}

// Reads the second value of a two-value line. The column on failure is the
// length of the first part, without the usual + 1, as files have always
// been reported.
bool read_second_value(const char* line, const TermHead& head, double* value,
                       std::int32_t* error_code, std::int32_t* column) {
    if (std::sscanf(line + head.consumed, "%lg", value) == 1) return true;
    *error_code = kErrorSyntax;
    *column = head.consumed;
    return false;
}

}  // namespace

// ---- writing ---------------------------------------------------------------

ParametricPupil* write_parametric_pupil(ParametricPupil* pupil, const char* file_name,
                                        std::int32_t* error_code) {
    if (pupil == nullptr) return nullptr;
    // The file takes its name only when it is whole: a failed write leaves
    // whatever was there before.
    safe_output out;
    if (safe_output_open(file_name, "w", &out) != 0) {
        set_if(error_code, kErrorOpen);
        return nullptr;
    }
    write_head(out.stream, pupil);
    write_blocks(out.stream, pupil);
    if (safe_output_commit(&out) != 0) {
        set_if(error_code, kErrorClose);
        return nullptr;
    }
    return pupil;
}

void write_zernike_coeff(std::FILE* stream, const double* coeff, std::int32_t count,
                         std::int32_t wavelength_index, const char* name) {
    if (count < 1) return;
    std::fprintf(stream, "#%s_%d\n", name, wavelength_index);
    // Every term of the full set up to the top order, in slot order; only
    // whole terms inside count are written, so a count that ends inside a
    // term never reads past it.
    const std::int32_t top = zernike_top_order(count);
    for_each_zernike_term(top, top, [&](int n, int m) {
        if (!zernike_term_inside(n, m, count)) return;
        const int slot = zernike_term_index(n, m);
        if (m == 0)
            std::fprintf(stream, "%3d %3d %g\n", n, m, coeff[slot]);
        else
            std::fprintf(stream, "%3d %3d %g %g\n", n, m, coeff[slot], coeff[slot + 1]);
    });
}

void write_polarf_coeff(std::FILE* stream, const double* coeff, std::int32_t a, std::int32_t b,
                        std::int32_t wavelength_index, const char* name) {
    if (a < 0 || b < 0) return;
    std::fprintf(stream, "#%s_%d\n", name, wavelength_index);
    // The slots follow each other in line order, so one cursor walks them.
    const double* c = coeff;
    std::fprintf(stream, "  0   0 %g\n", c[0]);
    c += 1;
    for (std::int32_t j = 1; j <= b; ++j, c += 2)
        std::fprintf(stream, "  0 %3d %g %g\n", j, c[0], c[1]);
    for (std::int32_t i = 1; i <= a; ++i) {
        std::fprintf(stream, "%3d   0 %g %g\n", i, c[0], c[1]);
        c += 2;
        for (std::int32_t j = 1; j <= b; ++j, c += 4)
            std::fprintf(stream, "%3d %3d %g %g %g %g\n", i, j, c[0], c[1], c[2], c[3]);
    }
}

// ---- reading ---------------------------------------------------------------

int read_full_line(std::FILE* stream, char** line, std::int32_t* size, std::int32_t* error_code,
                   std::int32_t* column) {
    *column = 0;
    // The caller's buffer holds *size bytes; what this call allocates may
    // hold more.
    LineBuffer buffer{line, size, *size};
    std::int32_t used = 0;
    for (;;) {
        if (used >= *size - 1 && !grow_line_buffer(&buffer, used)) {
            *error_code = kErrorMemory;
            *column = used + 1;
            return 1;
        }
        char* text = *line + used;
        if (std::fgets(text, *size - used, stream) == nullptr) {
            if (std::ferror(stream) != 0) {
                *error_code = kErrorMemory;
                *column = used + 1;
            }
            // At end of file an unended last line is dropped with the rest.
            return 1;
        }
        const std::size_t length = std::strlen(text);
        used += std::int32_t(length);
        if (length > 0 && text[length - 1] == '\n') {
            text[length - 1] = '\0';
            return 0;
        }
    }
}

int read_zernike_coeff(std::FILE* stream, std::int32_t count, double* coeff, char** line,
                       std::int32_t* size, std::int32_t* error_code, std::int32_t* line_number,
                       std::int32_t* column) {
    // The count, not the terms, ends the block: lines may come in any order
    // and each places its values by (n, m).
    std::int32_t counted = 0;
    while (counted < count) {
        ++*line_number;
        if (read_full_line(stream, line, size, error_code, column) != 0) return 1;
        TermHead head;
        if (!read_term_head(*line, &head, error_code, column)) return 1;
        const int n = head.first, m = head.second;
        double sine = 0.0;
        if (m != 0 && !read_second_value(*line, head, &sine, error_code, column)) return 1;
        if (!zernike_term_inside(n, m, count)) return reject_term(error_code, column);
        const int slot = zernike_term_index(n, m);
        coeff[slot] = head.value;
        if (m == 0) {
            counted += 1;
        } else {
            coeff[slot + 1] = sine;
            counted += 2;
        }
    }
    return 0;
}

int read_polarf_coeff(std::FILE* stream, std::int32_t a, std::int32_t b, double* coeff, char** line,
                      std::int32_t* size, std::int32_t* error_code, std::int32_t* line_number,
                      std::int32_t* column) {
    const std::int64_t count = polarf_term_count(a, b);
    const std::int64_t row = 4 * std::int64_t(b) + 2;  // slots per i > 0
    std::int64_t counted = 0;
    while (counted < count) {
        ++*line_number;
        if (read_full_line(stream, line, size, error_code, column) != 0) return 1;
        TermHead head;
        if (!read_term_head(*line, &head, error_code, column)) return 1;
        const int i = head.first, j = head.second;
        double more[3] = {0.0, 0.0, 0.0};
        if (i != 0 && j != 0) {
            if (!read_three_values(*line, head, more, error_code, column)) return 1;
        } else if (i != 0 || j != 0) {
            if (!read_second_value(*line, head, &more[0], error_code, column)) return 1;
        }
        if (i < 0 || i > a || j < 0 || j > b) return reject_term(error_code, column);
        if (i != 0 && j != 0) {
            const std::int64_t s = 4 * std::int64_t(j) + 2 * b + row * (i - 1);
            coeff[s - 1] = head.value;
            coeff[s] = more[0];
            coeff[s + 1] = more[1];
            coeff[s + 2] = more[2];
            counted += 4;
        } else if (j == 0 && i != 0) {
            const std::int64_t t = row * (i - 1) + 2 * std::int64_t(b);
            coeff[t + 1] = head.value;
            coeff[t + 2] = more[0];
            counted += 2;
        } else if (i == 0 && j != 0) {
            coeff[2 * j - 1] = head.value;
            coeff[2 * j] = more[0];
            counted += 2;
        } else {
            coeff[0] = head.value;
            counted += 1;
        }
    }
    return 0;
}

const char* read_parametric_pupil_error_text(std::int32_t code) {
    switch (code) {
        case 1:
            return "cannot be opened for reading";
        case 2:
            return "closing the file failed";
        case 10:
            return "not a parametric pupil file (the first line must begin with "
                   "#parametric_pupil_format)";
        case 11:
            return "format version other than 0";
        case 12:
            return "syntax error: a value that cannot be read, a malformed term line, or a line "
                   "that is neither empty nor begins with #";
        case 13:
            return "invalid value: an aperture or index not above 0, an invalid Zernike set, a "
                   "wavelength count below 1, or a block or term outside the model";
        case 20:
            return "out of memory, a read error, or a line too long";
        default:
            return "unrecognized error";
    }
}

ParametricPupil* read_parametric_pupil(const char* file_name, std::int32_t* error_code,
                                       std::int32_t* line, std::int32_t* column) {
    Reader r;
    r.stream = std::fopen(file_name, "r");
    if (r.stream == nullptr) {
        r.error = kErrorOpen;
    } else {
        read_stream(r);
        delete[] r.buffer;
        if (std::fclose(r.stream) != 0 && r.error == 0) r.error = kErrorClose;
    }
    if (r.error == 0) return r.pupil;
    destroy_parametric_pupil(r.pupil);
    set_if(error_code, r.error);
    set_if(line, r.line);
    set_if(column, r.column);
    return nullptr;
}

}  // namespace torvel
