#!/usr/bin/env bash
# Builds the Debian binary packages from this tree and leaves the .deb files
# in OUTDIR (default: out/):
#   libztuvc3      the shared library and its soname link
#   libztuvc-dev   header, libztuvc.so, ztuvc.pc, the CMake package
#   ztuvc-tools    ztuvc, its man page, the udev rule
#   ztuvc-sim      the simulated readers (needs umockdev)
#   python3-ztuvc  the Python package, when the tree has python/
# Installs what the build needs (apt-get, with sudo when not root) and builds
# in a scratch copy of the tree, so the checkout stays as it is.
#
# Usage: scripts/package.sh [OUTDIR]
#
# debhelper with a debian/ directory rather than CPack's DEB generator:
# dh_makeshlibs gives libztuvc3 a shlibs file (so anything built against it
# depends on it properly), dpkg-shlibdeps computes every package's
# dependencies, the maintainer-script snippets are the standard ones, and the
# packages come out lintian-clean without hand-made changelog and copyright
# files in the install tree.
set -euo pipefail
src="$(cd "$(dirname "$0")/.." && pwd)"
out="$(realpath -m "${1:-$src/out}")"

# The project's one version number.
version="$(sed -n 's/^project(ztuvc VERSION \([0-9][0-9.]*\).*/\1/p' "$src/CMakeLists.txt")"
[ -n "$version" ] || { echo "package.sh: no project VERSION in CMakeLists.txt" >&2; exit 1; }

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"

scratch="$(mktemp -d "${TMPDIR:-/tmp}/ztuvc-package.XXXXXX")"
trap 'rm -rf "$scratch"' EXIT
tree="$scratch/libztuvc-$version"
mkdir -p "$tree"

# The working tree as it is (tracked and new files), without build folders.
if git -C "$src" rev-parse --is-inside-work-tree >/dev/null 2>&1; then
  (cd "$src" && git ls-files -z --cached --others --exclude-standard |
     tar --null --ignore-failed-read -T - -cf -) 2>/dev/null | tar -xf - -C "$tree"
  when="$(git -C "$src" log -1 --format=%aD 2>/dev/null || date -R)"
  what="$(git -C "$src" describe --always --dirty 2>/dev/null || echo unknown)"
else
  (cd "$src" && tar --exclude='./build*' --exclude='./out' -cf - .) | tar -xf - -C "$tree"
  when="$(date -R)"
  what="a source tree without git"
fi

# The Python package: its stanza (debian/python3-ztuvc.control) joins
# debian/control only where the tree has python/.
if [ -d "$tree/python" ] && [ -f "$tree/debian/python3-ztuvc.control" ]; then
  { echo; cat "$tree/debian/python3-ztuvc.control"; } >>"$tree/debian/control"
fi

cat >"$tree/debian/changelog" <<EOF
libztuvc ($version) unstable; urgency=medium

  * Built from the source tree ($what).

 -- libztuvc developers <libztuvc@example.invalid>  $when
EOF

# Build tools, then the build dependencies that debian/control names.
missing=()
for p in dpkg-dev debhelper; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -ne 0 ]; then
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
if ! (cd "$tree" && dpkg-checkbuilddeps) 2>/dev/null; then
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get build-dep -y -qq --no-install-recommends "$tree"
fi

export DEB_BUILD_OPTIONS="${DEB_BUILD_OPTIONS:-parallel=$(nproc)}"
(cd "$tree" && dpkg-buildpackage -b -us -uc) >"$scratch/build.log" 2>&1 || {
  tail -n 60 "$scratch/build.log" >&2
  echo "package.sh: dpkg-buildpackage failed" >&2
  exit 1
}

mkdir -p "$out"
debs=("$scratch"/*_"$version"_*.deb)
mv "${debs[@]}" "$out/"
for d in "${debs[@]}"; do echo "$out/$(basename "$d")"; done
