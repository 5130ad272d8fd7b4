#!/bin/bash
# Installs, with apt-get, every Debian 12 package the project needs to build,
# test and run. Installs only what is missing; safe to run again.
set -euo pipefail

packages=(
    build-essential cmake pkg-config git dpkg-dev
    libzip-dev libmosquitto-dev nlohmann-json3-dev
    libgtest-dev libgmock-dev libbenchmark-dev
    mosquitto mosquitto-clients
    zip unzip socat netcat-openbsd debootstrap
    iproute2 util-linux procps
    man-db groff-base
    clang clang-format
)

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$p")
    fi
done

if [ ${#missing[@]} -gt 0 ]; then
    echo "setup: installing ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
