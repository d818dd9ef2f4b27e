#!/usr/bin/env bash
# Installs the Debian packages that building and testing need, only those
# that are absent, so that a machine that has them all is left untouched.
set -euo pipefail

packages=(cmake make g++ gfortran pkg-config binutils
          libopenblas-openmp-dev liblapack-dev libmetis-dev libsuitesparse-dev
          libgtest-dev "$@")

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if ((${#missing[@]})); then
  echo "installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
