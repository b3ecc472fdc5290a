"""Small captures whose answers are known. Each is of another host; all have the same name, port and client id."""
import json

from shark import *

# Sync: S number @ rate, if it is not 48000. Audio: A number . index / count of the fragment x channels. Then the expert
# items, and how many are missing. "+": in one datagram, as captured before the sender's system split it.
CASES = """S10, S13 missing 2, S12 late, S12 duplicate, S13 duplicate, S1038 missing 1024, S14 late, \
S2064 jump, S2063 late
S4294967295, S1 missing 1, S0 late, S0 duplicate, S2
S10, S11@0, S5@44100 format, S6@44100, S8@0 missing 1
A8.0/2, A16.0/2 missing 7 incomplete, A8.1/2 late, A16.1/2
A16.0/2, A8.0/2 late, A8.1/2 late, A16.1/2
A1.0/2, A2.0/1, A1.1/2 late, A1.0/2 duplicate
A1.0/2, A1.0/3 incomplete, A1.1/3x2 incomplete, A2.0/2
A1.0/1, A1.1/2 duplicate, A2.0/2+A2.1/2 segments, A3.0/2+S9+A3.1/2+A3.0/2 duplicate segments
A4294967295.1/2, A0.0/1, A9.0/1@1 format, A10.0/1@1""".split("\n")


def message(text):
    parts = re.match(r"(.)(\d+)(?:\.(\d)/(\d))?(?:x(\d))?(?:@(\d+))?", text).groups()
    kind, sequence, index, count, channels, rate = parts
    body = struct.pack("<IIH", int(sequence), int(rate or 48000), 2)
    body += bytes(18) if kind == "S" else struct.pack("<7H12x", int(channels or 1), 0, 1, 0, 1, int(index), int(count))
    return struct.pack("<4sHHII", b"TVSO", 5, SYNC if kind == "S" else AUDIO, 16 + len(body), 7) + body


(FOLDER / "hosts").write_text("".join(f"10.0.{i}.1 rig\n" for i in range(len(CASES))))
steps = [(f"10.0.{i}.1", step) for i, case in enumerate(CASES) for step in case.split(", ")]
packets = [udp((host, 50000), THERE, b"".join(map(message, step.split()[0].split("+")))) for host, step in steps]
quoted = ip(1, THERE[0], HERE[0], struct.pack("!BBHI", 3, 3, 0, 0) + packets[0])  # by an ICMP message: not sent again
path = capture(enumerate([*packets, quoted]))
for options in [], ["-2"]:
    found = frames(path, ["missing"], "-N", "n", "-H", FOLDER / "hosts", *options)
    wanted = [{*step.split()[1:]} for _, step in steps]
    compare([*wanted, set()], [names | {*values["missing"]} for values, names in found], lambda i: steps[i])
for line in ("10.0.0.1:50000 > 10.0.0.2:28010: 9 datagrams, 396 bytes, 0 malformed\n"
             "  Sync: 7 blocks, 0 incomplete, 1024 missing, 3 late, 2 duplicate\n",
             "10.0.4.1:50000 > 10.0.0.2:28010: 4 datagrams, 208 bytes, 0 malformed\n"
             "  Audio: 1 blocks, 0 incomplete, 0 missing, 1 late, 0 duplicate\n"):
    assert line in (text := tshark(path, "-q", "-X", "lua_script1:stats")), f"{line} not in {text}"
# A file that is loaded after another one has the same results.
plugins = FOLDER / "home/.local/lib/wireshark/plugins"
plugins.mkdir(parents=True)
shutil.copy(SCRIPT, plugins)
requests = [("load", {"file": str(capture(enumerate(packets[::-1])))}), ("load", {"file": str(path)}),
            ("frames", {"filter": "tavistro.expert.late"})]
text = "".join(json.dumps({"jsonrpc": "2.0", "id": i, "method": name, "params": values}) + "\n"
               for i, (name, values) in enumerate(requests, 1))
done = subprocess.run(["sharkd", "-"], input=text, env={"HOME": str(FOLDER / "home"), "PATH": "/usr/bin"},
                      capture_output=True, text=True, timeout=60, **USER)
late = [frame["num"] for frame in json.loads(done.stdout.splitlines()[-1])["result"]]
assert late == [i + 1 for i, (_, step) in enumerate(steps) if "late" in step], done.stdout
