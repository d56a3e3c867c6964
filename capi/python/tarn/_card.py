"""Cards, and what is recorded on them."""
import ctypes
import datetime
from dataclasses import dataclass, field

from . import _library
from ._library import DAMAGED, DISCONTINUITY, KEY, LOST, NO_CHANNEL, NO_TIME, Error, failure, lib, path_of, rows, text
from ._times import micros_of, time_of, zone_of

_KINDS = {_library.VIDEO: "video", _library.SOUND: "sound"}
_STATES = {0: "complete", 1: "interrupted", 2: "running", 3: "unreadable"}


@dataclass(frozen=True)
class SoundFormat:
    """How frames of sound are coded."""
    codec: str
    channels: int
    sample_rate: int
    config: bytes


@dataclass(frozen=True)
class _Sample:
    data: bytes  # None of one that the card does not give
    time: datetime.datetime  # when it is to be shown or heard; None where the card does not tell
    index: int
    discontinuity: bool  # something is missing in front of it
    damaged: bool  # its bytes are not the ones that were recorded
    lost: bool


@dataclass(frozen=True)
class Picture(_Sample):
    """A picture in Annex B of H.264, in the order of decoding."""
    decode_time: datetime.datetime
    key: bool  # can be decoded without those before it


@dataclass(frozen=True)
class Frame(_Sample):
    """A frame of sound; `index` is that of its block."""
    samples: int
    format: SoundFormat


@dataclass(frozen=True)
class ExportedFile:
    """What became of a channel, or of a file of it, in an export."""
    path: str
    channel: int
    error: str
    pictures: int
    lost: int
    damaged: int
    left_out: int
    frames: int
    first: datetime.datetime
    last: datetime.datetime


@dataclass(frozen=True)
class Event:
    """An event. `zone`: None where no picture of its time tells one."""
    id: int
    trigger: int
    pre_seconds: int
    start: datetime.datetime
    end: datetime.datetime  # None while it lasts
    zone: datetime.timezone
    kept: bool
    _card: "Card" = field(repr=False, compare=False)

    def recordings(self, channel=None):
        """Those that show anything of it, the seconds in front of it included."""
        return self._card.recordings(self.start - datetime.timedelta(seconds=self.pre_seconds), self.end, channel)

    def export(self, path, **options):
        return self._card.export(path, event=self, **options)


@dataclass(frozen=True)
class Recording:
    """A recording of one channel: pictures, or sound."""
    id: int
    channel: int  # None where the card does not tell
    kind: str  # "video" or "sound"
    codec: str
    state: str  # "complete", "interrupted", "running" or "unreadable"
    start: datetime.datetime
    end: datetime.datetime  # None while it runs
    zone: datetime.timezone  # None where its pictures do not tell
    trigger: int
    picture_count: int
    bytes: int
    kept: bool
    copy_of: int  # None of what is no copy
    _card: "Card" = field(repr=False, compare=False)

    def pictures(self, start=None, end=None):
        """Its pictures, one after the other; from the key picture at or before `start` on, up to `end`."""
        if self.kind != "video":
            raise Error(f"recording {self.id} holds sound: frames() gives it")
        return self._samples(start, end, self._picture)

    def frames(self, start=None, end=None):
        """Its frames of sound, one after the other."""
        if self.kind != "sound":
            raise Error(f"recording {self.id} holds pictures: pictures() gives them")
        return self._samples(start, end, self._frame)

    def export(self, path, **options):
        return self._card.export(path, recording=self, **options)

    def _samples(self, start, end, make):
        first, last = micros_of(start), micros_of(end)
        reader = lib.tarn_read(self._card.handle, self.id)
        if not reader:
            raise failure()
        try:
            if first != NO_TIME and lib.tarn_reader_seek(reader, first) != 0:
                raise failure()
            row = ctypes.POINTER(_library.SampleRow)()
            # A picture that is decoded later may be shown earlier, but not by more than this.
            behind = 0
            while behind < 17:
                got = lib.tarn_reader_next(reader, ctypes.byref(row))
                if got < 0:
                    raise failure()
                if got == 0:
                    return
                sample = row.contents
                if last != NO_TIME and sample.time_us > last:
                    behind += 1
                    continue
                yield make(sample)
        finally:
            lib.tarn_reader_close(reader)

    def _common(self, row):
        lost = bool(row.flags & LOST)
        return {"data": None if lost else ctypes.string_at(row.data, row.size), "index": row.index,
                "time": time_of(row.time_us, self.zone), "discontinuity": bool(row.flags & DISCONTINUITY),
                "damaged": bool(row.flags & DAMAGED), "lost": lost}

    def _picture(self, row):
        return Picture(**self._common(row), decode_time=time_of(row.decode_us, self.zone), key=bool(row.flags & KEY))

    def _frame(self, row):
        known = None
        if row.format:
            raw = row.format.contents
            known = SoundFormat(text(raw.codec), raw.channels, raw.sample_rate,
                                ctypes.string_at(raw.config, raw.config_size) if raw.config_size else b"")
        return Frame(**self._common(row), samples=row.samples, format=known)


class Card:
    """An open card: tarn.open() and tarn.recorder() give one. Ends with close(), or behind `with`."""

    def __init__(self, handle):
        if not handle:
            raise failure()
        self._handle = handle

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def __del__(self):
        if getattr(self, "_handle", None):
            self.close()

    def close(self):
        handle, self._handle = self._handle, None
        lib.tarn_close(handle)

    @property
    def handle(self):
        if not self._handle:
            raise Error("the card is closed")
        return self._handle

    @property
    def notes(self):
        """What is worth knowing about how it was opened, a sentence each."""
        return text(lib.tarn_card_note(self.handle)).splitlines()

    def recordings(self, start=None, end=None, channel=None):
        """Those that show anything of a time, in the order of their starts."""
        handle = lib.tarn_list_recordings(self.handle, micros_of(start), micros_of(end),
                                          NO_CHANNEL if channel is None else channel)
        return rows(handle, lib.tarn_recordings_count, lib.tarn_recordings_get, lib.tarn_recordings_free,
                    self._recording)

    def events(self, start=None, end=None):
        """Events of a time, in the order of their starts."""
        handle = lib.tarn_list_events(self.handle, micros_of(start), micros_of(end))
        return rows(handle, lib.tarn_events_count, lib.tarn_events_get, lib.tarn_events_free, self._event)

    def export(self, path, *, recording=None, event=None, start=None, end=None, channel=None, sound=True,
               tracks=False, overwrite=False, seal=None, operator=None, note=None, progress=None):
        """Writes a recording, all of an event, or a period to a file: .mp4, .mov or .h264; of several channels
        one each, NAME-ch0.mp4 and so on. `seal`: a key and its certificate. `progress` is called now and then
        with what is written so far; what it raises ends the export. The files, or tarn.Error when something
        failed or is missing: what there is then is in its `files`."""
        raised = []

        def tell(_context, written):
            try:
                progress(written)
            except BaseException as error:  # also a Ctrl-C: it must not go through the library
                raised.append(error)
            return 1 if raised else 0

        request = _library.ExportRequest(
            size=ctypes.sizeof(_library.ExportRequest), recording=_id(recording), event=_id(event),
            from_us=micros_of(start), to_us=micros_of(end), channel=NO_CHANNEL if channel is None else channel,
            without_sound=not sound, tracks=bool(tracks), overwrite=bool(overwrite),
            operator_name=(operator or "").encode(), note=(note or "").encode())
        if seal is not None:
            key, certificate = seal
            request.seal_key, request.certificate = path_of(key), path_of(certificate)
        if progress is not None:
            request.progress = _library.PROGRESS(tell)
        exported = ctypes.c_void_p()
        good = lib.tarn_export(self.handle, ctypes.byref(request), path_of(path), ctypes.byref(exported)) == 0
        reason = failure()
        files = []
        if exported:
            files = rows(exported, lib.tarn_exported_count, lib.tarn_exported_get, lib.tarn_exported_free, _file)
        if raised:
            raise raised[0]
        if not good:
            raise Error(str(reason), files)
        return files

    def _recording(self, row):
        zone = zone_of(row.zone_seconds)
        return Recording(id=row.id, channel=None if row.channel == NO_CHANNEL else row.channel,
                         kind=_KINDS.get(row.kind, "unknown"), codec=text(row.codec),
                         state=_STATES.get(row.state, "unknown"), start=time_of(row.start_us, zone),
                         end=time_of(row.end_us, zone), zone=zone, trigger=row.trigger, picture_count=row.pictures,
                         bytes=row.bytes, kept=bool(row.kept), copy_of=row.copy_of or None, _card=self)

    def _event(self, row):
        zone = zone_of(row.zone_seconds)
        return Event(id=row.id, trigger=row.trigger, pre_seconds=row.pre_seconds, start=time_of(row.start_us, zone),
                     end=time_of(row.end_us, zone), zone=zone, kept=bool(row.kept), _card=self)


def _id(row):
    """Of a row, or of its number."""
    return 0 if row is None else row if isinstance(row, int) else row.id


def _file(row):
    return ExportedFile(path=text(row.path), channel=None if row.channel == NO_CHANNEL else row.channel,
                        error=text(row.error), pictures=row.pictures, lost=row.lost, damaged=row.damaged,
                        left_out=row.left_out, frames=row.frames, first=time_of(row.first_us),
                        last=time_of(row.last_us))


def open(path, partition=0):  # pylint: disable=redefined-builtin
    """Opens a card, which is not changed: a device, an image (also of a whole device, and .E01), a folder."""
    return Card(lib.tarn_open(path_of(path), partition))


def recorder():
    """The card of the recorder that this machine is, while it records."""
    return Card(lib.tarn_open_recorder())
