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
            delays = [] if chance < 0.02 else [0, 0] if chance < 0.04 else [rng.randint(1, 12)] if chance < 0.06 else [0]
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


def truth(log):
    """What each direction and message has to count, and what each frame has to show."""
    counts, fields, asked, sync = {}, [{"direction": [1 + down]} for _, down, _ in log], {}, (None, None)
    for way in (False, AUDIO), (True, AUDIO), (True, SYNC):
        mine = [(i, number(data), *(struct.unpack_from("<HH", data, 36) if data[6] == AUDIO else (0, 1)))
                for i, (_, down, data) in enumerate(log) if (down, data[6]) == way]
        parts = {}
        for i, sequence, index, count in mine:
            parts.setdefault(sequence, {}).setdefault(index, i)
        done = {sequence: max(part.values()) for sequence, part in parts.items() if len(part) == count}
        given_up = [n for n in parts if n not in done and (n + 8 in parts or n + 16 in parts)]
        late = [n for n in done if any(done.get(n + k, len(log)) < done[n] for k in range(1, 20))]
        counts[way] = [len(done), len(given_up), max(parts) - min(parts) + 1 - len(parts), len(late),
                       len(mine) - sum(map(len, parts.values()))]
        for sequence, i in done.items() if way[1] == AUDIO else ():
            fragments = [parts[sequence][index] for index in range(count)]
            fields[i] |= {"fragment": [j + 1 for j in fragments], "block.peak": []}
            for j in fragments:
                samples = struct.unpack(f"<{len(log[j][2][48:]) // 4}f", log[j][2][48:])
                fields[i]["block.peak"] += [max(map(abs, samples[k:k + 128])) for k in range(0, len(samples), 128)]
                fields[j] |= {} if j == i else {"reassembled_in": [i + 1]}
    for i, (now, _, data) in enumerate(log):
        names = {DISCOVER: ("discover_in", "discover_reply_in", "discovery_time"), PING: ("ping_in", "pong_in", "rtt")}
        if data[6] in names:
            asked[data[6] + 1] = i
        elif data[6] - 1 in names:
            question, answer, duration = names[data[6] - 1]
            t2, t3 = struct.unpack_from("<QQ", data, 32) if data[6] == PONG else (0, 0)
            total = now - log[asked[data[6]]][0]
            fields[i] |= {question: [asked[data[6]] + 1], duration: [(total - (t3 - t2) if total > t3 - t2 else total) / 1e3]}
            fields[asked[data[6]]][answer] = [i + 1]
        elif data[6] == SYNC and (sync[0] is None or number(data) > sync[0]):
            fields[i] |= {"interval": [(now - sync[1]) / 1e3]} if number(data) - 1 == sync[0] else {}
            sync = number(data), now
    return counts, fields


def close(expected, found):
    return all(abs(a - float(b)) <= (1 if name in ("rtt", "interval", "discovery_time") else 1e-5)
               for name in expected for a, b in zip(expected[name], found[name], strict=True))


with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as front, socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as back:
    log, ends, copies = relay(front, back, random.Random(7))
middle = next(number(data) for _, _, data in log[len(log) // 2:] if data[6] == SYNC)
for shift, hold in (0, 0), (2**32 - middle, 50000):
    log = [(now, down, data[:40] + struct.pack("<Q", struct.unpack_from("<Q", data, 40)[0] + hold) if data[6] == PONG else data)
           for now, down, data in log]
    counts, fields = truth(log)
    wrapped = [data[:16] + struct.pack("<I", (number(data) + shift) % 2**32) + data[20:] if data[6] in (AUDIO, SYNC) else data
               for _, _, data in log]
    path = capture((now, udp(ends[down], ends[not down], data)) for (now, down, _), data in zip(log, wrapped))
    names = sorted({name for field in fields for name in field})
    once, twice = list(frames(path, names)), list(frames(path, names, "-2"))
    compare([experts for _, experts in once], [experts for _, experts in twice])
    for i, (field, (found, experts)) in enumerate(zip(fields, twice, strict=True)):
        assert {*field} == {name for name in names if found[name]} and close(field, found), f"{i + 1}: {found} not {field}"
    for place, name in (1, "incomplete"), (3, "late"), (4, "duplicate"):
        total = sum(count[place] for count in counts.values())
        assert total == sum(name in experts for _, experts in twice) > 0, f"not {total} {name}"
    assert sum(count[4] for count in counts.values()) == copies and counts[True, SYNC][2] > 0
    text = tshark(path, "-q", "-X", "lua_script1:stats")
    assert text == tshark(path, "-q", "-2", "-X", "lua_script1:stats")
    for down, who in (False, "server"), (True, "client"):
        mine = [data for _, way, data in log if way == down]
        a, b = (f"{host}:{port}" for host, port in (ends[down], ends[not down]))
        lines = f"Client {CLIENT} to the {who}, {a} > {b}: {len(mine)} datagrams, {sum(map(len, mine))} bytes, 0 malformed\n"
        for kind, name in ((SYNC, "Sync"), (AUDIO, "Audio")) if down else ((AUDIO, "Audio"),):
            lines += "  {}: {} blocks, {} incomplete, {} missing, {} late, {} duplicate\n".format(name, *counts[down, kind])
        assert lines in text, f"{lines} not in {text}"
    intervals = [field["interval"][0] for field in fields if "interval" in field]
    for name, values in ("interval", intervals), ("jitter", [abs(value - 128e6 / 48e3) for value in intervals]), \
            ("rtt", [field["rtt"][0] for field in fields if "rtt" in field]):
        shown = re.search(rf"{name}: (\S+) ms min, (\S+) ms mean, (\S+) ms max, (\d+) values", text).groups()
        wanted = [min(values) / 1e3, sum(values) / len(values) / 1e3, max(values) / 1e3, len(values)]
        assert all(abs(float(a) - b) < 0.003 for a, b in zip(shown, wanted)), f"{name}: {shown} not {wanted}"
