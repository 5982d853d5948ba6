#!/usr/bin/env bash
# Fails when the client library exports a dynamic symbol outside its public surface: the entry
# point, the members, vtables and type information of the four classes of the public headers,
# and the version node.
# Usage: check_exports.sh NM LIBRARY
set -euo pipefail
nm_tool=$1
library=$2

classes='ZVRMediaProxyInterface|ZVRMediaProxyManagerInterface|ZVRMediaProxyManager|ZVRMediaProxyObject'
allowed="^(requestZVRMediaProxy|ZVR_MEDIA_PROXY_1|velmora::($classes)::.*|(typeinfo|typeinfo name|vtable) for velmora::($classes))(@@?ZVR_MEDIA_PROXY_1)?\$"

symbols=$("$nm_tool" -D --defined-only -C "$library" | sed -E 's/^[0-9a-fA-F]+ [A-Za-z] //')
count=$(printf '%s\n' "$symbols" | grep -c . || true)
unexpected=$(printf '%s\n' "$symbols" | grep -Ev "$allowed" || true)
if [ -n "$unexpected" ]; then
  echo "exported outside the public surface:"
  printf '%s\n' "$unexpected"
  exit 1
fi
printf '%s\n' "$symbols" | grep -q '^requestZVRMediaProxy@@ZVR_MEDIA_PROXY_1$' || {
  echo "requestZVRMediaProxy is not exported"
  exit 1
}
echo "$count exported symbols, all public"
