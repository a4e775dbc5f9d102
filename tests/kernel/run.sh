#!/usr/bin/env bash
# The kernel lane: boots Debian's kernel under QEMU (TCG, one vCPU, 512 MB)
# with a simulated reader attached over usbredir (ztuvc-sim --usbredir) and
# runs the guest checks (ktest) against the real usbfs, sysfs and uvcvideo.
#
#   tests/kernel/run.sh BUILD_DIR xhci|ehci [bench]
#
# With "bench", the guest runs no checks but the streaming CPU benchmark
# (bench/bench_kernel.c) through this library, through libuvc and straight on
# usbfs, ZTUVC_KBENCH_ROUNDS rounds (default 3).
#
# The kernel and its modules are unpacked once into a cache
# (ZTUVC_KERNEL_CACHE, default ~/.cache/ztuvc-kernel), never installed.
# Exits 0 when every check passed; prints the guest's console.
set -euo pipefail
# QEMU keeps real time for the emulated controller, and usb-redir drops
# isochronous data the guest falls behind on. With autogroup scheduling a
# nice value counts only within its session, and each busy session gets an
# equal share of the CPUs: run in a session of our own and raise that.
if [ -z "${ZTUVC_LANE_SESSION:-}" ]; then ZTUVC_LANE_SESSION=1 exec setsid -w bash "$0" "$@"; fi
echo -20 2>/dev/null >/proc/self/autogroup || true
build="$(cd "$1" && pwd)"
hc="$2"
mode="${3:-check}"
here="$(cd "$(dirname "$0")" && pwd)"
cache="${ZTUVC_KERNEL_CACHE:-$HOME/.cache/ztuvc-kernel}"
modules=(usbcore xhci-pci ehci-pci uvcvideo)
# The checks the guest runs, in order; each must report PASS.
checks=(enum-t10 open regs capture-t10 unplug-replug enum-t40 capture-t40)
model=10
if [ "$mode" = bench ]; then checks=(); model=40; fi

log() { echo "kernel-lane: $*" >&2; }
[ "$(id -u)" -eq 0 ] || SUDO=sudo

# ---- kernel and modules (cached per version) --------------------------
prepare_kernel() {
  mkdir -p "$cache"
  local pkg
  pkg="$(apt-cache depends linux-image-amd64 | sed -n 's/^ *Depends: \(linux-image-[0-9].*\)$/\1/p' | head -1)"
  [ -n "$pkg" ] || { log "cannot resolve linux-image-amd64 (apt-get update?)"; exit 1; }
  kdir="$cache/$pkg"
  if [ ! -f "$kdir/ready" ]; then
    log "fetching $pkg"
    rm -rf "$kdir" && mkdir -p "$kdir"
    # Stale package lists name a version the mirror no longer has: refresh once.
    (cd "$kdir" && { apt-get download "$pkg" >/dev/null 2>&1 ||
      { ${SUDO:-} apt-get update -qq && apt-get download "$pkg" >/dev/null; }; } &&
      dpkg-deb -x ./*.deb root && rm -f ./*.deb)
    kver="$(ls "$kdir/root/lib/modules")"
    depmod -b "$kdir/root" "$kver"
    touch "$kdir/ready"
  fi
  kver="$(ls "$kdir/root/lib/modules")"
  vmlinuz="$kdir/root/boot/vmlinuz-$kver"
}

# ---- initramfs: busybox, modules, the library, ktest ------------------
build_initramfs() {
  local root="$work/root" m dep
  mkdir -p "$root"/{bin,dev,proc,sys,tmp,lib/x86_64-linux-gnu,lib64,lib/modules/"$kver"}
  cp /bin/busybox "$root/bin/busybox"
  for m in sh mount mkdir sleep cat ls poweroff modprobe dmesg echo grep; do ln -sf busybox "$root/bin/$m"; done
  # The modules and what modules.dep says they need.
  local mdir="$kdir/root/lib/modules/$kver"
  for m in "${modules[@]}"; do
    dep="$(grep -E "/${m//-/[-_]}\.ko(\.[a-z]+)?:" "$mdir/modules.dep")"
    for f in ${dep/:/}; do
      mkdir -p "$root/lib/modules/$kver/$(dirname "$f")"
      cp "$mdir/$f" "$root/lib/modules/$kver/$f"
    done
  done
  cp "$mdir"/modules.{order,builtin} "$root/lib/modules/$kver/"
  depmod -b "$root" "$kver"
  cp -L /lib/x86_64-linux-gnu/libc.so.6 "$root/lib/x86_64-linux-gnu/"
  cp -L /lib64/ld-linux-x86-64.so.2 "$root/lib64/"
  cp -L "$build/libztuvc.so.3" "$root/lib/x86_64-linux-gnu/"
  if [ "$mode" = bench ]; then
    # The benchmark and what it links (libuvc, libusb, libudev, ...).
    cp "$build/bench/ztuvc-kbench" "$root/bin/kbench"
    for f in $(ldd "$build/bench/ztuvc-kbench" | awk '$2 == "=>" && $3 ~ /^\// {print $3}'); do
      cp -L "$f" "$root/lib/x86_64-linux-gnu/"
    done
  else
    cp "$build/tests/kernel/ztuvc-ktest" "$root/bin/ktest"
  fi
  cp "$here/guest-init.sh" "$root/init"
  chmod +x "$root/init"
  (cd "$root" && find . | busybox cpio -o -H newc 2>/dev/null | gzip -1) > "$work/initrd.gz"
}

work="$(mktemp -d "${TMPDIR:-/tmp}/ztuvc-kernel.XXXXXX")"
sim_pid=""
qemu_pid=""
cleanup() {
  [ -n "$qemu_pid" ] && kill "$qemu_pid" 2>/dev/null || true
  [ -n "$sim_pid" ] && kill "$sim_pid" 2>/dev/null || true
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

prepare_kernel
build_initramfs

case "$hc" in
  xhci) controller=(-device qemu-xhci,id=hc) ;;
  ehci) controller=(-device usb-ehci,id=hc) ;;
  *) log "controller must be xhci or ehci"; exit 2 ;;
esac

# Inside the session: the simulator (little CPU, but never late for its
# microframes) ahead of QEMU.
prio=() first=()
if nice -n -10 true 2>/dev/null; then prio=(nice -n -10) first=(nice -n -20); fi

# The simulator reads its commands from a FIFO the harness writes.
mkfifo "$work/sim.in"
"${first[@]}" "$build/sim/ztuvc-sim" --usbredir "$work/redir.sock" --model $model --pattern <"$work/sim.in" 2>"$work/sim.log" &
sim_pid=$!
exec 7>"$work/sim.in"
for _ in $(seq 100); do [ -S "$work/redir.sock" ] && break; sleep 0.05; done

start=$SECONDS
mkfifo "$work/console"
timeout 480 "${prio[@]}" qemu-system-x86_64 -accel tcg -smp 1 -m 512 -nographic -no-reboot \
  -kernel "$vmlinuz" -initrd "$work/initrd.gz" \
  -append "console=ttyS0 loglevel=3 panic=-1 mitigations=off no_timer_check ztuvc.hc=$hc ztuvc.mode=$mode ztuvc.rounds=${ZTUVC_KBENCH_ROUNDS:-3}" \
  "${controller[@]}" \
  -chardev socket,id=redir,path="$work/redir.sock" -device usb-redir,chardev=redir,bus=hc.0${ZTUVC_REDIR_DEBUG:+,debug=$ZTUVC_REDIR_DEBUG} \
  >"$work/console" 2>&1 </dev/null &
qemu_pid=$!

# How long the threads of a process waited for a CPU: a busy host shows
# here (and in the microframes the simulator skipped).
runq() { cat /proc/"$1"/task/*/schedstat 2>/dev/null | awk '{w += $2} END {printf "%d ms", w / 1e6}'; }
qemu_main() { cat /proc/"$qemu_pid"/task/*/children 2>/dev/null | cut -d' ' -f1; }  # under timeout

# Console: print it, answer the guest's plug requests, collect the results.
declare -A result=()
waited="?"
while IFS= read -r line; do
  line="${line%$'\r'}"
  printf '%s\n' "$line"
  case "$line" in
    @@unplug*) echo unplug >&7 ;;
    @@plug*) m="${line#@@plug}"; echo "plug${m:+ ${m# }}" >&7 ;;
    "KCHECK "*) set -- $line; result[$2]=$3 ;;
    "KINFO kernel messages:"*) waited="QEMU $(runq "$(qemu_main)"), simulator $(runq "$sim_pid")" ;;
  esac
done <"$work/console"
wait "$qemu_pid" || true
qemu_pid=""
echo quit >&7 || true
log "$hc run: $((SECONDS - start)) s; waited for a CPU: $waited; simulator said:"
sed 's/^/  /' "$work/sim.log" >&2

rc=0
for c in "${checks[@]}"; do
  r="${result[$c]:-MISSING}"
  echo "kernel-lane: $hc $c: $r"
  [ "$r" = PASS ] || rc=1
done
exit $rc
