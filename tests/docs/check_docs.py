"""usage: check_docs.py SOURCE_FOLDER BUILD_FOLDER: links of the documents lead somewhere, the commands in
them exist and know the options given, and docs/hosting.md has every code of the engine's header with its number
and the text that the tools print, and docs/monitor-api.md every total of the monitor. With one folder,
that of installed documents: their links lead somewhere."""
import functools
import pathlib
import re
import subprocess
import sys

from blocks import blocks_of

root, *build = (pathlib.Path(path).resolve() for path in sys.argv[1:3])
sys.path.append(str(root / "bindings"))
faults, commands_checked = [], 0


@functools.cache
def help_of(*words):
    return subprocess.run([build[0] / words[0], *words[1:], "--help"], capture_output=True, text=True, timeout=20).stdout


def anchors_of(file):
    headings = re.findall(r"^#+ (.*)$", file.read_text(), re.M)
    return [re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings]


def check_command(path, command):
    words = command.split()
    if words[0] in ("cmake", "ctest"):
        presets, known = re.findall(r"--preset (\w+)", command), (root / "CMakePresets.json").read_text()
        faults.extend(f"{path.name}: no preset {p}" for p in presets if f'"name": "{p}"' not in known)
    elif words[0].startswith(("scripts/", "tests/")):
        faults.extend([f"{path.name}: no script in '{command}'"] * (not (root / words[0]).exists()))
    else:
        tool, *rest = pathlib.PurePosixPath(words[0]).name, *words[1:2]
        subcommand = [w for w in rest if w.isalpha() and re.search(rf"^  {w} ", help_of(tool), re.M)]
        known = help_of(tool) + help_of(tool, *subcommand) + " --help"
        for option in re.findall(r"(?<=\s)(--[a-z][a-z-]+|-[a-z]\b)", command):
            if not re.search(rf"(?<![\w-]){option}(?![\w-])", known):
                faults.append(f"{path.name}: no option {option} in '{command}'")


def check_codes():
    import headers
    header = (root / "include/tavistro/engine.h").read_text()
    numbers = dict(re.findall(r"^    (TAVISTRO_[A-Z_]+) = (\d+)", header, re.M))
    texts = headers.texts_of_codes(root, numbers)
    expected = {f"| `{code}` | {number} | {texts.get(code)} |" for code, number in numbers.items()}
    shown = re.findall(r"^(\| `TAVISTRO_\w+` \|[^|]*\|[^|]*\|)", (root / "docs/hosting.md").read_text(), re.M)
    faults.extend(f"hosting.md lacks: {row}" for row in sorted(expected - set(shown)))
    faults.extend(f"hosting.md has: {row}" for row in sorted(set(shown) - expected))
    if len(numbers) < 80:
        faults.append(f"only {len(numbers)} codes were found")


def check_totals():
    listed = re.findall(r'^(\w+)\((\w+), "([^"]*)"\)', (root / "tools/monitor/totals.def").read_text(), re.M)
    names = {name: f"`{name}`" for _, name, _ in listed}
    names |= {name: ", ".join(f"`{name}_{what}`" for what in ("count", "seconds", "drop_outs"))
              for kind, name, _ in listed if kind == "TROUBLE"}
    page = (root / "docs/monitor-api.md").read_text()
    rows = [f"| {names[name]} | {text} |" for _, name, text in listed]
    faults.extend(f"monitor-api.md lacks: {row}" for row in rows if row not in page)


for path in [*root.glob("*.md"), *(root / "docs").rglob("*.md")]:
    text = path.read_text()
    for target in re.findall(r"\]\((?!https?:)([^)\s]+)\)", text):
        name, _, fragment = target.partition("#")
        file = path.parent / name if name else path
        if not file.exists() or fragment and fragment not in anchors_of(file):
            faults.append(f"{path.name}: nothing at {target}")
    lines = [line for block in blocks_of(text) for line in block.lines] + re.findall(r"`([^`\n]+)`", text)
    for line in lines if build else []:
        command = re.split(r" {2,}|[#;|>&]", line.strip(), maxsplit=1)[0]
        if re.match(r"scripts/|tests/\S+/run|(build/\w+/)?tavistro-(server|host|monitor)\b(?![(.@])|cmake --preset|ctest ",
                    command):
            check_command(path, command)
            commands_checked += 1
if build:
    check_codes()
    check_totals()
    if commands_checked < 50:
        faults.append(f"only {commands_checked} commands were found")
print("\n".join(faults))
sys.exit(bool(faults))
