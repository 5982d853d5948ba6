#!/usr/bin/env bash
# Installs a build into a temporary prefix, then builds and runs a tiny host against the
# installed tree twice: through the CMake package and through pkg-config.
# Usage: check_installed_tree.sh BUILD_DIR CONSUMER_SOURCE_DIR
set -euo pipefail
build=$1
source=$2
prefix=$(mktemp -d /tmp/zvr-install.XXXXXX)
trap 'rm -rf "$prefix"' EXIT

cmake --install "$build" --prefix "$prefix/usr" >/dev/null
export ZVR_LOG_LEVEL=0 ZVR_DBUS_ADDRESS=unix:path=$prefix/no-bus
libdir=$(dirname "$(find "$prefix/usr" -name 'libzvr_media_proxy.so' | head -n 1)")

cmake -S "$source" -B "$prefix/cmake-build" -DCMAKE_PREFIX_PATH="$prefix/usr" >/dev/null
cmake --build "$prefix/cmake-build" >/dev/null
LD_LIBRARY_PATH="$libdir" "$prefix/cmake-build/zvr_consumer"

export PKG_CONFIG_PATH="$libdir/pkgconfig"
# shellcheck disable=SC2046
c++ -std=c++17 "$source/main.cpp" -o "$prefix/pkg-consumer" $(pkg-config --cflags --libs zvr_media_proxy)
LD_LIBRARY_PATH="$libdir" "$prefix/pkg-consumer"
echo "installed tree: headers, libraries, CMake package and pkg-config file all usable"
