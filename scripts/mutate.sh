#!/usr/bin/env bash
# Plants a fixed list of faults in the library and the stand-in, one at a time, and reports
# which the unit suite catches: a measure of what the tests would notice, to be compared before
# and after the suite is reworked (the two counts must be equal).
#
#   scripts/mutate.sh [--list] [NAME ...]
#
# Each fault replaces one exact piece of text that must occur once in its file. The default
# build (build/default) is rebuilt incrementally after each plant and the unit suite (label
# unit) runs with a short timeout; a fault counts as caught when a test fails or times out.
# The file is restored after each fault, also on interruption. A fault whose text is no longer
# found is reported as "stale" and counts as not caught, so that the list is kept in step with
# the code.
set -euo pipefail
cd "$(dirname "$0")/.."

# name | file | text | replacement | what the fault is
faults=$(cat <<'EOF'
itc-budget-equal|lib/itc_msg.cpp|queued) > dst->max_bytes|queued) >= dst->max_bytes|budget refuses a send that exactly fits
itc-queue-len|lib/itc_msg.cpp|(queued >> 32) >= dst->queue_len|(queued >> 32) > dst->queue_len|one data message more than queue_len admitted
itc-budget-leak|lib/itc_msg.cpp|      lib_itc_queued_leave(dst, length);|      (void)length;|failed enqueue keeps its bytes
itc-discard-bytes|lib/itc_handler.cpp|        lib_itc_queued_leave(rec, msg->length);|        (void)rec;|discarded message keeps its bytes
itc-discard-free|lib/itc_handler.cpp|        lib_itc_queued_leave(rec, msg->length);\n      }\n      free(msg);|        lib_itc_queued_leave(rec, msg->length);\n      }|discarded message not freed
itc-connected-dropped|lib/itc_notify.cpp|      lib_itc_post_msg(self_, LIB_ITC_MSG_CONNECTED, 0, 0);|      (void)self_;|client not told of its server
itc-disconnect-dropped|lib/itc_notify.cpp|        lib_itc_post_msg(peers_[i].rec, LIB_ITC_MSG_DISCONNECT, 0, 0);|        (void)i;|clients not told their server left
itc-own-queue-check|lib/itc_handler.cpp|rec != nullptr && rec->queue != queue|rec != nullptr && false|handler takes a newer channel's record
itc-id-not-recycled|lib/itc_channel.cpp|      lib_name_service_ids_put(lib_itc_ids(), lib_name_service_handle_id(handle));|      (void)handle;|an id freed by the name service is lost
itc-entry-kept|lib/itc_channel.cpp|entry == nullptr \|\| lib_name_service_entry_unbound(entry)|entry == nullptr|client-only names never released
itc-name-not-moved|lib/itc_channel.cpp|      entry->header.name = other->name;|      (void)other;|entry keeps a closed channel's string
itc-handle-bits|lib/itc_internal.h|(handle & 0xFF00u) == 0 && |true && |handles with slot bits 8 to 15 accepted
itc-free-type|lib/itc_msg.cpp|  if (msg->type != LIB_ITC_MSG_DATA) {\n    return LIB_ITC_EINVAL;\n  }\n  free(msg);|  free(msg);|free accepts a notification
itc-unpublished-visible|lib/itc_internal.h|rec != nullptr && rec->published ? rec : nullptr|rec|a record is visible before open has set it up
itc-pin-closed|lib/itc_msg.cpp|    if (!pin.dst->closed.load(std::memory_order_acquire)) {|    if (true) {|a send reaches a closed destination
itc-retire-drain|lib/itc_channel.cpp|  lib_itc_queue_discard_all(rec->queue);\n  lib_itc_channel_unref(rec);|  lib_itc_channel_unref(rec);|clean-up leaves queued messages
ns-slot-limit|lib/name_service.cpp|slots->used < LIB_NAME_SERVICE_MAX_SLOTS ? slots->used : -1|slots->used <= LIB_NAME_SERVICE_MAX_SLOTS ? slots->used : -1|a 256th shared slot handed out
ns-owner-twice|lib/name_service.cpp|    if ((entry->flags & LIB_NAME_SERVICE_OWNED) != 0) {|    if (false) {|a second owner binds
ns-name-match|lib/hash_name.cpp|->name) == 0 ? 1 : 0|->name) != 0 ? 1 : 0|names match when they differ
ns-ids-oldest|lib/name_service.cpp|    kro_ext_hash_id_name_link(service, &entry->header, ids->ring[ids->head]);|    kro_ext_hash_id_name_link(service, &entry->header, ids->ring[(ids->head + ids->count - 1) % ids->cap]);|ids reused newest first
array-append-count|lib/array.cpp|  ++array->used;\n  ++array->count;\n  return index;|  ++array->used;\n  return index;|append does not count the element
trace-error-flag|trace/modules.cpp|  if ((mask & ZEL_TRACE_MASK_ERROR) != 0) {|  if ((mask & ZEL_TRACE_MASK_TRACE) != 0) {|error flag follows the trace bit
ipc-name-max|ipc_reg/entry.cpp|len > ZEL_IPC_REG_NAME_MAX \|\||len > ZEL_IPC_REG_NAME_MAX + 1 \|\||a name one character too long accepted
idmgr-wrap-zero|util/id_mgr.cpp|  if (candidate == 0) {\n    mgr->flags|  if (false) {\n    mgr->flags|id 0 handed out after the wrap
idmgr-wrap-flag|util/id_mgr.cpp|    mgr->flags = static_cast<uint16_t>(mgr->flags \| ZEL_ID_MGR_F_WRAPPED);|    (void)0;|wrap not noted, ids in use handed out again
pipe-last-piece|util/pipe_cmd.cpp|ferror_unlocked(stream) != 0 ? ZEL_PIPE_CMD_EREAD : ZEL_PIPE_CMD_OK|ZEL_PIPE_CMD_OK|a read error reported as success
data-quote-escape|data/convert_octets.cpp|  t.role[static_cast<uint8_t>('"')] = zel_convert_escaped \| zel_convert_quoting;|  t.role[static_cast<uint8_t>('"')] = zel_convert_quoting;|a quote in text not escaped
data-config-id-limit|data/config_id.cpp|  return magnitude > INT32_MAX ? INT32_MAX : static_cast<int32_t>(magnitude);|  return static_cast<int32_t>(magnitude);|config id past INT32_MAX wraps
dm-queue-limit|platform/kro/dm_queue.cpp|(s & kro_dm_q_len_mask) >= q->max_len|(s & kro_dm_q_len_mask) > q->max_len|a watched queue takes one message past its limit
dm-timer-due|platform/kro/dm_timer.cpp|dm->heap[0]->deadline <= now|dm->heap[0]->deadline < now|a timer due now waits a step
dm-timer-wake-locked|platform/kro/dm_timer.cpp|  if (kro_dm_timer_arm_locked(dm, t, deadline)) {\n    kro_dm_wake_sleeper(dm);\n  }|  (void)kro_dm_timer_arm_locked(dm, t, deadline);|arming never wakes a sleeping owner
EOF
)

list_only=0
wanted=()
for arg in "$@"; do
  case $arg in
    --list) list_only=1 ;;
    *) wanted+=("$arg") ;;
  esac
done

if [ "$list_only" -eq 1 ]; then
  printf '%s\n' "$faults" | awk -F'|' '{ printf "%-24s %-28s %s\n", $1, $2, $5 }'
  exit 0
fi

[ -f build/default/build.ninja ] || cmake --preset default >/dev/null
cmake --build --preset default -j2 >/dev/null

current=""
restore() { [ -z "$current" ] || git checkout -q -- "$current"; current=""; }
trap restore EXIT INT TERM

# Replaces the one occurrence of $2 in file $1 by $3 (\n in either stands for a newline).
plant() {
  python3 - "$1" "$2" "$3" <<'PY'
import sys
path, old, new = sys.argv[1], sys.argv[2].replace('\\n', '\n'), sys.argv[3].replace('\\n', '\n')
old = old.replace('\\|', '|')
new = new.replace('\\|', '|')
text = open(path).read()
if text.count(old) != 1:
    sys.exit(3)
open(path, 'w').write(text.replace(old, new))
PY
}

total=0
caught=0
missed=()
while IFS= read -r line; do
  # Split on '|' not preceded by a backslash.
  IFS=$'\x1f' read -r name file text replacement what < <(printf '%s\n' "$line" | sed 's/\([^\\]\)|/\1\x1f/g')
  if [ ${#wanted[@]} -gt 0 ] && [[ ! " ${wanted[*]} " == *" $name "* ]]; then
    continue
  fi
  total=$((total + 1))
  if ! git diff --quiet -- "$file"; then
    echo "mutate: $file has uncommitted changes; commit or stash them first" >&2
    exit 2
  fi
  current=$file
  if ! plant "$file" "$text" "$replacement"; then
    restore
    echo "stale     $name ($file): its text is not found once"
    missed+=("$name")
    continue
  fi
  if ! cmake --build --preset default -j2 >/dev/null 2>&1; then
    result="no-build"
    missed+=("$name")
  elif (cd build/default && ctest -L unit -j2 --timeout 60 --stop-on-failure >/dev/null 2>&1); then
    result="MISSED"
    missed+=("$name")
  else
    result="caught"
    caught=$((caught + 1))
  fi
  restore
  printf '%-9s %-24s %s\n' "$result" "$name" "$what"
done <<< "$faults"

cmake --build --preset default -j2 >/dev/null
echo "mutate: ${caught} of ${total} faults caught${missed:+; not caught: ${missed[*]}}"
