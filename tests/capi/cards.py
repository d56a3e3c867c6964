"""Cards from Python, through the module and the library for C: run by tests/capi/run."""
import datetime
import hashlib
import importlib.machinery
import importlib.util
import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
import unittest

import tarn

HERE = pathlib.Path(__file__).parent
TOOL = os.environ["TARN_TOOL"]
sys.path.insert(0, str(HERE.parent / "media"))  # what the tests of video have in common


def load(path):
    loader = importlib.machinery.SourceFileLoader(path.name.replace("-", "_"), str(path))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader(loader.name, loader))
    loader.exec_module(module)
    return module


sealed = load(HERE.parent / "media" / "sealed")
cameras = sealed.cameras


def digest(path):
    """Of all that is not a hole, and of where it is."""
    total = hashlib.sha256()
    with open(path, "rb", buffering=0) as file:
        size = os.fstat(file.fileno()).st_size
        end = 0
        while end < size:
            try:
                begin = os.lseek(file.fileno(), end, os.SEEK_DATA)
            except OSError:
                break
            end = os.lseek(file.fileno(), begin, os.SEEK_HOLE)
            total.update(f"{begin} {end} ".encode() + os.pread(file.fileno(), end - begin, begin))
    return f"{size} {total.hexdigest()}"


def copy(source, target):
    """With its holes."""
    cameras.run("cp", "--sparse=always", source, target)
    return target


class CardTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.work = tempfile.TemporaryDirectory()
        cls.folder = pathlib.Path(cls.work.name)
        cls.recorder = cameras.Recorder(TOOL, cls.folder)
        clip = cls.recorder.clip("clip.mp4", 3, "-bf", "2", "-g", "25")
        cls.recorder("record", clip, "--event", "9@1", "--event-length", "1")
        cls.recorder("record", f"{clip}", "--channel", "3")
        cls.path = cls.recorder.card
        cls.before = digest(cls.path)
        cls.card = tarn.open(cls.path)
        cls.listed = json.loads(cameras.run(TOOL, "list", cls.path, "--read-only", "--json").stdout)["streams"]

    @classmethod
    def tearDownClass(cls):
        cls.card.close()
        for _ in range(600):
            left = cls.of_the_tool()
            if not left:
                break
            time.sleep(0.05)  # what was killed takes its time to go
        after = digest(cls.path)
        cls.work.cleanup()
        if after != cls.before:
            raise AssertionError("the card was changed")
        if left:
            raise AssertionError(f"processes are left behind: {left}")

    def video(self, channel=0):
        return [one for one in self.card.recordings(channel=channel) if one.kind == "video"][0]

    def sound(self):
        return [one for one in self.card.recordings(channel=0) if one.kind == "sound"][0]

    @staticmethod
    def of_the_tool():
        """Processes of it, and of the views that it makes; but not of that around the test."""
        found = []
        for one in pathlib.Path("/proc").glob("[0-9]*"):
            try:
                name = (one / "comm").read_text()
            except OSError:
                continue
            if name.startswith(("tarn", "bwrap")) and one.name != "1":
                found.append(name.strip())
        return found

    @staticmethod
    def read(recording):
        return recording.pictures() if recording.kind == "video" else recording.frames()

    def exported(self, recording, name):
        out = self.folder / name
        cameras.run(TOOL, "export", self.path, "--read-only", "--stream", recording.id, "-o", out, "--force")
        return out

    def test_what_the_tool_lists_is_listed(self):
        mine = {one.id: one for one in self.card.recordings()}
        self.assertEqual(len(self.listed), 4)
        self.assertEqual(sorted(mine), [row["streamID"] for row in self.listed])
        for row in self.listed:
            one = mine[row["streamID"]]
            self.assertEqual((one.channel, one.kind, one.codec, one.bytes, one.trigger, one.kept, one.copy_of, one.state),
                             (row["channel"], row["kind"], row["codec"], row["videoBytes"], row["inTrg"], False, None,
                              "complete"))
            self.assertEqual(one.picture_count, row["recSize"] if one.kind == "video" else 0)
            self.assertEqual([one.start, one.end], [datetime.datetime.fromisoformat(row[at]) for at in ("start", "end")])
        self.assertEqual({one.channel for one in mine.values()}, {0, 3})

    def test_lists_are_of_a_time_and_a_channel(self):
        first = self.video()
        self.assertEqual({one.channel for one in self.card.recordings(channel=3)}, {3})
        self.assertEqual(self.card.recordings(end=first.start - datetime.timedelta(days=1)), [])
        later = max(one.end for one in self.card.recordings()) + datetime.timedelta(seconds=2)
        self.assertEqual(self.card.recordings(start=later), [])

    def test_times_have_the_zone_of_the_recorder(self):
        self.assertEqual(self.video().zone, datetime.timezone(datetime.timedelta(0)))
        self.assertIsNone(self.sound().zone)
        self.assertIsNotNone(self.sound().start.tzinfo)

    def test_event_leads_to_its_recordings(self):
        event, = self.card.events()
        self.assertEqual((event.trigger, event.kept), (9, False))
        self.assertEqual(event.zone, self.video().zone)
        self.assertTrue(self.video().start < event.start < event.end <= self.video().end)
        self.assertIn(self.video().id, [one.id for one in event.recordings(channel=0)])
        self.assertEqual(self.card.events(start=event.end + datetime.timedelta(seconds=2)), [])

    def test_pictures_are_those_of_the_export(self):
        recording = self.video()
        pictures = list(recording.pictures())
        self.assertEqual([one.index for one in pictures], list(range(75)))
        self.assertEqual(b"".join(one.data for one in pictures), self.exported(recording, "all.h264").read_bytes())
        self.assertEqual([one.index for one in pictures if one.key], [0, 25, 50])
        decoded = [one.decode_time for one in pictures]
        self.assertEqual(decoded, sorted(decoded))
        shown = sorted(one.time for one in pictures)
        self.assertNotEqual(shown, [one.time for one in pictures])  # B pictures are shown in another order
        self.assertEqual(shown[0].replace(microsecond=shown[0].microsecond // 1000 * 1000), recording.start)
        self.assertEqual(shown[-1] - shown[0], datetime.timedelta(seconds=2.96))
        self.assertEqual({one.time.utcoffset() for one in pictures}, {recording.zone.utcoffset(None)})
        self.assertFalse(any(one.damaged or one.lost for one in pictures))
        self.assertTrue(pictures[0].discontinuity)

    def test_pictures_begin_with_the_key_picture_before(self):
        recording = self.video()
        first = next(recording.pictures()).time
        start, end = (first + datetime.timedelta(seconds=seconds) for seconds in (1.5, 2.0))
        found = list(recording.pictures(start, end))
        self.assertEqual((found[0].index, found[0].key), (25, True))
        self.assertLessEqual(max(one.time for one in found), end)
        self.assertEqual(len([one for one in found if one.time >= start]), 13)

    def test_frames_of_sound_follow_each_other(self):
        recording = self.sound()
        frames = list(recording.frames())
        self.assertEqual({(one.format.codec, one.format.channels) for one in frames}, {("aac", 1)})
        self.assertEqual({one.samples for one in frames[:-1]}, {1024})
        self.assertGreater(len(frames[0].format.config), 1)
        length = datetime.timedelta(seconds=1024 / frames[0].format.sample_rate)
        steps = {round((b.time - a.time) / length, 2) for a, b in zip(frames, frames[1:])}
        self.assertEqual(steps, {1.0})
        self.assertTrue(2.9 < len(frames) * length.total_seconds() < 3.2)
        shown = sealed.sound.packets(self.exported(recording, "sound.mp4"))
        self.assertEqual(len(shown), len(frames))
        later = recording.start + datetime.timedelta(seconds=1.5)
        self.assertTrue(abs(next(recording.frames(later)).time - later) <= length)

    def test_what_is_of_the_other_kind_is_refused(self):
        with self.assertRaisesRegex(tarn.Error, "frames\\(\\) gives it"):
            self.sound().pictures()
        with self.assertRaisesRegex(tarn.Error, "pictures\\(\\) gives them"):
            self.video().frames()

    def test_recordings_are_read_in_turns_and_by_threads(self):
        videos = [self.video(0), self.video(3)]
        apart = [[one.data for one in each.pictures()] for each in videos]
        in_turns = list(zip(*(each.pictures() for each in videos)))
        self.assertEqual([[one.data for one in each] for each in zip(*in_turns)], apart)
        read = {}
        threads = [threading.Thread(target=lambda n=n: read.update({n: [one.data for one in videos[n % 2].pictures()]}))
                   for n in range(4)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual([read[n] for n in range(4)], [apart[n % 2] for n in range(4)])

    def test_export_is_that_of_the_tool(self):
        recording = self.video()
        mine = self.folder / "mine.mp4"
        told = []
        file, = recording.export(mine, progress=told.append)
        self.assertEqual((file.path, file.channel, file.error, file.pictures, file.lost, file.damaged, file.left_out),
                         (str(mine), 0, "", 75, 0, 0, 0))
        self.assertEqual((file.first, file.last), (min(one.time for one in recording.pictures()),
                                                   max(one.time for one in recording.pictures())))
        self.assertEqual(mine.read_bytes(), self.exported(recording, "tools.mp4").read_bytes())
        self.assertTrue(told and told == sorted(told))
        with self.assertRaisesRegex(tarn.Error, "mine.mp4"):
            recording.export(mine)
        files = self.card.export(self.folder / "both.mp4", start=recording.start, sound=False)
        self.assertEqual([(one.channel, one.pictures, one.frames) for one in files], [(0, 75, 0), (3, 75, 0)])

    def test_export_of_a_relative_path_lands_where_it_was_asked(self):
        os.chdir(self.folder)
        self.card.events()[0].export("event.mp4", channel=0)
        self.assertGreater((self.folder / "event.mp4").stat().st_size, 1000)

    def test_export_that_is_stopped_leaves_nothing(self):
        out = self.folder / "stopped.mp4"

        def enough(_written):
            raise KeyboardInterrupt
        with self.assertRaises(KeyboardInterrupt):
            self.video().export(out, progress=enough)
        self.assertEqual(list(self.folder.glob("stopped*")), [])
        self.assertEqual(len(list(self.video().pictures())), 75)

    def test_export_that_is_stopped_when_it_is_over_leaves_nothing_either(self):
        out = self.folder / "late.mp4"

        def enough(_written):
            time.sleep(1)
            raise KeyboardInterrupt
        with self.assertRaises(KeyboardInterrupt):
            self.video().export(out, progress=enough)
        self.assertEqual(list(self.folder.glob("late*")), [])

    def test_sealed_export_is_proven_until_a_bit_turns(self):
        key, certificate = self.folder / "unit.key", self.folder / "unit.pem"
        cameras.run("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", key, "-out", certificate,
                    "-subj", "/CN=recorder 7", "-days", "2")
        out = self.folder / "sealed.mp4"
        self.video().export(out, seal=(key, certificate), operator="Ann", note="case 12")
        proof = tarn.verify(out)
        self.assertTrue(proof and proof.sealed and proof.error == "")
        seal, = proof.seals
        self.assertEqual((seal.unchanged, seal.trusted, seal.operator, seal.note, seal.reason),
                         (True, None, "Ann", "case 12", ""))
        self.assertIn("recorder 7", seal.holder)
        self.assertEqual([one.name for one in proof.sources], ["channel 0, pictures", "channel 0, sound"])
        self.assertTrue(tarn.verify(out, [certificate]).seals[0].trusted)
        data = bytearray(out.read_bytes())
        data[len(data) // 2] ^= 4
        out.write_bytes(data)
        broken = tarn.verify(out)
        self.assertFalse(broken or broken.seals[0].unchanged)
        self.assertNotEqual(broken.seals[0].reason, "")
        plain = tarn.verify(self.exported(self.video(), "plain.mp4"))
        self.assertFalse(plain or plain.sealed)
        self.assertNotEqual(plain.error, "")
        with self.assertRaisesRegex(tarn.Error, "nowhere.pem"):
            tarn.verify(out, [self.folder / "nowhere.pem"])

    def test_whole_device_is_found_its_card(self):
        whole = self.folder / "device.img"
        with open(whole, "wb") as image:
            image.truncate((1 << 20) + self.path.stat().st_size)  # what dd leaves out is a hole
            image.seek(446)
            image.write(bytes([0, 0, 0, 0, 0x0C, 0, 0, 0]) + (2048).to_bytes(4, "little") +
                        (self.path.stat().st_size // 512).to_bytes(4, "little"))
            image.seek(510)
            image.write(b"\x55\xAA")
        cameras.run("dd", f"if={self.path}", f"of={whole}", "bs=1M", "seek=1", "conv=notrunc,sparse")
        before = digest(whole)
        with tarn.open(whole) as card:
            self.assertEqual(len(card.recordings()), 4)
            self.assertRegex(" ".join(card.notes), "partition 1 ")
        with tarn.open(whole, partition=1) as card:
            self.assertEqual(sorted(one.kind for one in card.recordings(channel=3)), ["sound", "video"])
        with self.assertRaisesRegex(tarn.Error, "no partition 2"):
            tarn.open(whole, partition=2)
        self.assertEqual(digest(whole), before)

    @unittest.skipUnless(shutil.which("mcopy"), "mcopy is missing (mtools)")
    def test_folder_that_a_pc_copied_is_a_card(self):
        folder = self.folder / "copied"
        folder.mkdir()
        cameras.run("mcopy", "-s", "-n", "-i", self.path, "::*", folder)
        with tarn.open(folder) as card:
            video, = [one for one in card.recordings(channel=3) if one.kind == "video"]
            self.assertEqual([one.data for one in video.pictures()], [one.data for one in self.video(3).pictures()])

    def test_card_that_lost_power_shows_what_reached_it(self):
        """Taken while it recorded: nothing of the recording is closed."""
        card = copy(self.path, self.folder / "lost.img")
        taken = self.folder / "taken.img"
        # More than a pipe holds, so that the recorder waits for the rest.
        clip = self.recorder.clip("long.h264", 6, "-an").read_bytes()
        recorder = subprocess.Popen([TOOL, "--card", card, "record", "-", "--times", "stream"],
                                    stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        recorder.stdin.write(clip[:len(clip) // 2])
        recorder.stdin.flush()
        found = []
        for _ in range(300):
            copy(card, taken)
            try:
                with tarn.open(taken) as lost:
                    found = [one for one in lost.recordings() if one.state == "interrupted"]
            except tarn.Error:
                pass  # a copy of a card that is being written to is of several moments
            if found:
                break
            time.sleep(0.1)
        recorder.stdin.close()
        recorder.wait()
        self.assertEqual(len(found), 1)
        before = digest(taken)
        with tarn.open(taken) as lost:
            one, = [one for one in lost.recordings() if one.state == "interrupted"]
            data = b"".join(picture.data for picture in one.pictures())
        self.assertGreater(len(data), 1000)
        self.assertEqual(digest(taken), before)
        with tarn.open(card) as whole:
            one, = [one for one in whole.recordings() if one.codec == "h264" and one.picture_count > 75]
            self.assertEqual(one.state, "complete")
            self.assertTrue(b"".join(picture.data for picture in one.pictures()).startswith(data))

    def test_what_is_no_card_is_named(self):
        (self.folder / "empty").write_bytes(bytes(1 << 20))
        for path, said in (("nowhere", "nowhere"), ("empty", "empty is no card"), ("clip.mp4", "clip.mp4 is no card")):
            with self.assertRaisesRegex(tarn.Error, said):
                tarn.open(self.folder / path)
        with self.assertRaisesRegex(tarn.Error, "the path of the card is empty"):
            tarn.open("")
        with self.assertRaises(tarn.Error):
            tarn.open("--help")
        with self.assertRaises(ValueError):
            tarn.open("card\0.img")

    def test_errors_say_what_is_wrong(self):
        with self.assertRaisesRegex(tarn.Error, "there is no recording 99"):
            self.card.export(self.folder / "no.mp4", recording=99)
        with self.assertRaisesRegex(tarn.Error, "of a recording, of an event, or of a period"):
            self.card.export(self.folder / "no.mp4", recording=self.video(), event=1)
        with self.assertRaisesRegex(ValueError, "needs its zone"):
            self.card.recordings(start=datetime.datetime(2026, 3, 1))
        with self.assertRaisesRegex(tarn.Error, "nowhere"):
            self.video().export(self.folder / "nowhere" / "no.mp4")
        self.assertEqual(len(self.card.recordings()), 4)

    def test_closed_card_says_so(self):
        card = tarn.open(self.path)
        recording = card.recordings()[0]
        samples = self.read(recording)
        next(samples)
        card.close()
        card.close()
        with self.assertRaisesRegex(tarn.Error, "the card is closed"):
            list(self.read(recording))
        with self.assertRaisesRegex(tarn.Error, "the card is closed"):
            card.recordings()

    def test_card_that_goes_is_an_error_and_loses_no_picture(self):
        card = copy(self.path, self.folder / "goes.img")
        size = os.path.getsize(card)
        with tarn.open(card) as going:
            recording = going.recordings(channel=3)[0]
            self.assertFalse(any(one.lost for one in self.read(recording)))
            os.truncate(card, 0)
            with self.assertRaisesRegex(tarn.Error, "the card cannot be read any more"):
                list(self.read(recording))
            with self.assertRaisesRegex(tarn.Error, "cannot be read"):
                going.recordings()
            os.truncate(card, size)

    def test_reader_that_is_killed_is_an_error_and_no_end(self):
        before = self.answering()
        with tarn.open(self.path) as card:
            recordings = card.recordings()
            os.kill(min(self.answering() - before), signal.SIGKILL)
            said = ""
            for _ in range(2000):  # what is around it goes with it, sooner or later
                try:
                    self.assertEqual(card.recordings(), recordings)
                except tarn.Error as error:
                    said = str(error)
                if "has ended" in said:
                    break
                time.sleep(0.01)
            self.assertIn("has ended", said)
            with self.assertRaises(tarn.Error):
                next(self.read(recordings[0]))

    def answering(self):
        """Processes of the tool that answer a library."""
        found = set()
        for one in pathlib.Path("/proc").glob("[0-9]*"):
            try:
                words = (one / "cmdline").read_bytes().split(b"\0")
            except OSError:
                continue
            if b"answer" in words and b"bwrap" not in words[0]:
                found.add(int(one.name))
        return found

    def test_recorder_without_a_database_says_so(self):
        with self.assertRaisesRegex(tarn.Error, "--card CARD|/dev/sdblk0p1|/tmp/DB.dat"):
            tarn.recorder()

    def test_running_recorder_is_read_in_its_place(self):
        """As a program on the recorder: in a view that the card is shown in, with nothing around it."""
        script = ("import tarn\n"
                  "with tarn.recorder() as card:\n"
                  "    video, = [one for one in card.recordings(channel=3) if one.kind == 'video']\n"
                  "    print(len(card.recordings()), len(list(video.pictures())))\n")
        card = copy(self.path, self.folder / "own.img")
        said = cameras.run(TOOL, "--card", card, "run", "--", "python3", "-c", script).stdout
        self.assertEqual(said, "4 75\n")


if __name__ == "__main__":
    if not shutil.which("ffmpeg"):
        raise SystemExit(77)
    unittest.main()
