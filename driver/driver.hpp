#pragma once
// The program driver: the option record, the command line, the usage text,
// the input summary and the steps of one fitting run. driver/main.cpp strings
// the steps together; everything here is in the library so tests reach it.

#include <cstdint>
#include <cstdio>

namespace torvel {

struct ParametricPupil;

inline constexpr int kMaxSelectedWavelengths = 5;

// Everything the command line settles. Names point into argv, never copies.
// wavelength_index holds up to five zero-based input indices, in processing
// order, ended by -1; wavelength[k] is the wavelength in nm of slot k.
struct fit_inputs {
    const char* input_name;
    const char* output_name;
    const char* residual_name;  // null: no residual image
    std::int32_t wavelength_index[kMaxSelectedWavelengths + 1];
    float wavelength[kMaxSelectedWavelengths];
    float tolerance;
    std::int32_t wavelength_count;
    std::int32_t amplitude_n, amplitude_m;  // (-1, -1): no amplitude fit
    std::int32_t phase_n, phase_m;          // (-1, -1): no phase fit
};

// The defaults that main copies before parsing. The tolerance is the float
// nearest 0.0001, bit pattern 0x38D1B717.
inline constexpr fit_inputs kDefaultFitInputs = {
    nullptr, nullptr, nullptr, {-1, 0, 0, 0, 0, 0}, {0, 0, 0, 0, 0},
    0.0001f, 0, 8, 0, 8, 0};

// Writes the 36-line usage text to stream.
void print_usage(std::FILE* stream);

// Fills *inputs from the command line `torvel input output [options]`,
// probing the input image (stream 1, messages off) for its wavelength list.
// Reports every problem on stderr and returns 1 if there was any, else 0.
int parse_command_line(int argc, char** argv, fit_inputs* inputs);

// Writes the summary of the settled options to standard output.
void print_input_summary(const fit_inputs& inputs);

// Builds the empty fit record: lens id, wavelengths in micrometres, aperture
// and immersion index, the two Zernike sets. Returns the new record (owned by
// the caller), or null after printing one message.
ParametricPupil* setup_parametric_output(const fit_inputs& inputs,
                                         std::int32_t lens_id, float na,
                                         float n_imm);

}  // namespace torvel
