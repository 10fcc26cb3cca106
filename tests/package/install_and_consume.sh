#!/usr/bin/env bash
# The installed package as a game's build consumes it: the exact layout, the SONAME,
# no path of the building machine inside the library, and the example host built
# through find_package and through pkg-config, each playing a clip to its end.
#   install_and_consume.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$(realpath "$1") source=$(realpath "$2")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null

expected="include/Kavelin/Kavelin.h
lib/cmake/Kavelin/KavelinConfig.cmake
lib/cmake/Kavelin/KavelinConfigVersion.cmake
lib/cmake/Kavelin/KavelinTargets.cmake
lib/libKavelin.so
lib/libKavelin.so.1
lib/libKavelin.so.1.1.0
lib/pkgconfig/kavelin.pc"
actual=$(cd "$prefix" && find . ! -type d ! -name 'KavelinTargets-*.cmake' | sed 's|^\./||' | sort)
[ "$actual" = "$expected" ] || fail "installed layout:"$'\n'"$actual"
ls "$prefix"/lib/cmake/Kavelin/KavelinTargets-*.cmake >/dev/null || fail "no per-configuration targets file"

lib=$prefix/lib/libKavelin.so.1.1.0
readelf -d "$lib" | grep -q 'SONAME.*\[libKavelin\.so\.1\]' || fail "SONAME"
readelf -d "$lib" | grep -q 'FLAGS_1.*NODELETE' || fail "not marked nodelete"
if strings -a "$lib" | grep -F -e "$source" -e "$build"; then fail "build-machine paths inside"; fi

ffmpeg -v error -f lavfi -i testsrc=size=320x240:rate=25:duration=2 -pix_fmt yuv420p "$work/clip.mp4"
cmake -S "$source/examples/c" -B "$work/cmake-host" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake-host" >/dev/null
PKG_CONFIG_PATH=$prefix/lib/pkgconfig make -s -C "$source/examples/c" OUT="$work" >/dev/null
for host in "$work/cmake-host/kavelin-example-host" "$work/kavelin-example-host-pc"; do
  out=$(cd "$work" && KAVELIN_HEADLESS=1 XDG_CONFIG_HOME="$work" LD_LIBRARY_PATH="$prefix/lib" \
        timeout 120 "$host" "$work/clip.mp4" 60) || fail "$(basename "$host") exited $?"$'\n'"$out"
  grep -q '^event OnVideoFinished:0$' <<<"$out" || fail "$(basename "$host") saw no end"$'\n'"$out"
done
echo "install and both consumers: ok"
