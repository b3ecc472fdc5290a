"""usage: generate.py SOURCE_FOLDER OUTPUT_FOLDER: writes the records and codes of the C headers as Python
(_records.py) and C# (Records.cs)."""
import pathlib
import re
import sys

import headers

# Names in both languages; further records and enumerations have none.
ENUMS = {
    "tavistro_state_code": "StateCode", "tavistro_status_level": "StatusLevel",
    "tavistro_status_category": "StatusCategory", "tavistro_error_code": "ErrorCode",
    "tavistro_event_kind": "EventKind", "tavistro_message_id": "MessageId",
}
RECORDS = {
    "tavistro_engine_event": ("EngineEvent", "One entry of the event history."),
    "tavistro_channel_meter": ("ChannelMeter", "Peak meter of one channel."),
    "tavistro_engine_state": ("EngineState", "The state record of an engine."),
    "tavistro_stats_block": ("Statistics", "The statistics block of an engine."),
}
# Fields that describe the record itself; a list has its count.
LEFT_OUT = {"version", "event_count", "event_capacity", "input_meter_count", "output_meter_count", "magic",
            "layout_version", "reserved"}
COUNTS = {"events": "event_count", "input_meters": "input_meter_count", "output_meters": "output_meter_count"}
VERSIONS = {"tavistro_engine_state": "STATE_RECORD_VERSION", "tavistro_stats_block": "STATS_LAYOUT_VERSION"}


def pascal(name):
    return "".join(part.capitalize() for part in name.split("_"))


def code_name(enum, codes, code):
    """IDLE of TAVISTRO_STATE_IDLE."""
    prefix = "TAVISTRO_" + {"StateCode": "STATE", "StatusLevel": "LEVEL", "StatusCategory": "CATEGORY",
                            "ErrorCode": "ERROR", "EventKind": "EVENT", "MessageId": "MESSAGE"}[enum] + "_"
    assert all(one.name.startswith(prefix) for one in codes), enum
    return code.name.removeprefix(prefix)


def shown(fields):
    return [field for field in fields if field.name not in LEFT_OUT]


def sentence(comment):
    comment = re.sub(r"^tavistro_\w+( of engine.h)?( that)?", "", comment).strip()  # the type says so
    return comment[:1].upper() + comment[1:].rstrip(".") + "." if comment else ""


def python(declared):
    yield '"""Records and codes of the engine, made from its C headers."""'
    yield "from __future__ import annotations\n\nimport dataclasses\nimport struct\n\nfrom ._code import Code\n"
    for record, version in VERSIONS.items():
        yield f"{version} = {declared.constants[version]}"
        yield f"{RECORDS[record][0].upper()}_BYTES = {declared.sizes[record]}"
    yield f"HISTOGRAM_BOUNDS_US = {tuple(declared.bounds)}\n"
    for enum, name in ENUMS.items():
        codes = declared.enums[enum]
        yield f"\nclass {name}(Code):"
        for code in codes:
            yield f"    {code_name(name, codes, code)} = {code.number}, {code.text!r}"
            if code.comment:
                yield f'    """{sentence(code.comment)}"""'
        yield ""
    for record, (name, summary) in RECORDS.items():
        fields = declared.records[record]
        yield f'\n@dataclasses.dataclass(frozen=True)\nclass {name}:\n    """{summary}"""\n'
        for field in shown(fields):
            yield f"    {field.name}: {python_type(field)}"
            if text := sentence(field.comment):
                yield f'    """{text}"""'
        yield f"\n    @classmethod\n    def _read(cls, data: bytes, at: int = 0) -> {name}:"
        yield "        return cls("
        yield from (f"            {python_value(declared, fields, field)}," for field in shown(fields))
        yield "        )\n"


def python_type(field):
    if field.type in RECORDS:
        return f"tuple[{RECORDS[field.type][0]}, ...]"
    return "tuple[int, ...]" if field.count > 1 else ENUMS.get(field.codes, "int")


def python_value(declared, fields, field):
    if field.type in RECORDS:
        (count,) = [one.offset for one in fields if one.name == COUNTS[field.name]]
        name, size = RECORDS[field.type][0], declared.sizes[field.type]
        counted = f'min({field.count}, struct.unpack_from("<I", data, at + {count})[0])'
        return f"tuple({name}._read(data, at + {field.offset} + {size} * i) for i in range({counted}))"
    letter = {"uint32_t": "I", "int32_t": "i", "uint64_t": "Q"}[field.type]
    if field.count > 1:
        return f'struct.unpack_from("<{field.count}{letter}", data, at + {field.offset})'
    value = f'struct.unpack_from("<{letter}", data, at + {field.offset})[0]'
    return f"{ENUMS[field.codes]}({value})" if field.codes in ENUMS else value


def csharp(declared):
    yield "// Records and codes of the engine, made from its C headers."
    yield "using System;\nusing System.Collections.Generic;\n\nnamespace Tavistro\n{"
    for enum, name in ENUMS.items():
        codes = declared.enums[enum]
        yield f"    public enum {name} : uint\n    {{"
        for code in codes:
            yield f"        /// <summary>{sentence(code.text)} {sentence(code.comment)}".rstrip() + "</summary>"
            yield f"        {pascal(code_name(name, codes, code))} = {code.number},"
        yield "    }\n"
    yield "    /// <summary>What Tavistro's tools print for a code.</summary>\n    public static class CodeTexts\n    {"
    for enum, name in ENUMS.items():
        yield f"        public static string Text(this {name} code)\n        {{\n            switch ((uint)code)\n            {{"
        yield from (f'                case {code.number}: return "{code.text}";' for code in declared.enums[enum])
        yield '                default: return "code " + (uint)code;\n            }\n        }\n'
    yield "    }\n"
    for record, (name, summary) in RECORDS.items():
        fields = declared.records[record]
        yield f"    /// <summary>{summary}</summary>\n    public sealed class {name}\n    {{"
        yield f"        internal const int Bytes = {declared.sizes[record]};"
        if record in VERSIONS:
            yield f"        internal const int Version = {declared.constants[VERSIONS[record]]};"
        if record == "tavistro_stats_block":
            bounds = ", ".join(map(str, declared.bounds))
            yield "        /// <summary>Upper bounds of the histogram buckets in microseconds, inclusive.</summary>"
            yield f"        public static readonly IReadOnlyList<uint> HistogramBoundsUs = new uint[] {{ {bounds} }};"
        for field in shown(fields):
            if text := sentence(field.comment):
                yield f"        /// <summary>{text}</summary>"
            yield f"        public {csharp_type(field)} {pascal(field.name)} {{ get; }}"
        yield f"\n        internal {name}(byte[] data, int at = 0)\n        {{"
        yield from (f"            {pascal(field.name)} = {csharp_value(declared, fields, field)};" for field in shown(fields))
        yield "        }\n    }\n"
    yield "}"


CSHARP_TYPES = {"uint32_t": "uint", "int32_t": "int", "uint64_t": "ulong"}


def csharp_type(field):
    if field.type in RECORDS:
        return f"IReadOnlyList<{RECORDS[field.type][0]}>"
    kind = ENUMS.get(field.codes, CSHARP_TYPES[field.type])
    return f"IReadOnlyList<{kind}>" if field.count > 1 else kind


def csharp_value(declared, fields, field):
    def read(offset):
        reader = {"uint32_t": "ToUInt32", "int32_t": "ToInt32", "uint64_t": "ToUInt64"}[field.type]
        return f"BitConverter.{reader}(data, at + {offset})"
    if field.type in RECORDS:
        (count,) = [one.offset for one in fields if one.name == COUNTS[field.name]]
        name, size = RECORDS[field.type][0], declared.sizes[field.type]
        return (f"Lists.Of({field.count}, BitConverter.ToUInt32(data, at + {count}), "
                f"i => new {name}(data, at + {field.offset} + {size} * i))")
    if field.count > 1:
        return f"Lists.Of({field.count}, {field.count}, i => {read(f'{field.offset} + 4 * i')})"
    return f"({ENUMS[field.codes]}){read(field.offset)}" if field.codes in ENUMS else read(field.offset)


def main():
    source, output = map(pathlib.Path, sys.argv[1:])
    declared = headers.read(source)
    output.mkdir(parents=True, exist_ok=True)
    for file, lines in ("_records.py", python(declared)), ("Records.cs", csharp(declared)):
        (output / file).write_text("\n".join(lines) + "\n")


main()
