#!/usr/bin/env bash
# The whole daemon's cost, measured as its users measure it: builds mixerd and the
# benchmark client optimised (build/bench-daemon, Release), then starts a real mixerd
# for every row in a private /run and /dev/shm and reports, in one table:
#   - the daemon's CPU time (all threads, /proc/PID/task/*/schedstat) per second of wall
#     time and per stream-second of audio, with 1, 8 and 32 clients at the mix rate and
#     8 clients at 44,100 Hz (once per resampler), into the ALSA "null" device and into
#     the WAV output;
#   - the daemon's wake-ups per second (context switches of all its threads,
#     /proc/PID/task/*/status) while one client plays, and over 10 s while none does
#     (the engine has paused its output since the last stream left);
#   - end-to-end latency, from a client committing a block to that block's samples
#     being written to the device (mixerd --write-trace), median and worst, beside the
#     audio the client had queued ahead of the block (the clients queue as mixer-play
#     does by default: 8 blocks, at most 100 ms ahead of the clock);
#   - the daemon's peak resident memory (VmHWM) in each row.
# It prints the table and exits 0 whatever the figures; docs/PERFORMANCE.md says what
# bounds each one.
#
#   scripts/bench-daemon.sh            10 s of audio per row (about 3 minutes)
#   scripts/bench-daemon.sh --brief    1 s per row, for CI: the figures are not meaningful
#
# As root (for the private mount namespace), on Debian bookworm after
# scripts/install-deps.sh.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build/bench-daemon

if [ "${MIXER_BENCH_NS:-}" != 1 ]; then
  case "${1:-}" in
    ""|--brief) ;;
    *) echo "usage: $0 [--brief]" >&2; exit 2 ;;
  esac
  if [ "$(id -u)" != 0 ]; then
    echo "bench-daemon.sh: run as root (it uses a private mount namespace)" >&2
    exit 1
  fi
  cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DMIXER_BUILD_TESTS=OFF \
    -DMIXER_BUILD_BENCH=ON -DMIXER_BUILD_HOST=ON >/dev/null
  cmake --build "$build" -j "$(nproc)" --target mixerd mixer-bench-client >/dev/null
  # Everything that follows sees a /run and a /dev/shm of its own.
  exec unshare -m sh -c 'mount -t tmpfs tmpfs /run && mount -t tmpfs tmpfs /dev/shm &&
    MIXER_BENCH_NS=1 exec "$0" "$@"' "$0" "$@"
fi

seconds=10 idle=10
[ "${1:-}" = --brief ] && seconds=1 idle=2
# The WAV file goes where a real one would: onto the build tree's file system.
work=$(mktemp -d "$build/work.XXXXXX")
daemon=
cleanup() {
  [ -n "$daemon" ] && kill "$daemon" 2>/dev/null && wait "$daemon" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

now_ns() { date +%s%N; }
cpu_ns() { cat /proc/"$1"/task/*/schedstat | awk '{ s += $1 } END { printf "%d", s }'; }
switches() {
  cat /proc/"$1"/task/*/status | awk '/^(non)?voluntary_ctxt_switches/ { s += $2 } END { printf "%d", s }'
}
hwm_kb() { awk '/^VmHWM/ { print $2 }' /proc/"$1"/status; }

# start_daemon OUTPUT RESAMPLER [more mixerd options]: a fresh daemon in $daemon.
start_daemon() {
  local output=$1 resampler=$2
  shift 2
  local out=(--output alsa --device null)
  [ "$output" = wav ] && out=(--output wav --out-file "$work/out.wav")
  rm -f "$work/ready" && mkfifo "$work/ready"
  # The 32-client row is one user's streams: above the daemon's default per-user limit.
  "$build/host/mixerd" "${out[@]}" --resampler "$resampler" --mic tone --mic-off \
    --streams-per-user 64 --streams-max 64 --socket "$work/ctl.sock" --status-file "$work/status" --log-stderr --log-mask EW \
    --ready-fd 3 "$@" 3>"$work/ready" 2>>"$work/mixerd.log" &
  daemon=$!
  local word
  read -r word <"$work/ready" || true
  if [ "$word" != ready ]; then
    echo "mixerd did not start:" >&2
    cat "$work/mixerd.log" >&2
    exit 1
  fi
}

stop_daemon() {
  kill -TERM "$daemon"
  wait "$daemon" || { echo "mixerd failed:" >&2; cat "$work/mixerd.log" >&2; exit 1; }
  daemon=
}

client() {  # STREAMS RATE: plays them for $seconds; its report in $work/client.out
  "$build/bench/daemon/mixer-bench-client" --streams "$1" --rate "$2" --seconds "$seconds" \
    --socket "$work/ctl.sock" >"$work/client.out" ||
    { echo "the benchmark client failed" >&2; cat "$work/mixerd.log" >&2; exit 1; }
}

declare -A perStream
row() {  # OUTPUT RESAMPLER STREAMS RATE
  local output=$1 resampler=$2 streams=$3 rate=$4
  start_daemon "$output" "$resampler"
  local c0 w0 t0 c1 w1 t1 kb
  c0=$(cpu_ns "$daemon") w0=$(switches "$daemon") t0=$(now_ns)
  client "$streams" "$rate"
  c1=$(cpu_ns "$daemon") w1=$(switches "$daemon") t1=$(now_ns) kb=$(hwm_kb "$daemon")
  stop_daemon
  local r
  r=$(awk -v c=$((c1 - c0)) -v w=$((w1 - w0)) -v t=$((t1 - t0)) -v n="$streams" -v s="$seconds" 'BEGIN {
      wall = t / 1e9; ms = c / 1e6
      printf "%.1f %.1f %.2f %.2f %.3f %.0f", wall, ms, ms / wall, ms / wall / 10, ms / (n * s), w / wall }')
  set -- $r
  perStream[$output/$resampler/$streams/$rate]=$5
  printf '%-5s %-6s %7s %6s | %6s %8s | %8s %6s %9s | %9s %8s\n' "$output" "$resampler" "$streams" "$rate" \
    "$1" "$2" "$3" "$4" "$5" "$6" "$((kb / 1024))"
}

cpu=$(awk -F': ' '/^model name/ { print $2; exit }' /proc/cpuinfo)
echo "mixerd on $(uname -m), ${cpu:-unknown CPU}, $(nproc) cores, kernel $(uname -r)"
echo "${seconds} s of audio per row; mix 48000 Hz stereo, 20-ms periods; clients queue 8 blocks, 100 ms ahead"
echo
printf '%-5s %-6s %7s %6s | %6s %8s | %8s %6s %9s | %9s %8s\n' output resamp clients Hz "wall s" "CPU ms" \
  "ms/wall" "%core" "ms/strm-s" "wakeups/s" "RSS MB"
echo "------------------------------+-----------------+----------------------------+-------------------"
for output in null wav; do
  for streams in 1 8 32; do row "$output" soxr "$streams" 48000; done
  for resampler in soxr speex; do row "$output" "$resampler" 8 44100; done
done

# Idle: one client comes and goes, then nothing plays.
start_daemon null soxr
saved=$seconds seconds=1
client 1 48000
seconds=$saved
for _ in $(seq 100); do [ -z "$(ls /var/run/mixer 2>/dev/null)" ] && break; sleep 0.05; done
sleep 1
w0=$(switches "$daemon") c0=$(cpu_ns "$daemon") t0=$(now_ns)
sleep "$idle"
w1=$(switches "$daemon") c1=$(cpu_ns "$daemon") t1=$(now_ns)
stop_daemon
echo
awk -v w=$((w1 - w0)) -v c=$((c1 - c0)) -v t=$((t1 - t0)) 'BEGIN {
  printf "idle (null device, no client, %.0f s): %.2f wake-ups/s, %.3f ms CPU per s\n", t / 1e9, w / (t / 1e9), c / 1e6 / (t / 1e9) }'

# Latency: one client into the null device, every frame written traced.
start_daemon null soxr --write-trace "$work/trace"
client 1 48000
stop_daemon
queued=$(awk '/^queued-ms/ { print $2 }' "$work/client.out")
awk '{ for (i = 2; i <= NF; ++i) if ($i ~ /^[0-9]+$/) print ($1 - $i) / 1000 }' "$work/trace" | sort -n >"$work/lat"
awk -v q="${queued:-0}" '{ v[NR] = $1 } END {
  if (NR == 0) { print "latency: no traced block"; exit }
  printf "latency, commit to device write (1 client, null device, %d blocks): median %.1f ms, worst %.1f ms;\n", NR, v[int((NR + 1) / 2)], v[NR]
  printf "  the client had %d ms queued ahead of a block (median); 2 periods more: %d ms\n", q, q + 40 }' "$work/lat"

echo
awk -v n8="${perStream[null/soxr/8/48000]}" -v w8="${perStream[wav/soxr/8/48000]}" \
    -v sx="${perStream[null/soxr/8/44100]}" -v sp="${perStream[null/speex/8/44100]}" 'BEGIN {
  printf "WAV against null, 8 clients at 48 kHz, per stream-second: %.2f\n", w8 / n8
  printf "soxr against speex, 8 clients at 44.1 kHz into null, per stream-second: %.2f\n", sx / sp }'
