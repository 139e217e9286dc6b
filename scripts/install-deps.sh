#!/usr/bin/env bash
# Installs the Debian 12 packages the build, tests, tools and benchmarks need.
# Idempotent: prints nothing and touches nothing when everything is present.
set -euo pipefail

packages=(
    cmake ninja-build g++ make pkg-config
    libxerces-c-dev libicu-dev
    googletest libgtest-dev libgmock-dev libbenchmark-dev
    libcli11-dev nlohmann-json3-dev libboost-dev libssl-dev openssl python3 curl
    libsqlite3-dev redis-server redis-tools libhiredis-dev
    clang libclang-rt-14-dev valgrind
    doxygen
    rsync ccache
)

missing=()
for pkg in "${packages[@]}"; do
    status=$(dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null || true)
    if [[ "$status" != "install ok installed" ]]; then
        missing+=("$pkg")
    fi
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

echo "install-deps: installing ${missing[*]}" >&2
sudo=()
if [[ $(id -u) -ne 0 ]]; then
    if command -v sudo >/dev/null; then
        sudo=(sudo)
    else
        echo "install-deps: need root to install: ${missing[*]}" >&2
        exit 1
    fi
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -qq >/dev/null
"${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
