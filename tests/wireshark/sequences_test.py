"""Small captures whose answers are known. Each is of another host; all have the same name, port and client id."""
from shark import *

# Sync: S number @ rate, if it is not 48000. Audio: A number . index / count of the fragment x channels. Expert items.
CASES = """S10, S13 missing, S12 late, S12 duplicate, S13 duplicate, S1038 missing, S2064 jump, S2063 late
S4294967295, S1 missing, S0 late, S0 duplicate, S2
S10, S11@0, S5@44100 format, S6@44100, S8@0 missing
A8.0/2, A16.0/2 missing incomplete, A8.1/2 late, A16.1/2
A16.0/2, A8.0/2 late, A8.1/2 late, A16.1/2
A1.0/2, A2.0/1, A1.1/2 late, A1.0/2 duplicate
A1.0/2, A1.0/3 incomplete, A1.1/3x2 incomplete, A2.0/2
A4294967295.1/2, A0.0/1, A9.0/1@1 format, A10.0/1@1""".split("\n")


def message(text):
    kind, sequence, index, count, channels, rate = re.match(r"(.)(\d+)(?:\.(\d)/(\d))?(?:x(\d))?(?:@(\d+))?", text).groups()
    body = struct.pack("<IIH", int(sequence), int(rate or 48000), 2)
    body += bytes(18) if kind == "S" else struct.pack("<7H12x", int(channels or 1), 0, 1, 0, 1, int(index), int(count))
    return struct.pack("<4sHHII", b"TVSO", 5, SYNC if kind == "S" else AUDIO, 16 + len(body), 7) + body


(FOLDER / "hosts").write_text("".join(f"10.0.{i}.1 rig\n" for i in range(len(CASES))))
steps = [(f"10.0.{i}.1", step) for i, case in enumerate(CASES) for step in case.split(", ")]
packets = [udp((host, 9), THERE, message(step)) for host, step in steps]
quoted = ip(1, THERE[0], HERE[0], struct.pack("!BBHI", 3, 3, 0, 0) + packets[0])  # by an ICMP message: not sent again
for options in [], ["-2"]:
    found = frames(capture(enumerate([*packets, quoted])), [], "-N", "n", "-H", FOLDER / "hosts", *options)
    wanted = [{*step.split()[1:]} for _, step in steps]
    compare([*wanted, set()], [names for _, names in found], lambda i: steps[i])
