#!/usr/bin/env bash
# Records real video onto a card image until the card is full and its oldest recordings have gone,
# lists what is there, exports an event and a period, and compares every frame with the original.
# Everything it makes lies in build/demo. Needs root or sudo only where packages are missing.
set -euo pipefail
cd "$(dirname "$0")"
. scripts/packages.sh

out=$PWD/build/demo
card=$out/card.img
start='2026-03-01T08:00:00'
mkdir -p "$out"
say() { printf '%s\n' "$*"; }
quietly() { "$@" >"$out/log" 2>&1 || { cat "$out/log" >&2; exit 1; }; }

say "1. Packages and build"
scripts/install-packages "${build_packages[@]}" "${run_packages[@]}" "${demo_packages[@]}"
[ -f build/release/CMakeCache.txt ] || quietly cmake --preset release -DTARN_BUILD_TESTS=OFF
quietly cmake --build build/release --target tarn tarn-server dbsetup -j "$(nproc)"
tarn=$PWD/build/release/bin/tarn
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
streams = json.load(open(out + "/streams.json"))["streams"]
events = json.load(open(out + "/events.json"))["events"]
used = {s["chunkID"] for s in streams}
print(f"   {len(streams)} recordings on {len(used)} of {chunks} chunks, "
      f"{streams[0]['start']} to {streams[-1]['end']}")
for e in events:
    print(f"   event {e['eventID']}: trigger {e['extTrg']}, {e['start']} to {e['end']}")
if len(used) != chunks or streams[0]["streamID"] == 1 or len(events) != 2:
    sys.exit("the ring did not wrap as it should have")
PY

say "5. Export an event and a period, and compare every frame with the original"
event=$(python3 -c 'import json,sys; print(json.load(open(sys.argv[1]))["events"][0]["eventID"])' \
  "$out/events.json")
origin=$(date -d "$start" +%s)
at() { date -d "@$((origin + $1))" +%Y-%m-%dT%H:%M:%S; }
"$tarn" --card "$card" export --event "$event" -o "$out/event.mp4" | sed 's/^/   /'
"$tarn" --card "$card" export --from "$(at $((seconds - 600)))" --to "$(at $((seconds - 540)))" \
  -o "$out/period.mp4" | sed 's/^/   /'
for file in event period; do
  verdict=$(scripts/compare-frames "$clip" "$out/$file.mp4" "$origin")
  say "   $file.mp4: $verdict"
done

say "Done in $SECONDS s. The videos: $out/event.mp4 and $out/period.mp4"
