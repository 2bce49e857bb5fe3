#!/usr/bin/env bash
# The whole mixer in one command, on a machine without a sound card. As root, from
# anywhere:
#
#   scripts/demo.sh
#
# Installs what is missing, builds the daemon and its tools, starts mixerd with the
# WAV-file output, plays a music clip (made with sox) and a spoken prompt (made with
# espeak-ng, played by aplay through the ALSA plugin) whose stream type has focus, so
# the music ducks while the prompt speaks, and leaves in the repository root:
#   out.wav      what a loudspeaker would have played
#   out.png      its spectrogram
#   status.txt   the engines' status report, taken while both streams played
# Everything else lives in a temporary directory that is removed at the end. The
# stream directory (/var/run/mixer) is private to the demo: it runs in its own mount
# namespace with a fresh /run.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)

if [ "${MIXER_DEMO_NS:-}" != 1 ]; then
  if [ "$(id -u)" != 0 ]; then
    echo "demo.sh: run as root (it installs packages and uses a private mount namespace)" >&2
    exit 1
  fi
  need=0
  for tool in cmake ninja pkg-config sox espeak-ng aplay unshare c++; do
    command -v "$tool" >/dev/null 2>&1 || need=1
  done
  pkg-config --exists alsa sndfile speexdsp soxr 2>/dev/null || need=1
  [ -e /usr/include/boost/shared_ptr.hpp ] || need=1
  if [ "$need" = 1 ]; then
    echo "=== installing dependencies"
    "$root/scripts/install-deps.sh" demo
  fi
  echo "=== building"
  cmake -S "$root" -B "$root/build/demo" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DMIXER_BUILD_TESTS=OFF -DMIXER_BUILD_BENCH=OFF >/dev/null
  cmake --build "$root/build/demo" --target mixerd mixer-play mixerctl asound_module_pcm_mixer -- -j "$(nproc)" >/dev/null
  # Everything that follows sees a /run of its own.
  exec unshare -m sh -c 'mount -t tmpfs tmpfs /run && MIXER_DEMO_NS=1 exec "$0" "$@"' "$0" "$@"
fi

bin=$root/build/demo
work=$(mktemp -d /tmp/mixer-demo.XXXXXX)
daemon=
cleanup() {
  [ -n "$daemon" ] && kill "$daemon" 2>/dev/null && wait "$daemon" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

echo "=== making the sounds"
# Ten seconds of music: a four-chord loop of plucked strings over a soft pad.
chords=("A2 C#4 E4 A4" "F#2 C#4 F#4 A4" "D2 D4 F#4 A4" "E2 B3 E4 G#4")
parts=()
for i in 0 1 2 3 4; do
  c=${chords[$((i % 4))]}
  set -- $c
  sox -n -r 48000 -c 2 -b 16 "$work/chord$i.wav" synth 2 pluck "$1" pluck "$2" pluck "$3" pluck "$4" \
    synth 2 sine mix "$1" gain -h -3 fade q 0.01 2 0.05
  parts+=("$work/chord$i.wav")
done
sox "${parts[@]}" "$work/music.wav" gain -n -9
espeak-ng -s 150 -w "$work/prompt.wav" "In two hundred meters, turn left onto Station Road."

echo "=== starting mixerd (WAV output, tone microphone)"
ready=$work/ready
mkfifo "$ready"
# The default control socket, /run/mixerd/mixerd.sock, in the demo's own /run: the
# players find it there as mixerctl does.
"$bin/host/mixerd" --output wav --out-file "$root/out.wav" --mic tone \
  --log-stderr --log-mask EWI --ready-fd 3 3>"$ready" 2>"$work/mixerd.log" &
daemon=$!
read -r word <"$ready"
[ "$word" = ready ] || { echo "mixerd did not start:" >&2; cat "$work/mixerd.log" >&2; exit 1; }
ctl() { "$bin/tools/mixerctl" "$@"; }

ctl focus prompt
echo "=== playing music; the prompt follows and has focus"
"$bin/tools/mixer-play" "$work/music.wav" --name music1 --meta music --quiet &
music=$!
# The prompt comes in about three seconds into the music (the WAV output plays at
# half speed in wall-clock time: see mixerd --help).
sleep 6
# The prompt comes from an ALSA program, through the plugin in the build tree.
{ echo "pcm_type.mixer { lib \"$bin/alsa/libasound_module_pcm_mixer.so\" }"
  cat "$root/alsa/50-mixer.conf"; } >"$work/asound.conf"
ALSA_CONFIG_PATH=$work/asound.conf aplay -q -D mixer:META=prompt,NAME=prompt1 "$work/prompt.wav" &
prompt=$!
# The report while both play (the daemon takes the new stream on its own thread).
for _ in $(seq 50); do
  ctl status >"$root/status.txt"
  grep -q prompt1 "$root/status.txt" && break
done
wait "$prompt"
wait "$music"
kill -TERM "$daemon"
wait "$daemon"
daemon=

echo "=== results"
sox "$root/out.wav" -n spectrogram -x 1200 -y 400 -t "mixerd demo: music ducked under a spoken prompt" \
  -o "$root/out.png"
cat "$root/status.txt"
echo "level of out.wav, second by second (RMS, dBFS):"
len=$(soxi -D "$root/out.wav")
for s in $(seq 0 $(( ${len%.*} ))); do
  lev=$(sox "$root/out.wav" -n trim "$s" 1 stats 2>&1 | awk '/RMS lev dB/ {print $4}')
  printf '  %3ds %s\n' "$s" "$lev"
done
echo "wrote $root/out.wav, $root/out.png and $root/status.txt"
