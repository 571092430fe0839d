#!/usr/bin/python3
"""torvel.fit from Python against the torvel program, on one 512² pupil.

usage: PYTHONPATH=build/release/python python3 bench/python_fit.py build/release/torvel [runs]

Times, interleaved run by run, in wall time and in CPU time (the latter
less disturbed by other programs on a shared machine): the program's whole
run on the image file (start, read, fit, write the fit file), torvel.fit on
the same image held in memory as a complex64 array, and torvel.fit on the
file. Then one fit against two fits in two Python threads, which take
about as long as one when the GIL is released and two cores are free:
first with one OpenMP thread per fit (OMP_NUM_THREADS=1), so that the two
fits are all the parallel work; then with OpenMP's default, where each fit
already splits its per-pixel work between the cores. Prints medians with
the spread (lowest, highest), the ratios of the medians, and the ratio of
two to one run by run (median, lowest, highest). As the ratio needs two
free cores, it also prints how long each fit of a pair was blocked, neither
on a CPU nor waiting for one (the kernel's schedstat): near 0 with one
OpenMP thread per fit when nothing serialises the two fits, whatever else
keeps the cores busy (with more, a fit's thread also waits for its team).
"""

import os
import resource
import statistics
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

SOURCE = Path(__file__).resolve().parent.parent
SIZE = 512


def seconds(work):
    start = time.perf_counter()
    work()
    return time.perf_counter() - start


def cpu_seconds(work):
    """CPU time of this process's threads and of the children it waited for."""
    def total():
        children = resource.getrusage(resource.RUSAGE_CHILDREN)
        return time.process_time() + children.ru_utime + children.ru_stime
    start = total()
    work()
    return total() - start


def scheduled():
    """The calling thread's seconds on a CPU and waiting for one (schedstat):
    what is left of its wall time it spent blocked, on a lock or the GIL."""
    with open(f"/proc/self/task/{threading.get_native_id()}/schedstat") as f:
        running, waiting, _ = f.read().split()
    return int(running) / 1e9, int(waiting) / 1e9


def summary(name, times):
    return (f"{name:34s} median {statistics.median(times) * 1e3:8.1f} ms "
            f"(lowest {min(times) * 1e3:.1f}, highest {max(times) * 1e3:.1f}, {len(times)} runs)")


def pupil(torvel, folder):
    """The sample's model rendered on 512² pixels: the file, its sections as
    an array and the keywords torvel.fit takes with them."""
    sys.path.insert(0, str(SOURCE / "tests" / "python"))
    sys.dont_write_bytecode = True  # nothing left in the source tree
    from mrc_pupil import read_pupil
    model = torvel.read_fit(SOURCE / "sample" / "model_fit.txt")
    path = Path(folder) / "pupil512.mrc"
    torvel.render(model, size=SIZE, path=path)
    return (path, *read_pupil(path))


def against_program(program, runs):
    import torvel
    with tempfile.TemporaryDirectory() as folder:
        path, image, geometry = pupil(torvel, folder)
        out = Path(folder) / "fit.txt"
        runs_of = {
            "program, whole run": lambda: subprocess.run(
                [program, str(path), str(out)], check=True, stdout=subprocess.DEVNULL),
            "torvel.fit(array)": lambda: torvel.fit(image, **geometry),
            "torvel.fit(file)": lambda: torvel.fit(path),
        }
        wall = {name: [] for name in runs_of}
        cpu = {name: [] for name in runs_of}
        for _ in range(runs):
            for name, work in runs_of.items():
                wall[name].append(seconds(work))
                cpu[name].append(cpu_seconds(work))
        same = torvel.fit(image, **geometry)
        same.write(Path(folder) / "array.txt")
        identical = (Path(folder) / "array.txt").read_bytes() == out.read_bytes()
    print(f"{SIZE}² pupil, two wavelengths, sets 8:0; fit files identical: {identical}")
    for kind, times in (("wall", wall), ("CPU", cpu)):
        for name, values in times.items():
            print(summary(f"{name}, {kind}", values))
        base = statistics.median(times["program, whole run"])
        for name in ("torvel.fit(array)", "torvel.fit(file)"):
            print(f"{name} / program, {kind}: {statistics.median(times[name]) / base:.3f}")


def threads(runs):
    import torvel
    with tempfile.TemporaryDirectory() as folder:
        _, image, geometry = pupil(torvel, folder)

    blocked = []  # per fit of a pair: the share of its time it could not run

    def one():
        torvel.fit(image, **geometry)

    def one_of_two():
        before, start = scheduled(), time.perf_counter()
        one()
        wall = time.perf_counter() - start
        after = scheduled()
        blocked.append((wall - sum(after) + sum(before)) / wall)

    def two():
        pair = [threading.Thread(target=one_of_two) for _ in range(2)]
        for t in pair:
            t.start()
        for t in pair:
            t.join()

    ones, twos = [], []
    for _ in range(runs):
        ones.append(seconds(one))
        twos.append(seconds(two))
    openmp = os.environ.get("OMP_NUM_THREADS", "default")
    print(f"OMP_NUM_THREADS={openmp}:")
    print(summary("one fit, one thread", ones))
    print(summary("two fits in two threads", twos))
    ratios = [b / a for a, b in zip(ones, twos)]
    print(f"two / one: {statistics.median(twos) / statistics.median(ones):.3f} of the medians; "
          f"run by run median {statistics.median(ratios):.3f} "
          f"(lowest {min(ratios):.3f}, highest {max(ratios):.3f})")
    print(f"a fit of a pair blocked (neither running nor waiting for a CPU): median "
          f"{statistics.median(blocked):.1%} of its time (highest {max(blocked):.1%})")


def main():
    if sys.argv[1] == "--threads":
        threads(int(sys.argv[2]))
        return
    runs = int(sys.argv[2]) if len(sys.argv) > 2 else 10
    against_program(sys.argv[1], runs)
    default = {k: v for k, v in os.environ.items() if k != "OMP_NUM_THREADS"}
    for env in ({**default, "OMP_NUM_THREADS": "1"}, default):
        subprocess.run([sys.executable, __file__, "--threads", str(runs)], check=True, env=env)


if __name__ == "__main__":
    main()
