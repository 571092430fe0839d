#include "fixtures.hpp"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <vector>

#include <torvel/imageio.hpp>

namespace fs = std::filesystem;

namespace torvel_e2e {
namespace {

// A tiny 8 x 8 image whose header values are set one by one; its sections
// hold zeros, so only the header decides what torvel makes of it.
struct HeaderSpec {
    int nx = 8, ny = 8, nz = 2, mode = 2, type = 8000;
    float p1 = 14.0f, p2 = 151.5f, dx = 0.1f, dy = 0.1f;
    float wave = 525.0f;
    float amplitude_centre = 0.0f;  // the pupil centre's pixel of the amplitude section
};

void write_header_fixture(const fs::path& path, const HeaderSpec& s) {
    ASSERT_EQ(torvel::image_open(3, path.c_str(), "new"), 0);
    torvel::image_set_dimensions(3, s.nx, s.ny);
    torvel::image_set_zwt_sizes(3, s.nz, 1, 1, 0);
    torvel::image_set_wavelengths(3, 1, &s.wave);
    torvel::image_set_type_info(3, s.type, 7, 0, 0, s.p1, s.p2);
    torvel::image_set_pixel_mode(3, s.mode);
    torvel::image_set_pixel_spacing(3, s.dx, s.dy, 1.0f);
    torvel::image_set_origin(3, -0.4f, -0.4f, 0.0f);
    std::vector<float> pixels(2 * std::size_t(s.nx) * s.ny, 0.0f);
    for (int z = 0; z < s.nz; ++z) {
        pixels[std::size_t(s.nx / 2) * s.nx + s.nx / 2] = z == 0 ? s.amplitude_centre : 0.0f;
        torvel::image_seek_section(3, z, 0, 0);
        torvel::image_write_section(3, pixels.data());
    }
    torvel::image_write_header(3, nullptr, -1, 0.0f, 0.0f, 0.0f);
    torvel::image_close(3);
}

// A copy of the complex image from, one section per wavelength, with a NaN
// at the centre pixel of wavelength nan_at's section.
void copy_with_nan(const fs::path& from, const fs::path& to, int nan_at) {
    ASSERT_EQ(torvel::image_open(3, from.c_str(), "ro"), 0);
    ASSERT_EQ(torvel::image_open(4, to.c_str(), "new"), 0);
    torvel::image_copy_header(4, 3);
    int dims[3], second[3], mode;
    float dmin, dmax, dmean;
    torvel::image_read_header(3, dims, second, &mode, &dmin, &dmax, &dmean);
    std::vector<float> pixels(2 * std::size_t(dims[0]) * dims[1]);
    for (int w = 0; w < dims[2]; ++w) {
        ASSERT_EQ(torvel::image_read_section(3, pixels.data()), 0);
        if (w == nan_at) pixels[2 * (std::size_t(dims[1] / 2) * dims[0] + dims[0] / 2)] = NAN;
        ASSERT_EQ(torvel::image_write_section(4, pixels.data()), 0);
    }
    torvel::image_close(3);
    ASSERT_EQ(torvel::image_close(4), 0);
}

void run_render(const fs::path& dir, const std::string& args) {
    const RunResult r =
        run_in(dir, TORVEL_RENDER_BINARY, std::string(TORVEL_SAMPLE_MODEL) + " " + args);
    ASSERT_EQ(r.status, 0) << "torvel-render " << args << ": " << r.err;
}

void make_fixtures(const fs::path& dir) {
    run_render(dir, "complex.mrc -size=64");
    run_render(dir, "real.mrc -size=64 -form=real");
    run_render(dir, "small.mrc -size=16");
    fs::copy_file(TORVEL_SAMPLE_MODEL, dir / "truth.txt");
    write_header_fixture(dir / "three_sections.mrc", {.nz = 3});
    write_header_fixture(dir / "complex_two_sections.mrc", {.mode = 4});
    write_header_fixture(dir / "no_spacing_not_pupil.mrc", {.type = 0, .dx = 0.0f, .dy = 0.0f});
    write_header_fixture(dir / "aperture_too_large.mrc", {.p1 = 16.0f});
    write_header_fixture(dir / "zero_aperture.mrc", {.p1 = 0.0f});
    write_header_fixture(dir / "no_data.mrc", {.nx = 0, .ny = 0, .nz = 0});
    write_header_fixture(dir / "nan_wavelength.mrc", {.wave = std::nanf("")});
    write_header_fixture(dir / "negative_wavelength.mrc", {.wave = -5.0f});
    write_header_fixture(dir / "nan_amplitude.mrc", {.amplitude_centre = std::nanf("")});
    copy_with_nan(dir / "small.mrc", dir / "nan_at_525.mrc", 0);
    copy_with_nan(dir / "small.mrc", dir / "nan_at_617.mrc", 1);
    std::ofstream(dir / "not_an_image.txt") << "just some text, not an image\n";
    // Models torvel-render refuses: a syntax error on line 3, column 1; and a
    // polar Fourier series with an aperture above the immersion index.
    std::ofstream(dir / "bad_fit.txt") << "#parametric_pupil_format 0\n#lens_id 3\nlens 3\n";
    std::ofstream(dir / "unrenderable_fit.txt")
        << "#parametric_pupil_format 0\n#numerical_aperture 1.6\n#immersion_refractive_index 1.5\n"
           "#polar_fourier_set_for_phase 1 1\n#wavelength_count 1\n#wavelengths_um 0.5\n";
}

std::string slurp(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

}  // namespace

// The fixture directory lives as long as the test process and goes with it.
struct TemporaryDir {
    fs::path path;
    TemporaryDir() {
        std::string pattern = (fs::temp_directory_path() / "torvel-e2e-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) std::abort();
        path = pattern;
    }
    ~TemporaryDir() {
        std::error_code ignored;
        fs::remove_all(path, ignored);
    }
};

const fs::path& fixture_dir() {
    static const TemporaryDir dir;
    static const bool made = (make_fixtures(dir.path), true);
    (void)made;
    return dir.path;
}

fs::path fresh_case_dir(const std::string& name) {
    const fs::path& inputs = fixture_dir();
    const fs::path dir = inputs / "runs" / name;
    fs::remove_all(dir);
    fs::create_directories(dir);
    for (const auto& entry : fs::directory_iterator(inputs))
        if (entry.is_regular_file())
            fs::create_symlink(entry.path(), dir / entry.path().filename());
    return dir;
}

Pupil read_fit(const fs::path& path) {
    std::int32_t code = 0, line = 0, column = 0;
    Pupil p(torvel::read_parametric_pupil(path.c_str(), &code, &line, &column));
    EXPECT_TRUE(p) << path << ": error " << code << " at " << line << ":" << column;
    return p;
}

RunResult run_in(const fs::path& dir, const std::string& program, const std::string& args,
                 const std::string& setup) {
    const fs::path out = dir.string() + ".stdout", err = dir.string() + ".stderr";
    const std::string command = "cd '" + dir.string() + "' && { " + (setup.empty() ? ":" : setup) +
                                "\n} && '" + program + "' " + args + " > '" + out.string() +
                                "' 2> '" + err.string() + "' < /dev/null";
    RunResult r;
    // Waited for with wait4, which gives the run's own peak memory.
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    int raw = 0;
    struct rusage usage {};
    const bool waited = child > 0 && wait4(child, &raw, 0, &usage) == child;
    r.status = waited && WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    r.peak_kb = waited ? usage.ru_maxrss : -1;
    r.out = slurp(out);
    r.err = slurp(err);
    return r;
}

}  // namespace torvel_e2e
