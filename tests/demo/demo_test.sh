#!/usr/bin/env bash
# Runs scripts/demo against the binaries of a build tree and checks its exit
# status, its summary, and that no process of the run is left behind and its
# runtime directory is gone.
#
#   demo_test.sh CASE SOURCE_DIR BUILD_DIR
#
# CASE: run (the whole demo, every expectation held), start-failure (an
# entity that does not start), wrong-results (a client that answers 0 to
# everything), interrupt (SIGINT to the run's process group, as Ctrl-C).

# The checks are passed as text and evaluated when they run.
# shellcheck disable=SC2016
set -euo pipefail

[ $# -eq 3 ] || { echo "usage: demo_test.sh CASE SOURCE_DIR BUILD_DIR" >&2; exit 2; }
case_name=$1 source_dir=$2 build_dir=$3

programs=(tools/host/log-storage/log-storage tools/host/signature-verifier/signature-verifier
  tools/host/update-registry/update-registry entities/updater_pdk/verifier/src/main/verifier
  tools/host/registry-cli/registry-cli tools/host/verifier-cli/verifier-cli)
# A tree in which only some targets were built (CI builds a few tests under
# ThreadSanitizer) has nothing to run the demo with: skipped (ctest's
# SKIP_RETURN_CODE), not failed. `make test` builds them all.
for path in "${programs[@]}"; do
  if [ ! -x "$build_dir/$path" ]; then
    echo "skipped: $build_dir/$path is not built"
    exit 77
  fi
done
demo="$source_dir/scripts/demo"
work=$(mktemp -d "${TMPDIR:-/tmp}/demo-test-XXXXXX")
out="$work/demo.out"
demo_pid=""

cleanup() {
  # Whatever of the run is still there (a failed check) is ended here, by
  # pid, so that the test itself leaves nothing either.
  local pid
  if [ -n "$demo_pid" ]; then
    for pid in $(pgrep -s "$demo_pid" || true); do
      kill -TERM "$pid" 2>/dev/null || true
    done
  fi
  rm -rf "$work"
}
trap cleanup EXIT

# alive PID: the process runs (a zombie has ended).
alive() {
  local stat
  stat=$(cat "/proc/$1/stat" 2>/dev/null) || return 1
  stat=${stat##*) }
  [ "${stat%% *}" != Z ]
}

failures=0
# check DESCRIPTION CONDITION: counts a failure when the shell text CONDITION
# is false.
check() {
  if ! eval "$2"; then
    echo "FAILED: $1" >&2
    failures=$((failures + 1))
  fi
}
has_line() { grep -qE -- "$1" "$out"; }

# launch ARGS...: the demo in a session of its own (its session id is its
# pid), in the background, with SIGINT at its default action: ctest may start
# this script with SIGINT ignored, and an ignored signal stays ignored.
launch() {
  python3 -c 'import os, signal, sys
signal.signal(signal.SIGINT, signal.SIG_DFL)
os.setsid()
os.execv(sys.argv[1], sys.argv[1:])' "$demo" "$@" >"$out" 2>&1 &
  demo_pid=$!
}

# finish SECONDS: waits for the demo, ending its session after SECONDS;
# sets status.
status=""
finish() {
  local i
  for ((i = 0; i < $1 * 10; i++)); do
    alive "$demo_pid" || break
    sleep 0.1
  done
  if alive "$demo_pid"; then
    echo "FAILED: the demo did not end within $1 s" >&2
    kill -TERM -- "-$demo_pid" 2>/dev/null || true
    failures=$((failures + 1))
  fi
  status=0
  wait "$demo_pid" || status=$?
}

# What every run must leave: nothing of its session running, no runtime
# directory.
check_nothing_left() {
  local runtime left
  runtime=$(sed -nE '1s/.*\(runtime directory ([^ ,]+), .*/\1/p' "$out")
  check "the first line names the runtime directory" '[ -n "$runtime" ]'
  check "the runtime directory $runtime is removed" '[ -z "$runtime" ] || [ ! -e "$runtime" ]'
  # A subshell of the run that ended with it may stay a zombie for a moment,
  # until init reaps it; a process that still runs after 3 s is left behind.
  for ((i = 0; i < 30; i++)); do
    left=$(living_in_session "$demo_pid")
    [ -n "$left" ] || break
    sleep 0.1
  done
  check "no process of the run is left (session $demo_pid: $left)" '[ -z "$left" ]'
}

# living_in_session SID: the processes of session SID that have not ended.
living_in_session() {
  local pid
  for pid in $(pgrep -s "$1" || true); do
    ! alive "$pid" || ps -o pid=,args= -p "$pid" || true
  done
}

# fake_build_dir NAME SCRIPT: a build tree of links to the real binaries in
# which the program NAME is the shell script SCRIPT.
fake_build_dir() {
  local fake="$work/build" path
  for path in "${programs[@]}"; do
    mkdir -p "$fake/$(dirname "$path")"
    if [ "$(basename "$path")" = "$1" ]; then
      printf '#!/bin/sh\n%s\n' "$2" >"$fake/$path"
      chmod +x "$fake/$path"
    else
      ln -s "$build_dir/$path" "$fake/$path"
    fi
  done
  echo "$fake"
}

row() { printf '^  %s +%s +%s +%s$' "$1" "$2" "$3" "$4"; }

case "$case_name" in
  run)
    launch --build-dir "$build_dir" --archive-mib 80
    finish 100
    check "exit status 0 (got $status)" '[ "$status" -eq 0 ]'
    check "the archive is hashed in two chunks" 'has_line "update archive +update_vantor3\.tar\.gz, [0-9]+ bytes: 2 chunks of 64 MiB"'
    for expected in \
      "$(row "applist verified" 0x00000000 0x00000000 yes)" \
      "$(row "archive verified" 0x00000000 0x00000000 yes)" \
      "$(row "applist, one byte flipped" 0xffff4000 0xffff4000 yes)" \
      "$(row "archive, one byte flipped" 0xffff4000 0xffff4000 yes)" \
      "$(row "archive, no signature file" 0x80000046 0x80000046 yes)" \
      "$(row "invalid handle 0xFFFFFF" 0x80000046 0x80000046 yes)" \
      "$(row "verifier log lines" "2 passed, 4 refused" "2 passed, 4 refused" yes)" \
      "$(row "entities stopped" "exit 0 x4" "exit 0 x4" yes)"; do
      check "summary row $expected" 'has_line "$expected"'
    done
    check "the refusals name the signature-verifier's code" \
      '[ "$(grep -c "0xffff4000 (Unknown result code) = signature-verifier code 1 INVALID_SIGNATURE" "$out")" -eq 2 ]'
    check "the log shows the start line without escape sequences" \
      'has_line "^  [0-9:]{8} \[verifier\]\[info\]\[main:48\] Entity started \[OK\]$"'
    check "the last line says every expectation held" '[ "$(tail -n 1 "$out")" = "demo: all 8 expectations held" ]'
    ;;
  start-failure)
    launch --build-dir "$(fake_build_dir signature-verifier 'echo "no GOST engine here" >&2; exit 3')" --archive-mib 65
    finish 45
    check "exit status 1 (got $status)" '[ "$status" -eq 1 ]'
    check "the failed start is reported with the entity's output" \
      'has_line "FAIL start signature-verifier: it does not serve \"nv\.SignatureVerifierEntity\"" &&
       has_line "^         \| no GOST engine here$"'
    check "the log storage started before is stopped" 'has_line "stopped 2 entities: signature-verifier=3 log-storage=0"'
    check "the summary holds the failed step" 'has_line "$(row "start signature-verifier" done failed no)"'
    check "the last line counts the failure" '[ "$(tail -n 1 "$out")" = "demo: 1 of 1 expectations failed" ]'
    ;;
  wrong-results)
    launch --build-dir "$(fake_build_dir verifier-cli 'echo "0x00000000 (No error)"')" --archive-mib 65
    finish 45
    check "exit status 1 (got $status)" '[ "$status" -eq 1 ]'
    check "a tampered package that passes is a failed expectation" \
      'has_line "$(row "archive, one byte flipped" 0xffff4000 0x00000000 no)"'
    check "so is an invalid handle that passes" 'has_line "$(row "invalid handle 0xFFFFFF" 0x80000046 0x00000000 no)"'
    check "and a log without the verifier's lines" \
      'has_line "$(row "verifier log lines" "2 passed, 4 refused" "0 passed, 0 refused" no)"'
    check "the entities are stopped all the same" 'has_line "$(row "entities stopped" "exit 0 x4" "exit 0 x4" yes)"'
    check "the last line counts the failures" '[ "$(tail -n 1 "$out")" = "demo: 5 of 8 expectations failed" ]'
    ;;
  interrupt)
    launch --build-dir "$build_dir" --archive-mib 65
    for ((i = 0; i < 600; i++)); do
      ! has_line 'serves "verifier"' || break
      alive "$demo_pid" || break
      sleep 0.1
    done
    kill -INT -- "-$demo_pid"
    finish 30
    check "exit status 130 (got $status)" '[ "$status" -eq 130 ]'
    check "the interruption is reported" '[ "$(tail -n 1 "$out")" = "demo: interrupted by SIGINT" ]'
    check "the four entities are stopped" 'has_line "stopped 4 entities: verifier=[0-9]+ update-registry=[0-9]+ signature-verifier=[0-9]+ log-storage=[0-9]+"'
    ;;
  *)
    echo "demo_test.sh: unknown case '$case_name'" >&2
    exit 2
    ;;
esac
check_nothing_left

if [ "$failures" -ne 0 ]; then
  echo "--- demo output" >&2
  cat "$out" >&2
  exit 1
fi
echo "demo $case_name: every check passed"
