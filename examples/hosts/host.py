"""A host in Python: runs the engine until Ctrl-C and prints what it does.

    python3 host.py libtavistro_engine.so.5 tavistro.ini

On Windows the library is tavistro_engine.dll. A run that fails is stopped and started again after a
pause, for as long as it takes.
"""
import ctypes
import signal
import sys
import time

POLL_S, POLLS_PER_METERS, POLLS_PER_RESTART = 0.1, 10, 50
STATES = "Idle Starting Connected Running Restarting Stopping Stopped Failed".split()
RUNNING, FAILED = STATES.index("Running"), STATES.index("Failed")


def fields(kind, names):
    return [(name, kind) for name in names.split()]


class Event(ctypes.Structure):
    _fields_ = (fields(ctypes.c_uint64, "sequence time_ms") +
                fields(ctypes.c_uint32, "kind subject attempt max_attempts error_code message"))


class Meter(ctypes.Structure):
    _fields_ = fields(ctypes.c_uint32, "channel peak_permille")


class Record(ctypes.Structure):
    _fields_ = (fields(ctypes.c_uint32, "version state status_level status_category error_code error_detail "
                       "status_message client_id stream_sample_rate stream_block_frames device_sample_rate "
                       "device_block_frames event_count event_capacity input_meter_count output_meter_count") +
                [("next_event_sequence", ctypes.c_uint64), ("events", Event * 8),
                 ("input_meters", Meter * 32), ("output_meters", Meter * 32)])


stop_requested = False


def request_stop(*_):
    global stop_requested
    stop_requested = True


def show_meters(name, meters):
    print(name, "peaks", *(f"{meter.channel}:{meter.peak_permille / 1000}" for meter in meters))


def run(library, engine, config_path):
    """Runs until Ctrl-C or a failure."""
    record = Record()
    shown_state = polls = 0
    next_sequence = 1  # each run counts its events from 1
    is_started = library.tavistro_engine_start_from_config(engine, config_path.encode())
    while True:
        ends = not is_started or stop_requested
        if ends:
            library.tavistro_engine_stop(engine)
        library.tavistro_engine_get_state(engine, ctypes.byref(record))
        if record.state != shown_state:
            shown_state = record.state
            print(f"state {STATES[shown_state]}, message {record.status_message}, error {record.error_code}; "
                  f"stream {record.stream_sample_rate} Hz, {record.stream_block_frames} frames")
        # The record holds the last 8 events: a sequence number that is skipped is an event missed.
        for event in record.events[:record.event_count]:
            if event.sequence < next_sequence:
                continue
            if event.sequence > next_sequence:
                print(f"missed {event.sequence - next_sequence} events")
            next_sequence = event.sequence + 1
            print(f"event {event.sequence}: kind {event.kind}, attempt {event.attempt} of {event.max_attempts}, "
                  f"message {event.message}, error {event.error_code}")
        polls += 1
        if record.state == RUNNING and polls % POLLS_PER_METERS == 0:
            show_meters("output", record.output_meters[:record.output_meter_count])
            show_meters("input", record.input_meters[:record.input_meter_count])
        if ends or record.state == FAILED:
            break
        time.sleep(POLL_S)
    library.tavistro_engine_stop(engine)  # a run that failed needs it too before the next start


def main(library_path, config_path):
    library = ctypes.CDLL(library_path)
    library.tavistro_engine_create.restype = ctypes.c_void_p  # not an int of 32 bits
    engine = ctypes.c_void_p(library.tavistro_engine_create())
    record = Record()
    library.tavistro_engine_get_state(engine, ctypes.byref(record))
    if ctypes.sizeof(record) != 904 or record.version != 5:
        raise SystemExit("this host is for version 5 of the state record")
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, request_stop)
    sys.stdout.reconfigure(line_buffering=True)
    while not stop_requested:
        run(library, engine, config_path)
        if stop_requested:
            break
        print(f"the run failed; starting again in {POLLS_PER_RESTART * POLL_S:.0f} s")
        for _ in range(POLLS_PER_RESTART):
            if not stop_requested:
                time.sleep(POLL_S)
    library.tavistro_engine_destroy(engine)


main(*sys.argv[1:])
