"""Each field where docs/protocol.md has it, names and lengths of the headers, and the right complaint for any bytes."""
import random
from xml.etree import ElementTree

from shark import *

PROTOCOL = (SOURCES / "docs/protocol.md").read_text()
HEADER = "".join((SOURCES / name).read_text() for name in ("net/protocol.h", "net/wire_layout.h", "config/settings.h"))
EXAMPLES = [*map(bytes.fromhex, re.findall(r"^    54 56 53[0-9a-f ]+\n(?:    [0-9a-f ]+\n)*", PROTOCOL, re.M))]
TYPES = {int(number): name for name, number in re.findall(r"^    ([A-Z]\w+) = (\d),", HEADER, re.M)}
CONSTANTS = {name: int(value, 0) for name, value in re.findall(r"(\w+) = (\w+);", HEADER) if value[0].isdigit()}
VERSION = CONSTANTS["protocol_version"]
SNAKE = {number: re.sub(r"(?<=[a-z])(?=[A-Z])", "_", name).lower() for number, name in TYPES.items()}
SIZES = {n: CONSTANTS.get(f"{name}_bytes") or CONSTANTS[f"{name}_fixed_bytes"] for n, name in SNAKE.items()}
LEAVE = struct.pack("<4sHHIIIIII", b"TVSO", VERSION, 1, 32, 7, 0, 1, 0, 0)
THERE = (THERE[0], CONSTANTS["server_port"])


def fields_of(table):
    """Offset and name of the fields in a table of docs/protocol.md; the second list of Announce has no offset."""
    for offset, text in re.findall(r"^\| (\d+|\.\.\.) \|[^|]*\| ([^|]+) \|", table, re.M):
        name = re.split(r" in | of |[,:]|$", text)[0].replace(" ", "_")
        lists = {"0": "reserved", "server_channels_that_the_client_sends_to": "input_channel",
                 "server_channels_that_the_client_plays": "output_channel"}
        yield offset, lists.get(name, name)


def check_examples():
    path = capture([(i, udp(HERE, THERE, data)) for i, data in enumerate([*EXAMPLES, LEAVE])])
    head, *sections = re.split(r"^### ", PROTOCOL.split("## Message flow")[0], flags=re.M)
    packets = ElementTree.fromstring(tshark(path, "-T", "pdml")).findall("packet")
    for section, data, packet in zip(sections, EXAMPLES, packets):
        shown = [field for field in packet.findall("proto[@name='tavistro']/field") if field.get("size") != "0"]
        places = {(str(int(field.get("pos")) - 28), field.get("name")[9:].replace("reply_", "")) for field in shown}
        places = {("..." if name == "output_channel" else offset, name) for offset, name in places}
        places.discard(("36", "input_channel"))
        assert places == {*fields_of(head), *fields_of(section)}, f"{places} in {section}"
        assert sum(int(field.get("size")) for field in shown) == len(data), f"gaps in {section}"
        name, number = re.match(r"(\w+) \((\d)\)", section).groups()
        assert TYPES.pop(int(number)) == name and shown[2].get("showname") == f"Type: {name} ({number})"
    assert not TYPES, f"docs/protocol.md lacks {TYPES}"
    texts = tshark(path, "-T", "fields", "-e", "_ws.col.Info").splitlines()
    assert texts[3:] == ["Sync 1000", "Audio 1000 1/1 ch 0-0", "Ping", "Pong", "Announce leave"], texts


def with_length(data):
    return bytes(data[:8] + struct.pack("<I", len(data)) + data[12:])


def changed(data, words):
    data = bytearray(data)
    for offset, value in words.items():
        struct.pack_into("<H", data, offset, value)
    return bytes(data)


check_examples()
discover, reply, announce, sync, audio, ping, pong = EXAMPLES
CHANGES = [  # a message, its changed 16-bit words by offset, the expert items
    *((data, {4: 4}, "version") for data in EXAMPLES), *((data, {12: 0}, "client_id") for data in EXAMPLES),
    *((data, {6: kind}, "type") for data in EXAMPLES for kind in (0, len(SIZES) + 1, 65535)),
    (reply, {24: 0}, "value"), (reply, {32: 6}, "incompatible"), (reply, {36: 2}, "incompatible"),
    (reply, dict(zip((36, 38, 40, 42), struct.unpack("<4H", CONSTANTS["capability_word"].to_bytes(8, "little")))), ""),
    (announce, {20: 0, 22: 0}, "value"), (announce, {16: 1}, "trailing"), (announce, {18: 65535}, "length"),
    (audio, {24: 1}, "rectangle"), (audio, {24: 0, 34: 0}, "rectangle trailing"), (audio, {26: 0}, "rectangle"),
    (audio, {28: 1}, "rectangle"), (audio, {28: 65535}, "rectangle"), (audio, {28: 1, 26: 2}, ""),
    (audio, {32: 1}, "rectangle"), (audio, {32: 1, 24: 3}, ""), (audio, {30: 0}, "rectangle trailing"),
    (audio, {30: 2, 26: 2}, "length"), (audio, {34: 1}, "trailing"), (audio, {36: 1}, "rectangle"),
    (audio, {36: 1, 38: 2}, ""), (audio, {38: 0}, "rectangle"), (audio, {30: 65535, 34: 65535}, "rectangle length"),
    (discover, {24: 1}, "reserved"), (audio, {46: 256}, "reserved")]
cases = [(changed(data, words), names) for data, words, names in CHANGES]
for data in EXAMPLES:
    assert len(data) - SIZES[data[6]] == {1: 12, 2: 8}.get(data[6], 0), f"the length of {data}"
    for size in range(4, len(data)):
        cases += [(data[:size], "length"), (with_length(data[:size]) if size >= 12 else data[:size], "length")]
    cases += [(data + b"1", "length"), (with_length(data + b"1"), "trailing"), (data + LEAVE, "segments"),
              (b"TVSP" + data[4:], "")]
rng = random.Random(5)
noise = [b"TVSO"[:rng.randint(3, 4)] + rng.randbytes(rng.randrange(100)) for _ in range(300)]
for data in EXAMPLES * 300:
    offsets = rng.choices(range(4, len(data) - 1), k=rng.randint(1, 3))
    noise.append(changed(data, {offset: rng.choice([0, 1, 2, 255, 32768, 65535]) for offset in offsets}))
cases += [(with_length(data) if rng.random() < 0.5 and len(data) >= 12 else data, None) for data in noise]
for port, *options in (THERE[1],), (THERE[1], "-2"), (4444, "-o", "tavistro.port:4444", "-o", "tavistro.samples:TRUE"):
    path = capture((i, udp(HERE, (THERE[0], port), data)) for i, (data, _) in enumerate(cases))
    found = [names & {*MALFORMED} for _, names in frames(path, [], *options)]
    wanted = [found[i] if names is None else {*names.split()} for i, (_, names) in enumerate(cases)]
    compare(wanted, found, lambda i: cases[i][0].hex(" "))
# Malformed datagrams are shown on any port if an endpoint is known. It gives audio its direction, as does the port.
a, b, c, server = ((f"10.9.0.{i}", 4444) for i in range(4))
other, client, port = changed(ping, {4: 4}), ("10.9.0.5", 50000), ("10.9.0.6", THERE[1])
steps = [(a, server, ping, [], "1"), (b, server, other, ["version"], "1"), (server, b, other, ["version"], "1"),
         (b, c, other, [], ""), (server, a, audio, [], "2"),
         (client, port, audio, [], "1"), (port, client, audio, [], "2")]
path = capture((i, udp(*step[:3])) for i, step in enumerate(steps))
found = [(names, "".join(values["direction"])) for values, names in frames(path, ["direction"])]
compare([({*step[3]}, step[4]) for step in steps], found)
# What the capture has cut is not malformed. On other ports a header is enough.
cuts = [(data + more, size) for data in EXAMPLES for more in (b"", LEAVE) for size in range(len(data) + 1)]
hosts = [f"10.1.{i // 200}.{i % 200}" for i in range(len(cuts))]
path = capture((i, udp((hosts[i], 50000), (hosts[i], 4444), data), 28 + size) for i, (data, size) in enumerate(cuts))
found = [(bool(values["type"]), names) for values, names in frames(path, ["type"])]
compare([(size >= 16, {"segments"} if size >= 16 and data.endswith(LEAVE) else set()) for data, size in cuts], found)
