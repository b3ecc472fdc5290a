"""The engine of this process."""
from __future__ import annotations

import ctypes
import dataclasses
import os
import pathlib
import sys
import threading
import time
from collections.abc import Iterator
from types import TracebackType

from ._records import ENGINESTATE_BYTES, STATE_RECORD_VERSION, EngineEvent, EngineState, StateCode

LIBRARY = "tavistro_engine.dll" if sys.platform == "win32" else "libtavistro_engine.so.5"
ENDED = StateCode.STOPPED, StateCode.FAILED


class EngineError(Exception):
    """The engine cannot be created or used."""


class StartRefused(EngineError):
    """A run was not started; `code` says why."""

    def __init__(self, state: EngineState):
        super().__init__(f"the start was refused: {state.error_code.text}")
        self.code = state.error_code


class RunFailed(EngineError):
    """An error ended the run; `state` has all of it."""

    def __init__(self, state: EngineState):
        super().__init__(f"the run failed: {state.error_code.text} ({state.error_detail.text})")
        self.code = state.error_code
        self.state = state


class EventReader:
    """Follows the events of one run."""

    def __init__(self) -> None:
        self._next = 1
        self.missed = 0
        """Events that were no longer in the record, which has the newest 8."""

    def read(self, state: EngineState) -> list[EngineEvent]:
        """The events that came since the last call."""
        new = [event for event in state.events if event.sequence >= self._next]
        first = new[0].sequence if new else state.next_event_sequence
        self.missed += max(0, first - self._next)
        self._next = max(self._next, state.next_event_sequence)
        return new


@dataclasses.dataclass(frozen=True)
class Update:
    """What one poll brings."""

    state: EngineState
    events: list[EngineEvent]
    missed: int
    """Events that were missed before these, in this poll."""


class Engine:
    """The engine; a process has one at a time.

    Any thread may call any method at any time; start(), stop() and close() wait for each other. Never call one from an
    audio callback. Close the engine, or use it in a `with` statement: a forgotten one plays until the process ends.
    """

    def __init__(self, library: str | os.PathLike[str] | None = None):
        """Loads `library`; without it that of this package, or else that of the system.

        Raises EngineError when the library is of another version or an engine exists, OSError when there is none.
        """
        bundled = pathlib.Path(__file__).parent / "lib" / LIBRARY
        path = os.fspath(library) if library is not None else str(bundled) if bundled.exists() else LIBRARY
        self._library = ctypes.CDLL(path)
        self._library.tavistro_engine_create.restype = ctypes.c_void_p
        self._control = threading.Lock()  # of start, stop and destroy, which the library takes one at a time
        self._handle_use = threading.Lock()  # no call is in progress when the engine is destroyed
        self._handle: ctypes.c_void_p | None = ctypes.c_void_p(self._library.tavistro_engine_create())
        if not self._handle:
            raise EngineError("this process has an engine already")
        version = int.from_bytes(self._record()[:4], "little")
        if version != STATE_RECORD_VERSION:
            self.close()
            raise EngineError(f"{path} has version {version} of the state record, not {STATE_RECORD_VERSION}")

    def __enter__(self) -> Engine:
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 trace: TracebackType | None) -> None:
        self.close()

    def start(self, config: str | os.PathLike[str]) -> None:
        """Starts a run with a configuration file, and returns at once: the state tells how it goes on.

        A run that has failed is stopped first. Raises StartRefused when a run is in progress.
        """
        # The library reads the path in the process's code page on Windows.
        path = os.fspath(config).encode("mbcs") if sys.platform == "win32" else os.fsencode(config)
        with self._control:
            if self.state().state == StateCode.FAILED:
                self._library.tavistro_engine_stop(self._open())
            if not self._library.tavistro_engine_start_from_config(self._open(), path):
                raise StartRefused(self.state())

    def state(self) -> EngineState:
        """The state now. Fast enough for every frame of a display."""
        return EngineState._read(self._record())

    def follow(self, interval: float = 0.1) -> Iterator[Update]:
        """The state now and every `interval` seconds, until the run has ended; the last update says how.

        Use one iterator for a run.
        """
        reader = EventReader()
        while True:
            state, missed = self.state(), reader.missed
            events = reader.read(state)
            yield Update(state, events, reader.missed - missed)
            if state.state in ENDED:
                return
            time.sleep(interval)

    def wait_until_running(self, timeout: float) -> EngineState:
        """Waits until audio plays. Raises RunFailed when the run fails, TimeoutError after `timeout` seconds."""
        end = time.monotonic() + timeout
        while (state := self.state()).state != StateCode.RUNNING:
            if state.state in ENDED:
                raise RunFailed(state)
            if time.monotonic() > end:
                raise TimeoutError(f"not running after {timeout} s: {state.status_message.text}")
            time.sleep(0.02)
        return state

    def stop(self) -> None:
        """Ends the run, if there is one. Blocks, about 100 ms, until all threads of the engine have ended."""
        with self._control:
            self._library.tavistro_engine_stop(self._open())

    def close(self) -> None:
        """Ends the run and frees the engine. Any other method raises EngineError from then on."""
        with self._control:
            if self._handle is None:
                return
            self._library.tavistro_engine_stop(self._handle)
            with self._handle_use:
                self._library.tavistro_engine_destroy(self._handle)
                self._handle = None

    def _open(self) -> ctypes.c_void_p:
        if self._handle is None:
            raise EngineError("the engine is closed")
        return self._handle

    def _record(self) -> bytes:
        record = ctypes.create_string_buffer(ENGINESTATE_BYTES)
        with self._handle_use:
            self._library.tavistro_engine_get_state(self._open(), record)
        return record.raw
