// Whole runs of torvel, in this process, on pupil images of one wavelength
// whose disc fills an N x N plane, fitting the same set to amplitude and
// phase and writing a residual image. Each iteration times, one after the
// other so that both see the same machine:
//   - the whole run (command line to fit file), and within it the time of
//     every dgelsd call it makes (a wrapper around LAPACK's dgelsd_ below);
//   - two dgelsd solves of one right-hand side each on the same design
//     matrix, the solves that the fitting rules state (their filling not
//     timed).
// Counters: run, dgelsd_in_run and two_solves in seconds per iteration, and
// the ratios run/dgelsd_in_run and run/two_solves. With repetitions, Google
// Benchmark adds their medians and spreads.
//
//   bench_run --benchmark_repetitions=5 --benchmark_filter='/256|/512'
//   bench_run --images=DIR    writes the input images (pupilN.mrc) and exits

#include <benchmark/benchmark.h>

#include <dlfcn.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <torvel/cores.hpp>
#include <torvel/driver.hpp>
#include <torvel/fit.hpp>
#include <torvel/imageio.hpp>
#include <torvel/zernike.hpp>

namespace {

using Clock = std::chrono::steady_clock;

double dgelsd_seconds = 0.0;  // summed by the wrapper

}  // namespace

// Every dgelsd_ call of the library lands here (the program's own definition
// comes before the shared library's) and is timed around the real one.
extern "C" void dgelsd_(const int* m, const int* n, const int* nrhs, double* a, const int* lda,
                        double* b, const int* ldb, double* s, const double* rcond, int* rank,
                        double* work, const int* lwork, int* iwork, int* info) {
    using Dgelsd =
        void (*)(const int*, const int*, const int*, double*, const int*, double*, const int*,
                 double*, const double*, int*, double*, const int*, int*, int*);
    static const auto real = reinterpret_cast<Dgelsd>(dlsym(RTLD_NEXT, "dgelsd_"));
    if (real == nullptr) {
        std::fprintf(stderr, "bench_run: no dgelsd_ in the linked LAPACK\n");
        std::abort();
    }
    const auto start = Clock::now();
    real(m, n, nrhs, a, lda, b, ldb, s, rcond, rank, work, lwork, iwork, info);
    dgelsd_seconds += std::chrono::duration<double>(Clock::now() - start).count();
}

namespace {

using namespace torvel;

constexpr float kWavelengthNm = 525.0f;
constexpr float kAperture = 1.4f;

// A pupil of one wavelength on an N x N plane, its disc touching all four
// sides: amplitude falling towards the rim, a phase of several turns, a
// little deterministic noise. Kept as amplitude and (unwrapped) phase too.
struct Pupil {
    int size;
    float dx;
    std::vector<float> amplitude, phase;
    std::string path;
    bool written = false;  // the image at path is complete
};

Pupil make_pupil(int size, const std::string& path) {
    Pupil p{size, kAperture * 1000.0f / kWavelengthNm / (size / 2.0f), {}, {}, path, false};
    const std::size_t pixels = static_cast<std::size_t>(size) * size;
    p.amplitude.resize(pixels);
    p.phase.resize(pixels);
    std::vector<float> complex(2 * pixels);
    std::uint64_t state = 0x9E3779B97F4A7C15ull;
    for (int iy = 0; iy < size; ++iy) {
        for (int ix = 0; ix < size; ++ix) {
            const double x = (ix - size / 2) * 2.0 / size, y = (iy - size / 2) * 2.0 / size;
            state ^= state << 13;
            state ^= state >> 7;
            state ^= state << 17;
            const double noise = static_cast<double>(state >> 11) / 9007199254740992.0 - 0.5;
            const double a = 0.95 - 0.25 * (x * x + y * y) + 0.01 * noise;
            const double f =
                9.0 * (x * x + y * y) + 1.2 * x * y - 0.6 * y + 0.8 * x * x * x + 0.02 * noise;
            const std::size_t k = static_cast<std::size_t>(iy) * size + ix;
            p.amplitude[k] = static_cast<float>(a);
            p.phase[k] = static_cast<float>(f);
            complex[2 * k] = static_cast<float>(a * std::cos(f));
            complex[2 * k + 1] = static_cast<float>(a * std::sin(f));
        }
    }
    const float origin = -(size / 2) * p.dx;
    if (image_open(3, path.c_str(), "new") != 0) return p;
    image_set_dimensions(3, size, size);
    image_set_zwt_sizes(3, 1, 1, 1, 0);
    image_set_wavelengths(3, 1, &kWavelengthNm);
    image_set_type_info(3, 8000, 1, 0, 0, kAperture * 10.0f, 151.5f);
    image_set_pixel_mode(3, 4);
    image_set_pixel_spacing(3, p.dx, p.dx, 1.0f);
    image_set_origin(3, origin, origin, 0.0f);
    image_seek_section(3, 0, 0, 0);
    const bool section = image_write_section(3, complex.data()) == 0;
    image_write_header(3, nullptr, -1, 0.0f, 0.0f, 0.0f);
    p.written = image_close(3) == 0 && section;
    return p;
}

std::filesystem::path work_dir() {
    static const std::filesystem::path dir = [] {
        std::string pattern = (std::filesystem::temp_directory_path() / "torvel-bench-XXXXXX");
        if (mkdtemp(pattern.data()) == nullptr) std::abort();
        return std::filesystem::path(pattern);
    }();
    return dir;
}

const Pupil& pupil(int size) {
    static std::vector<Pupil> made;
    for (const Pupil& p : made)
        if (p.size == size) return p;
    made.push_back(make_pupil(size, (work_dir() / ("pupil" + std::to_string(size) + ".mrc"))));
    return made.back();
}

// The steps of torvel's main, standard output sent to /dev/null.
int whole_run(std::vector<std::string> args) {
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    std::fflush(stdout);
    const int saved = dup(STDOUT_FILENO);
    std::FILE* null = std::fopen("/dev/null", "w");
    dup2(fileno(null), STDOUT_FILENO);
    std::fclose(null);
    int status = 1;
    [&] {
        fit_inputs inputs = kDefaultFitInputs;
        if (parse_command_line(static_cast<int>(argv.size()), argv.data(), &inputs) != 0) return;
        print_input_summary(inputs);
        fit_run run;
        input_header header;
        if (open_input_image(inputs.input_name, &run, &header) != 0 ||
            check_input_header(inputs.input_name, header) != 0 ||
            allocate_work_planes(header, &run) != 0)
            return;
        run.pupil.reset(setup_parametric_output(inputs, header.lens_id, header.na, header.n_imm));
        if (!run.pupil || open_residual_image(inputs, &run) != 0) return;
        for (int slot = 0; slot < inputs.wavelength_count; ++slot)
            if (fit_wavelength(inputs, header, slot, &run) != 0) return;
        status = write_fit_file(run.pupil.get(), inputs.output_name);
    }();
    std::fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    return status;
}

// dgelsd time of the two stated solves: the design matrix filled for each
// (untimed), then solved for the amplitude and for the phase.
double two_solves(const Pupil& p, int n, int m, float tol) {
    const float x0 = static_cast<float>(p.size / 2), cutoff = kAperture * 1000.0f / kWavelengthNm;
    const int ncol = zernike_term_count(n, m);
    std::vector<double> rhs(p.amplitude.size());
    std::vector<double> matrix;
    double seconds = 0.0;
    for (const std::vector<float>* section : {&p.amplitude, &p.phase}) {
        int nrow = 0, rank = 0, info = 0;
        fill_rhs(x0, x0, p.dx, p.dx, cutoff, p.size, p.size, section->data(), rhs.data(), &nrow);
        matrix.resize(static_cast<std::size_t>(ncol) * nrow);
        fill_matrix(x0, x0, p.dx, p.dx, cutoff, p.size, p.size, ncol, nrow, n, m, matrix.data());
        dgelsd_seconds = 0.0;
        solve_least_squares(nrow, ncol, 1, matrix.data(), rhs.data(), tol, &rank, &info);
        seconds += dgelsd_seconds;
    }
    return seconds;
}

void BM_WholeRun(benchmark::State& state) {
    const Pupil& p = pupil(static_cast<int>(state.range(0)));
    if (!p.written) {
        state.SkipWithError("the input image could not be written");
        return;
    }
    const std::string set = std::to_string(state.range(1)) + ":" + std::to_string(state.range(2));
    const std::string fit = (work_dir() / "fit.txt").string();
    const std::string residual = (work_dir() / "residual.mrc").string();
    double run = 0.0, in_run = 0.0, stated = 0.0;
    for (auto _ : state) {
        dgelsd_seconds = 0.0;
        const auto start = Clock::now();
        if (whole_run({"torvel", p.path, fit, "-residual=" + residual, "-zernike_amp=" + set,
                       "-zernike_phase=" + set}) != 0) {
            state.SkipWithError("the run failed");
            return;
        }
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        state.SetIterationTime(seconds);
        run += seconds;
        in_run += dgelsd_seconds;
        stated += two_solves(p, static_cast<int>(state.range(1)), static_cast<int>(state.range(2)),
                             kDefaultFitInputs.tolerance);
    }
    using benchmark::Counter;
    state.counters["run"] = Counter(run, Counter::kAvgIterations);
    state.counters["dgelsd_in_run"] = Counter(in_run, Counter::kAvgIterations);
    state.counters["two_solves"] = Counter(stated, Counter::kAvgIterations);
    state.counters["run/dgelsd_in_run"] = run / in_run;
    state.counters["run/two_solves"] = run / stated;
}

BENCHMARK(BM_WholeRun)
    ->ArgNames({"N", "n", "m"})
    ->ArgsProduct({{256, 512, 1024}, {8}, {0}})
    ->Args({256, 16, 16})
    ->Args({512, 16, 16})
    ->Args({1024, 16, 16})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    // Threads wait as in torvel's own runs, so that the two compare.
    torvel::share_cores();
    // --images=DIR: write the input images for other programs and stop.
    if (argc == 2 && std::strncmp(argv[1], "--images=", 9) == 0) {
        const std::filesystem::path dir(argv[1] + 9);
        std::error_code error;
        std::filesystem::create_directories(dir, error);
        for (int size : {256, 512, 1024}) {
            const std::string path = dir / ("pupil" + std::to_string(size) + ".mrc");
            if (!make_pupil(size, path).written) return 1;  // the image layer said why
        }
        return 0;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::filesystem::remove_all(work_dir());
    return 0;
}
