"""Captures, and what tshark with the dissector says about them. Each test has the arguments SOURCES BUILD."""
import atexit
import os
import pathlib
import re
import shutil
import struct
import subprocess
import sys
import tempfile

SOURCES, BUILD = (pathlib.Path(argument).resolve() for argument in sys.argv[1:3])
FOLDER = pathlib.Path(tempfile.mkdtemp(prefix="tavistro-wireshark-"))
FOLDER.chmod(0o755)
atexit.register(shutil.rmtree, FOLDER)
# Root's tshark loads no scripts from version 4.4 on. For root a user without rights runs it, on a copy that it may read.
SCRIPT = shutil.copy(SOURCES / "wireshark/tavistro.lua", FOLDER)
USER = {"user": 65534, "group": 65534, "extra_groups": ()} if os.geteuid() == 0 else {}
MALFORMED = "length trailing version type client_id rectangle value incompatible reserved segments".split()
EXPERTS = MALFORMED + "missing late duplicate jump format incomplete".split()
AUDIO, SYNC, DISCOVER, REPLY, PING, PONG = 2, 3, 4, 5, 6, 7
HERE, THERE = ("10.0.0.1", 50000), ("10.0.0.2", 28010)


def ip(protocol, source, destination, body):
    ends = b"".join(bytes(map(int, address.split("."))) for address in (source, destination))
    return struct.pack("!BBHHHBBH", 0x45, 0, 20 + len(body), 0, 0, 64, protocol, 0) + ends + body


def udp(source, destination, data):
    return ip(17, source[0], destination[0], struct.pack("!HHHH", source[1], destination[1], 8 + len(data), 0) + data)


def capture(packets):
    """packets: time in ns, the packet from its IP header on, and how many bytes of it were captured (without: all)."""
    path = pathlib.Path(tempfile.mkstemp(".pcap", dir=FOLDER)[1])
    path.chmod(0o644)
    with open(path, "wb") as file:
        file.write(struct.pack("<IHHiIII", 0xA1B23C4D, 2, 4, 0, 0, 262144, 101))
        for time, packet, *cut in packets:
            captured = packet[:cut[0]] if cut else packet
            file.write(struct.pack("<IIII", *divmod(time, 10**9), len(captured), len(packet)) + captured)
    return path


def tshark(path, *options):
    command = ["tshark", "-r", path, "-X", f"lua_script:{SCRIPT}", *options]
    done = subprocess.run(list(map(str, command)), capture_output=True, text=True, timeout=90,
                          env={"HOME": str(FOLDER), "PATH": "/usr/bin:/bin"}, **USER)
    assert done.returncode == 0 and "Lua" not in done.stderr, done.stderr
    return done.stdout


def frames(path, names, *options):
    """For each frame the values of these fields, a list each, and the names of its expert items."""
    columns = [*names, "lua.error", *(f"expert.{name}" for name in EXPERTS)]
    full = [("_ws." if name == "lua.error" else "tavistro.") + name for name in columns]
    text = tshark(path, *options, "-T", "fields", *(word for name in full for word in ("-e", name)))
    for line in text.splitlines():
        values = dict(zip(columns, (list(filter(None, column.split(","))) for column in line.split("\t"))))
        assert not values["lua.error"], line
        yield {name: values[name] for name in names}, {name for name in EXPERTS if values[f"expert.{name}"]}


def compare(expected, found, text=str):
    wrong = [f"frame {i + 1}: {b} instead of {a}, {text(i)}"
             for i, (a, b) in enumerate(zip(expected, found, strict=True)) if a != b]
    assert not wrong, f"{len(wrong)} frames differ:\n" + "\n".join(wrong[:10])
