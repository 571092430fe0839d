// Time of one PSF stack of a fit file's first wavelength, as torvel-psf
// computes it (the pupil grid, its FFT plans and every plane, on all cores),
// without reading the fit file or writing the stack: 256 x 256 x 64 and
// 128 x 128 x 128 voxels at Nyquist sampling, scalar and vector. The model
// is the one bench/numpy_psf.py writes, which runs this program beside
// numpy:
//
//   bench_psf FIT_FILE [Google Benchmark options]

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include <torvel/cores.hpp>
#include <torvel/psf.hpp>

namespace {

using namespace torvel;

pupil_ptr g_model;

void stack(benchmark::State& state, int nx, int nz, bool vector) {
    model_choice choice = kDefaultModelChoice;
    choice.wavelength_index[0] = 0;
    choice.wavelength_index[1] = -1;
    choice.wavelength_count = 1;
    const double na = get_parametric_pupil_numerical_aperture(g_model.get());
    const double n = get_parametric_pupil_immersion_refractive_index(g_model.get());
    const double lambda = get_parametric_pupil_wavelength(g_model.get(), 0);
    const double dz = lambda / (2 * n * (1 - std::sqrt(1 - na * na / (n * n))));
    const psf_plan plan{nx, nx, nz, 1, lambda / (4 * na), dz, {lambda}};
    std::vector<float> voxels(std::size_t(nx) * nx * nz);
    for (auto _ : state) {
        if (compute_model_stack(choice, vector, g_model.get(), plan, 0, voxels, nullptr, nullptr) !=
            0)
            state.SkipWithError("out of memory");
        benchmark::DoNotOptimize(voxels.data());
    }
}

}  // namespace

int main(int argc, char** argv) {
    // Threads as torvel-psf has them: bounded spinning, the cgroup's cores.
    torvel::share_cores();
    if (argc < 2 || argv[1][0] == '-') {
        std::fprintf(stderr, "usage: bench_psf FIT_FILE [benchmark options]\n");
        return 1;
    }
    g_model = read_model_file("bench_psf", argv[1]);
    if (!g_model) return 1;
    for (const auto& [nx, nz] : {std::pair{256, 64}, std::pair{128, 128}})
        for (const bool vector : {false, true}) {
            const std::string name = std::to_string(nx) + "x" + std::to_string(nx) + "x" +
                                     std::to_string(nz) + (vector ? "/vector" : "/scalar");
            benchmark::RegisterBenchmark(name.c_str(), stack, nx, nz, vector)
                ->Unit(benchmark::kMillisecond)
                ->UseRealTime()
                ->MeasureProcessCPUTime();
        }
    // Google Benchmark reads its options after the program name: the fit
    // file's place takes the name.
    argv[1] = argv[0];
    int count = argc - 1;
    benchmark::Initialize(&count, argv + 1);
    if (benchmark::ReportUnrecognizedArguments(count, argv + 1)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
