#!/usr/bin/env bash
# The one place that lists the packages Vantory needs. Installs whatever is
# missing (with sudo when not root), then configures and builds the tree.
#   scripts/setup.sh [build-dir] [cmake target...]
set -euo pipefail

PACKAGES=(
  g++ cmake ninja-build ccache pkg-config
  qt6-base-dev qt6-httpserver-dev qt6-websockets-dev qcoro-qt6-dev
  libicu-dev nlohmann-json3-dev libsimdjson-dev libxxhash-dev
  libnfs-dev libfuse3-dev fuse3 ffmpeg
  libgtest-dev libgmock-dev libbenchmark-dev libnfs-utils python3
)

root=$(cd "$(dirname "$0")/.." && pwd)
build_dir=${1:-"$root/build"}
shift || true

missing=()
for p in "${PACKAGES[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$p")
done

if ((${#missing[@]})); then
  echo "setup: installing ${missing[*]}"
  sudo=()
  if [[ $(id -u) -ne 0 ]]; then
    command -v sudo >/dev/null || { echo "setup: need root or sudo to install ${missing[*]}" >&2; exit 1; }
    sudo=(sudo)
  fi
  export DEBIAN_FRONTEND=noninteractive
  "${sudo[@]}" apt-get update -qq
  "${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

if [[ ! -f "$build_dir/build.ninja" ]]; then
  # VT_CMAKE_ARGS: further configure options (./test --sanitize sets them).
  read -r -a extra <<<"${VT_CMAKE_ARGS:--DCMAKE_BUILD_TYPE=Release}"
  cmake -S "$root" -B "$build_dir" -G Ninja "${extra[@]}" >/dev/null
fi
if (($#)); then
  cmake --build "$build_dir" --target "$@"
else
  cmake --build "$build_dir"
fi
