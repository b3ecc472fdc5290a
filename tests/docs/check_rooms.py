#!/usr/bin/env python3
"""usage: check_rooms.py SOURCES

Compares the map of rooms in HACKING.md with what the sources include. A line of the map is
"room -> what it may include": rooms, or single files of them. A room that includes more, an entry
that nothing uses and a room without a line are errors.
"""
import re
import sys
from pathlib import Path

root = Path(sys.argv[1])
text = (root / "HACKING.md").read_text(encoding="utf-8")
block = text.split("Rooms, and who may include whom", 1)[1].split("\n\n")[1]
allowed = {}
for line in re.sub(r"\n {24,}", " ", block).splitlines():
    room, _, entries = line.strip().partition(" -> ")
    allowed[room.strip()] = [e for e in re.split(r",\s*", entries) if e != "nothing"]


def room_of(path):
    """The longest room of the map that the path, from the root, lies in."""
    return max((r for r in allowed if path.startswith(r + "/")), key=len, default=path.split("/")[0])


errors, used = [], set()
for file in sorted(f for e in ("h", "cpp", "c") for f in root.glob(f"*/**/*.{e}")):
    name = file.relative_to(root).as_posix()
    room = room_of(name)
    if room in ("build", "examples", "tests", "third_party"):
        continue
    if room not in allowed:
        errors.append(f"{name}: its room has no line in the map")
        continue
    for included in re.findall(r'^\s*#\s*include "([^"]+/[^"]+)"', file.read_text(encoding="utf-8"), re.M):
        folders = (folder for folder in ("", "include/", "tests/") if (root / folder / included).exists())
        target = next(folders, "") + included
        if room_of(target) == room:
            continue
        entry = next((e for e in allowed[room] if target == e or target.startswith(e + "/")), None)
        if entry is None:
            errors.append(f"{name} includes {included}: {room} may not")
        used.add((room, entry))
errors += [f"{room} -> {e}: nothing uses it" for room in allowed for e in allowed[room] if (room, e) not in used]
print("\n".join(errors) or f"{len(allowed)} rooms include what they may")
sys.exit(bool(errors))
