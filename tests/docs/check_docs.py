"""usage: check_docs.py SOURCE_FOLDER BUILD_FOLDER: links of the documents lead somewhere, the commands in
them exist and know the options given, and docs/hosting.md names every code of the engine's header.
With one folder, that of installed documents: their links lead somewhere."""
import pathlib
import re
import subprocess
import sys

root, *build = (pathlib.Path(path).resolve() for path in sys.argv[1:3])
faults = []
helps = {}


def anchor(heading):
    return re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-")


def help_of(tool):
    """The options of a tool and its subcommands, and the names of the subcommands."""
    if tool not in helps:
        def ask(*words):
            return subprocess.run([build[0] / tool, *words, "--help"], capture_output=True, text=True).stdout
        text = ask()
        commands = re.findall(r"^  (\w+) ", text.split("Subcommands:")[1], re.M) if "Subcommands:" in text else []
        options = re.findall(r"--[a-z][a-z-]+|(?<![\w-])-[a-z]\b", text + "".join(ask(c) for c in commands))
        helps[tool] = set(options) | {"--help"}, commands
    return helps[tool]


def check_links(path, text):
    for target in re.findall(r"\]\(([^)\s]+)\)", text):
        if target.startswith(("http:", "https:")):
            continue
        name, _, fragment = target.partition("#")
        file = (path.parent / name).resolve() if name else path
        if not file.exists():
            faults.append(f"{path.name}: no file {target}")
        elif fragment and fragment not in map(anchor, re.findall(r"^#+ (.*)$", file.read_text(), re.M)):
            faults.append(f"{path.name}: no heading {target}")


def check_command(path, command):
    words = command.split()
    if words[0].startswith(("scripts/", "tests/")):
        if not (root / words[0]).exists():
            faults.append(f"{path.name}: no script in '{command}'")
    elif words[0] in ("cmake", "ctest"):
        for preset in re.findall(r"--preset (\w+)", command):
            if f'"name": "{preset}"' not in (root / "CMakePresets.json").read_text():
                faults.append(f"{path.name}: no preset in '{command}'")
    else:
        tool = pathlib.PurePosixPath(words[0]).name
        options, commands = help_of(tool)
        given = re.findall(r"(?<=\s)(--[a-z][a-z-]+|-[a-z]\b)", command)
        faults.extend(f"{path.name}: no option {o} in '{command}'" for o in given if o not in options)
        if tool == "tavistro-host" and len(words) > 1 and words[1] not in (*commands, *options):
            faults.append(f"{path.name}: no subcommand in '{command}'")


commands_checked = 0
for path in [*root.glob("*.md"), *(root / "docs").glob("*.md")]:
    text = path.read_text()
    check_links(path, text)
    if not build:
        continue
    lines = re.findall(r"^ {4}(.*)$", text, re.M) + re.findall(r"`([^`\n]+)`", text)
    for line in lines:
        command = re.split(r" {2,}|[#;|>&]", line.strip(), maxsplit=1)[0]
        if re.match(r"(scripts/|tests/\S+/run|(build/\w+/)?tavistro-(server|host|monitor)\b(?!\(|\.)|cmake --preset|ctest )",
                    command):
            check_command(path, command)
            commands_checked += 1
if not build:
    print("\n".join(faults))
    sys.exit(1 if faults else 0)
codes = re.findall(r"^    (TAVISTRO_[A-Z_]+) = \d", (root / "include/tavistro/engine.h").read_text(), re.M)
hosting = (root / "docs/hosting.md").read_text()
faults.extend(f"hosting.md: nothing about {code}" for code in codes if f"`{code}`" not in hosting)
if commands_checked < 50 or len(codes) < 80:
    faults.append(f"only {commands_checked} commands and {len(codes)} codes were found")
print("\n".join(faults) or f"{commands_checked} commands, {len(codes)} codes: all there")
sys.exit(1 if faults else 0)
