"""torvel over a folder of pupil images, the way it is used: one file after
another, two at a time with `xargs -P2`, and a single run while another
program keeps one core busy.

The folder holds FILES copies of one 512 x 512 pupil image (as written by
`bench_run --images=DIR`, DIR/pupil512.mrc); each run fits the default sets
and writes a residual image, under names that are new in each pass (as when
a folder is processed once). Each repeat times, for every configuration in
turn so that all see the same machine:
  - serial: the files one after another;
  - P2:     the files through `xargs -P2`;
  - idle / busy: single runs of one file (3 a repeat), alone and while a
    busy loop (a process of the same priority) holds one core.
The configurations: TORVEL as it is; with --today=TORVEL, another build to
compare with (the serial loop is to be no slower than its); with
--one-thread, TORVEL with OMP_NUM_THREADS=1 in each run's environment; with
--variant=NAME=VALUE (repeatable), TORVEL with that variable set.
OMP_* and GOMP_* variables are otherwise removed from the runs' environment,
so that the programs' own settings are measured.

Prints the median of each figure with its range over the repeats, then per
configuration: busy/idle (target: at most 1.3) and serial/P2 time, P2's
throughput against the serial loop's (target: at least 1.7), and for the
other configurations their throughputs against TORVEL's serial loop; and
TORVEL's serial loop against --today's (target: at most 1).

Use:  python3 bench/batch.py TORVEL IMAGE [--today=TORVEL] [--repeats=N]
                             [--files=N] [--one-thread] [--variant=NAME=VALUE]...
"""
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time


def clean_environment(extra):
    env = {k: v for k, v in os.environ.items()
           if not k.startswith('OMP_') and not k.startswith('GOMP_')}
    env.update(extra)
    return env


def remove_outputs(images):
    for image in images:
        for output in (image + '.txt', image + '.res.mrc'):
            if os.path.exists(output):
                os.remove(output)


def one_run(torvel, image, env):
    """Seconds for one run of torvel on image, with its fit and residual."""
    start = time.perf_counter()
    subprocess.run([torvel, image, image + '.txt', '-residual=' + image + '.res.mrc'],
                   env=env, stdout=subprocess.DEVNULL, check=True)
    return time.perf_counter() - start


def serial(torvel, images, env):
    remove_outputs(images)
    return sum(one_run(torvel, image, env) for image in images)


def two_at_a_time(torvel, images, env):
    remove_outputs(images)
    start = time.perf_counter()
    subprocess.run(['xargs', '-P2', '-I{}', torvel, '{}', '{}.txt', '-residual={}.res.mrc'],
                   input='\n'.join(images).encode(), env=env, stdout=subprocess.DEVNULL,
                   check=True)
    return time.perf_counter() - start


def single(torvel, image, env, busy_core):
    """One run on a new output name, while a busy loop of the same priority
    holds a core if busy_core."""
    remove_outputs([image])
    busy = subprocess.Popen([sys.executable, '-c', 'while True: pass']) if busy_core else None
    try:
        if busy:
            time.sleep(0.2)  # the loop is running before torvel starts
        return one_run(torvel, image, env)
    finally:
        if busy:
            busy.kill()
            busy.wait()


def summary(name, values, unit='s'):
    values = sorted(values)
    median = statistics.median(values)
    spread = (values[-1] - values[0]) / median * 100 if median else 0.0
    print('  %-30s median %7.3f %s   range %.3f .. %.3f   (spread %.0f%%)'
          % (name, median, unit, values[0], values[-1], spread))
    return median


def main(argv):
    options = {'repeats': '5', 'files': '16', 'today': None}
    variants, positional, one_thread = [], [], False
    for arg in argv[1:]:
        if arg.startswith('--variant='):
            variants.append(arg[len('--variant='):])
        elif arg == '--one-thread':
            one_thread = True
        elif arg.startswith('--') and arg[2:].partition('=')[0] in options:
            name, _, value = arg[2:].partition('=')
            options[name] = value
        else:
            positional.append(arg)
    if len(positional) != 2 or any('=' not in v for v in variants):
        sys.stderr.write(__doc__)
        return 2
    torvel, source = positional
    repeats, count = int(options['repeats']), int(options['files'])

    configs = [('torvel', torvel, {})]
    if options['today']:
        configs.append(('today', options['today'], {}))
    if one_thread:
        variants.append('OMP_NUM_THREADS=1')
    for variant in variants:
        name, _, value = variant.partition('=')
        configs.append((variant, torvel, {name: value}))
    figures = {label: {} for label, _, _ in configs}

    with tempfile.TemporaryDirectory() as work:
        images = []
        for k in range(count):
            images.append(os.path.join(work, 'pupil%02d.mrc' % k))
            shutil.copyfile(source, images[-1])
        for _, program, _ in configs:
            one_run(program, images[0], clean_environment({}))  # in the page cache
        for repeat in range(repeats):
            for label, program, extra in configs:
                env = clean_environment(extra)
                own = figures[label]
                own.setdefault('serial', []).append(serial(program, images, env))
                own.setdefault('P2', []).append(two_at_a_time(program, images, env))
                for _ in range(3):
                    own.setdefault('idle', []).append(single(program, images[0], env, False))
                    own.setdefault('busy', []).append(single(program, images[0], env, True))
            print('repeat %d of %d done' % (repeat + 1, repeats), file=sys.stderr)

    print('%d files of %s, %d repeats' % (count, os.path.basename(source), repeats))
    results = {}
    for label, _, _ in configs:
        own = figures[label]
        print(label + ':')
        for name in ('serial', 'P2', 'idle', 'busy'):
            summary(name, own[name])
        busy = summary('busy / idle', [b / i for b, i in zip(own['busy'], own['idle'])], 'x')
        throughput = summary('serial / P2', [s / p for s, p in zip(own['serial'], own['P2'])], 'x')
        results[label] = (busy, throughput)
        if label != 'torvel':  # throughputs against torvel's own serial loop
            plain = figures['torvel']['serial']
            for name in ('serial', 'P2'):
                summary('torvel serial / ' + name, [a / b for a, b in zip(plain, own[name])], 'x')
    busy, throughput = results['torvel']
    verdict = 'busy core %.2f (<= 1.3): %s; P2 %.2f (>= 1.7): %s' % (
        busy, 'met' if busy <= 1.3 else 'NOT met',
        throughput, 'met' if throughput >= 1.7 else 'NOT met')
    if options['today']:
        print('torvel / today:')
        pairs = zip(figures['torvel']['serial'], figures['today']['serial'])
        today = summary('serial', [a / b for a, b in pairs], 'x')
        verdict += '; serial %.2f of today (<= 1): %s' % (today, 'met' if today <= 1 else 'NOT met')
    print(verdict)
    return 0


if __name__ == '__main__':
    sys.exit(main(sys.argv))
