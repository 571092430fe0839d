#include <torvel/switches.hpp>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include <torvel/messages.hpp>

namespace torvel {
namespace {

// Wavelengths in nm that a -w= style value may name; anything outside that
// is neither a plausible index nor a plausible wavelength.
constexpr int kLowestWavelength = 200;
constexpr int kWavelengthLimit = 2000;
// How far a file wavelength may lie from the one asked for and still match.
constexpr double kWavelengthMatch = 0.5;

// The shared scanner behind the extract_switch_ functions. read(cursor,
// &value, &used) takes one number, with its leading white space, from
// cursor; only ":" is stepped over here, so any other character is left for
// the next read to accept (a sign) or reject (everything else). Values
// beyond room go to a scratch cell so that the count still tells the caller
// how many were given.
template <typename T, typename Read>
int extract_values(const char* text, int room, T* values, Read read) {
    int count = 0;
    const char* cursor = text;
    for (;;) {
        T value{};
        int used = 0;
        if (!read(cursor, &value, &used)) {
            return 0;
        }
        if (count < room) {
            values[count] = value;
        }
        ++count;
        cursor += used;
        if (*cursor == '\0') {
            return count;
        }
        if (*cursor == ':') {
            ++cursor;
        }
    }
}

// One number by the standard scan, as torvel's own switches read them.
template <typename T>
auto scan_with(const char* format) {
    return [format](const char* cursor, T* value, int* used) {
        return std::sscanf(cursor, format, value, used) == 1;
    };
}

// One number read whole by strto*, the same syntax as the scan: white space,
// a sign, the digits; false when there is none or it lies outside [lo, hi].
bool read_int_within(const char* cursor, long long lo, long long hi, int* value, int* used) {
    char* end = nullptr;
    errno = 0;
    const long long v = std::strtoll(cursor, &end, 10);
    if (end == cursor || errno == ERANGE || v < lo || v > hi) return false;
    *value = static_cast<int>(v);
    *used = static_cast<int>(end - cursor);
    return true;
}

bool read_float_within(const char* cursor, double lo, double hi, float* value, int* used) {
    char* end = nullptr;
    const double v = std::strtod(cursor, &end);
    if (end == cursor || !std::isfinite(v) || !(v >= lo && v <= hi)) return false;
    const float f = static_cast<float>(v);
    if (!std::isfinite(f)) return false;
    *value = f;
    *used = static_cast<int>(end - cursor);
    return true;
}

// The text after prefix in the first of argv[1..argc-1] that begins with it,
// or null.
const char* find_switch_value(const char* prefix, const char* const* argv, int argc) {
    const std::size_t length = std::strlen(prefix);
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], prefix, length) == 0) {
            return argv[i] + length;
        }
    }
    return nullptr;
}

void print_range_format_error(const char* program, const char* name, int allow_third) {
    if (allow_third) {
        print_message(
            "%s: %s expects one to three integer values; the first\n"
            "    two must be non-negative; the second must at least as\n"
            "    large as the first; the third must be positive\n",
            program, name);
    } else {
        print_message(
            "%s: %s expects one or two non-negative integer values\n"
            "    the second must be at least as large as the first\n",
            program, name);
    }
}

// Checks the values of a range one after the other, storing each accepted
// one. Returns 1 if a value lies beyond the dimension (message printed);
// sets *format_error and stops at the first value of the wrong form.
int check_range_values(const char* program, const char* name, const int* values, int count,
                       int dim_size, int range[3], bool* format_error) {
    // The first two values are bounds inside the dimension, the second no
    // smaller than the first; the third, a step, must be positive.
    static constexpr const char* kOrdinal[2] = {"first", "second"};
    int result = 0;
    for (int i = 0; i < count && i < 2; ++i) {
        if (values[i] < (i == 0 ? 0 : values[0])) {
            *format_error = true;
            return result;
        }
        if (values[i] >= dim_size) {
            print_message("%s: %s argument to %s greater than or equal to dimension size %d\n",
                          program, kOrdinal[i], name, dim_size);
            result = 1;
        } else {
            range[i] = values[i];
        }
    }
    if (count < 3) {
        return result;
    }
    if (values[2] < 1) {
        *format_error = true;
        return result;
    }
    range[2] = values[2];
    return result;
}

// The first index of file_waves within the match distance of wavelength, or
// -1. The difference is formed in float, as the file holds floats, and only
// its magnitude is compared in double.
int find_wavelength(const float* file_waves, int file_wave_count, int wavelength) {
    for (int i = 0; i < file_wave_count; ++i) {
        const float difference = file_waves[i] - static_cast<float>(wavelength);
        if (std::fabs(static_cast<double>(difference)) <= kWavelengthMatch) {
            return i;
        }
    }
    return -1;
}

// Resolves one -w= style value into *index. An index is preferred whenever
// the value can be one. Returns 1 after a message when the value is rejected.
int resolve_wave_value(const char* program, const char* name, int value, const float* file_waves,
                       int file_wave_count, int* index) {
    if (value >= 0 && value < file_wave_count) {
        *index = value;
        return 0;
    }
    if (value < kLowestWavelength || value >= kWavelengthLimit) {
        print_message(
            "%s: values passed to %s are expected to be wavelengths "
            "or indices\n",
            program, name);
        return 1;
    }
    const int found = find_wavelength(file_waves, file_wave_count, value);
    if (found < 0) {
        print_message("%s: wavelength %d is not present in the input file\n", program, value);
        return 1;
    }
    *index = found;
    return 0;
}

}  // namespace

int extract_switch_ints(const char* text, int room, int* values) {
    return extract_values(text, room, values, scan_with<int>("%d%n"));
}

int extract_switch_floats(const char* text, int room, float* values) {
    return extract_values(text, room, values, scan_with<float>("%f%n"));
}

int extract_switch_ints_within(const char* text, int room, int lo, int hi, int* values) {
    return extract_values(text, room, values, [&](const char* cursor, int* value, int* used) {
        return read_int_within(cursor, lo, hi, value, used);
    });
}

int extract_switch_floats_within(const char* text, int room, double lo, double hi,
                                 float* values) {
    return extract_values(text, room, values, [&](const char* cursor, float* value, int* used) {
        return read_float_within(cursor, lo, hi, value, used);
    });
}

int get_intswitch_within(const char* prefix, const char* const* argv, int argc, int room, int lo,
                         int hi, int* values) {
    const char* text = find_switch_value(prefix, argv, argc);
    return text == nullptr ? -1 : extract_switch_ints_within(text, room, lo, hi, values);
}

int get_floatswitch_within(const char* prefix, const char* const* argv, int argc, int room,
                           double lo, double hi, float* values) {
    const char* text = find_switch_value(prefix, argv, argc);
    return text == nullptr ? -1 : extract_switch_floats_within(text, room, lo, hi, values);
}

int get_charswitchc(const char* prefix, const char* const* argv, int argc, int size, char* out) {
    const char* value = find_switch_value(prefix, argv, argc);
    if (value == nullptr) {
        return -1;
    }
    const std::size_t length = std::strlen(value);
    if (size > 0 && length < static_cast<std::size_t>(size)) {
        std::memcpy(out, value, length + 1);
    }
    return 1;
}

int get_intswitchc(const char* prefix, const char* const* argv, int argc, int room, int* values) {
    const char* value = find_switch_value(prefix, argv, argc);
    return value == nullptr ? -1 : extract_switch_ints(value, room, values);
}

int get_floatswitch(const char* prefix, const char* const* argv, int argc, int room,
                    float* values) {
    const char* value = find_switch_value(prefix, argv, argc);
    return value == nullptr ? -1 : extract_switch_floats(value, room, values);
}

int handle_range_switch(const char* program, const char* name, const char* text, int dim_size,
                        int allow_third, int range[3]) {
    const int room = allow_third ? 3 : 2;
    int values[3] = {0, 0, 0};
    const int count = extract_switch_ints(text, room, values);
    bool format_error = count < 1 || count > room;
    int result = 0;
    if (!format_error) {
        result = check_range_values(program, name, values, count, dim_size, range, &format_error);
    }
    if (format_error) {
        print_range_format_error(program, name, allow_third);
        result = 1;
    }
    return result;
}

int handle_wave_switch(const char* program, const char* name, const char* text,
                       const float* file_waves, int file_wave_count, int max_values, int* indices) {
    // A negative limit is an impossible request for room, like a failed
    // allocation, and fails the same silent way.
    if (max_values < 0) {
        return 1;
    }
    std::unique_ptr<int[]> values(new (std::nothrow) int[max_values]);
    if (!values) {
        return 1;
    }
    const int count = extract_switch_ints(text, max_values, values.get());
    if (count == 0) {
        print_message("%s: %s expects at least one value\n", program, name);
        return 1;
    }
    if (count > max_values) {
        print_message("%s: %s expects at most %d values\n", program, name, max_values);
        return 1;
    }
    int result = 0;
    for (int k = 0; k < count; ++k) {
        result |=
            resolve_wave_value(program, name, values[k], file_waves, file_wave_count, &indices[k]);
    }
    indices[count] = -1;
    return result;
}

int help_requested(int argc, const char* const* argv) {
    static const char* const kHelpSwitches[] = {"-h", "-H", "-help", "-Help"};
    for (int i = 1; i < argc; ++i) {
        if (search_string_list(kHelpSwitches, 4, argv[i]) >= 0) {
            return 1;
        }
    }
    return 0;
}

int search_string_list(const char* const* list, int length, const char* text) {
    for (int i = 0; i < length; ++i) {
        if (std::strcmp(list[i], text) == 0) {
            return i;
        }
    }
    return -1;
}

void print_invalid_name(const char* program, const char* name, const char* value,
                        const char* const* valid, int length) {
    print_message("%s: invalid argument, %s, to %s; valid values are:", program, value, name);
    for (int i = 0; i < length; ++i) {
        print_message(i + 1 < length ? " %s," : " %s\n", valid[i]);
    }
}

}  // namespace torvel
