#pragma once
// Input images and working directories shared by the end-to-end tests.

#include <filesystem>
#include <memory>
#include <string>

#include <torvel/driver.hpp>
#include <torvel/pupil.hpp>

namespace torvel_e2e {

// The directory holding every input image of the tests, made on first use:
// complex.mrc and real.mrc (the sample model rendered on 64 x 64 pixels, no
// noise, as one complex section or as amplitude and phase sections per
// wavelength), small.mrc (16 x 16), truth.txt (the model they were rendered
// from), a set of small images whose headers each fail one check, and two
// fit files torvel-render refuses.
const std::filesystem::path& fixture_dir();

// A new, empty directory for one run, with links to every input image.
std::filesystem::path fresh_case_dir(const std::string& name);

using Pupil = std::unique_ptr<torvel::ParametricPupil, torvel::pupil_deleter>;

// The fit file at path as a record; a file the reader rejects fails the test
// (with its error code, line and column) and gives null.
Pupil read_fit(const std::filesystem::path& path);

struct RunResult {
    int status;
    std::string out;
    std::string err;
};

// Runs `program args` (args split by the shell) with dir as working directory.
RunResult run_in(const std::filesystem::path& dir, const std::string& program,
                 const std::string& args);

}  // namespace torvel_e2e
