"""A host and a server talk through a relay that drops, repeats and delays datagrams and captures what it passes on.
tshark has to find what was done: as captured, and again with numbers that wrap around and a slower server."""
import os
import random
import select
import socket
import time

from shark import *

CLIENT, INPUTS, OUTPUTS = 1000000 + os.getpid(), "0, 1, 2", "0, 1, 2, 3, 4, 5, 6"
CONFIG = f"""[network]\nserver_ip = 127.0.0.1\nserver_port = PORT\nclient_id = {CLIENT}
[tavistro]\ndriver_inputs = {INPUTS}\ndriver_outputs = {OUTPUTS}\n[latency]\nclient_latency_blocks = 12
[asio]\ndriver_name =\ninput_map = {INPUTS}\noutput_map = {OUTPUTS}\n[test]\nloopback_device = on\n"""


def relay(front, back, rng):
    """Time, direction and bytes of each datagram that was passed on; the endpoints; how many were sent twice."""
    log, held, copies = [], {True: [], False: []}, 0
    front.bind(("127.0.0.1", 0))
    port = front.getsockname()[1]
    (FOLDER / "host.ini").write_text(CONFIG.replace("PORT", str(port)))
    command = f"{BUILD}/tavistro-server --bind 127.0.0.2 --port {port} --tone 3=440@0.5 --seconds 30".split()
    server = subprocess.Popen(command, stdout=subprocess.PIPE)
    server.stdout.readline()  # it listens
    back.connect(("127.0.0.2", port))
    command = f"{BUILD}/tavistro-host run --seconds 2.5 {FOLDER}/host.ini".split()
    host = subprocess.Popen(command, stdout=subprocess.DEVNULL)
    while host.poll() is None:
        for side in select.select([front, back], [], [], 0.1)[0]:
            data, address = side.recvfrom(65536)
            down = side is back
            client = client if down else address
            chance = rng.random() if data[6] in (AUDIO, SYNC) else 1
            later = rng.randint(1, 9)
            delays = [] if chance < 0.02 else [0, 0] if chance < 0.04 else [later] if chance < 0.06 else [0]
            copies += len(delays) == 2
            held[down] = [(left - 1, other) for left, other in held[down]] + [(delay, data) for delay in delays]
            for passed in [other for left, other in held[down] if left == 0]:
                log.append((time.time_ns(), down, passed))
                front.sendto(passed, client) if down else back.send(passed)
            held[down] = [entry for entry in held[down] if entry[0] > 0]
    server.terminate()
    return log, {False: client, True: ("127.0.0.1", port)}, copies


def number(data):
    return struct.unpack_from("<I", data, 16)[0]


def count(log, fields, kind, down):
    """The counts of the statistics. Adds what the frames of complete blocks show."""
    mine = [(i, number(data), *(struct.unpack_from("<HH", data, 36) if kind == AUDIO else (0, 1)))
            for i, (_, way, data) in enumerate(log) if (way, data[6]) == (down, kind)]
    parts = {}
    for i, sequence, index, of in mine:
        parts.setdefault(sequence, {}).setdefault(index, i)
    begin, last = ({n: choose(part.values()) for n, part in parts.items()} for choose in (min, max))
    slots = (8, 16, 24) if kind == AUDIO else (0,)  # a block with one of these numbers more takes its slot
    limit = {n: min(begin.get(n + k, len(log)) if k else len(log) for k in slots) for n in parts}
    done = {n: last[n] for n, part in parts.items() if len(part) == of and last[n] < limit[n]}
    given_up = [n for n in parts if n not in done and begin[n] < limit[n] < len(log)]
    late = [n for n in parts if last[n] > limit[n] or
            n in done and any(done.get(n + k, len(log)) < done[n] for k in range(1, 20))]
    for sequence, i in done.items() if kind == AUDIO else ():
        fields[i] |= {"fragment": [parts[sequence][k] + 1 for k in range(of)], "block.peak": []}
        for j in (parts[sequence][k] for k in range(of)):
            fields[j] |= {} if j == i else {"reassembled_in": [i + 1]}
            levels = [abs(sample) for sample, in struct.iter_unpack("<f", log[j][2][48:])]
            fields[i]["block.peak"] += [max(levels[k:k + 128]) for k in range(0, len(levels), 128)]
    return {"blocks": len(done), "incomplete": len(given_up), "missing": max(parts) - min(parts) + 1 - len(parts),
            "late": len(late), "duplicate": len(mine) - sum(map(len, parts.values()))}


def add_times(log, fields):
    asked, newest, before = {}, None, 0
    for i, (now, _, data) in enumerate(log):
        echo = data[6], data[16:32 if data[6] in (PING, PONG) else 24]  # with t1, if the message has it
        if data[6] in (DISCOVER, PING):
            asked[data[6] + 1, echo[1]] = i
        elif echo in asked:
            ask, reply, name = (("ping_in", "pong_in", "rtt") if data[6] == PONG else
                                ("discover_in", "discover_reply_in", "discovery_time"))
            t2, t3 = struct.unpack_from("<QQ", data, 32) if data[6] == PONG else (0, 0)
            total = now - log[asked[echo]][0]
            fields[i] |= {ask: [asked[echo] + 1], name: [(total - (t3 - t2 if total > t3 - t2 else 0)) / 1e3]}
            fields[asked[echo]][reply] = [i + 1]
        elif data[6] == SYNC and (newest is None or number(data) > newest):
            fields[i] |= {"interval": [(now - before) / 1e3]} if number(data) - 1 == newest else {}
            newest, before = number(data), now


def matches(wanted, found):
    return {*wanted} == {name for name in found if found[name]} and all(
        abs(a - float(b)) < (1.1 if name in ("rtt", "interval", "discovery_time") else 1e-5)
        for name in wanted for a, b in zip(wanted[name], found[name], strict=True))


original, ends, copies = relay(*(socket.socket(socket.AF_INET, socket.SOCK_DGRAM) for _ in range(2)), random.Random(7))
middle = next(number(data) for _, _, data in original[len(original) // 2:] if data[6] == SYNC)
for shift, hold, *options in (0, 0), (2**32 - middle, 50000, "-2"):
    log, packets, pongs = [], [], 0
    for now, down, data in original:
        if data[6] == PONG:
            data = data[:40] + struct.pack("<Q", struct.unpack_from("<Q", data, 40)[0] + hold)
            data = data[:24] + bytes(8) + data[32:] if shift and not pongs else data  # the answer to no ping
            pongs += 1
        log.append((now, down, data))
        if data[6] in (AUDIO, SYNC):
            data = data[:16] + struct.pack("<I", (number(data) + shift) % 2**32) + data[20:]
        packets.append((now, udp(ends[down], ends[not down], data)))
    path, fields = capture(packets), [{"direction": [1 + down]} for _, down, _ in log]
    counts = {way: count(log, fields, *way) for way in [(AUDIO, False), (SYNC, True), (AUDIO, True)]}
    add_times(log, fields)
    found = list(frames(path, sorted({name for field in fields for name in field}), "-2"))
    compare([experts for _, experts in frames(path, [])], [experts for _, experts in found])
    compare(fields, [field if matches(field, shown) else shown for field, (shown, _) in zip(fields, found)])
    for name in "incomplete", "late", "duplicate":
        total = sum(counted[name] for counted in counts.values())
        assert total == sum(name in experts for _, experts in found) > 0, f"not {total} {name}"
    assert sum(counted["duplicate"] for counted in counts.values()) == copies and counts[SYNC, True]["missing"] > 0
    text = tshark(path, "-q", "-X", "lua_script1:stats", *options)
    for down, who, kinds in (False, "server", [AUDIO]), (True, "client", [SYNC, AUDIO]):
        sizes, (a, b) = [len(data) for _, way, data in log if way == down], (ends[down], ends[not down])
        lines = f"Client {CLIENT} to the {who}, {a[0]}:{a[1]} > {b[0]}:{b[1]}: "
        lines += f"{len(sizes)} datagrams, {sum(sizes)} bytes, 0 malformed\n"
        for kind in kinds:
            numbers = ", ".join(f"{value} {name}" for name, value in counts[kind, down].items())
            lines += f"  {'Sync' if kind == SYNC else 'Audio'}: {numbers}\n"
        assert lines in text, f"{lines} not in {text}"
    times = {name: [field[name][0] for field in fields if name in field] for name in ("interval", "rtt")}
    times["jitter"] = [abs(value - 128e6 / 48e3) for value in times["interval"]]
    for name, values in times.items():
        shown = re.search(rf"{name}: (\S+) ms min, (\S+) ms mean, (\S+) ms max, (\d+) values", text).groups()
        wanted = [min(values) / 1e3, sum(values) / len(values) / 1e3, max(values) / 1e3, len(values)]
        assert all(abs(float(a) - b) < 0.003 for a, b in zip(shown, wanted)), f"{name}: {shown} not {wanted}"
