// Fuzz target: the fit-file reader on arbitrary bytes. A file it accepts is
// written back and read again; the second read must succeed and write the
// same text, but for the one blank every label gains on each round trip.

#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>

#include <torvel/pupil.hpp>

#include "check.hpp"
#include "scratch.hpp"

namespace {

using namespace torvel;

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

struct RoundTrip {
    std::int32_t code = 0;  // the reader's error code, 0 when it accepted the file
    std::string text;       // what the record read was written as
};

// Reads path and writes the record read to written.
RoundTrip read_and_write(const std::string& path, const std::string& written) {
    RoundTrip trip;
    std::int32_t line = 0, column = 0;
    ParametricPupil* pupil = read_parametric_pupil(path.c_str(), &trip.code, &line, &column);
    if (pupil == nullptr) {
        FUZZ_CHECK(trip.code != 0 && line >= 1 && column >= 0);
        return trip;
    }
    std::int32_t write_code = 0;
    FUZZ_CHECK(write_parametric_pupil(pupil, written.c_str(), &write_code) == pupil);
    destroy_parametric_pupil(pupil);
    trip.text = slurp(written);
    FUZZ_CHECK(!trip.text.empty());
    return trip;
}

bool contains(const std::string& text, const char* line) {
    return text.find(line) != std::string::npos;
}

// Files the reader accepts whose written form it refuses, by the format's
// own rules: a record without wavelengths is written with a count of 0, and
// an aperture or index below the written precision is written as 0.
bool written_form_refused(const std::string& text) {
    return contains(text, "\n#wavelength_count 0\n") ||
           contains(text, "\n#numerical_aperture 0.000\n") ||
           contains(text, "\n#immersion_refractive_index 0.00000\n");
}

// The text a file gives after one more round trip: a blank more after the
// "#" of every label line (the only lines that start "# ").
std::string with_labels_moved(const std::string& text) {
    std::string moved;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("# ", 0) == 0) line.insert(1, " ");
        moved += line + '\n';
    }
    return moved;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string in = fuzz::scratch_path("in.txt");
    const std::string first = fuzz::scratch_path("first.txt");
    const std::string second = fuzz::scratch_path("second.txt");
    fuzz::write_bytes(in, data, size);
    const RoundTrip once = read_and_write(in, first);
    if (once.code != 0) return 0;
    const RoundTrip twice = read_and_write(first, second);
    if (written_form_refused(once.text)) {
        FUZZ_CHECK(twice.code == 13);
        return 0;
    }
    FUZZ_CHECK(twice.code == 0);
    FUZZ_CHECK(twice.text == with_labels_moved(once.text));
    return 0;
}
