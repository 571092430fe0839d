#include "parallel.hpp"

#include <algorithm>
#include <vector>

#ifdef _OPENMP
#include <omp.h>
#endif

namespace torvel::fit_detail {

namespace {

// Below this many pixels a part is not worth a thread of its own: a pixel
// costs a few hundred nanoseconds, waking a thread some microseconds.
constexpr std::int64_t kPixelsPerPart = 8192;
constexpr int kMaxParts = 64;
constexpr int kRangesPerWorker = 4;

// The threads a job may use: OpenMP's count, which follows OMP_NUM_THREADS
// and the CPUs this process may run on (taskset, CPU sets), as the
// solves of OpenBLAS's OpenMP build do. One where the compiler had no OpenMP.
int thread_budget() {
#ifdef _OPENMP
    return std::clamp(omp_get_max_threads(), 1, kMaxParts);
#else
    return 1;
#endif
}

// Where each part's range ends: part k takes items until the running weight
// reaches (k + 1) / parts of the whole, the last part all that remain.
std::vector<int> part_ends(std::span<const std::int64_t> weights, int parts) {
    std::int64_t total = 0;
    for (const std::int64_t w : weights) total += w;
    std::vector<int> ends(static_cast<std::size_t>(parts));
    const int count = static_cast<int>(weights.size());
    int item = 0;
    std::int64_t sum = 0;
    for (int k = 0; k < parts; ++k) {
        const std::int64_t target = total / parts * (k + 1) + total % parts * (k + 1) / parts;
        while (item < count && (sum < target || k == parts - 1)) sum += weights[item++];
        ends[static_cast<std::size_t>(k)] = item;
    }
    return ends;
}

// Runs the ranges [ends[k - 1], ends[k]) (the first from item 0) on up to
// `workers` threads of OpenMP's pool, the pool that OpenBLAS's OpenMP build
// solves with: no thread is started per job, and none is left spinning
// beside it after a solve. Each thread takes the next range as it comes
// free, so a thread that another program holds off its core for a while
// delays the job by a range, not by a share of the whole.
void run_ranges(std::span<const int> ends, int workers,
                const std::function<void(int worker, int begin, int end)>& run) {
    const int ranges = static_cast<int>(ends.size());
    auto begin_of = [&](int k) { return k == 0 ? 0 : ends[static_cast<std::size_t>(k - 1)]; };
#ifdef _OPENMP
#pragma omp parallel for num_threads(workers) schedule(dynamic, 1) if (workers > 1)
    for (int k = 0; k < ranges; ++k)
        run(omp_get_thread_num(), begin_of(k), ends[static_cast<std::size_t>(k)]);
#else
    (void)workers;
    for (int k = 0; k < ranges; ++k) run(0, begin_of(k), ends[static_cast<std::size_t>(k)]);
#endif
}

// How many ranges `workers` threads share: a few each, so that one held
// off its core is caught up by the others, but never more than `count`.
int ranges_for(int workers, int count) {
    return std::clamp(workers == 1 ? 1 : workers * kRangesPerWorker, 1, std::max(count, 1));
}

}  // namespace

int parts_for(std::int64_t pixels) {
    static const int threads = thread_budget();
    const std::int64_t worth = std::max<std::int64_t>(pixels / kPixelsPerPart, 1);
    return static_cast<int>(std::min<std::int64_t>(worth, threads));
}

void run_in_parts(std::span<const std::int64_t> weights, int parts,
                  const std::function<void(int part, int begin, int end)>& run) {
    const int count = static_cast<int>(weights.size());
    parts = std::clamp(parts, 1, std::max(count, 1));
    run_ranges(part_ends(weights, ranges_for(parts, count)), parts, run);
}

void run_in_parts(int count, int parts,
                  const std::function<void(int part, int begin, int end)>& run) {
    count = std::max(count, 0);
    parts = std::clamp(parts, 1, std::max(count, 1));
    const int ranges = ranges_for(parts, count);
    std::vector<int> ends(static_cast<std::size_t>(ranges));
    for (int k = 0; k < ranges; ++k)
        ends[static_cast<std::size_t>(k)] =
            static_cast<int>(static_cast<std::int64_t>(count) * (k + 1) / ranges);
    run_ranges(ends, parts, run);
}

}  // namespace torvel::fit_detail
