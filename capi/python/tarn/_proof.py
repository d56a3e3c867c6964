"""What sealed files prove."""
import ctypes
import datetime
from dataclasses import dataclass

from ._library import failure, lib, path_of, text
from ._times import time_of


@dataclass(frozen=True)
class Seal:
    """One seal of a file. Texts are as the file has them."""
    proven: bool
    unchanged: bool
    trusted: bool  # None where no authority was given
    reason: str
    holder: str
    issuer: str
    fingerprint: str
    time: str
    operator: str
    note: str


@dataclass(frozen=True)
class Source:
    """A recorded channel in a file."""
    track: int
    name: str
    start: datetime.datetime


@dataclass(frozen=True)
class Proof:
    """What a file proves. All but `proven`, `sealed`, `error` and `seals` is its own claim."""
    proven: bool
    sealed: bool
    error: str
    unit: str
    exported: str
    operator: str
    seals: list
    sources: list

    def __bool__(self):
        return self.proven


def _seal(row):
    return Seal(proven=bool(row.proven), unchanged=bool(row.unchanged),
                trusted=None if row.trusted < 0 else bool(row.trusted), reason=text(row.reason),
                holder=text(row.holder), issuer=text(row.issuer), fingerprint=text(row.fingerprint),
                time=text(row.time), operator=text(row.operator_name), note=text(row.note))


def verify(path, authorities=()):
    """Proves the seals of a file. `authorities`: certificates (PEM), one of which must vouch for each."""
    given = (ctypes.c_char_p * len(authorities))(*[path_of(one) for one in authorities])
    handle = lib.tarn_verify(path_of(path), given, len(authorities))
    if not handle:
        raise failure()
    try:
        facts = lib.tarn_proof_get(handle).contents
        seals = [_seal(lib.tarn_proof_seal(handle, index).contents) for index in range(facts.seals)]
        sources = []
        for index in range(facts.sources):
            row = lib.tarn_proof_source(handle, index).contents
            sources.append(Source(row.track, text(row.name), time_of(row.start_us)))
        return Proof(proven=bool(facts.proven), sealed=bool(facts.sealed), error=text(facts.error),
                     unit=text(facts.unit), exported=text(facts.exported), operator=text(facts.operator_name),
                     seals=seals, sources=sources)
    finally:
        lib.tarn_proof_free(handle)
