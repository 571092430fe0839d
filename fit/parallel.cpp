#include "parallel.hpp"

#include <sched.h>

#include <algorithm>
#include <cstdlib>
#include <thread>
#include <vector>

namespace torvel::fit_detail {

namespace {

// Below this many pixels a part is not worth a thread of its own: a pixel
// costs a few hundred nanoseconds, starting and joining a thread tens of
// microseconds.
constexpr std::int64_t kPixelsPerPart = 8192;
constexpr int kMaxParts = 64;

// The threads a job may use: OMP_NUM_THREADS when it is set to a positive
// number (its first, for a list), which is also what the OpenMP build of
// OpenBLAS follows, so that one setting serves both (OMP_NUM_THREADS=1 when
// running one torvel per core from a script); else one per CPU this process
// may run on, which in a container or under taskset can be fewer than the
// machine has.
int thread_budget() {
    if (const char* text = std::getenv("OMP_NUM_THREADS")) {
        char* end = nullptr;
        const long n = std::strtol(text, &end, 10);
        if (end != text && n > 0 && (*end == '\0' || *end == ',')) {
            return static_cast<int>(std::min<long>(n, kMaxParts));
        }
    }
    cpu_set_t set;
    if (sched_getaffinity(0, sizeof set, &set) == 0) return std::max(CPU_COUNT(&set), 1);
    return std::max(static_cast<int>(std::thread::hardware_concurrency()), 1);
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

}  // namespace

int parts_for(std::int64_t pixels) {
    static const int cpus = thread_budget();
    const std::int64_t worth = std::max<std::int64_t>(pixels / kPixelsPerPart, 1);
    return static_cast<int>(std::min<std::int64_t>({worth, cpus, kMaxParts}));
}

namespace {

// Runs part k on items [ends[k - 1], ends[k]) (part 0 from item 0), as
// run_in_parts describes.
void run_ranges(std::span<const int> ends,
                const std::function<void(int part, int begin, int end)>& run) {
    const int parts = static_cast<int>(ends.size());
    auto begin_of = [&](int k) { return k == 0 ? 0 : ends[static_cast<std::size_t>(k - 1)]; };
    auto end_of = [&](int k) { return ends[static_cast<std::size_t>(k)]; };
    std::vector<std::thread> threads;
    std::vector<int> left;  // parts no thread could be started for
    for (int k = 1; k < parts; ++k) {
        try {
            threads.emplace_back(std::cref(run), k, begin_of(k), end_of(k));
        } catch (...) {
            left.push_back(k);
        }
    }
    run(0, 0, end_of(0));
    for (const int k : left) run(k, begin_of(k), end_of(k));
    for (std::thread& t : threads) t.join();
}

}  // namespace

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
