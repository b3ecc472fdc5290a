"""The statistics blocks of running engines, in this or any other process of the computer."""
from __future__ import annotations

import re
import sys

from ._records import STATISTICS_BYTES, STATS_LAYOUT_VERSION, Statistics

# Every call opens the block anew, so that it finds that of a run which began since.
if sys.platform == "win32":
    import ctypes
    from ctypes import wintypes

    def _read(client_id: int) -> bytes | None:
        kernel = ctypes.WinDLL("kernel32")
        kernel.OpenFileMappingW.restype = wintypes.HANDLE
        kernel.MapViewOfFile.restype = ctypes.c_void_p
        kernel.MapViewOfFile.argtypes = [wintypes.HANDLE, *[wintypes.DWORD] * 3, ctypes.c_size_t]
        kernel.UnmapViewOfFile.argtypes = [ctypes.c_void_p]
        kernel.CloseHandle.argtypes = [wintypes.HANDLE]
        read_only = 4
        mapping = kernel.OpenFileMappingW(read_only, False, f"Local\\TavistroEngineStats_{client_id}_v6")
        if not mapping:
            return None
        view = kernel.MapViewOfFile(mapping, read_only, 0, 0, STATISTICS_BYTES)
        kernel.CloseHandle(mapping)
        if not view:
            return None
        # Single loads of whole words: the engine writes meanwhile.
        words = (ctypes.c_uint64 * (STATISTICS_BYTES // 8)).from_address(view)
        data = b"".join(words[i].to_bytes(8, "little") for i in range(len(words)))
        kernel.UnmapViewOfFile(view)
        return data

    def is_alive(client_id: int) -> bool:
        """True when an engine of this computer has this client_id."""
        return statistics(client_id) is not None

    def client_ids() -> list[int]:
        """Of the engines that run on this computer; on Windows those from 1 to 64."""
        return [client_id for client_id in range(1, 65) if is_alive(client_id)]
else:
    import fcntl
    import os

    def _open(client_id: int) -> int:
        return os.open(f"/dev/shm/TavistroEngineStats_{client_id}_v6", os.O_RDONLY | os.O_CLOEXEC)

    def _read(client_id: int) -> bytes | None:
        try:
            block = _open(client_id)
        except OSError:
            return None
        try:
            # Not a mapping: others may truncate the block, and a mapping of it would end this process.
            return os.pread(block, STATISTICS_BYTES, 0)
        finally:
            os.close(block)

    def is_alive(client_id: int) -> bool:
        """True when an engine of this computer has this client_id; a process that was killed leaves its block behind."""
        try:
            block = _open(client_id)
        except OSError:
            return False
        try:
            fcntl.flock(block, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            return True  # an engine holds the lock while it lives
        finally:
            os.close(block)
        return False

    def client_ids() -> list[int]:
        """Of the engines that run on this computer."""
        names = (re.fullmatch(r"TavistroEngineStats_(\d+)_v6", name) for name in os.listdir("/dev/shm"))
        return sorted(client_id for client_id in (int(name[1]) for name in names if name) if is_alive(client_id))


def statistics(client_id: int) -> Statistics | None:
    """What the engine with this client_id has published; None when there is none.

    An engine publishes once a second. The last values of an engine that was killed remain; see is_alive().
    """
    data = _read(client_id)
    expected = b"TENG" + STATS_LAYOUT_VERSION.to_bytes(4, "little")
    return Statistics._read(data) if data and len(data) == STATISTICS_BYTES and data[:8] == expected else None
