// Timings of the fitting code on a pupil disc that fills an N x N plane, for
// the Zernike sets (8, 0), (8, 8) and (16, 16): filling the right-hand side
// and the design matrix, the whole fit, the residual of two fitted series,
// and a bare dgelsd solve of the same matrix, the floor any fit stands on.
// After the run, the ratios that matter are printed per plane and set:
// filling over solving, and the residual over solving.

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <torvel/fit.hpp>
#include <torvel/zernike.hpp>

namespace {

using namespace torvel;

// A plane of N x N pixels whose pupil disc touches all four sides.
struct Plane {
    int size;
    float x0, y0, dx, dy, cutoff;
    std::vector<float> amplitude, phase;
    int nrow;

    explicit Plane(int n)
        : size(n),
          x0(n / 2.0f),
          y0(n / 2.0f),
          dx(2.0f / n),
          dy(2.0f / n),
          cutoff(1.0f),
          amplitude(static_cast<std::size_t>(n) * n),
          phase(amplitude.size()),
          nrow(0) {
        for (int iy = 0; iy < n; ++iy) {
            for (int ix = 0; ix < n; ++ix) {
                const double x = (ix - x0) * dx;
                const double y = (iy - y0) * dy;
                const std::size_t i = static_cast<std::size_t>(iy) * n + ix;
                amplitude[i] = static_cast<float>(1.0 - 0.3 * (x * x + y * y) + 0.05 * x);
                phase[i] = static_cast<float>(0.8 * x * y - 0.4 * y + 0.2 * std::cos(3 * x));
            }
        }
        std::vector<double> rhs(amplitude.size());
        fill_rhs(x0, y0, dx, dy, cutoff, size, size, amplitude.data(), rhs.data(), &nrow);
    }
};

const Plane& plane(int n) {
    static std::map<int, std::unique_ptr<Plane>> planes;
    auto& p = planes[n];
    if (!p) p = std::make_unique<Plane>(n);
    return *p;
}

// The filled system of the last (plane, set) asked for; one at a time, since
// a 1024 x 1024 plane with (16, 16) needs a gigabyte.
struct System {
    int size = 0, n = -1, m = -1, ncol = 0;
    std::vector<double> matrix, rhs;
};

const System& system_for(const Plane& p, int n, int m) {
    static System s;
    if (s.size != p.size || s.n != n || s.m != m) {
        s = System{};
        s.size = p.size;
        s.n = n;
        s.m = m;
        s.ncol = zernike_term_count(n, m);
        s.rhs.resize(p.nrow);
        s.matrix.resize(static_cast<std::size_t>(s.ncol) * p.nrow);
        int nrow = 0;
        fill_rhs(p.x0, p.y0, p.dx, p.dy, p.cutoff, p.size, p.size, p.amplitude.data(), s.rhs.data(),
                 &nrow);
        fill_matrix(p.x0, p.y0, p.dx, p.dy, p.cutoff, p.size, p.size, s.ncol, nrow, n, m,
                    s.matrix.data());
    }
    return s;
}

// Sends standard output to /dev/null for its lifetime (the fit prints its
// progress lines there), flushing before each switch.
class QuietStdout {
  public:
    QuietStdout() : saved_(dup(STDOUT_FILENO)) {
        std::fflush(stdout);
        std::FILE* null = std::fopen("/dev/null", "w");
        dup2(fileno(null), STDOUT_FILENO);
        std::fclose(null);
    }
    ~QuietStdout() {
        std::fflush(stdout);
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
    }
    QuietStdout(const QuietStdout&) = delete;
    QuietStdout& operator=(const QuietStdout&) = delete;

  private:
    int saved_;
};

// The plane and Zernike set that a benchmark's arguments name.
struct Case {
    const Plane& plane;
    int n;
    int m;
};

Case case_of(const benchmark::State& state) {
    return {plane(static_cast<int>(state.range(0))), static_cast<int>(state.range(1)),
            static_cast<int>(state.range(2))};
}

void set_counters(benchmark::State& state, const Plane& p, int n, int m) {
    state.counters["rows"] = p.nrow;
    state.counters["cols"] = zernike_term_count(n, m);
}

void BM_FillSystem(benchmark::State& state) {
    const auto [p, n, m] = case_of(state);
    const int ncol = zernike_term_count(n, m);
    std::vector<double> rhs(p.amplitude.size());
    std::vector<double> matrix(static_cast<std::size_t>(ncol) * p.nrow);
    for (auto _ : state) {
        int nrow = 0;
        fill_rhs(p.x0, p.y0, p.dx, p.dy, p.cutoff, p.size, p.size, p.amplitude.data(), rhs.data(),
                 &nrow);
        fill_matrix(p.x0, p.y0, p.dx, p.dy, p.cutoff, p.size, p.size, ncol, nrow, n, m,
                    matrix.data());
        benchmark::DoNotOptimize(matrix.data());
        benchmark::ClobberMemory();
    }
    set_counters(state, p, n, m);
}

void BM_Dgelsd(benchmark::State& state) {
    const auto [p, n, m] = case_of(state);
    const System& s = system_for(p, n, m);
    std::vector<double> matrix(s.matrix.size());
    std::vector<double> rhs(s.rhs.size());
    for (auto _ : state) {
        state.PauseTiming();
        matrix = s.matrix;  // dgelsd destroys its matrix
        rhs = s.rhs;
        state.ResumeTiming();
        int rank = 0;
        int info = 0;
        if (solve_least_squares(p.nrow, s.ncol, 1, matrix.data(), rhs.data(), 1e-4, &rank, &info) !=
                0 ||
            info != 0) {
            state.SkipWithError("dgelsd failed");
            break;
        }
        benchmark::DoNotOptimize(rhs.data());
    }
    set_counters(state, p, n, m);
}

void BM_ComputeFit(benchmark::State& state) {
    const auto [p, n, m] = case_of(state);
    std::vector<double> coeff(zernike_term_count(n, m));
    for (auto _ : state) {
        QuietStdout quiet;
        if (compute_fit(p.x0, p.y0, p.dx, p.dy, p.cutoff, p.size, p.size, p.amplitude.data(), n, m,
                        coeff.data(), 1e-4f) != 0) {
            state.SkipWithError("compute_fit failed");
            break;
        }
    }
    set_counters(state, p, n, m);
}

void BM_ComputeResidual(benchmark::State& state) {
    const auto [p, n, m] = case_of(state);
    std::vector<double> coeff_a(zernike_term_count(n, m));
    std::vector<double> coeff_p(coeff_a.size());
    for (std::size_t i = 0; i < coeff_a.size(); ++i) {
        coeff_a[i] = 0.1 / (1.0 + static_cast<double>(i));
        coeff_p[i] = 0.2 * std::sin(static_cast<double>(i));
    }
    coeff_a[0] = 1.0;
    std::vector<float> residual(2 * p.amplitude.size());
    float stats[3];
    for (auto _ : state) {
        QuietStdout quiet;
        compute_residual(p.x0, p.y0, p.dx, p.dy, p.cutoff, p.size, p.size, p.amplitude.data(),
                         p.phase.data(), n, m, coeff_a.data(), n, m, coeff_p.data(),
                         residual.data(), stats);
        benchmark::DoNotOptimize(residual.data());
    }
    set_counters(state, p, n, m);
}

// Filling, one dgelsd solve and the residual, timed one after the other in
// every iteration, so that all three see the same machine: on a shared host
// the speed drifts over minutes, and so do ratios of benchmarks that ran
// minutes apart. Reports the ratios of the summed times as counters.
void BM_SameIterationRatios(benchmark::State& state) {
    using Clock = std::chrono::steady_clock;
    const auto [p, n, m] = case_of(state);
    const int ncol = zernike_term_count(n, m);
    std::vector<double> rhs(p.amplitude.size());
    std::vector<double> matrix(static_cast<std::size_t>(ncol) * p.nrow);
    std::vector<double> coeff(static_cast<std::size_t>(ncol), 0.0);
    std::vector<float> residual(2 * p.amplitude.size());
    float stats[3];
    double fill = 0.0, solve = 0.0, residuals = 0.0;
    auto seconds = [](Clock::time_point a, Clock::time_point b) {
        return std::chrono::duration<double>(b - a).count();
    };
    for (auto _ : state) {
        int nrow = 0, rank = 0, info = 0;
        const auto t0 = Clock::now();
        fill_rhs(p.x0, p.y0, p.dx, p.dy, p.cutoff, p.size, p.size, p.amplitude.data(), rhs.data(),
                 &nrow);
        fill_matrix(p.x0, p.y0, p.dx, p.dy, p.cutoff, p.size, p.size, ncol, nrow, n, m,
                    matrix.data());
        const auto t1 = Clock::now();
        if (solve_least_squares(nrow, ncol, 1, matrix.data(), rhs.data(), 1e-4, &rank, &info) !=
                0 ||
            info != 0) {
            state.SkipWithError("dgelsd failed");
            break;
        }
        const auto t2 = Clock::now();
        std::copy(rhs.begin(), rhs.begin() + ncol, coeff.begin());
        {
            QuietStdout quiet;
            const auto t3 = Clock::now();
            compute_residual(p.x0, p.y0, p.dx, p.dy, p.cutoff, p.size, p.size, p.amplitude.data(),
                             p.phase.data(), n, m, coeff.data(), n, m, coeff.data(),
                             residual.data(), stats);
            residuals += seconds(t3, Clock::now());
        }
        fill += seconds(t0, t1);
        solve += seconds(t1, t2);
        benchmark::DoNotOptimize(residual.data());
    }
    if (solve > 0.0) {
        state.counters["fill/dgelsd"] = fill / solve;
        state.counters["residual/dgelsd"] = residuals / solve;
    }
}

void sizes_and_sets(benchmark::internal::Benchmark* b) {
    for (int size : {256, 512, 1024}) {
        for (auto [n, m] : {std::pair{8, 0}, {8, 8}, {16, 16}}) {
            b->Args({size, n, m});
        }
    }
    b->ArgNames({"N", "n", "m"})->Unit(benchmark::kMillisecond)->UseRealTime();
}

BENCHMARK(BM_FillSystem)->Apply(sizes_and_sets);
BENCHMARK(BM_Dgelsd)->Apply(sizes_and_sets);
BENCHMARK(BM_ComputeFit)->Apply(sizes_and_sets);
BENCHMARK(BM_ComputeResidual)->Apply(sizes_and_sets);
BENCHMARK(BM_SameIterationRatios)->Apply(sizes_and_sets);

// Console output as usual, plus the time of every run kept by name, so that
// the ratios can be printed once everything has run. With
// --benchmark_repetitions the fastest repetition of each counts: on a shared
// machine the slow ones measure the neighbours, not the code.
class RatioReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (!run.error_occurred && run.run_type == Run::RT_Iteration) {
                const double seconds = run.GetAdjustedRealTime();
                const auto [it, fresh] = seconds_.emplace(run.benchmark_name(), seconds);
                if (!fresh) it->second = std::min(it->second, seconds);
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }

    // For each plane and set: fill / dgelsd and residual / dgelsd, where all
    // three ran.
    void print_ratios() const {
        std::printf("\nratios to one dgelsd solve of the same matrix\n");
        for (const auto& [name, solve] : seconds_) {
            const std::string prefix = "BM_Dgelsd/";
            if (name.compare(0, prefix.size(), prefix) != 0) continue;
            const std::string args = name.substr(prefix.size());
            const auto fill = seconds_.find("BM_FillSystem/" + args);
            const auto residual = seconds_.find("BM_ComputeResidual/" + args);
            std::printf("%-28s", args.c_str());
            if (fill != seconds_.end()) std::printf("  fill/dgelsd %.3f", fill->second / solve);
            if (residual != seconds_.end()) {
                std::printf("  residual/dgelsd %.3f", residual->second / solve);
            }
            std::printf("\n");
        }
    }

  private:
    std::map<std::string, double> seconds_;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.print_ratios();
    benchmark::Shutdown();
    return 0;
}
