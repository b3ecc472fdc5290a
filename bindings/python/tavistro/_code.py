"""Codes with a text."""
from __future__ import annotations

import enum


class Code(enum.IntEnum):
    """A code of the engine. `text` is what Tavistro's tools print for it."""

    text: str

    def __new__(cls, value: int, text: str = "") -> Code:
        code = int.__new__(cls, value)
        code._value_ = value
        code.text = text
        return code

    @classmethod
    def _missing_(cls, value: object) -> Code | None:
        """Any process may write to a statistics block: a number without a name is no error."""
        if not isinstance(value, int):
            return None
        code = int.__new__(cls, value)
        code._name_, code._value_, code.text = f"CODE_{value}", value, f"code {value}"
        return code
