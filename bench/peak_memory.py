"""Peak memory of torvel runs against what they must hold: the design matrix
(unknowns x measurements doubles, the larger set's) and the image planes held
with it (the section as read, complex, and the phase: 12 bytes a pixel).

Two measures, each less what `torvel -h` takes (program and libraries
loaded, nothing done):
  - anonymous: the largest RssAnon seen while polling /proc (the memory the
    run allocated; library code pages left out);
  - resident: the peak resident set (VmHWM, the kernel's own high-water
    mark, last read just before the run ends), library code pages that the
    solve touches included.

Use:  python3 bench/peak_memory.py TORVEL IMAGE_DIR [REPEATS]
IMAGE_DIR holds pupil256.mrc, pupil512.mrc and pupil1024.mrc, as written by
`bench_run --images=IMAGE_DIR`.
"""
import os
import re
import statistics
import subprocess
import sys
import tempfile


def peak(args):
    """(largest RssAnon seen, last VmHWM seen) in KiB, and standard output."""
    with tempfile.TemporaryFile() as out:
        pid = subprocess.Popen(args, stdout=out).pid
        proc_status, anon, high = '/proc/%d/status' % pid, 0, 0
        while True:
            done, wait_status = os.waitpid(pid, os.WNOHANG)
            if done:
                break
            try:
                with open(proc_status) as f:
                    text = f.read()
            except OSError:
                continue
            found = [re.search(name + r':\s+(\d+)', text) for name in ('RssAnon', 'VmHWM')]
            if all(found):  # a zombie has neither
                anon = max(anon, int(found[0].group(1)))
                high = max(high, int(found[1].group(1)))
        out.seek(0)
        if os.waitstatus_to_exitcode(wait_status) != 0:
            sys.exit('peak_memory: %s failed' % ' '.join(args))
        return anon, high, out.read().decode()


def measured(torvel, image, n_m, repeats):
    with tempfile.TemporaryDirectory() as work:
        args = [torvel, image, os.path.join(work, 'fit.txt'),
                '-residual=' + os.path.join(work, 'residual.mrc'),
                '-zernike_amp=' + n_m, '-zernike_phase=' + n_m]
        return [peak(args) for _ in range(repeats)]


def main(argv):
    if len(argv) not in (3, 4):
        sys.stderr.write(__doc__)
        return 2
    torvel, images = argv[1], argv[2]
    repeats = int(argv[3]) if len(argv) == 4 else 3
    base_anon, base_rss, _ = peak([torvel, '-h'])
    print('%-6s %-6s %10s %10s %10s %10s' % ('size', 'set', 'needed MB', 'anon MB', 'anon/need',
                                           'rss/need'))
    for size in (256, 512, 1024):
        image = os.path.join(images, 'pupil%d.mrc' % size)
        for n_m in ('8:0', '16:16'):
            runs = measured(torvel, image, n_m, repeats)
            counts = [tuple(map(int, m)) for m in
                      re.findall(r'(\d+) unknowns (\d+) measurements', runs[0][2])]
            ncol, nrow = max(counts)
            needed = (ncol * nrow * 8 + 12 * size * size) / 1024
            anon = statistics.median(r[0] for r in runs) - base_anon
            rss = statistics.median(r[1] for r in runs) - base_rss
            print('%-6d %-6s %10.1f %10.1f %10.3f %10.3f' % (size, n_m, needed / 1024, anon / 1024,
                                                          anon / needed, rss / needed))
    return 0


if __name__ == '__main__':
    sys.exit(main(sys.argv))
