#pragma once
// Command-line switches of the form -name=value: finding a switch, splitting
// its value into numbers separated by ":", checking ranges and wavelength
// selections, and recognising help requests. Messages go to standard error
// and begin with the program and switch names the caller passes, so this
// module knows no program of its own. argv parameters are `const char* const*`
// so that main's `char**` converts to them.

namespace torvel {

// A command line's arguments as the switch helpers search them, argv[1] to
// argv[argc - 1]; the companion programs pass the part after their file
// names this way.
struct switch_args {
    const char* const* argv;
    int argc;
};

// Scans text as integers separated by ":" ("%d" rules: leading white space
// skipped, a sign may start the next number, so "3-4" gives 3 and -4).
// Stores the first `room` values in values[0..room-1]; later ones are counted
// but not stored. Returns the number of values, 0 on any parse failure
// (empty text, a trailing ":", any other separator, trailing white space).
int extract_switch_ints(const char* text, int room, int* values);

// The same as extract_switch_ints for single-precision floats ("%f" rules).
int extract_switch_floats(const char* text, int room, float* values);

// For the companion programs, whose numbers must mean what they say: as
// extract_switch_ints, but each number is read whole (strtoll) and must lie
// in [lo, hi]; one outside, however it is written (4294967312 included),
// makes the result 0 as a parse failure does, so the caller's message can
// state the range.
int extract_switch_ints_within(const char* text, int room, int lo, int hi, int* values);

// As extract_switch_ints_within for floats (strtod): each number finite and
// within [lo, hi], and finite once rounded to float.
int extract_switch_floats_within(const char* text, int room, double lo, double hi, float* values);

// As get_intswitchc and get_floatswitch, with the _within readers.
int get_intswitch_within(const char* prefix, const char* const* argv, int argc, int room, int lo,
                         int hi, int* values);
int get_floatswitch_within(const char* prefix, const char* const* argv, int argc, int room,
                           double lo, double hi, float* values);

// Looks for the first of argv[1..argc-1] that begins with prefix. Returns -1
// if there is none. Otherwise returns 1 and copies the text after the prefix,
// with its terminating zero, into out[0..size-1] only when it fits; a text
// that does not fit leaves out untouched and still returns 1.
int get_charswitchc(const char* prefix, const char* const* argv, int argc, int size, char* out);

// Looks for the first of argv[1..argc-1] that begins with prefix. Returns -1
// if there is none, else extract_switch_ints(text after prefix, room, values).
int get_intswitchc(const char* prefix, const char* const* argv, int argc, int room, int* values);

// As get_intswitchc, with extract_switch_floats.
int get_floatswitch(const char* prefix, const char* const* argv, int argc, int room, float* values);

// Parses text as first[:second[:third]] (the third only when allow_third is
// non-zero): 0 <= first <= second < dim_size and third >= 1. Stores each
// accepted value in range[0..2]; entries for values not given, or rejected,
// keep their contents. Returns 0, or 1 after printing one message per problem.
int handle_range_switch(const char* program, const char* name, const char* text, int dim_size,
                        int allow_third, int range[3]);

// Parses text as w1[:w2...], at most max_values entries, each either a
// zero-based index below file_wave_count or a wavelength in nm (200..1999)
// matched within 0.5 nm to the first such entry of file_waves. Writes the
// indices to indices[0..count-1] and -1 to indices[count], so indices needs
// room for max_values + 1. Returns 0, or 1 after printing one message per
// rejected value (the accepted slots are filled all the same); returns 1
// without a message when its scratch memory cannot be obtained.
int handle_wave_switch(const char* program, const char* name, const char* text,
                       const float* file_waves, int file_wave_count, int max_values, int* indices);

// Returns 1 if any of argv[1..argc-1] is exactly "-h", "-H", "-help" or
// "-Help", else 0.
int help_requested(int argc, const char* const* argv);

// Returns the index of the first of list[0..length-1] equal to text
// (case-sensitive), or -1 if there is none.
int search_string_list(const char* const* list, int length, const char* text);

// Prints to standard error that value is not valid for switch name, followed
// by the names valid[0..length-1] on the same line; length must be at least 1.
void print_invalid_name(const char* program, const char* name, const char* value,
                        const char* const* valid, int length);

}  // namespace torvel
