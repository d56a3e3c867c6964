#!/usr/bin/env bash
# Records real video onto a card image until the card is full and its oldest recordings have gone,
# lists what is there, exports an event and a period, and an event that was kept while the ring came
# round over it, and compares every frame with the original.
# Then kills everything while it records, and shows what comes back.
#   ./demo.sh [SEED]   the seed chooses the moments of the kills
# Everything it makes lies in build/demo. Needs root or sudo only where packages are missing.
set -euo pipefail
cd "$(dirname "$0")"
. scripts/packages.sh

out=$PWD/build/demo
card=$out/card.img
seed=${1:-$((RANDOM * 32768 + RANDOM))}
start='2026-03-01T08:00:00'
# Nothing depends on the zone, as long as all programs of a recorder have the same one.
export TZ='NST3:30NDT,M3.2.0,M11.1.0'
mkdir -p "$out"
say() { printf '%s\n' "$*"; }
quietly() { "$@" >"$out/log" 2>&1 || { cat "$out/log" >&2; exit 1; }; }

say "1. Packages and build"
scripts/install-packages "${build_packages[@]}" "${run_packages[@]}" "${demo_packages[@]}"
# In a tree of its own unless there is one: less optimized, sources together and without debug
# information, it is built in half of the time.
tree=build/release
if [ ! -f "$tree/CMakeCache.txt" ]; then
  tree=build/demo/tree
  quietly cmake -S . -B "$tree" -G Ninja -DCMAKE_BUILD_TYPE=MinSizeRel \
    -DCMAKE_CXX_FLAGS_MINSIZEREL='-O1 -DNDEBUG' -DTARN_TESTS_TOGETHER=ON -DTARN_WERROR=OFF
fi
quietly cmake --build "$tree" --target tarn tarn-server dbsetup -j "$(nproc)"
tarn=$PWD/$tree/bin/tarn
clip=$(dpkg -L python3-imageio | grep '/cockatoo\.mp4$')

say "2. Format a card of 256 MiB"
rm -f "$card" "$out"/*.mp4
"$tarn" format "$card" --size 256M | sed 's/^/   /'
quietly fsck.fat -n "$card"

# Often enough to fill every stream chunk and go on for another quarter of the card.
read -r chunks chunk_size < <("$tarn" info "$card" --json |
  python3 -c 'import json,sys
card = json.load(sys.stdin)
stream = next(f for f in card["families"] if f["tag"] == "CKST")
print(stream["chunks"], stream["chunkSize"])')
clip_size=$(stat -c %s "$clip")
loops=$((chunks * chunk_size * 5 / 4 / clip_size + 1))
seconds=$((loops * 14))
first_event=$((seconds - 300)) second_event=$((seconds - 120))

say "   An event that is to be kept, whatever is recorded later"
kept_start='2026-03-01T07:00:00'
"$tarn" --card "$card" record "$clip" --loop 3 --start "$kept_start" --event 5@12 >"$out/recorded"
sed 's/^/   /' "$out/recorded"
"$tarn" --card "$card" keep --event 1 | sed 's/^/   /'

say "3. Record $(basename "$clip") $loops times ($((seconds / 60)) minutes of 720p), with two events"
"$tarn" --card "$card" record "$clip" --loop "$loops" --start "$start" \
  --event "7@$first_event" --event "9@$second_event" >"$out/recorded"
sed 's/^/   /' "$out/recorded"
quietly fsck.fat -n "$card"

say "4. What is on the card"
"$tarn" --card "$card" list streams --json >"$out/streams.json"
"$tarn" --card "$card" list events --json >"$out/events.json"
python3 - "$out" "$chunks" <<'PY'
import json, sys
out, chunks = sys.argv[1], int(sys.argv[2])
every = json.load(open(out + "/streams.json"))["streams"]
streams = [s for s in every if s["copyOf"] is None]
copies = [s for s in every if s["copyOf"] is not None]
events = json.load(open(out + "/events.json"))["events"]
used = {s["chunkID"] for s in every}
print(f"   {len(streams)} recordings on {len(used)} of {chunks} chunks, "
      f"{streams[0]['start']} to {streams[-1]['end']}")
for e in events:
    print(f"   event {e['eventID']}: trigger {e['extTrg']}, {e['start']} to {e['end']}"
          f"{', kept' if e['kept'] else ''}")
originals = {s["streamID"] for s in streams}
if len(used) != chunks or 1 in originals or len(events) != 3:
    sys.exit("the ring did not wrap as it should have")
if not events[0]["kept"] or not copies or any(c["copyOf"] in originals for c in copies):
    sys.exit("the event was not kept over the end of its recording")
PY

say "5. Export an event and a period, and compare every frame with the original"
event=$(python3 -c 'import json,sys; print(json.load(open(sys.argv[1]))["events"][1]["eventID"])' \
  "$out/events.json")
origin=$(date -d "$start" +%s)
at() { date -d "@$((origin + $1))" +%Y-%m-%dT%H:%M:%S; }
"$tarn" --card "$card" export --event "$event" -o "$out/event.mp4" | sed 's/^/   /'
"$tarn" --card "$card" export --from "$(at $((seconds - 600)))" --to "$(at $((seconds - 540)))" \
  -o "$out/period.mp4" | sed 's/^/   /'
"$tarn" --card "$card" export --event 1 -o "$out/kept.mp4" | sed 's/^/   /'
for file in event period kept; do
  from=$origin
  [ "$file" != kept ] || from=$(date -d "$kept_start" +%s)
  verdict=$(scripts/compare-frames "$clip" "$out/$file.mp4" "$from")
  say "   $file.mp4: $verdict"
done

# Kills processes and all below them: stopped first, so that none of them notices another's end.
kill_tree() {
  python3 - "$@" <<'PY'
import os, signal, sys
def children():
    found = {}
    for entry in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open(f"/proc/{entry}/stat") as stat:
                parent = int(stat.read().rpartition(")")[2].split()[1])
        except OSError:
            continue
        found.setdefault(parent, []).append(int(entry))
    return found
tree, below = [int(process) for process in sys.argv[1:]], children()
for process in tree:
    tree += below.get(process, [])
for number in signal.SIGSTOP, signal.SIGKILL:
    for process in reversed(tree):
        os.kill(process, number)
PY
}

# What records must not go on when this ends early.
recorder='' camera=''
trap '[ -z "$recorder$camera" ] || kill_tree ${recorder:+"$recorder"} ${camera:+"$camera"} 2>/dev/null' EXIT

# cut_power CARD START NAME DECISECONDS: records in real time, kills everything in the view after
# that long, recovers, and compares what the interrupted recording still holds.
cut_power() {
  local written safe id verdict
  say "   Power goes after $(($4 / 10)).$(($4 % 10)) s"
  "$tarn" --card "$1" record "$clip" --loop 100 --realtime --progress --start "$2" \
    --event 5@1 >"$out/progress" 2>"$out/log" &
  recorder=$!
  disown "$recorder"  # the shell need not tell that it was killed
  until grep -qs safe "$out/progress"; do
    kill -0 "$recorder" 2>/dev/null || { cat "$out/log" >&2; exit 1; }
    sleep 0.1
  done
  sleep "$(($4 / 10)).$(($4 % 10))"
  kill_tree "$recorder"
  while kill -0 "$recorder" 2>/dev/null; do sleep 0.1; done
  recorder=''
  read -r written safe < <(sed -n 's/^\([0-9]*\) .* \([0-9]*\) safe$/\1 \2/p' "$out/progress" | tail -n 1)
  "$tarn" --card "$1" recover | sed 's/^/   /'
  "$tarn" check "$1" | sed 's/^/   /'
  "$tarn" --card "$1" list streams --json >"$out/streams.json"
  # More than one recording where the chunk had come to its end meanwhile.
  local start number=0
  start=$(date -d "$2" +%s)
  for id in $(python3 -c 'import json, sys
rows = json.load(open(sys.argv[1]))["streams"]
own = [row for row in rows if not row["kept"] and 0 <= row["startDate"] - int(sys.argv[2]) < 100]
print(*[row["streamID"] for row in own])' "$out/streams.json" "$start"); do
    number=$((number + 1))
    "$tarn" --card "$1" export --stream "$id" --force -o "$out/$3-$number.mp4" | sed 's/^/   /'
    verdict=$(scripts/compare-frames "$clip" "$out/$3-$number.mp4" "$start")
    say "   $3-$number.mp4: $verdict"
  done
  python3 - "$written" "$safe" "$start" "$out/streams.json" <<'PY'
import json, sys
written, safe, start = map(int, sys.argv[1:4])
rows = json.load(open(sys.argv[4]))["streams"]
own = [row for row in rows if not row["kept"] and 0 <= row["startDate"] - start < 100]
back = sum(row["recSize"] for row in own)
# Pictures of the clip come 20 a second.
print(f"   {written} pictures written, {safe} of them known to be safe, {back} came back: "
      f"{max(0, written - back) / 20:.2f} s lost")
if not own or own[0]["startDate"] != start or back < safe or written - back > 21:
    sys.exit("more was lost than may be")
PY
}

say "6. Two cameras with sound, one of them by RTSP, and an event that is kept by itself"
# The clip's own sound is none that a camera sends.
quietly ffmpeg -nostdin -y -i "$clip" -c:v copy -c:a aac "$out/camera.mp4"
tests/media/rtsp-server 18554 "yard=$out/camera.mp4,aac" >"$out/rtsp" 2>"$out/log" &
camera=$!
disown "$camera"
for _ in $(seq 100); do grep -qs ready "$out/rtsp" && break; sleep 0.1; done
from=$(date +%Y-%m-%dT%H:%M:%S)
timeout --foreground --preserve-status --signal INT 9 "$tarn" --card "$card" record "ch0=$out/camera.mp4" \
  ch1=rtsp://127.0.0.1:18554/yard --realtime --event 5@2 --event-length 3 --keep-events |
  sed 's/^/   /'
kill_tree "$camera"
camera=''
"$tarn" --card "$card" list streams --from "$from" --json >"$out/streams.json"
python3 - "$out/streams.json" <<'PY'
import json, sys
streams = json.load(open(sys.argv[1]))["streams"]
recorded = {s["channel"] for s in streams if s["copyOf"] is None}
kept = {s["channel"] for s in streams if s["copyOf"] is not None}
print(f"   recorded: channels {sorted(recorded)}; kept of the event: channels {sorted(kept)}")
if recorded != {0, 1} or kept != {0, 1}:
    sys.exit("a camera or a copy is missing")
PY
"$tarn" --card "$card" export --from "$from" --force -o "$out/cameras.mp4" | sed 's/^/   /'
for channel in 0 1; do
  holds=$(ffprobe -v error -show_entries stream=codec_name -of csv=p=0 "$out/cameras-ch$channel.mp4" | tr '\n' ' ')
  say "   cameras-ch$channel.mp4 holds $holds"
  case "$holds" in *h264*aac*) ;; *) say "a picture or a sound is missing" >&2; exit 1 ;; esac
done

say "7. Kill everything at a random moment while it records (seed $seed)"
RANDOM=$seed
cut_power "$card" 2026-03-01T12:00:00 cut $((20 + RANDOM % 60))

say "8. The same in another time zone, on another card, just when summer time begins"
rm -f "$out/other.img"
quietly "$tarn" format "$out/other.img" --size 128M
TZ='LHST-10:30LHDT-11,M10.1.0,M4.1.0'
cut_power "$out/other.img" 2026-10-04T01:59:58 cut-in-summer $((20 + RANDOM % 60))
say "   What a killed program has handed to the kernel stays. tests/powercut/run also loses that:"
say "   it cuts the power at every write, with and without what was not flushed."

say "Done in $SECONDS s. The videos: $out/event.mp4 and $out/period.mp4"
if "$tarn" serve --help >/dev/null 2>&1; then
  say "Look at its card in a browser: $tarn serve --read-only $card"
fi
