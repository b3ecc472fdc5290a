"""Tavistro, a networked low-latency audio client engine.

    with tavistro.Engine() as engine:
        engine.start("tavistro.ini")
        for update in engine.follow():
            print(update.state.state.text, update.state.status_message.text)

`statistics()` reads the numbers that any engine of this computer publishes.
"""
from ._engine import Engine, EngineError, EventReader, RunFailed, StartRefused, Update
from ._records import (HISTOGRAM_BOUNDS_US, ChannelMeter, EngineEvent, EngineState, ErrorCode, EventKind, MessageId,
                       StateCode, Statistics, StatusCategory, StatusLevel)
from ._statistics import client_ids, is_alive, statistics

__all__ = ["HISTOGRAM_BOUNDS_US", "ChannelMeter", "Engine", "EngineError", "EngineEvent", "EngineState", "ErrorCode",
           "EventKind", "EventReader", "MessageId", "RunFailed", "StartRefused", "StateCode", "Statistics",
           "StatusCategory", "StatusLevel", "Update", "client_ids", "is_alive", "statistics"]
