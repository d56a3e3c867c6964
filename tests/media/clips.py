"""Clips for the tests of video, by ffmpeg. What it makes of the same options is kept in the tree's build folder, for
the other tests and builds: most of what a short clip costs is the start of ffmpeg."""
import hashlib
import os
import pathlib
import shutil
import subprocess
import sys

KEPT = pathlib.Path(__file__).resolve().parents[2] / "build" / "clips"


def ffmpeg(*options):
    result = subprocess.run(["ffmpeg", "-v", "error", "-y", *map(str, options)], stdin=subprocess.DEVNULL,
                            capture_output=True, text=True)
    if result.returncode != 0:
        sys.exit(f"ffmpeg {' '.join(map(str, options))}: exit {result.returncode}\n{result.stderr}")
    return result.stdout


def place_of(options, ending):
    """Where what this ffmpeg makes of the options is kept."""
    program = pathlib.Path(shutil.which("ffmpeg")).resolve()
    facts = program.stat()
    key = repr((str(program), facts.st_size, facts.st_mtime_ns, [str(option) for option in options]))
    return KEPT / (hashlib.sha256(key.encode()).hexdigest()[:32] + ending)


def keep(place, write):
    """Has it written, all or nothing. False where nothing can be kept here, as in a tree that is only read."""
    beside = place.with_name(f"{os.getpid()}-{os.urandom(4).hex()}{place.suffix}")
    try:
        KEPT.mkdir(parents=True, exist_ok=True)
        beside.touch()
    except OSError:
        return False
    try:
        write(beside)
        beside.replace(place)
    finally:
        beside.unlink(missing_ok=True)
    return True


def make(path, *options):
    """The clip that ffmpeg makes of the options, at `path`, whose ending says of what kind it is."""
    path = pathlib.Path(path)
    place = place_of(options, path.suffix)
    if place.exists() or keep(place, lambda beside: ffmpeg(*options, beside)):
        shutil.copyfile(place, path)
    else:
        ffmpeg(*options, path)


def need(*encoders):
    """Ends the test as skipped where ffmpeg is not here, or lacks one of them."""
    if shutil.which("ffmpeg") is None:
        print("skipped: ffmpeg is not here")
        sys.exit(77)
    place = place_of(["-encoders"], ".txt")
    known = place.read_text() if place.exists() else ""
    if any(f" {name} " not in known for name in encoders):
        # A library of ffmpeg's may have come since.
        known = ffmpeg("-encoders")
        keep(place, lambda beside: beside.write_text(known))
    lacking = [name for name in encoders if f" {name} " not in known]
    if lacking:
        print(f"skipped: ffmpeg has no {' and no '.join(lacking)}")
        sys.exit(77)
