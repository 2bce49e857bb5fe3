#!/usr/bin/env bash
# The tools' failure and edge cases, run as a new user meets them on a machine without a
# sound card (mixerd --output wav, tone microphone). Every case checks the exit status that
# the programs' --help documents and part of what they print; the run ends by checking that
# no client is still waiting and that nothing is left in /dev/shm or /run/mixer.
#
#   scripts/tool-cases.sh [BUILD_DIR]     (default: build; as root)
#
# It runs in its own mount namespace with empty /run and /dev/shm, so the machine's
# stream directory and queues are not touched. Needs python3 (to make the test files).
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$root/build}" && pwd)
if [ "${MIXER_CASES_NS:-}" != 1 ]; then
  exec unshare -m env MIXER_CASES_NS=1 bash -c \
    'mount -t tmpfs tmpfs /run && mount -t tmpfs tmpfs /dev/shm && exec bash "$0" "$1"' "$0" "$build"
fi
play="$build/tools/mixer-play --quiet" rec="$build/tools/mixer-rec --quiet" ctl=$build/tools/mixerctl
mixerd=$build/host/mixerd
d=$(mktemp -d) failed=0 daemon=
trap '[ -n "$daemon" ] && kill -9 $daemon 2>/dev/null; rm -rf "$d"' EXIT

# check STATUS TEXT COMMAND...: runs COMMAND (at most 30 s) and checks its status and output.
check() {
  local want=$1 text=$2; shift 2
  local out got
  out=$(timeout -s KILL 30 "$@" 2>&1); got=$?
  if [ "$got" = "$want" ] && [[ "$out" == *"$text"* ]]; then
    echo "ok    [$got] $*"
  else
    echo "FAIL  [$got, wanted $want${text:+ and \"$text\"}] $*"; echo "$out" | sed 's/^/      /'
    failed=$((failed + 1))
  fi
}
start() {  # mixerd in the background, once it says it serves
  rm -f "$d/ready"
  $mixerd --output wav --out-file "$d/out.wav" --mic tone --log-stderr --log-mask EW --ready-fd 3 \
    3>"$d/ready" 2>>"$d/mixerd.log" &
  daemon=$!
  for _ in $(seq 100); do grep -q ready "$d/ready" 2>/dev/null && return; sleep 0.05; done
  echo "mixerd did not start:"; cat "$d/mixerd.log"; exit 1
}

python3 - "$d" <<'PY'
import math, struct, sys
d = sys.argv[1]
def wav(name, rate, seconds, fmt=1, width=2, amp=0.25, cut=False):
    n = int(rate * seconds)
    x = [amp * math.sin(2 * math.pi * 440 * i / rate) for i in range(n)]
    pack = {(1, 2): lambda v: struct.pack('<h', int(v * 32767)), (3, 4): lambda v: struct.pack('<f', v),
            (3, 8): lambda v: struct.pack('<d', v)}[(fmt, width)]
    data = b''.join(pack(v) for v in x)
    head = b'RIFF' + struct.pack('<I', 36 + len(data)) + b'WAVEfmt ' + struct.pack(
        '<IHHIIHH', 16, fmt, 1, rate, rate * width, width, width * 8) + b'data' + struct.pack('<I', len(data))
    open(f'{d}/{name}', 'wb').write(head + (data[:len(data) // 2] if cut else data))
wav('a.wav', 48000, 0.5); wav('long.wav', 48000, 5); wav('odd.wav', 11025, 0.5); wav('odd2.wav', 44056, 0.5)
wav('float.wav', 48000, 0.5, 3, 4); wav('double.wav', 48000, 0.5, 3, 8); wav('cut.wav', 48000, 0.5, cut=True)
PY
echo "an earlier recording" > "$d/kept.wav"

echo "== without the daemon"
check 1 "mixerd is not running" $play "$d/a.wav" --name a --meta music
check 1 "mixerd is not running" $rec --name micRaw "$d/r.wav"
check 2 "mixerd is not running" $ctl status
check 0 "get volume TYPE" $ctl help
check 2 "unknown request 'volum'" $ctl volum music 3
check 0 "mixerctl " $ctl -V
check 2 "from 2 to 256" $play "$d/a.wav" --name a --meta music --blocks 0
check 2 "is a directory" $play "$d" --name a --meta music
check 2 "says no format" $rec --name micRaw "$d/r.xyz"
check 1 "/nonexistent/out.wav" $mixerd --output wav --out-file /nonexistent/out.wav --mic tone

echo "== with mixerd --output wav --mic tone"
start
check 1 "rate does not make whole 20-ms frames" $play "$d/odd.wav" --name a --meta music
check 1 "rate does not make whole 20-ms frames" $play "$d/odd2.wav" --name a --meta music
check 0 "" $play "$d/float.wav" --name a --meta music
check 0 "" $play "$d/double.wav" --name a --meta music
check 0 "" $play "$d/a.wav" --name a --meta music --flush-at 0.2
check 0 "cut short" $play "$d/cut.wav" --name a --meta music
check 0 "" $ctl mic off
check 1 "the microphone is off" $rec --name micRaw "$d/kept.wav"
check 0 "" $ctl mic on
check 0 "" $rec --name micRaw "$d/r.flac" --seconds 0.3
check 0 "FLAC" file "$d/r.flac"
check 2 "says no format" $rec --name micRaw "$d/r.mp9"
check 0 "" $ctl speaker 52
check 0 "52" $ctl get speaker
check 0 "" $ctl focus prompt
check 0 "prompt" $ctl get focus
check 0 "" $ctl volume music 30
check 0 "30" $ctl get volume music
check 1 "must hear the speaker" $ctl latency
$rec --name micRaw "$d/r1.wav" & recpid=$!
sleep 0.5
check 0 $'Record streams: 1\n0\tmicRaw' $ctl status
check 1 "open already" $rec --name micRaw "$d/kept.wav"
check 0 "an earlier recording" cat "$d/kept.wav"
kill -INT $recpid; wait $recpid; s=$?
[ $s = 0 ] && echo "ok    [0] mixer-rec interrupted" || { echo "FAIL  mixer-rec interrupted: $s"; failed=$((failed + 1)); }

$play "$d/long.wav" --name k --meta music & p=$!
sleep 0.5; kill -INT $p; wait $p; s=$?
[ $s = 130 ] && echo "ok    [130] mixer-play interrupted" || { echo "FAIL  mixer-play interrupted: $s"; failed=$((failed + 1)); }
$play "$d/long.wav" --name k --meta music & p=$!
sleep 0.5; kill -9 $p; wait $p 2>/dev/null
check 0 "" $play "$d/a.wav" --name k --meta music   # the killed run's name, at once
check 0 "" $play "$d/a.wav" --name k --meta music   # and again, back to back

$play "$d/long.wav" --name k --meta music 2>"$d/k.err" & p=$!
sleep 0.5; kill -9 $daemon; wait $daemon 2>/dev/null; daemon=
wait $p; s=$?
if [ $s = 1 ] && grep -q "mixerd has gone" "$d/k.err"; then echo "ok    [1] mixer-play after mixerd was killed"
else echo "FAIL  mixer-play after mixerd was killed: $s $(cat "$d/k.err")"; failed=$((failed + 1)); fi
start   # on what the killed one left
kill $daemon; wait $daemon; s=$?; daemon=
[ $s = 0 ] && echo "ok    [0] mixerd restarted and stopped" || { echo "FAIL  mixerd stopped with $s"; failed=$((failed + 1)); }

echo "== left behind"
waiting=$(pgrep -f "$build/tools/mixer-" || true)
left=$(ls -A /dev/shm /run/mixer 2>/dev/null | grep -v -e '^/' -e '^$' || true)
[ -z "$waiting" ] && echo "ok    no client waiting" || { echo "FAIL  clients waiting: $waiting"; failed=$((failed + 1)); }
[ -z "$left" ] && echo "ok    nothing in /dev/shm or /run/mixer" || { echo "FAIL  left: $left"; failed=$((failed + 1)); }
echo "$failed case(s) failed"
[ $failed = 0 ]
