"""Code blocks of a Markdown text: indented by four, or fenced."""
import re
from typing import NamedTuple

BLOCK = re.compile(r"(?:<!-- not run(?: \((?P<only>[^)]+)\))?: (?P<reason>[^>]+) -->\n\n?)?"
                   r"(?:^```(?P<language>\w*)\n(?P<fenced>.*?)^```$|(?<=\n\n)(?P<indented>(?: {4}[^\n]*\n|\n(?= {4}))+))",
                   re.M | re.S)


class Block(NamedTuple):
    language: str
    lines: list[str]
    not_run: str | None  # the reason
    only: str  # how the lines begin that it is about; empty: all


def blocks_of(text):
    for found in BLOCK.finditer(text):
        fenced = found["fenced"]
        lines = fenced.splitlines() if fenced is not None else [l[4:] for l in found["indented"].splitlines()]
        yield Block(found["language"] or "", lines, found["reason"], found["only"] or "")
