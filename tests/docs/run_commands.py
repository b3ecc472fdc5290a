"""usage: run_commands.py SOURCE_FOLDER BUILD_FOLDER: types the commands of README.md and docs/*.md in a shell, in the
order of each page, and fails when one does not work as it stands. A program that runs until Ctrl-C gets one when
it has shown its first output, or at the end of the page if later commands need it. A block below the comment
"<!-- not run: REASON -->" is not run but listed; below "<!-- not run (WORDS): REASON -->" the lines that begin with
WORDS are not. Each page has a temporary folder for the files that it writes."""
import os
import pathlib
import re
import signal
import socket
import subprocess
import sys
import tempfile
import time

from blocks import blocks_of

root, build = (pathlib.Path(path).resolve() for path in sys.argv[1:3])
SHELLS = "sh", "bash", "shell", "console"
PROGRAM = re.compile(r"(sudo |setpriv .*|\w+=\S+ )*((\S*/)?tavistro-\w|scripts/|tests/|cmake |cpack |ctest |cc |pkg-config "
                     r"|apt-get |jackd |pw-jack |ps )")
NO_COMMAND = re.compile(r"\S {2,}\S|^ | \[|\.\.\.| [A-Z]{2,}\b")  # prose behind it, something to replace
CHANGES_THE_COMPUTER = re.compile(r"sudo|apt-get|scripts/(setup|build|test)\b|--prefix /|wine|windows")
SERVER, HOST, PAGE = r"tavistro-server\b", r"tavistro-host run\b", r"tavistro-monitor .*--http"
FIRST_OUTPUT = {SERVER: r"\S", HOST: r"(?i)running", PAGE: r"\S"}  # of what runs until the end of the page
NEEDS = {r"tavistro-host (run|servers)": (SERVER, "tavistro-server --melody 0 --melody 1"),
         r"tavistro-monitor(?! report)(?!.*--recording)|pgrep": (HOST, "tavistro-host run examples/loopback.ini")}
faults, skipped, running, ran = [], [], {}, 0


class Command:
    def __init__(self, where, text):
        self.name, self.output = f"{where}: {text}", tempfile.TemporaryFile("a+b")
        path = f"{build}:{os.environ['PATH']}"
        shell = ["setpriv", "--pdeathsig", "KILL", "bash", "-c"]  # nothing outlives this test
        self.process = subprocess.Popen([*shell, text], cwd=folder, env={**os.environ, "PATH": path},
                                        stdout=self.output, stderr=subprocess.STDOUT, start_new_session=True)

    def text(self):
        self.output.seek(0)
        return self.output.read().decode(errors="replace")

    def says(self, pattern):
        until = time.monotonic() + 15
        while not re.search(pattern, self.text()):
            if self.process.poll() is not None or time.monotonic() > until:
                return self.fault(f"ended with {self.process.poll()} before '{pattern}' was shown")
            time.sleep(0.05)

    def end(self, seconds, accepted=(0,)):
        try:
            if self.process.wait(seconds) not in accepted:
                self.fault(f"exit status {self.process.returncode}")
        except subprocess.TimeoutExpired:
            os.killpg(self.process.pid, signal.SIGKILL)
            self.fault(f"still runs after {seconds} s")

    def interrupt(self, accepted=(0,)):
        os.killpg(self.process.pid, signal.SIGINT)
        self.end(10, accepted)
        if not self.text():
            self.fault("no output")

    def runs_for(self, seconds):
        try:
            return self.process.wait(seconds) is None
        except subprocess.TimeoutExpired:
            return True

    def fault(self, what):
        faults.append(f"{self.name}: {what}\n{self.text()[-2000:]}")


def finish(*kinds):
    for kind in kinds:
        if command := running.pop(kind, None):
            if command.runs_for(0):
                command.interrupt()
            else:
                command.fault(f"ended by itself with {command.process.returncode}")


def type_in(where, text):
    is_help = re.search(r"--(help|version)\b", text)
    for pattern, (kind, default) in NEEDS.items():
        if re.search(pattern, text) and not is_help and kind not in running:
            type_in(where, default)
    if re.match("scripts/", text):  # the script's own server needs the port
        finish(*FIRST_OUTPUT)
    kind = next((k for k in FIRST_OUTPUT if re.search(k, text) and "--seconds" not in text and not is_help), None)
    if kind:
        finish(kind)
        running[kind] = Command(where, text)
        return running[kind].says(FIRST_OUTPUT[kind])
    command = Command(where, text)
    # `explain` exits with 1 if it finds a fault, and a busy computer is one.
    accepted = (0, 1) if re.search("tavistro-monitor explain", text) else (0,)
    if "tavistro-monitor" in text and command.runs_for(4):
        command.interrupt(accepted)
    else:
        command.end(60, accepted)


def run_page(path):
    global ran
    text = path.read_text()
    blocks = [(block, [line for line in re.sub(r"\\\n\s*", "", "\n".join(block.lines)).splitlines()
                       if line.strip() and not line.startswith("#")]) for block in blocks_of(text)]
    if text.count("<!-- not run") != sum(block.not_run is not None for block, _ in blocks):
        faults.append(f"{path.name}: a mark 'not run' that is not above a block")
    for block, lines in blocks:
        if block.language not in SHELLS and (block.language or not lines or not PROGRAM.match(lines[0])):
            continue
        for line in (re.sub(r"\s+#.*", "", line) for line in lines):
            if NO_COMMAND.search(line):
                faults.append(f"{path.name}: cannot be pasted: {line}")
            elif block.not_run and line.startswith(block.only):
                skipped.append(f"{path.name}: {line}  ({block.not_run})")
            elif CHANGES_THE_COMPUTER.search(line):
                faults.append(f"{path.name}: needs the mark 'not run': {line}")
            else:
                type_in(path.name, line)
                ran += 1
    finish(*reversed(FIRST_OUTPUT))


with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as free:
    try:
        free.bind(("", 28010))
    except OSError:
        sys.exit("UDP port 28010, the one of the examples, is in use")
for page in [root / "README.md", *sorted((root / "docs").glob("*.md"))]:
    with tempfile.TemporaryDirectory() as temporary:
        folder = pathlib.Path(temporary)
        (folder / "build").mkdir()
        (folder / "build/release").symlink_to(build)
        (folder / "examples").symlink_to(root / "examples")
        (folder / "scripts").mkdir()
        for script in (root / "scripts").iterdir():  # which find the sources by their own path
            (folder / "scripts" / script.name).write_text(f'#!/bin/sh\nexec "{script}" "$@"\n')
            (folder / "scripts" / script.name).chmod(0o755)
        run_page(page)
print(f"{ran} commands were run, {len(skipped)} were not:", *skipped, sep="\n  ")
if ran < 10:
    faults.append(f"only {ran} commands were found to run")
print(*faults, sep="\n")
sys.exit(bool(faults))
