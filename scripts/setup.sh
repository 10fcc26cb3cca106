#!/usr/bin/env bash
# Installs every system package the project builds, tests and demos with.
# Idempotent: prints nothing and touches nothing when all is present.
set -euo pipefail

packages=(
  build-essential cmake pkg-config
  libgtest-dev libgmock-dev libbenchmark-dev
  nlohmann-json3-dev libmpv-dev libsdl2-dev libsdl2-image-dev libimgui-dev libstb-dev
  libcurl4-openssl-dev libgl-dev
  ffmpeg xvfb xauth x11-apps imagemagick
  mono-mcs mono-runtime
  clang-14 libclang-rt-14-dev llvm
  locales
  python3
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

sudo_cmd=()
[ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)

if [ "${#missing[@]}" -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  "${sudo_cmd[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -qq
  "${sudo_cmd[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
    "${missing[@]}" >/dev/null
fi

# The numeric-locale test plays under German number formatting ("95,0").
if ! locale -a 2>/dev/null | grep -qix 'de_DE\.utf-\?8'; then
  "${sudo_cmd[@]}" localedef -i de_DE -f UTF-8 de_DE.UTF-8 >/dev/null 2>&1 ||
    echo "setup: warning: could not generate the de_DE.UTF-8 locale"
fi

# Poppins comes from npm; the screen falls back to the default font without it. A
# machine without any npm gets Debian's; a failure there is not fatal either.
if ! command -v npm >/dev/null 2>&1; then
  "${sudo_cmd[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
    npm >/dev/null 2>&1 || echo "setup: warning: npm is not available; fonts fall back to the default"
fi
root=$(cd "$(dirname "$0")/.." && pwd)
fonts="$root/build/fonts"
if [ ! -f "$fonts/Poppins-Medium.ttf" ] || [ ! -f "$fonts/Poppins-SemiBold.ttf" ]; then
  mkdir -p "$fonts"
  tmp=$(mktemp -d)
  if command -v npm >/dev/null 2>&1 && (cd "$tmp" && npm pack --silent @expo-google-fonts/poppins >/dev/null 2>&1); then
    tar -xzf "$tmp"/*.tgz -C "$tmp"
    med=$(find "$tmp/package" -name 'Poppins_500Medium.ttf' | head -n 1)
    semi=$(find "$tmp/package" -name 'Poppins_600SemiBold.ttf' | head -n 1)
    [ -n "$med" ] && cp "$med" "$fonts/Poppins-Medium.ttf"
    [ -n "$semi" ] && cp "$semi" "$fonts/Poppins-SemiBold.ttf"
  else
    echo "setup: warning: could not fetch the Poppins fonts; the default font will be used"
  fi
  rm -rf "$tmp"
fi
