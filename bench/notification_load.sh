#!/usr/bin/env bash
# Threads and memory of an agent before and after a burst of distributed notifications.
#   bench/notification_load.sh [AGENT] [COUNT]
# Starts the agent in a throwaway machine with a private session bus, posts COUNT (default
# 1000) "QVKestrinCurrentStatus" notifications (each makes the agent broadcast its status),
# and prints Threads, VmRSS and VmSize from /proc before and after. Ends only what it started.
set -euo pipefail
agent=${1:-build-rel/Kestrin.app/Contents/MacOS/Kestrin}
count=${2:-1000}
scratch=$(mktemp -d)
bus_pid=""
agent_pid=""
cleanup() {
  [ -n "$agent_pid" ] && kill "$agent_pid" 2>/dev/null && wait "$agent_pid" 2>/dev/null || true
  [ -n "$bus_pid" ] && kill "$bus_pid" 2>/dev/null || true
  rm -rf "$scratch"
}
trap cleanup EXIT
mkdir -p "$scratch/home" "$scratch/root" "$scratch/run"
read -r address bus_pid < <(dbus-daemon --session --fork --print-address=1 --print-pid=1 |
  paste -sd' ')
export DBUS_SESSION_BUS_ADDRESS=$address
HOME=$scratch/home KESTRIN_ROOT=$scratch/root XDG_RUNTIME_DIR=$scratch/run \
  KESTRIN_SOFTWARE_UPDATE_FEED=http://127.0.0.1:9/no-feed.plist \
  "$agent" >"$scratch/out" 2>&1 &
agent_pid=$!
for _ in $(seq 100); do grep -q "Listening on port" "$scratch/out" && break; sleep 0.1; done
sleep 1
show() {
  printf '%-7s' "$1"
  grep -E '^(Threads|VmRSS|VmSize):' "/proc/$agent_pid/status" | tr -s ' \t' ' ' | paste -sd' '
}
show before
start=$(date +%s.%N)
for _ in $(seq "$count"); do
  dbus-send --session --type=signal /com/quorvane/Kestrin/Notifications \
    com.quorvane.Kestrin.Notifications.Notification string:QVKestrinCurrentStatus array:byte:0
done
end=$(date +%s.%N)
sleep 2
show after
echo "posted $count notifications in $(echo "$end - $start" | bc) s"
