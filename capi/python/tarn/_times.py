"""Microseconds of the library and datetimes of Python."""
import datetime

from ._library import NO_TIME, NO_ZONE

_BEGIN = datetime.datetime(1970, 1, 1, tzinfo=datetime.timezone.utc)
_MICROSECOND = datetime.timedelta(microseconds=1)


def zone_of(seconds):
    """None where the card does not tell."""
    return None if seconds == NO_ZONE else datetime.timezone(datetime.timedelta(seconds=seconds))


def time_of(micros, zone=None):
    """None where there is none; in UTC where no zone is known."""
    if micros == NO_TIME:
        return None
    time = _BEGIN + datetime.timedelta(microseconds=micros)
    return time.astimezone(zone) if zone is not None else time


def micros_of(time):
    """Exact, as a float of seconds would not be. One without a zone is nobody's time."""
    if time is None:
        return NO_TIME
    if time.tzinfo is None or time.utcoffset() is None:
        raise ValueError("a time needs its zone: datetime(..., tzinfo=...), or .astimezone()")
    return (time - _BEGIN) // _MICROSECOND
