#!/usr/bin/env bash
# Installs every Debian package the project builds, tests or runs with.
# Idempotent and non-interactive: packages already present are skipped.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config ccache
  libgtest-dev libgmock-dev libbenchmark-dev
  qt6-base-dev libgl-dev
  libjack-jackd2-dev libasound2-dev jackd2
  libsndfile1-dev libavformat-dev libavcodec-dev libswresample-dev libavutil-dev
  libsoxr-dev
  lv2-dev liblilv-dev libsuil-dev mda-lv2 lsp-plugins-lv2 x42-plugins
  xvfb xauth fonts-dejavu-core fonts-freefont-ttf
  sox ffmpeg espeak-ng
  clang
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

SUDO=
if [ "$(id -u)" -ne 0 ]; then SUDO=sudo; fi
export DEBIAN_FRONTEND=noninteractive
echo "Installing: ${missing[*]}"
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
