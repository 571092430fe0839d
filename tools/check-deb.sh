#!/usr/bin/env bash
# Checks the Debian packages as the user of a fresh Debian 12 machine gets
# them: makes them with CPack as the README says (unless .deb files are
# given), installs them with apt-get, which fetches what they depend on, and
# then, as an ordinary user (nobody): runs every program's -h and shows its
# manual page, fits the sample image the package ships, reports the fit with
# a figure, and builds the example that libtorvel-dev ships against it with
# pkg-config, and fits the sample with the Python module of python3-torvel
# (when made). Finally purges the packages and checks that none of their files
# is left, unless --keep is given (what apt-get fetched for them stays). Run
# as root.
#
#   bash tools/check-deb.sh [--keep] [torvel_*.deb libtorvel-dev_*.deb [python3-torvel_*.deb]]
set -euo pipefail
trap 'echo "check-deb: stopped: \"$BASH_COMMAND\" failed (status $?)" >&2' ERR
keep=0
if [[ ${1:-} == --keep ]]; then
    keep=1
    shift
fi
debs=()
for d in "$@"; do debs+=("$(realpath "$d")"); done
cd "$(dirname "$0")/.."
source tools/quiet.sh
if ((EUID != 0)); then
    echo "check-deb: run as root (it installs and removes packages)" >&2
    exit 1
fi

for p in torvel libtorvel-dev python3-torvel; do
    if dpkg -s "$p" >/dev/null 2>&1; then
        echo "check-deb: $p is installed already; remove it first (dpkg --purge $p)" >&2
        exit 1
    fi
done

if ((${#debs[@]} == 0)); then
    bash tools/install-deps.sh
    rm -f build/deb/*.deb
    quietly "configure build/deb" build/deb.log cmake -S . -B build/deb -DCMAKE_INSTALL_PREFIX=/usr \
        -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF -DTORVEL_BUILD_BENCHMARKS=OFF \
        -DTORVEL_DPKG_BUILDFLAGS=ON
    quietly "build build/deb" build/deb.log cmake --build build/deb -j"$(nproc)"
    quietly "cpack -G DEB" build/deb.log sh -c 'cd build/deb && cpack -G DEB'
    debs=("$PWD"/build/deb/torvel_*.deb "$PWD"/build/deb/libtorvel-dev_*.deb)
    python_deb=$(compgen -G "$PWD/build/deb/python3-torvel_*.deb" || true)
    [[ -n $python_deb ]] && debs+=("$python_deb")
fi
packages=()
for d in "${debs[@]}"; do packages+=("$(dpkg-deb -f "$d" Package)"); done
for d in "${debs[@]}"; do
    dpkg-deb -f "$d" Package Version Depends | sed 's/^/  /'
done

export DEBIAN_FRONTEND=noninteractive
quietly "apt-get install the packages" build/deb-install.log apt-get install -y "${debs[@]}" g++ pkgconf
files=$(mktemp)
dpkg -L "${packages[@]}" >"$files"
purge() {
    quietly "dpkg --purge ${packages[*]}" build/deb-install.log dpkg --purge "${packages[@]}"
    local left=0
    while read -r f; do
        if [[ -f $f || -L $f ]]; then
            echo "check-deb: $f is left after the purge" >&2
            left=1
        fi
    done <"$files"
    rm -f "$files"
    local p
    for p in "${packages[@]}"; do dpkg -s "$p" >/dev/null 2>&1 && left=1; done
    if ((left)); then
        echo "check-deb: the packages were not purged cleanly" >&2
        return 1
    fi
    echo "purged: no file of the packages left"
}

# The checks run as nobody, in a folder of its own; whatever their outcome,
# the packages are purged at the end (unless --keep).
work=$(mktemp -d)
chmod 777 "$work"
finish() {
    local status=$?
    rm -rf "$work"
    if ((keep)); then
        rm -f "$files"
    else
        purge || status=1
    fi
    ((status == 0)) && echo "check-deb: passed"
    exit $status
}
trap finish EXIT
as_user() { (cd "$work" && runuser -u nobody -- env HOME="$work" "$@"); }
for program in $(grep '^/usr/bin/' "$files"); do
    name=$(basename "$program")
    as_user "$name" -h >"$work/usage.txt"
    as_user env MANPAGER=cat man "$name" >"$work/page.txt"
    grep -q '^SEE ALSO' "$work/page.txt"
    echo "$name: $(head -n 1 "$work/usage.txt"); man $name: $(wc -l <"$work/page.txt") lines"
done
doc=/usr/share/doc/torvel
as_user torvel $doc/examples/pupil.mrc fit.txt -residual=residual.mrc >"$work/run.log"
head -n 1 "$work/fit.txt" | grep -qx '#parametric_pupil_format 0'
echo "sample fitted: $(grep -c . "$work/fit.txt") lines of fit file"
as_user torvel-report fit.txt -image=$doc/examples/pupil.mrc -residual=residual.mrc \
    -png=report.png -json=fit.json >"$work/report.txt"
echo "torvel-report: $(file -b "$work/report.png" | cut -d, -f1-2)"
example=/usr/share/doc/libtorvel-dev/examples/pupil_model/pupil_model.cpp
as_user sh -c "c++ -std=c++20 $example \$(pkg-config --cflags --libs torvel) -o pupil_model"
as_user ./pupil_model fit.txt >"$work/model.txt"
head -n 3 "$work/model.txt"
if [[ " ${packages[*]} " == *" python3-torvel "* ]]; then
    as_user /usr/bin/python3 -c 'import sys, torvel; torvel.fit(sys.argv[1]).write("py_fit.txt")' \
        $doc/examples/pupil.mrc
    cmp "$work/fit.txt" "$work/py_fit.txt"
    echo "import torvel: the same fit file, from $(as_user /usr/bin/python3 -c 'import torvel; print(torvel.__file__)')"
fi
