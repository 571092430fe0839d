#!/usr/bin/env bash
# Checks the Debian packages as the user of a fresh Debian 12 machine gets
# them: makes them with CPack (unless .deb files are given), installs them with
# apt-get, which fetches what they depend on, then runs `torvel -h`, shows the
# manual page, fits the sample image the package ships and builds the example
# program against libtorvel-dev with pkg-config and fits the sample with the
# Python module of python3-torvel. Finally removes the packages again with
# dpkg -r, unless --keep is given (what apt-get fetched for them stays). Run
# as root.
#
#   bash tools/check-deb.sh [--keep] [torvel_*.deb libtorvel-dev_*.deb python3-torvel_*.deb]
set -euo pipefail
trap 'echo "check-deb: failed at line $LINENO: $BASH_COMMAND" >&2' ERR
keep=0
if [[ ${1:-} == --keep ]]; then
    keep=1
    shift
fi
debs=()
for d in "$@"; do debs+=("$(realpath "$d")"); done
cd "$(dirname "$0")/.."
source tools/quiet.sh

packages=(torvel libtorvel-dev python3-torvel)
for p in "${packages[@]}"; do
    if dpkg -s "$p" >/dev/null 2>&1; then
        echo "check-deb: $p is installed already; remove it first (dpkg -r $p)" >&2
        exit 1
    fi
done

if ((${#debs[@]} == 0)); then
    bash tools/install-deps.sh dpkg-dev
    quietly "configure build/deb" build/deb.log cmake -S . -B build/deb -DCMAKE_INSTALL_PREFIX=/usr \
        -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF -DTORVEL_BUILD_BENCHMARKS=OFF
    quietly "build build/deb" build/deb.log cmake --build build/deb -j"$(nproc)"
    quietly "cpack -G DEB" build/deb.log sh -c 'cd build/deb && cpack -G DEB'
    debs=("$PWD"/build/deb/torvel_*.deb "$PWD"/build/deb/libtorvel-dev_*.deb
          "$PWD"/build/deb/python3-torvel_*.deb)
fi
for d in "${debs[@]}"; do
    dpkg-deb -f "$d" Package Depends | sed 's/^/  /'
done

export DEBIAN_FRONTEND=noninteractive
quietly "apt-get install the packages" build/deb-install.log apt-get install -y "${debs[@]}" g++ pkgconf
remove() { ((keep)) || quietly "dpkg -r ${packages[*]}" build/deb-install.log dpkg -r "${packages[@]}"; }
trap remove EXIT

work=$(mktemp -d)
torvel -h >"$work/usage.txt"
head -n 1 "$work/usage.txt"
MANPAGER=cat man torvel >"$work/page.txt"
grep -q '^SYNOPSIS' "$work/page.txt"
echo "man torvel: $(wc -l <"$work/page.txt") lines"
(cd "$work" && torvel /usr/share/doc/torvel/examples/pupil.mrc fit.txt -residual=residual.mrc >run.log)
head -n 1 "$work/fit.txt" | grep -qx '#parametric_pupil_format 0'
echo "sample fitted: $(grep -c . "$work/fit.txt") lines of fit file"
c++ -std=c++20 examples/pupil_model/pupil_model.cpp $(pkg-config --cflags --libs torvel) \
    -o "$work/pupil_model"
"$work/pupil_model" "$work/fit.txt" >"$work/model.txt"
head -n 3 "$work/model.txt"
(cd "$work" && /usr/bin/python3 -c 'import sys, torvel; torvel.fit(sys.argv[1]).write("py_fit.txt")' \
    /usr/share/doc/torvel/examples/pupil.mrc)
cmp "$work/fit.txt" "$work/py_fit.txt"
echo "import torvel: the same fit file, from $(/usr/bin/python3 -c 'import torvel; print(torvel.__file__)')"
rm -rf "$work"
echo "check-deb: passed"
