"""usage: host.py LIBRARY CONFIG: plays until something is heard; a failed step is an exception."""
import ctypes
import sys
import time

WORDS = ("version state status_level status_category error_code error_detail status_message client_id "
         "stream_sample_rate stream_block_frames device_sample_rate device_block_frames event_count "
         "event_capacity input_meter_count output_meter_count").split()


class Event(ctypes.Structure):
    _fields_ = [(name, ctypes.c_uint64) for name in ("sequence", "time_ms")] + [
        (name, ctypes.c_uint32)
        for name in ("kind", "subject", "attempt", "max_attempts", "error_code", "message")]


class Meter(ctypes.Structure):
    _fields_ = [(name, ctypes.c_uint32) for name in ("channel", "peak_permille")]


class State(ctypes.Structure):
    _fields_ = [(name, ctypes.c_uint32) for name in WORDS] + [
        ("next_event_sequence", ctypes.c_uint64), ("events", Event * 8),
        ("input_meters", Meter * 32), ("output_meters", Meter * 32)]


def require(condition, step):
    if not condition:
        raise SystemExit(f"consumer.py: {step}")


def main(library, config):
    require(ctypes.sizeof(State) == 904 and State.output_meters.offset == 648, "layout")
    engine_library = ctypes.CDLL(library)
    engine_library.tavistro_engine_create.restype = ctypes.c_void_p
    engine = ctypes.c_void_p(engine_library.tavistro_engine_create())
    state = State()

    def read():
        return engine_library.tavistro_engine_get_state(engine, ctypes.byref(state))

    require(read() == 1 and state.version == 5 and state.event_capacity == 8, "a fresh engine")
    require(state.next_event_sequence == 1, "a fresh engine's events")
    require(engine_library.tavistro_engine_start_from_config(engine, config.encode()) == 1, "start")
    end = time.monotonic() + 30
    while read() and not (state.state == 3 and state.output_meters[0].peak_permille > 0):
        require(state.state != 7 and time.monotonic() < end, f"never heard, state {state.state}")
        time.sleep(0.05)
    require(state.stream_sample_rate == 48000, "the stream's format")
    engine_library.tavistro_engine_stop(engine)
    require(read() and state.state == 6, "stop")
    engine_library.tavistro_engine_destroy(engine)


main(*sys.argv[1:])
