"""The watch of this machine, through asyncio."""
import asyncio
import ctypes
import datetime
import select
from typing import Any, AsyncIterator, Callable

from . import _session
from ._library import lib, take_text
from ._session import Day, Event, EventKind, ParvaneError, Reading, Sensor, SensorList, check


class Watch:
    """A watch: `async with` it. A link that is lost is made again, and what is read goes on then.

    path     of its socket; None: that of the service of this user, or of the system
    steps    what save_steps() has given, so that the day goes on with the steps of an earlier run
    zone     for the days of steps: a name such as "Europe/Zurich", or how far local time is ahead of UTC;
             None: the time zone of this process
    timeout  for the answer to each request, in seconds; None: what the sensor takes

    A request that fails raises ParvaneError.
    """

    def __init__(self, path: "str | None" = None, *, steps: "str | None" = None, zone: "str | datetime.timedelta | None" = None,
                 timeout: "float | None" = None) -> None:
        self._watch = ctypes.c_void_p()
        check(lib.parvane_watch_new(None if path is None else path.encode(), _session.options(steps, zone, timeout), self._watch))
        self._session = lib.parvane_watch_session(self._watch)
        self._requests: "dict[int, asyncio.Future[Event]]" = {}
        self._readers: "set[asyncio.Queue[Event | None]]" = set()
        self._loop: "asyncio.AbstractEventLoop | None" = None
        self._fd = -1
        self._timer: "asyncio.TimerHandle | None" = None
        self.on_event: "Callable[[Event], None] | None" = None  # told of each event, as for a log

    async def __aenter__(self) -> "Watch":
        self._loop = asyncio.get_running_loop()
        self._process()
        return self

    async def __aexit__(self, *_: Any) -> None:
        self.close()

    def __del__(self) -> None:
        lib.parvane_watch_free(self._watch)

    def close(self) -> None:
        """Closes the link. Requests that wait raise ParvaneError, and readings end."""
        self._wait_for(-1, False, -1)
        self._loop = None
        for future in self._requests.values():
            if not future.done():
                future.set_exception(ParvaneError("the watch was closed"))
        self._requests.clear()
        for reader in self._readers:
            reader.put_nowait(None)
        lib.parvane_watch_free(self._watch)
        self._watch = ctypes.c_void_p()
        self._session = None

    @property
    def is_linked(self) -> bool:
        """Whether the watch is there."""
        return self._session is not None and bool(lib.parvane_session_is_linked(self._session))

    async def list(self, timeout: "float | None" = None) -> SensorList:
        """The sensors of the watch."""
        event = await self._ask(lib.parvane_session_list, _session.milliseconds(timeout))
        assert event.sensors is not None
        return event.sensors

    async def measure(self, sensor: Sensor, timeout: "float | None" = None) -> Reading:
        """One reading. The heart rate takes 15 s."""
        event = await self._ask(lib.parvane_session_measure, Sensor(sensor), _session.milliseconds(timeout))
        assert event.reading is not None
        return event.reading

    async def stop(self, sensor: Sensor, timeout: "float | None" = None) -> None:
        """Ends the readings of a sensor, for every reader."""
        await self._ask(lib.parvane_session_stop, Sensor(sensor), _session.milliseconds(timeout))

    async def readings(self, *sensors: Sensor, every: float = 0) -> AsyncIterator[Reading]:
        """Readings as they come, of all sensors unless some are named, until close().

        Those of steps come when what was really walked is known. `every` is the least time between two measurements of the
        heart rate or the worn state, in seconds.
        """
        wanted = {Sensor(sensor) for sensor in sensors} or set(Sensor)
        reader: "asyncio.Queue[Event | None]" = asyncio.Queue()
        self._readers.add(reader)
        try:
            for sensor in sorted(wanted):
                check(lib.parvane_session_follow(self._need(), sensor, int(every * 1000), None))
            self._process()
            while (event := await reader.get()) is not None:
                if event.reading and event.reading.sensor in wanted and event.reading.settled:
                    yield event.reading
        finally:
            self._readers.discard(reader)

    def text(self, sensor: Sensor) -> "str | None":
        """"72 bpm, 4 s ago, worn": the latest reading in a line; None before the first one."""
        return take_text(lib.parvane_session_latest_text(self._need(), sensor, None))

    def days(self) -> "list[Day]":
        """The days of which steps are known, by date."""
        return _session.days(self._need())

    def save_steps(self) -> str:
        """All that is known of the steps, for `steps` of a later run."""
        return _session.save_steps(self._need())

    def _need(self) -> Any:
        if self._session is None:
            raise ParvaneError("the watch was closed")
        return self._session

    async def _ask(self, function: Any, *arguments: Any) -> Event:
        if self._loop is None:
            raise ParvaneError("the watch is not open: use it in 'async with'")
        number = _session.request(function, self._need(), *arguments, None)
        # The same question is not asked twice: it has one number.
        future = self._requests.get(number)
        if future is None:
            future = self._requests[number] = self._loop.create_future()
        self._process()
        event = await asyncio.shield(future)
        if event.kind == EventKind.FAILED:
            raise ParvaneError(event.text, event.failure)
        return event

    def _process(self) -> None:
        """Does what is due, tells what has come, and waits for what is next."""
        if self._loop is None:
            return
        check(lib.parvane_watch_process(self._watch))
        for event in _session.take_events(self._session):
            self._tell(event)
        if self._session is not None:  # somebody who was told may have closed it
            room = bool(lib.parvane_watch_poll_events(self._watch) & select.POLLOUT)
            self._wait_for(lib.parvane_watch_fd(self._watch), room, lib.parvane_watch_timeout_ms(self._watch))

    def _tell(self, event: Event) -> None:
        if self.on_event:
            self.on_event(event)
        future = self._requests.pop(event.request, None)
        if future and not future.done():
            future.set_result(event)
        for reader in self._readers:
            reader.put_nowait(event)

    def _wait_for(self, fd: int, room: bool, timeout_ms: int) -> None:
        loop = self._loop
        if loop is None:
            return
        if self._timer:
            self._timer.cancel()
            self._timer = None
        if self._fd >= 0:
            # The descriptor may be another one of the same number.
            loop.remove_reader(self._fd)
            loop.remove_writer(self._fd)
        self._fd = fd
        if fd >= 0:
            loop.add_reader(fd, self._process)
            if room:
                loop.add_writer(fd, self._process)
        if timeout_ms >= 0:
            self._timer = loop.call_later(timeout_ms / 1000, self._process)
