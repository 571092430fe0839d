#pragma once
// Inside fit/ only: running the rows of a disc on several threads. Filling
// the design matrix and computing the residual take every pixel on its own,
// from nothing but its coordinates and the shared read-only inputs, into
// places no other pixel writes; split between threads they give the very same
// values, in the time of the largest part. While dgelsd runs, LAPACK keeps
// every core busy; these steps would otherwise keep one busy and leave the
// rest idle.

#include <cstdint>
#include <functional>
#include <span>

namespace torvel::fit_detail {

// Runs run(part, begin, end) over contiguous ranges of the items
// [0, weights.size()), on up to `parts` threads (OpenMP's), and returns when
// all have ended. The items are cut into a few ranges per thread of about
// equal weight, which the threads take in turn as they come free; `part`
// is the calling thread's number, below `parts`, and no two calls that run
// at once have the same (scratch space kept per part is the thread's own).
// Each item is in exactly one range; ranges are in item order. Without
// OpenMP the ranges run one after the other on the calling thread, as part 0.
void run_in_parts(std::span<const std::int64_t> weights, int parts,
                  const std::function<void(int part, int begin, int end)>& run);

// The same for `count` items of equal weight.
void run_in_parts(int count, int parts,
                  const std::function<void(int part, int begin, int end)>& run);

// How many parts a job of `pixels` pixels is worth: one per thread OpenMP
// allows (OMP_NUM_THREADS, else one per CPU this process may run on), but
// never so many that a part has fewer than a few thousand pixels, for which
// handing it to a thread would cost more than it saves.
int parts_for(std::int64_t pixels);

}  // namespace torvel::fit_detail
