#pragma once
// Sharing the machine's cores with the programs around a run.
//
// torvel's per-pixel work and OpenBLAS's solves run on OpenMP's threads
// (libgomp). Left alone, a libgomp thread that runs out of work spins for
// some milliseconds before it sleeps, on a core it keeps from any other
// program and from its own process's threads that another program has
// pushed off a core: with one core busy elsewhere a run took twice as
// long, and two runs side by side (`xargs -P2`) three times as long as one
// after the other (bench/batch.py). And libgomp starts a
// thread per CPU the process may run on, even where its cgroup (a container,
// a batch system's job) grants it the time of fewer.
//
// A program fixes both by calling share_cores() first thing in main:
//
//     int main(int argc, char** argv) {
//         torvel::share_cores();
//         ...
//
// The call itself limits the thread count. The waiting has to be set before
// libgomp starts, which is before main: the call links in start-up code (in
// the same file) that runs before any library starts and, when neither
// OMP_WAIT_POLICY nor GOMP_SPINCOUNT is set, has libgomp find GOMP_SPINCOUNT
// set, bounding the spin to some tens of microseconds; main sees the
// environment the program was started with. The same start-up code stops
// a program, with one line, whose address-space limit (ulimit -v) is too
// small for OpenBLAS to start in: OpenBLAS would otherwise retry its
// mapping for ever. A user's own OMP_WAIT_POLICY,
// GOMP_SPINCOUNT and OMP_NUM_THREADS win over both. Programs that only use
// the library (and do not call this) are left as they are.

#include <string>
#include <string_view>

namespace torvel {

// Limits OpenMP's (and so OpenBLAS's) threads to the cores' worth of CPU
// time this process's cgroup grants, unless OMP_NUM_THREADS is set; with it,
// the start-up code above is part of the program. Call first in main.
void share_cores();

// The number of cores' worth of CPU time (rounded up) that the cgroup
// described by `self_cgroup` (the text of /proc/self/cgroup) and its
// ancestors grant, read from the cgroup file systems under `cgroup_root`
// (normally /sys/fs/cgroup; version 2's cpu.max, or version 1's
// cpu.cfs_quota_us and cpu.cfs_period_us); 0 where none sets a limit or
// nothing can be read.
int cgroup_cpu_limit(const std::string& cgroup_root, std::string_view self_cgroup);

}  // namespace torvel
