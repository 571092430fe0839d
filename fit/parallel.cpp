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

// Runs part k on items [ends[k - 1], ends[k]) (part 0 from item 0), as
// run_in_parts describes. The parts run on the threads of OpenMP's pool, the
// pool that OpenBLAS's OpenMP build solves with: no thread is started per
// job, and none is left spinning beside it after a solve.
void run_ranges(std::span<const int> ends,
                const std::function<void(int part, int begin, int end)>& run) {
    const int parts = static_cast<int>(ends.size());
    auto begin_of = [&](int k) { return k == 0 ? 0 : ends[static_cast<std::size_t>(k - 1)]; };
#ifdef _OPENMP
#pragma omp parallel for num_threads(parts) schedule(static, 1) if (parts > 1)
#endif
    for (int k = 0; k < parts; ++k) run(k, begin_of(k), ends[static_cast<std::size_t>(k)]);
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
    run_ranges(part_ends(weights, std::clamp(parts, 1, std::max(count, 1))), run);
}

void run_in_parts(int count, int parts,
                  const std::function<void(int part, int begin, int end)>& run) {
    count = std::max(count, 0);
    parts = std::clamp(parts, 1, std::max(count, 1));
    std::vector<int> ends(static_cast<std::size_t>(parts));
    for (int k = 0; k < parts; ++k)
        ends[static_cast<std::size_t>(k)] =
            static_cast<int>(static_cast<std::int64_t>(count) * (k + 1) / parts);
    run_ranges(ends, run);
}

}  // namespace torvel::fit_detail
