"""The phone's side of a Parvane watch.

    async with parvane.Watch() as watch:
        print(await watch.measure(parvane.Sensor.HEART_RATE))
        async for reading in watch.readings():
            print(reading)

A Watch talks to the watch of this machine through asyncio. A Session is the protocol alone, without a socket and without a
clock, for any other road; decode() and encode() are the packets. Nothing here is safe to use from two threads at once.
"""
from ._packets import MalformedPacket, decode, encode, full_time_ms
from ._session import Activity, Day, Event, EventKind, Failure, ParvaneError, Reading, Sensor, SensorInfo, SensorList, Session, version
from ._watch import Watch

__all__ = ["Activity", "Day", "Event", "EventKind", "Failure", "MalformedPacket", "ParvaneError", "Reading", "Sensor", "SensorInfo",
           "SensorList", "Session", "Watch", "decode", "encode", "full_time_ms", "version"]
