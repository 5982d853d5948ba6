#!/usr/bin/env bash
# Fails when the client library's dynamic symbols differ from exported_symbols.txt beside this
# script: the entry point, the members, vtables and type information of the four classes of the
# public headers in the version node ZVR_MEDIA_PROXY_1, and the four functions of the diagnostics
# extension in the node ZVR_MEDIA_PROXY_1.1. A symbol added or lost shows as a difference; a new
# symbol that belongs to the public surface is added to the list on purpose.
# Usage: check_exports.sh NM LIBRARY
set -euo pipefail
nm_tool=$1
library=$2
expected="$(dirname "$0")/exported_symbols.txt"

# The vtables of the two abstract interfaces, whose only virtual functions are inline, are emitted
# where the compiler does not inline them away (unoptimised builds): part of the surface, present
# or not.
optional='^vtable for velmora::(ZVRMediaProxyInterface|ZVRMediaProxyManagerInterface)@@ZVR_MEDIA_PROXY_1$'
actual=$("$nm_tool" -D --defined-only -C "$library" | sed -E 's/^[0-9a-fA-F]+ [A-Za-z] //' |
  LC_ALL=C sort)
if ! difference=$(diff <(printf '%s\n' "$actual" | grep -Ev "$optional") \
  <(grep -Ev "$optional" "$expected")); then
  echo "the exported symbols differ from $expected (< exported, > expected):"
  printf '%s\n' "$difference"
  exit 1
fi
echo "$(printf '%s\n' "$actual" | grep -c .) exported symbols, exactly the public surface"
