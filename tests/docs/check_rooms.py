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
block = (root / "HACKING.md").read_text().split("Rooms (folders) and what each may include", 1)[1].split("\n\n")[1]
rooms = dict(line.strip().split(" -> ") for line in re.sub(r"\n {24,}", " ", block).splitlines())
allowed = {room.strip(): re.split(r",\s*", entries) for room, entries in rooms.items()}


def room_of(name):
    """The longest room of the map that the path, from the root, lies in."""
    return max((r for r in allowed if name.startswith(r + "/")), key=len, default=name.split("/")[0])


errors, used = [], set()
for file in sorted(f for e in ("h", "cpp", "c") for f in root.glob(f"*/**/*.{e}")):
    name = file.relative_to(root).as_posix()
    room = room_of(name)
    if room in ("build", "examples", "tests", "third_party"):
        continue
    for included in re.findall(r'^\s*#\s*include "([^"]+/[^"]+)"', file.read_text(), re.M):
        folders = (folder for folder in ("", "include/", "tests/") if (root / folder / included).exists())
        target = next(folders, "") + included
        if room_of(target) == room:
            continue
        entry = next((e for e in allowed.get(room, []) if target == e or target.startswith(e + "/")), None)
        if entry is None:
            errors.append(f"{name} includes {included}: {room} may not")
        used.add((room, entry))
errors += [f"{r} -> {e}: nothing uses it" for r in allowed for e in allowed[r] if e != "nothing" and (r, e) not in used]
print("\n".join(errors))
sys.exit(bool(errors))
