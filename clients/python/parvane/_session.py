"""A session: the protocol with one watch, without a socket and without a clock."""
import ctypes
import dataclasses
import datetime
import enum
from typing import Any, Iterator

from . import _library
from ._library import lib
from ._packets import address_text


class Sensor(enum.IntEnum):
    """The sensors of a watch."""
    ACTIVITY = 1
    STEPS = 2
    HEART_RATE = 3
    WORN = 4


class Activity(enum.IntEnum):
    """The value of a reading of the activity."""
    STILL = 0
    WALKING = 1
    RUNNING = 2
    WRIST_GESTURE = 3


class Failure(enum.IntEnum):
    """Why something does not come."""
    NO_ANSWER = 1
    NOT_LINKED = 2
    LINK_LOST = 3
    MALFORMED = 4
    UNSUPPORTED = 5


class EventKind(enum.IntEnum):
    """What a session tells."""
    LINKED = 1
    LOST = 2
    ATTEMPT_FAILED = 3
    READING = 4
    LIST = 5
    STOPPED = 6
    FAILED = 7
    NONSENSE = 8


class ParvaneError(Exception):
    """What was asked for does not come. `reason` says why, where the library has said it."""

    def __init__(self, text: str, reason: "Failure | None" = None) -> None:
        super().__init__(text)
        self.reason = reason


@dataclasses.dataclass(frozen=True)
class Day:
    """The steps really walked on a local day, as far as they are known."""
    date: datetime.date
    steps: int
    exact: bool  # they are all of `since` to `until`; else at least so many
    since: datetime.datetime
    until: datetime.datetime
    from_midnight: bool
    lost: bool  # a stretch was lost, so it does not become exact any more


@dataclasses.dataclass(frozen=True)
class Reading:
    """A reading, and what it is worth. Times are in UTC."""
    sensor: Sensor
    value: "float | None"  # None: the watch says that there is no usable one. Of the steps the total on the wire
    at: datetime.datetime  # when it arrived
    watch_time: "datetime.datetime | None"  # by the clock of the watch
    worn: "bool | None"  # as far as it was told around the reading
    unbroken: bool  # the link has been there since, without a gap
    settled: bool  # False: steps, which are asked for once more as this total does not tell
    day: "Day | None"  # steps: what is known of the day

    @property
    def activity(self) -> "Activity | None":
        """Of a reading of the activity."""
        known = self.sensor == Sensor.ACTIVITY and self.value in set(Activity)
        return Activity(int(self.value or 0)) if known else None


@dataclasses.dataclass(frozen=True)
class SensorInfo:
    """A sensor of a watch, as it describes it."""
    sensor: int  # a Sensor, unless the watch is a later one
    available: bool
    largest: float
    resolution: float
    smallest: float
    delay: datetime.timedelta


@dataclasses.dataclass(frozen=True)
class SensorList:
    """The sensors of a watch."""
    address: "str | None"  # AA:BB:CC:DD:EE:FF
    sensors: "tuple[SensorInfo, ...]"


@dataclasses.dataclass(frozen=True)
class Event:
    """Something that a session tells; `request` is that which it ends, 0 for none."""
    kind: EventKind
    request: int = 0
    sensor: "Sensor | None" = None
    text: str = ""
    failure: "Failure | None" = None
    pause: datetime.timedelta = datetime.timedelta()
    reading: "Reading | None" = None
    sensors: "SensorList | None" = None


def version() -> str:
    """Of the library."""
    return lib.parvane_host_version().decode()


def check(result: int) -> int:
    """Raises what a result below 0 stands for."""
    if result >= 0:
        return result
    text = lib.parvane_error_text(result).decode()
    if result == _library.ENOMEM:
        raise MemoryError(text)
    if result in (_library.EINVAL, _library.EMALFORMED):
        raise ValueError(text)
    raise ParvaneError(text)


def options(steps: "str | None", zone: "str | datetime.timedelta | None", timeout: "float | None", **more: int) -> _library.Options:
    """The options of a session in C."""
    offset = zone if isinstance(zone, datetime.timedelta) else None
    return _library.Options(size=ctypes.sizeof(_library.Options), steps=None if steps is None else steps.encode(),
                            has_zone=offset is not None, zone_offset_s=0 if offset is None else int(offset.total_seconds()),
                            timeout_ms=milliseconds(timeout), zone=zone.encode() if isinstance(zone, str) else None, **more)


def milliseconds(seconds: "float | None") -> int:
    """At least one, for the library takes 0 for what is usual."""
    if seconds is None:
        return 0
    if not 0 < seconds <= 86400:
        raise ValueError("a time-out is above 0 and at most 86400 seconds")
    return max(1, int(seconds * 1000))


def utc(ms: int) -> datetime.datetime:
    return datetime.datetime(1970, 1, 1, tzinfo=datetime.timezone.utc) + datetime.timedelta(milliseconds=ms)


def _day(day: _library.Day) -> Day:
    return Day(datetime.date(1970, 1, 1) + datetime.timedelta(days=day.date), day.steps, bool(day.is_exact), utc(day.since_ms),
               utc(day.until_ms), bool(day.is_from_midnight), bool(day.has_lost))


def _reading(reading: _library.Reading) -> Reading:
    return Reading(Sensor(reading.sensor), reading.value if reading.has_value else None, utc(reading.at_ms),
                   utc(reading.watch_ms) if reading.watch_ms else None, {1: True, 2: False}.get(reading.worn),
                   bool(reading.is_unbroken), bool(reading.is_settled), _day(reading.day) if reading.has_day else None)


def _sensors(event: _library.Event) -> SensorList:
    header, *entries = event.packets[:event.packet_count]
    known = tuple(SensorInfo(entry.sensor, bool(entry.available), entry.largest, entry.resolution, entry.smallest,
                             datetime.timedelta(milliseconds=entry.delay_ms)) for entry in entries)
    return SensorList(address_text(header), known)


def _event(event: _library.Event) -> Event:
    return Event(EventKind(event.kind), event.request, Sensor(event.sensor) if event.sensor in set(Sensor) else None,
                 event.text.decode(errors="replace"), Failure(event.failure) if event.failure else None,
                 datetime.timedelta(milliseconds=event.pause_ms),
                 _reading(event.reading) if event.kind == EventKind.READING and event.sensor in set(Sensor) else None,
                 _sensors(event) if event.kind == EventKind.LIST else None)


def take_events(handle: Any) -> Iterator[Event]:
    """The events of a session in C, until there is none; those of a later library are passed by."""
    event = _library.Event()
    while check(lib.parvane_session_next_event(handle, event, ctypes.sizeof(event))):
        if event.kind in set(EventKind):
            yield _event(event)


def days(handle: Any) -> "list[Day]":
    """The days of which steps are known to a session in C."""
    known = (_library.Day * check(lib.parvane_session_days(handle, None, 0)))()
    lib.parvane_session_days(handle, known, len(known))
    return [_day(day) for day in known]


def save_steps(handle: Any) -> str:
    """What a session in C knows of the steps, as text."""
    text = _library.take_text(lib.parvane_session_save_steps(handle))
    if text is None:
        raise MemoryError
    return text


def request(function: Any, handle: Any, *arguments: Any) -> int:
    """Calls one of the functions that ask for something; the number of the request."""
    number = ctypes.c_uint64()
    check(function(handle, *arguments, number))
    return number.value


class Session:
    """The protocol with one watch. docs/phone.md has its contract and the loop around it.

    `now` is a pair of a steady clock in seconds and the time in seconds since 1970; None: the clocks of the system.
    """

    def __init__(self, *, steps: "str | None" = None, zone: "str | datetime.timedelta | None" = None, timeout: "float | None" = None,
                 first_flags: int = 1, trusts_link: bool = False, counts_steps: bool = True) -> None:
        self._handle = ctypes.c_void_p()
        given = options(steps, zone, timeout, first_flags=first_flags, trusts_link=trusts_link, counts_no_steps=not counts_steps)
        check(lib.parvane_session_new(given, self._handle))

    def __del__(self) -> None:
        lib.parvane_session_free(self._handle)

    @staticmethod
    def _moment(now: "tuple[float, float] | None") -> "_library.Moment | None":
        return None if now is None else _library.Moment(round(now[0] * 1000000), round(now[1] * 1000))

    def connected(self, run: str = "", now: "tuple[float, float] | None" = None) -> None:
        check(lib.parvane_session_connected(self._handle, run.encode(), self._moment(now)))

    def lost(self, why: str, now: "tuple[float, float] | None" = None) -> None:
        check(lib.parvane_session_lost(self._handle, why.encode(), self._moment(now)))

    def take(self, packet: bytes, now: "tuple[float, float] | None" = None) -> None:
        check(lib.parvane_session_take(self._handle, packet, len(packet), self._moment(now)))

    def advance(self, now: "tuple[float, float] | None" = None) -> None:
        check(lib.parvane_session_advance(self._handle, self._moment(now)))

    def wants_link(self) -> bool:
        return bool(check(lib.parvane_session_wants_link(self._handle)))

    def is_linked(self) -> bool:
        return bool(check(lib.parvane_session_is_linked(self._handle)))

    def timeout(self, now: "tuple[float, float] | None" = None) -> "float | None":
        """Seconds until advance() is to be called at the latest; None: not before something happens."""
        left = lib.parvane_session_timeout_ms(self._handle, self._moment(now))
        return None if left < 0 else left / 1000

    def packets(self) -> "list[bytes]":
        """What is to be sent."""
        data = ctypes.create_string_buffer(_library.MAX_REQUEST)
        packets = []
        while size := check(lib.parvane_session_next_packet(self._handle, data, len(data))):
            packets.append(data.raw[:size])
        return packets

    def events(self) -> "list[Event]":
        """What there is to tell."""
        return list(take_events(self._handle))

    def measure(self, sensor: Sensor, timeout: "float | None" = None, now: "tuple[float, float] | None" = None) -> int:
        return request(lib.parvane_session_measure, self._handle, sensor, milliseconds(timeout), self._moment(now))

    def list(self, timeout: "float | None" = None, now: "tuple[float, float] | None" = None) -> int:
        return request(lib.parvane_session_list, self._handle, milliseconds(timeout), self._moment(now))

    def stop(self, sensor: Sensor, timeout: "float | None" = None, now: "tuple[float, float] | None" = None) -> int:
        return request(lib.parvane_session_stop, self._handle, sensor, milliseconds(timeout), self._moment(now))

    def follow(self, sensor: Sensor, every: float = 0, now: "tuple[float, float] | None" = None) -> None:
        check(lib.parvane_session_follow(self._handle, sensor, int(every * 1000), self._moment(now)))

    def days(self) -> "list[Day]":
        return days(self._handle)

    def save_steps(self) -> str:
        return save_steps(self._handle)
