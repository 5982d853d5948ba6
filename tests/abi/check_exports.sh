#!/usr/bin/env bash
# Fails when the client library exports a dynamic symbol outside its public surface: the entry
# point, the members, vtables and type information of the four classes of the public headers,
# and the version node ZVR_MEDIA_PROXY_1; and, in the node ZVR_MEDIA_PROXY_1.1, exactly the four
# functions of the diagnostics extension.
# Usage: check_exports.sh NM LIBRARY
set -euo pipefail
nm_tool=$1
library=$2

classes='ZVRMediaProxyInterface|ZVRMediaProxyManagerInterface|ZVRMediaProxyManager|ZVRMediaProxyObject'
core="^(requestZVRMediaProxy|ZVR_MEDIA_PROXY_1|velmora::($classes)::.*|(typeinfo|typeinfo name|vtable) for velmora::($classes))(@@?ZVR_MEDIA_PROXY_1)?\$"
extension=(
  'ZVR_MEDIA_PROXY_1.1'
  'velmora::addZVROutcomeListener(void (*)(velmora::ZVROutcome const&, void*), void*)@@ZVR_MEDIA_PROXY_1.1'
  'velmora::removeZVROutcomeListener(void (*)(velmora::ZVROutcome const&, void*), void*)@@ZVR_MEDIA_PROXY_1.1'
  'velmora::getZVRProxyCounters(std::shared_ptr<velmora::ZVRMediaProxyInterface> const&)@@ZVR_MEDIA_PROXY_1.1'
  'velmora::getZVRProcessCounters()@@ZVR_MEDIA_PROXY_1.1'
)

symbols=$("$nm_tool" -D --defined-only -C "$library" | sed -E 's/^[0-9a-fA-F]+ [A-Za-z] //')
count=$(printf '%s\n' "$symbols" | grep -c . || true)
in_extension=$(printf '%s\n' "$symbols" | grep -F 'ZVR_MEDIA_PROXY_1.1' | sort || true)
expected_extension=$(printf '%s\n' "${extension[@]}" | sort)
if [ "$in_extension" != "$expected_extension" ]; then
  echo "the node ZVR_MEDIA_PROXY_1.1 holds:"
  printf '%s\n' "$in_extension"
  echo "expected:"
  printf '%s\n' "$expected_extension"
  exit 1
fi
unexpected=$(printf '%s\n' "$symbols" | grep -vF 'ZVR_MEDIA_PROXY_1.1' | grep -Ev "$core" || true)
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
