#!/usr/bin/env bash
# Runs qvl-demo against a fresh qvl-sandbox and exits with the demo's status.
#   scripts/run-demo.sh SANDBOX_BINARY DEMO_BINARY [demo options]
# The sandbox gets a free port and a temporary state directory; both go when this ends.
set -euo pipefail
[ $# -ge 2 ] || { echo "usage: $0 SANDBOX_BINARY DEMO_BINARY [demo options]" >&2; exit 2; }
sandbox_bin="$1"
demo_bin="$2"
shift 2
state="$(mktemp -d "${TMPDIR:-/tmp}/qvl-sandbox-XXXXXX")"
sandbox_pid=""
cleanup() {
  if [ -n "$sandbox_pid" ]; then
    kill "$sandbox_pid" 2>/dev/null || true
    wait "$sandbox_pid" 2>/dev/null || true
  fi
  rm -rf "$state"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

"$sandbox_bin" --port 0 --state-dir "$state" >"$state/sandbox.log" 2>&1 &
sandbox_pid=$!
# sandbox.json appears once the sandbox accepts connections; qvl-demo reads the address,
# credentials and control token from it.
for _ in $(seq 1 100); do
  grep -q '"control_token"' "$state/sandbox.json" 2>/dev/null && break
  kill -0 "$sandbox_pid" 2>/dev/null || { cat "$state/sandbox.log" >&2; exit 1; }
  sleep 0.1
done
grep -q '"control_token"' "$state/sandbox.json" 2>/dev/null || { echo "qvl-sandbox did not start within 10 s" >&2; cat "$state/sandbox.log" >&2; exit 1; }
head -n 1 "$state/sandbox.log"

status=0
timeout 120 "$demo_bin" --sandbox-dir "$state" "$@" || status=$?
exit "$status"
