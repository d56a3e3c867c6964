"""The functions of tarn.h as ctypes knows them. Structs may be longer in the library than here."""
import ctypes
import os
from ctypes import POINTER, Structure, c_char_p, c_int, c_int32, c_int64, c_size_t, c_uint32, c_uint64, c_void_p

NO_TIME = -2 ** 63
NO_ZONE = -2 ** 31
NO_CHANNEL = -1
VIDEO, SOUND = 0, 1
KEY, DISCONTINUITY, DAMAGED, LOST = 1, 2, 4, 8


class Error(Exception):
    """What the library says went wrong. `files`: of an export, what there is all the same."""

    def __init__(self, text, files=()):
        super().__init__(text)
        self.files = list(files)


class RecordingRow(Structure):
    _fields_ = [("id", c_uint32), ("channel", c_int32), ("kind", c_int32), ("state", c_int32), ("start_us", c_int64),
                ("end_us", c_int64), ("zone_seconds", c_int32), ("trigger", c_uint32), ("pictures", c_uint32),
                ("copy_of", c_uint32), ("kept", c_int32), ("bytes", c_uint64), ("codec", c_char_p)]


class EventRow(Structure):
    _fields_ = [("id", c_uint32), ("trigger", c_uint32), ("pre_seconds", c_uint32), ("zone_seconds", c_int32),
                ("start_us", c_int64), ("end_us", c_int64), ("kept", c_int32)]


class SoundFormatRow(Structure):
    _fields_ = [("codec", c_char_p), ("channels", c_uint32), ("sample_rate", c_uint32), ("config", c_void_p),
                ("config_size", c_size_t)]


class SampleRow(Structure):
    _fields_ = [("data", c_void_p), ("size", c_size_t), ("time_us", c_int64), ("decode_us", c_int64),
                ("index", c_uint32), ("flags", c_uint32), ("samples", c_uint32), ("format", POINTER(SoundFormatRow))]


PROGRESS = ctypes.CFUNCTYPE(c_int, c_void_p, c_uint64)


class ExportRequest(Structure):
    _fields_ = [("size", c_size_t), ("recording", c_uint32), ("event", c_uint32), ("from_us", c_int64),
                ("to_us", c_int64), ("channel", c_int), ("without_sound", c_int), ("tracks", c_int),
                ("overwrite", c_int), ("seal_key", c_char_p), ("certificate", c_char_p), ("operator_name", c_char_p),
                ("note", c_char_p), ("progress", PROGRESS), ("context", c_void_p)]


class ExportedRow(Structure):
    _fields_ = [("path", c_char_p), ("channel", c_int32), ("error", c_char_p), ("pictures", c_uint64),
                ("lost", c_uint64), ("damaged", c_uint64), ("left_out", c_uint64), ("frames", c_uint64),
                ("first_us", c_int64), ("last_us", c_int64)]


class ProofRow(Structure):
    _fields_ = [("proven", c_int32), ("sealed", c_int32), ("error", c_char_p), ("unit", c_char_p),
                ("exported", c_char_p), ("operator_name", c_char_p), ("seals", c_size_t), ("sources", c_size_t)]


class SealRow(Structure):
    _fields_ = [("proven", c_int32), ("unchanged", c_int32), ("trusted", c_int32), ("reason", c_char_p),
                ("holder", c_char_p), ("issuer", c_char_p), ("fingerprint", c_char_p), ("time", c_char_p),
                ("operator_name", c_char_p), ("note", c_char_p)]


class SourceRow(Structure):
    _fields_ = [("track", c_uint32), ("name", c_char_p), ("start_us", c_int64)]


# Name: result, arguments. A handle is a pointer that nobody here looks behind.
_FUNCTIONS = {
    "tarn_error": (c_char_p,),
    "tarn_interface_version": (c_char_p,),
    "tarn_open": (c_void_p, c_char_p, c_int),
    "tarn_open_recorder": (c_void_p,),
    "tarn_card_note": (c_char_p, c_void_p),
    "tarn_close": (None, c_void_p),
    "tarn_list_recordings": (c_void_p, c_void_p, c_int64, c_int64, c_int),
    "tarn_recordings_count": (c_size_t, c_void_p),
    "tarn_recordings_get": (POINTER(RecordingRow), c_void_p, c_size_t),
    "tarn_recordings_free": (None, c_void_p),
    "tarn_list_events": (c_void_p, c_void_p, c_int64, c_int64),
    "tarn_events_count": (c_size_t, c_void_p),
    "tarn_events_get": (POINTER(EventRow), c_void_p, c_size_t),
    "tarn_events_free": (None, c_void_p),
    "tarn_read": (c_void_p, c_void_p, c_uint32),
    "tarn_reader_next": (c_int, c_void_p, POINTER(POINTER(SampleRow))),
    "tarn_reader_seek": (c_int, c_void_p, c_int64),
    "tarn_reader_close": (None, c_void_p),
    "tarn_export": (c_int, c_void_p, POINTER(ExportRequest), c_char_p, POINTER(c_void_p)),
    "tarn_exported_count": (c_size_t, c_void_p),
    "tarn_exported_get": (POINTER(ExportedRow), c_void_p, c_size_t),
    "tarn_exported_free": (None, c_void_p),
    "tarn_verify": (c_void_p, c_char_p, POINTER(c_char_p), c_size_t),
    "tarn_proof_get": (POINTER(ProofRow), c_void_p),
    "tarn_proof_seal": (POINTER(SealRow), c_void_p, c_size_t),
    "tarn_proof_source": (POINTER(SourceRow), c_void_p, c_size_t),
    "tarn_proof_free": (None, c_void_p),
}


def _find():
    """Beside this module where a tree was installed somewhere of its own, else where the system has it."""
    name = "libTarnC.so.1"
    folder = os.path.dirname(os.path.abspath(__file__))
    prefix = folder.split(os.sep + "lib" + os.sep)[0]
    places = [os.path.join(prefix, "lib")]
    if os.path.isdir(places[0]):
        places += [entry.path for entry in os.scandir(places[0]) if entry.name.endswith(("-gnu", "-gnueabihf"))]
    for place in places:
        path = os.path.join(place, name)
        if os.path.exists(path):
            return path
    return name


def _load():
    try:
        loaded = ctypes.CDLL(_find())
    except OSError as error:
        raise ImportError(f"the library for C of the recorder's cards cannot be loaded: {error}") from None
    for name, (result, *arguments) in _FUNCTIONS.items():
        function = getattr(loaded, name)
        function.restype, function.argtypes = result, arguments
    return loaded


lib = _load()


def text(raw):
    """Texts of a card or a file may hold anything."""
    return (raw or b"").decode("utf-8", "replace")


def failure(files=()):
    return Error(text(lib.tarn_error()), files)


def path_of(path):
    """As the system has it. Behind a zero nothing of it would be seen."""
    raw = os.fsencode(path)
    if b"\0" in raw:
        raise ValueError("a path holds no zero")
    return raw


def rows(handle, count, get, free, make):
    """All of a list, which goes then."""
    if not handle:
        raise failure()
    try:
        return [make(get(handle, index).contents) for index in range(count(handle))]
    finally:
        free(handle)


def version():
    """Of the library."""
    return text(lib.tarn_interface_version())
