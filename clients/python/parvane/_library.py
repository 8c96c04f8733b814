"""The C interface of libparvane-host, parvane/host.h, as ctypes sees it."""
import ctypes
import os
from ctypes import POINTER, c_char_p, c_float, c_int, c_int16, c_int32, c_int64, c_short, c_size_t, c_uint8, c_uint32, c_uint64, c_void_p

EINVAL, ENOMEM, EROOM, EMALFORMED, EFAILED = -1, -2, -3, -4, -5
MAX_REQUEST = 5


class Packet(ctypes.Structure):
    """parvane_packet"""
    _fields_ = [("kind", c_int32), ("command", c_int32), ("flags", c_int32), ("code", c_int32), ("sensor", c_int32),
                ("format", c_int32), ("address", c_uint8 * 6), ("has_address", c_uint8), ("count", c_uint8),
                ("position", c_uint8), ("available", c_uint8), ("reserved", c_int16), ("delay_ms", c_int32),
                ("largest", c_float), ("resolution", c_float), ("smallest", c_float), ("time_ms", c_uint32),
                ("value", c_float)]


class Moment(ctypes.Structure):
    """parvane_moment"""
    _fields_ = [("steady_us", c_int64), ("wall_ms", c_int64)]


class Options(ctypes.Structure):
    """parvane_options"""
    _fields_ = [("size", c_size_t), ("steps", c_char_p), ("has_zone", c_int32), ("zone_offset_s", c_int32),
                ("timeout_ms", c_int32), ("first_flags", c_int32), ("trusts_link", c_int32), ("counts_no_steps", c_int32),
                ("zone", c_char_p)]


class Day(ctypes.Structure):
    """parvane_day"""
    _fields_ = [("date", c_int32), ("is_exact", c_int32), ("steps", c_int64), ("since_ms", c_int64), ("until_ms", c_int64),
                ("is_from_midnight", c_int32), ("has_lost", c_int32)]


class Reading(ctypes.Structure):
    """parvane_reading"""
    _fields_ = [("sensor", c_int32), ("value", c_float), ("at_ms", c_int64), ("watch_ms", c_int64), ("has_value", c_int32),
                ("worn", c_int32), ("is_unbroken", c_int32), ("is_settled", c_int32), ("has_day", c_int32),
                ("padding", c_int32), ("day", Day)]


class Event(ctypes.Structure):
    """parvane_event"""
    _fields_ = [("kind", c_int32), ("failure", c_int32), ("request", c_uint64), ("sensor", c_int32), ("pause_ms", c_int32),
                ("text", c_char_p), ("reading", Reading), ("packets", POINTER(Packet)), ("packet_count", c_size_t)]


_NOW = POINTER(Moment)
_FUNCTIONS = {
    "parvane_host_version": (c_char_p, []),
    "parvane_error_text": (c_char_p, [c_int]),
    "parvane_free": (None, [c_void_p]),
    "parvane_encode": (c_int, [POINTER(Packet), c_char_p, c_size_t]),
    "parvane_decode": (c_int, [c_char_p, c_size_t, POINTER(Packet), c_size_t, c_char_p, c_size_t]),
    "parvane_full_time_ms": (c_int64, [c_uint32, c_int64]),
    "parvane_session_new": (c_int, [POINTER(Options), POINTER(c_void_p)]),
    "parvane_session_free": (None, [c_void_p]),
    "parvane_session_connected": (c_int, [c_void_p, c_char_p, _NOW]),
    "parvane_session_lost": (c_int, [c_void_p, c_char_p, _NOW]),
    "parvane_session_take": (c_int, [c_void_p, c_char_p, c_size_t, _NOW]),
    "parvane_session_advance": (c_int, [c_void_p, _NOW]),
    "parvane_session_wants_link": (c_int, [c_void_p]),
    "parvane_session_is_linked": (c_int, [c_void_p]),
    "parvane_session_next_packet": (c_int, [c_void_p, c_char_p, c_size_t]),
    "parvane_session_timeout_ms": (c_int, [c_void_p, _NOW]),
    "parvane_session_measure": (c_int, [c_void_p, c_int, c_int, _NOW, POINTER(c_uint64)]),
    "parvane_session_list": (c_int, [c_void_p, c_int, _NOW, POINTER(c_uint64)]),
    "parvane_session_stop": (c_int, [c_void_p, c_int, c_int, _NOW, POINTER(c_uint64)]),
    "parvane_session_follow": (c_int, [c_void_p, c_int, c_int, _NOW]),
    "parvane_session_next_event": (c_int, [c_void_p, POINTER(Event), c_size_t]),
    "parvane_session_latest_text": (c_void_p, [c_void_p, c_int, _NOW]),
    "parvane_session_days": (c_int, [c_void_p, POINTER(Day), c_size_t]),
    "parvane_session_save_steps": (c_void_p, [c_void_p]),
    "parvane_watch_new": (c_int, [c_char_p, POINTER(Options), POINTER(c_void_p)]),
    "parvane_watch_free": (None, [c_void_p]),
    "parvane_watch_session": (c_void_p, [c_void_p]),
    "parvane_watch_fd": (c_int, [c_void_p]),
    "parvane_watch_poll_events": (c_short, [c_void_p]),
    "parvane_watch_timeout_ms": (c_int, [c_void_p]),
    "parvane_watch_process": (c_int, [c_void_p]),
}


def _load() -> ctypes.CDLL:
    # The variable is for a library that is not installed, as in a build of this project.
    try:
        library = ctypes.CDLL(os.environ.get("PARVANE_HOST_LIBRARY") or "libparvane-host.so.0")
    except OSError as failure:
        raise ImportError(f"{failure} (the package libparvane-host0 has it; PARVANE_HOST_LIBRARY names the library of a "
                          "build)") from failure
    for name, (result, arguments) in _FUNCTIONS.items():
        function = getattr(library, name)
        function.restype = result
        function.argtypes = arguments
    return library


lib = _load()


def take_text(pointer: "int | None") -> "str | None":
    """A text that the library has handed over, which this frees."""
    if not pointer:
        return None
    try:
        return ctypes.string_at(pointer).decode()
    finally:
        lib.parvane_free(pointer)
