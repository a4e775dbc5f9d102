#!/usr/bin/env bash
# Installs the build tree into a throw-away prefix and checks what a user of
# the package gets: files, exported symbols, soname, run-time dependencies,
# and the example program built through pkg-config and through CMake.
#
# Usage: install_test.sh BUILD_DIR SOURCE_DIR C_COMPILER SANITIZE TOOLS(ON/OFF)
set -uo pipefail
build="$1"; src="$2"; cc="$3"; sanitize="$4"; tools="$5"
work="$build/install-test"
prefix="$work/prefix"
failures=0
# A sanitized library needs its run-time loaded first: build the example the
# same way.
sanflags=""
[ -n "$sanitize" ] && sanflags="-fsanitize=$sanitize"
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
pass() { echo "ok: $*"; }
# The file the dynamic loader picks for libztuvc.so.3 (without LD_LIBRARY_PATH).
resolved() { readlink -f "$(env -u LD_LIBRARY_PATH ldd "$1" | awk '$1 == "libztuvc.so.3" { print $3 }')"; }

rm -rf "$work"
mkdir -p "$work"
if ! cmake --install "$build" --prefix "$prefix" >"$work/install.log" 2>&1; then
  cat "$work/install.log"
  echo "FAIL: cmake --install"; exit 1
fi

libdir="$(dirname "$(find "$prefix" -name 'libztuvc.so.3' | head -n1)")"
# The simulated readers are installed wherever umockdev was there to build them.
zsim=""
[ -x "$prefix/bin/ztuvc-sim" ] && zsim="$prefix/bin/ztuvc-sim"
[ -n "$libdir" ] && [ -d "$libdir" ] || { echo "FAIL: libztuvc.so.3 not installed"; exit 1; }

# --- files and links
for f in "$libdir/libztuvc.so.3.0.0" "$prefix/include/ztuvc.h" "$libdir/pkgconfig/ztuvc.pc" \
         "$libdir/cmake/ztuvc/ztuvcConfig.cmake" "$libdir/cmake/ztuvc/ztuvcConfigVersion.cmake" \
         "$libdir/cmake/ztuvc/ztuvcTargets.cmake" "$prefix/lib/udev/rules.d/60-ztuvc.rules" \
         $([ "$tools" = ON ] && echo "$prefix/bin/ztuvc" "$prefix/share/man/man1/ztuvc.1"); do
  [ -f "$f" ] && pass "installed ${f#$prefix/}" || fail "missing ${f#$prefix/}"
done
[ "$(readlink "$libdir/libztuvc.so.3")" = "libztuvc.so.3.0.0" ] && pass "soname link" || fail "libztuvc.so.3 is not a link to libztuvc.so.3.0.0"
[ "$(readlink "$libdir/libztuvc.so")" = "libztuvc.so.3" ] && pass "development link" || fail "libztuvc.so is not a link to libztuvc.so.3"
grep -Eq '^SUBSYSTEM=="usb",.*ATTR\{idVendor\}=="3a5c",.*TAG\+="uaccess"' "$prefix/lib/udev/rules.d/60-ztuvc.rules" \
  && pass "udev rule" || fail "udev rule does not grant uaccess for vendor 3a5c"
cmp -s "$src/src/common/usbuvc/ztuvc.h" "$prefix/include/ztuvc.h" && pass "header" || fail "installed header differs"

# --- exported symbols: exactly the 41 camera_* functions
expected="camera_button_state camera_cleanup camera_close camera_device_count camera_device_enumerate
camera_flush camera_get_by_index camera_get_by_vid_pid camera_get_control camera_get_control_info
camera_get_controls camera_get_filename camera_get_format camera_get_frame_interval camera_get_image
camera_get_manufacturer_name camera_get_pid camera_get_product_name camera_get_revision
camera_get_serialnumber camera_get_vid camera_init camera_open camera_put_image camera_set_control
camera_set_format camera_set_frame_interval camera_start_capture camera_stop_capture
camera_wait_for_button camera_xu_flash_read camera_xu_get_finger camera_xu_get_flip
camera_xu_get_mirror camera_xu_sensor_read camera_xu_sensor_write camera_xu_set_finger
camera_xu_set_flip camera_xu_set_leds camera_xu_set_leds_mode camera_xu_set_mirror"
expected_sorted="$(echo $expected | tr ' ' '\n' | sort)"
# Defined dynamic symbols other than the version node (type A).
exported="$(nm -D --defined-only "$libdir/libztuvc.so.3" | awk '$2 != "A" { print $2, $3 }' | sed 's/@.*//')"
functions="$(echo "$exported" | awk '$1 == "T" { print $2 }' | sort)"
others="$(echo "$exported" | awk '$1 != "T"')"
[ "$(echo "$expected_sorted" | wc -l)" = 41 ] || fail "test list is not 41 names"
if [ "$functions" = "$expected_sorted" ] && [ -z "$others" ]; then
  pass "exports exactly the 41 camera_* functions"
else
  fail "exported symbols differ:"; diff <(echo "$expected_sorted") <(echo "$functions"); echo "$others"
fi

# --- soname and run-time dependencies
soname="$(readelf -d "$libdir/libztuvc.so.3" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')"
[ "$soname" = "libztuvc.so.3" ] && pass "soname libztuvc.so.3" || fail "soname is '$soname'"
needed="$(readelf -d "$libdir/libztuvc.so.3" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')"
if [ -n "$sanitize" ]; then
  echo "skip: NEEDED check in a sanitizer build ($needed)"
else
  bad="$(echo "$needed" | grep -Ev '^(libc\.so\.6|libm\.so\.6|libpthread\.so\.0|ld-linux.*)$')"
  [ -z "$bad" ] && pass "needs only: $(echo $needed)" || fail "unexpected NEEDED: $(echo $bad)"
  ldd "$libdir/libztuvc.so.3" | grep -q 'libstdc++' && fail "ldd shows libstdc++" || pass "no libstdc++"
fi

# --- the installed tool finds the installed library
if [ "$tools" = ON ]; then
[ "$(resolved "$prefix/bin/ztuvc")" = "$(readlink -f "$libdir/libztuvc.so.3")" ] && pass "tool uses the installed library" \
  || fail "installed tool does not resolve the installed library: $(ldd "$prefix/bin/ztuvc" | grep ztuvc)"
"$prefix/bin/ztuvc" --help >/dev/null && pass "installed tool runs" || fail "installed tool does not run"
fi

# --- the example through pkg-config
export PKG_CONFIG_PATH="$libdir/pkgconfig"
flags="$(pkg-config --cflags --libs ztuvc)" || fail "pkg-config --cflags --libs ztuvc"
[ "$(pkg-config --modversion ztuvc)" = "3.0.0" ] && pass "pkg-config version" || fail "pkg-config version"
# shellcheck disable=SC2086
if "$cc" -std=c99 -Wall -Wextra -Werror $sanflags "$src/examples/capture_one.c" $flags -o "$work/example-pc"; then
  pass "example builds with pkg-config ($flags)"
else
  fail "example does not build with pkg-config"
fi

# --- the example through find_package(ztuvc)
if cmake -S "$src/examples" -B "$work/example-cmake" -G Ninja -DCMAKE_C_COMPILER="$cc" \
     -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_FLAGS="-Wall -Wextra -Werror $sanflags" \
     -DCMAKE_EXE_LINKER_FLAGS="$sanflags" >"$work/example-cmake.log" 2>&1 &&
   cmake --build "$work/example-cmake" >>"$work/example-cmake.log" 2>&1; then
  pass "example builds with find_package(ztuvc)"
else
  cat "$work/example-cmake.log"; fail "example does not build with find_package(ztuvc)"
fi
[ "$(resolved "$work/example-cmake/capture_one")" = "$(readlink -f "$libdir/libztuvc.so.3")" ] && pass "CMake example uses the installed library" \
  || fail "CMake example does not resolve the installed library"

# --- run both: no reader, then one simulated reader
run_example() {  # name binary
  local name="$1" bin="$2"
  [ -x "$bin" ] || return
  if [ -z "$zsim" ] || [ ! -x "$zsim" ]; then
    echo "skip: running $name (no ztuvc-sim)"; return
  fi
  out="$(LD_LIBRARY_PATH="$libdir" "$zsim" -q --readers 0 -- "$bin" "$work/$name-none.pgm" 2>&1)"; rc=$?
  [ $rc -eq 2 ] && echo "$out" | grep -q "no reader found" && pass "$name without reader exits 2" \
    || fail "$name without reader: exit $rc, output: $out"
  out="$(LD_LIBRARY_PATH="$libdir" "$zsim" -q --model 10 --pattern -- "$bin" "$work/$name.pgm" 2>&1)"; rc=$?
  if [ $rc -eq 0 ] && [ "$(head -c 15 "$work/$name.pgm")" = "$(printf 'P5\n640 480\n255\n')" ] &&
     [ "$(stat -c %s "$work/$name.pgm")" = $((15 + 640 * 480)) ]; then
    pass "$name captures a 640 x 480 frame under ztuvc-sim"
  else
    fail "$name under ztuvc-sim: exit $rc, output: $out"
  fi
}
run_example example-pc "$work/example-pc"
run_example example-cmake "$work/example-cmake/capture_one"

echo "$failures failure(s)"
[ $failures -eq 0 ]
