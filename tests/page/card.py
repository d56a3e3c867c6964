"""Cards with pictures that tell their number, and servers of them."""
import json
import os
import pathlib
import re
import subprocess
import sys
import threading

RATE = 10
PICTURE_MS = 1000 // RATE
# Grey tells a picture's number within these many: neighbours differ by four, more than coding does.
NUMBERS = 50
ZONE = "NST3:30NDT,M3.2.0,M11.1.0"


def run(*command, **options):
    result = subprocess.run([str(word) for word in command], capture_output=True, text=True, **options)
    if result.returncode != 0:
        sys.exit(f"{' '.join(map(str, command))}: exit {result.returncode}\n{result.stdout}{result.stderr}")
    return result.stdout


def clip(path, seconds, size="160x120"):
    """A video whose pictures are grey, each as grey as its number says; a key picture every second. And a tone."""
    run("ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i", f"color=black:s={size}:r={RATE}:d={seconds}",
        "-f", "lavfi", "-i", f"sine=sample_rate=16000:duration={seconds}", "-c:a", "aac", "-vf",
        f"geq=lum='30+4*mod(N\\,{NUMBERS})':cb=128:cr=128", "-c:v", "libx264", "-preset", "ultrafast", "-qp", "12",
        "-g", str(RATE), "-bf", "2", "-pix_fmt", "yuv420p", "-threads", "1", path)
    return path


def number_of(grey):
    """Which picture a decoded grey is of, modulo NUMBERS; the decoder spreads 16..235 to 0..255."""
    return round((grey * 219 / 255 + 16 - 30) / 4) % NUMBERS


class Server:
    """tarn serve, on a port of its own, in whatever view its command makes."""

    def __init__(self, *command, stdin=None):
        environment = {**os.environ, "TZ": ZONE}
        self.process = subprocess.Popen([str(word) for word in command], stdin=stdin, stdout=subprocess.PIPE,
                                        stderr=subprocess.STDOUT, text=True, env=environment,
                                        start_new_session=True)
        self.said = []
        self.address = None
        for line in self.process.stdout:
            self.said.append(line)
            found = re.search(r"http://[\w.\[\]:]+", line)
            if found:
                self.address = found.group().rstrip("/")
                break
        if self.address is None:
            sys.exit("the server did not begin:\n" + "".join(self.said))
        # What is not read would stop it once the pipe is full.
        threading.Thread(target=self.listen, daemon=True).start()

    def listen(self):
        self.said += self.process.stdout

    def stop(self):
        if self.process.poll() is None:
            self.process.terminate()
        self.process.wait(60)


def recordings(tarn, card):
    rows = json.loads(run(tarn, "--card", card, "list", "--json", env={**os.environ, "TZ": ZONE}))["streams"]
    return [row for row in rows if row["kind"] == "video"]


def format_card(tarn, folder):
    card = pathlib.Path(folder) / "card.img"
    run(tarn, "format", card, "--size", "128M")
    return card
