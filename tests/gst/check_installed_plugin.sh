#!/usr/bin/env bash
# Installs a build into a temporary prefix and checks that the plugin lands in
# <prefix>/<libdir>/gstreamer-1.0 and that gst-inspect-1.0 loads it from there alone, the
# library found one folder up.
# Usage: check_installed_plugin.sh BUILD_DIR LIBDIR [VAR=VALUE ...]   (variables for gst-inspect)
set -euo pipefail
build=$1
libdir=$2
shift 2
prefix=$(mktemp -d /tmp/zvr-gst-install.XXXXXX)
trap 'rm -rf "$prefix"' EXIT

cmake --install "$build" --prefix "$prefix" >/dev/null
plugin="$prefix/$libdir/gstreamer-1.0/libgstzvr.so"
if [ ! -f "$plugin" ]; then
  echo "no plugin at $plugin; installed:" >&2
  find "$prefix" -type f >&2
  exit 1
fi
output=$(env -u LD_LIBRARY_PATH GST_PLUGIN_PATH= GST_PLUGIN_SYSTEM_PATH_1_0="$(dirname "$plugin")" \
  GST_REGISTRY="$prefix/registry.bin" GST_REGISTRY_FORK=no GST_TRACERS= "$@" \
  gst-inspect-1.0 zvrsrc 2>&1) || {
  echo "gst-inspect-1.0 failed on the installed plugin:" >&2
  echo "$output" >&2
  exit 1
}
grep -q "$plugin" <<<"$output" || {
  echo "gst-inspect-1.0 did not load $plugin:" >&2
  echo "$output" >&2
  exit 1
}
echo "installed plugin: $plugin, loaded by gst-inspect-1.0"
