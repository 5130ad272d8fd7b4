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
    # The host's browser console: libwebsockets on GLib's main loop, the
    # terminal library xterm.js.
    libwebsockets-dev libglib2.0-dev libwebsockets-evlib-glib node-xterm libjs-xterm
    # The browser console's tests: a WebSocket client, a real browser.
    python3 python3-websockets chromium chromium-driver python3-selenium
    # Signed packages: libsodium for the signatures, minisign for its key
    # files and to sign and verify beside the host in the tests.
    libsodium-dev minisign
    # Packages from the centre: libcurl downloads them; the tests serve them
    # with nginx over TLS with certificates made by openssl.
    libcurl4-openssl-dev nginx openssl
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
