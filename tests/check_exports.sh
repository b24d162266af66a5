#!/usr/bin/env bash
# The shared library must export the whole API and nothing of its internals.
set -euo pipefail
lib=$1
shift
exported=$(nm -D --defined-only "$lib" | awk '{print $3}')
status=0
for name in "$@"; do
  if ! grep -qx "$name" <<<"$exported"; then
    echo "missing export: $name"
    status=1
  fi
done
# Internal helpers (lower-case words, the transport) stay hidden; C++ symbols too.
leaks=$(grep -E '^(MSG_|USBBulk|USBInt|USBCtrl|usb_list_|lock$|unlock$|can_lock|crc16_ccitt|_Z)' <<<"$exported" || true)
if [ -n "$leaks" ]; then
  echo "internal symbols exported:"
  echo "$leaks"
  status=1
fi
[ $status = 0 ] && echo "exports ok ($(wc -l <<<"$exported") symbols)"
exit $status
