"""The packets of the wire format, in the decoded form of docs/vectors/README.md."""
import ctypes
from typing import Any

from ._library import EMALFORMED, MAX_REQUEST, Packet, lib

_KINDS = {1: "list", 2: "measure", 3: "start", 4: "stop", 5: "list-header", 6: "entry", 7: "reading", 8: "stop-ack", 9: "option"}
_NUMBERS = {name: number for number, name in _KINDS.items()}
_MEMBERS = {
    "list-header": ("flags", "address", "count"),
    "entry": ("flags", "position", "sensor", "available", "largest", "resolution", "smallest", "delay_ms", "reserved"),
    "reading": ("command", "flags", "sensor", "time_ms", "value"),
    "stop-ack": ("flags", "sensor"),
    "option": ("flags", "sensor"),
}
_DEFAULT_FORMAT = 255


class MalformedPacket(ValueError):
    """Bytes that are no packet of a watch; the text says what is wrong with them."""


def address_text(packet: Packet) -> "str | None":
    """AA:BB:CC:DD:EE:FF; None: the watch does not know it."""
    return ":".join("%02X" % byte for byte in packet.address) if packet.has_address else None


def decode(data: bytes) -> "dict[str, Any]":
    """Reads a packet of the watch, whole. Raises MalformedPacket."""
    packet = Packet()
    why = ctypes.create_string_buffer(500)
    result = lib.parvane_decode(data, len(data), packet, ctypes.sizeof(packet), why, len(why))
    if result == EMALFORMED:
        raise MalformedPacket(why.value.decode())
    if result < 0:
        raise MemoryError
    kind = _KINDS[packet.kind]
    decoded = {"kind": kind}
    for member in _MEMBERS[kind]:
        decoded[member] = address_text(packet) if member == "address" else getattr(packet, member)
    return decoded


def encode(packet: "dict[str, Any]") -> bytes:
    """Makes a packet of the phone. Raises ValueError for one that no phone sends."""
    form = packet.get("format", 0)
    given = Packet(kind=_NUMBERS.get(packet["kind"], 0), flags=packet.get("flags", 0), code=packet.get("code", False),
                   sensor=packet.get("sensor", 0), format=_DEFAULT_FORMAT if form is None else form)
    data = ctypes.create_string_buffer(MAX_REQUEST)
    size = lib.parvane_encode(given, data, len(data))
    if size < 0:
        raise ValueError("no packet of a phone: %r" % packet)
    return data.raw[:size]


def full_time_ms(time_ms: int, now_ms: int) -> int:
    """The time of a reading in milliseconds since 1970: of those that fit what travels, the one nearest to `now_ms`."""
    return lib.parvane_full_time_ms(time_ms, now_ms)
