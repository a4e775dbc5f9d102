#!/usr/bin/env bash
# The Debian packages as a user gets them: builds them with
# scripts/package.sh, runs lintian (no errors allowed), unpacks them into a
# scratch root and checks their files and dependencies, builds
# examples/capture_one.c against the unpacked -dev package through pkg-config
# and CMake and runs it under the unpacked ztuvc-sim, then installs and
# purges them with dpkg in a second scratch root (maintainer scripts
# included) and checks that nothing is left behind.
#
# Usage: tests/install/package_test.sh [WORKDIR]   (default: a fresh temporary folder)
set -uo pipefail
src="$(cd "$(dirname "$0")/../.." && pwd)"
work="$(realpath -m "${1:-$(mktemp -d "${TMPDIR:-/tmp}/ztuvc-packages.XXXXXX")}")"
out="$work/debs"
root="$work/root"
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
pass() { echo "ok: $*"; }

rm -rf "$out" "$root" "$work/dpkg-root" "$work/example"*
mkdir -p "$work" "$root"
bash "$src/scripts/package.sh" "$out" || { echo "FAIL: scripts/package.sh"; exit 1; }
version="$(sed -n 's/^project(ztuvc VERSION \([0-9][0-9.]*\).*/\1/p' "$src/CMakeLists.txt")"
ma="$(dpkg-architecture -qDEB_HOST_MULTIARCH)"
deb() { ls "$out/$1_${version}_"*.deb 2>/dev/null | head -n1; }

packages=(libztuvc3 libztuvc-dev ztuvc-tools ztuvc-sim)
# The Python package joins once the tree has one and debian/ describes it.
if [ -f "$src/debian/python3-ztuvc.control" ]; then
  packages+=(python3-ztuvc)
elif [ -d "$src/python" ]; then
  echo "skip: python3-ztuvc (python/ exists, debian/python3-ztuvc.control does not yet)"
fi
for p in "${packages[@]}"; do
  [ -f "$(deb "$p")" ] && pass "built $p" || fail "no package $p in $out"
done
[ $failures -eq 0 ] || exit 1

# --- lintian: errors fail, warnings are shown (the kept ones: README, Packages)
if ! command -v lintian >/dev/null; then
  sudo=""; [ "$(id -u)" -eq 0 ] || sudo="sudo"
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends lintian >/dev/null
fi
if lintian --fail-on error "$out"/*.deb; then pass "lintian: no errors"; else fail "lintian reports errors"; fi

# --- file lists: exactly these files and links, nothing else
expect_files() {  # package, then the expected paths
  local p="$1"; shift
  local want got
  want="$(printf '%s\n' "$@" "usr/share/doc/$p/changelog.gz" "usr/share/doc/$p/copyright" | sort)"
  got="$(dpkg-deb --fsys-tarfile "$(deb "$p")" | tar -t | sed 's|^\./||' | grep -v -e '/$' -e '^$' | sort)"
  if [ "$got" = "$want" ]; then pass "$p: file list"; else fail "$p: file list"; diff <(echo "$want") <(echo "$got"); fi
}
expect_files libztuvc3 "usr/lib/$ma/libztuvc.so.3" "usr/lib/$ma/libztuvc.so.$version"
expect_files libztuvc-dev usr/include/ztuvc.h "usr/lib/$ma/libztuvc.so" "usr/lib/$ma/pkgconfig/ztuvc.pc" \
  "usr/lib/$ma/cmake/ztuvc/ztuvcConfig.cmake" "usr/lib/$ma/cmake/ztuvc/ztuvcConfigVersion.cmake" \
  "usr/lib/$ma/cmake/ztuvc/ztuvcTargets.cmake" "usr/lib/$ma/cmake/ztuvc/ztuvcTargets-none.cmake"
expect_files ztuvc-tools usr/bin/ztuvc usr/lib/udev/rules.d/60-ztuvc.rules usr/share/man/man1/ztuvc.1.gz
expect_files ztuvc-sim usr/bin/ztuvc-sim
if [[ " ${packages[*]} " == *" python3-ztuvc "* ]]; then
  expect_files python3-ztuvc $(git -C "$src/python" ls-files ztuvc | sed 's|^|usr/lib/python3/dist-packages/|')
fi

# --- dependencies and the soname
depends() { dpkg-deb -f "$(deb "$1")" Depends; }
lib_deps="$(depends libztuvc3 | tr ',' '\n' | sed 's/^ *//; s/ .*//' | sort -u | tr '\n' ' ')"
[ "$lib_deps" = "libc6 " ] && pass "libztuvc3 depends on libc6 only" || fail "libztuvc3 depends on: $lib_deps"
[ "$(dpkg-deb -I "$(deb libztuvc3)" shlibs)" = "libztuvc 3 libztuvc3 (>= $version)" ] &&
  pass "libztuvc3 shlibs" || fail "libztuvc3 shlibs: $(dpkg-deb -I "$(deb libztuvc3)" shlibs)"
depends libztuvc-dev | grep -q "libztuvc3 (= $version)" && pass "-dev depends on libztuvc3 (= $version)" ||
  fail "-dev depends: $(depends libztuvc-dev)"
depends ztuvc-tools | grep -q "libztuvc3 (>= $version)" && pass "ztuvc-tools depends on libztuvc3" ||
  fail "ztuvc-tools depends: $(depends ztuvc-tools)"
depends ztuvc-sim | grep -Eq '(^|, )umockdev(,|$| )' && pass "ztuvc-sim depends on umockdev" ||
  fail "ztuvc-sim depends: $(depends ztuvc-sim)"

# --- unpacked into the scratch root
for p in "${packages[@]}"; do dpkg -x "$(deb "$p")" "$root"; done
lib="$root/usr/lib/$ma"
[ "$(readlink "$lib/libztuvc.so.3")" = "libztuvc.so.$version" ] && [ "$(readlink "$lib/libztuvc.so")" = "libztuvc.so.3" ] &&
  pass "soname and development links" || fail "links: $(ls -l "$lib"/libztuvc.so*)"
readelf -d "$root/usr/bin/ztuvc" | grep -Eq 'R(UN)?PATH' && fail "ztuvc carries an rpath" || pass "no rpath"

export LD_LIBRARY_PATH="$lib"
zsim="$root/usr/bin/ztuvc-sim"
resolved() { readlink -f "$(ldd "$1" | awk '$1 == "libztuvc.so.3" { print $3 }')"; }
[ "$(resolved "$root/usr/bin/ztuvc")" = "$(readlink -f "$lib/libztuvc.so.3")" ] &&
  pass "ztuvc uses the packaged library" || fail "ztuvc resolves: $(ldd "$root/usr/bin/ztuvc" | grep ztuvc)"
listed="$("$zsim" -q --model 20 --readers 2 -- "$root/usr/bin/ztuvc" list --json)"
[ "$(grep -c '"product_id": "000c"' <<<"$listed")" = 2 ] && pass "packaged ztuvc lists 2 readers under ztuvc-sim" ||
  fail "ztuvc list under ztuvc-sim: $listed"

# --- the example against the -dev package: pkg-config, then find_package
export PKG_CONFIG_PATH="$lib/pkgconfig"
[ "$(pkg-config --modversion ztuvc)" = "$version" ] && pass "pkg-config version" || fail "pkg-config --modversion"
flags="$(pkg-config --cflags --libs ztuvc)"
# shellcheck disable=SC2086
cc -std=c99 -Wall -Wextra -Werror "$src/examples/capture_one.c" $flags -o "$work/example-pc" &&
  pass "example builds with pkg-config ($flags)" || fail "example does not build with pkg-config ($flags)"
if cmake -S "$src/examples" -B "$work/example-cmake" -DCMAKE_PREFIX_PATH="$root/usr" \
     -DCMAKE_C_FLAGS="-Wall -Wextra -Werror" >"$work/example-cmake.log" 2>&1 &&
   cmake --build "$work/example-cmake" >>"$work/example-cmake.log" 2>&1; then
  pass "example builds with find_package(ztuvc)"
else
  cat "$work/example-cmake.log"; fail "example does not build with find_package(ztuvc)"
fi
for bin in "$work/example-pc" "$work/example-cmake/capture_one"; do
  [ -x "$bin" ] || continue
  [ "$(resolved "$bin")" = "$(readlink -f "$lib/libztuvc.so.3")" ] || fail "$bin resolves another libztuvc"
  msg="$("$zsim" -q --readers 0 -- "$bin" "$work/none.pgm" 2>&1)"; rc=$?
  [ $rc -eq 2 ] && grep -q "no reader found" <<<"$msg" && pass "$(basename "$bin") without a reader exits 2" ||
    fail "$(basename "$bin") without a reader: exit $rc: $msg"
  rm -f "$work/frame.pgm"
  msg="$("$zsim" -q --model 10 --pattern -- "$bin" "$work/frame.pgm" 2>&1)"; rc=$?
  if [ $rc -eq 0 ] && [ "$(head -c 15 "$work/frame.pgm")" = "$(printf 'P5\n640 480\n255\n')" ] &&
     [ "$(stat -c %s "$work/frame.pgm")" = $((15 + 640 * 480)) ]; then
    pass "$(basename "$bin") captures a 640 x 480 frame under the packaged ztuvc-sim"
  else
    fail "$(basename "$bin") under ztuvc-sim: exit $rc: $msg"
  fi
done
unset LD_LIBRARY_PATH PKG_CONFIG_PATH

# --- a real install and purge with dpkg, into a root of its own: maintainer
# scripts run (outside a chroot, DPKG_ROOT set, so they leave the machine's
# udev alone); the libc and friends of the packages are not in that root.
droot="$work/dpkg-root"
mkdir -p "$droot/var/lib/dpkg/updates" "$droot/var/lib/dpkg/info"
touch "$droot/var/lib/dpkg/status"
dpkgr=(dpkg --root="$droot" --force-script-chrootless --force-depends --log=/dev/null)
[ "$(id -u)" -eq 0 ] || dpkgr+=(--force-not-root)
debs=(); for p in "${packages[@]}"; do debs+=("$(deb "$p")"); done
if "${dpkgr[@]}" -i "${debs[@]}" >"$work/dpkg.log" 2>&1; then
  pass "dpkg installs the packages"
else
  cat "$work/dpkg.log"; fail "dpkg -i"
fi
[ -f "$droot/usr/lib/udev/rules.d/60-ztuvc.rules" ] && [ -x "$droot/usr/bin/ztuvc" ] || fail "installed files missing"
if "${dpkgr[@]}" --purge "${packages[@]}" >>"$work/dpkg.log" 2>&1; then
  pass "dpkg purges the packages"
else
  cat "$work/dpkg.log"; fail "dpkg --purge"
fi
left="$(cd "$droot" && find . -path ./var/lib/dpkg -prune -o \( -type f -o -type l \) -print)"
[ -z "$left" ] && pass "nothing left after the purge" || fail "left after the purge: $left"
statuses="$(dpkg-query --admindir="$droot/var/lib/dpkg" -W -f='${db:Status-Abbrev}${Package}\n' 2>/dev/null | grep -v '^un' || true)"
[ -z "$statuses" ] && pass "dpkg database clean" || fail "still known to dpkg: $statuses"

echo "$failures failure(s)"
[ $failures -eq 0 ] && rm -rf "$work"
[ $failures -eq 0 ]
