#pragma once
// Inside fit/ only: running the rows of a disc on several threads. Filling
// the design matrix and computing the residual take every pixel on its own,
// from nothing but its coordinates and the shared read-only inputs, into
// places no other pixel writes; split between threads they give the very same
// values, in the time of the largest part. While dgelsd runs, LAPACK keeps
// every core busy; these steps would otherwise keep one busy and leave the
// rest idle. The page faults of a freshly allocated matrix, which the kernel
// serves by zeroing pages, are shared out with the writes that cause them.

#include <cstdint>
#include <functional>
#include <span>

namespace torvel::fit_detail {

// Runs run(part, begin, end) on up to `parts` contiguous ranges of the items
// [0, weights.size()) whose weights add up to about the same, part 0 on the
// calling thread and every other on a thread of its own, and returns when all
// have ended. A part whose thread cannot be started runs on the calling
// thread after part 0. Each item is in exactly one range; ranges are in item
// order.
void run_in_parts(std::span<const std::int64_t> weights, int parts,
                  const std::function<void(int part, int begin, int end)>& run);

// The same for `count` items of equal weight.
void run_in_parts(int count, int parts,
                  const std::function<void(int part, int begin, int end)>& run);

// How many parts a job of `pixels` pixels is worth: one per thread allowed
// (OMP_NUM_THREADS, else one per available CPU), but never so many that a
// part has fewer than a few thousand pixels, for which starting a thread
// would cost more than it saves.
int parts_for(std::int64_t pixels);

}  // namespace torvel::fit_detail
