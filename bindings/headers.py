"""What the engine's C headers declare: enumerations, records with the offset of each field, and the tools' texts."""
import dataclasses
import pathlib
import re

SIZES = {"char": 1, "uint32_t": 4, "int32_t": 4, "uint64_t": 8}


@dataclasses.dataclass
class Code:
    name: str  # TAVISTRO_STATE_IDLE
    number: int
    comment: str
    text: str


@dataclasses.dataclass
class Field:
    name: str
    type: str  # uint32_t, or the name of a record
    count: int  # entries of an array, 1 for others
    offset: int
    comment: str
    codes: str  # the enumeration of its values, such as tavistro_state_code, or ""


@dataclasses.dataclass
class Headers:
    enums: dict[str, list[Code]]
    records: dict[str, list[Field]]
    sizes: dict[str, int]  # bytes of each record
    constants: dict[str, int]
    bounds: list[int]  # of the histogram buckets


def one_line(comment):
    return " ".join(re.sub(r"^\s*\*", "", comment, flags=re.M).split())


def texts_of_codes(root, codes):
    """What tools/readings/texts.cpp has for each code: a table by codes, or a list by their order."""
    source = (root / "tools/readings/texts.cpp").read_text()
    literals = r'((?:"[^"]*"\s*)+)'
    texts = {}
    for name, table in re.findall(r"constexpr CodeText (\w+)\[\] = \{(.*?)\n\};", source, re.S):
        if name != "advice":
            texts |= re.findall(r"\{(TAVISTRO_\w+),\s*" + literals + r"\}", table)
    for kind, name in ("STATE", "states"), ("LEVEL", "levels"), ("CATEGORY", "categories"):
        listed = re.search(rf"constexpr std::string_view {name}\[\] = \{{(.*?)\}};", source, re.S)[1]
        named = [code for code in codes if code.startswith(f"TAVISTRO_{kind}_")]
        texts |= zip(named, re.findall(r'"[^"]*"', listed), strict=True)
    return {code: "".join(re.findall(r'"([^"]*)"', text)) for code, text in texts.items()}


def read(root: pathlib.Path) -> Headers:
    source = "".join((root / "include/tavistro" / name).read_text() for name in ("engine.h", "stats_block.h"))
    constants = {name: int(value) for name, value in re.findall(r"^#define TAVISTRO_(\w+) (\d+)u$", source, re.M)}
    bounds = re.search(r"BOUNDS_US \\\s*\{([^}]*)\}", source)[1]
    headers = Headers({}, {}, dict(SIZES), constants, [int(number) for number in re.findall(r"\d+", bounds)])
    bodies = re.findall(r"enum (\w+) \{(.*?)\n\};", source, re.S)
    texts = texts_of_codes(root, re.findall(r"TAVISTRO_\w+(?= = )", "".join(body for _, body in bodies)))
    for enum, body in bodies:
        codes = re.findall(r"(TAVISTRO_\w+) = (\d+),?[ ]*(?:/\*(.*?)\*/)?", body)
        headers.enums[enum] = [Code(name, int(number), one_line(comment), texts.get(name, ""))
                               for name, number, comment in codes]
    for body, record in re.findall(r"typedef struct \w+ \{(.*?)\n\} (\w+);", source, re.S):
        end, fields = 0, []
        for kind, name, length, comment in re.findall(
                r"(\w+) (\w+)(?:\[TAVISTRO_(\w+)\]|\[4\])?;[ ]*(?:/\*(.*?)\*/)?", body, re.S):
            count = 4 if name == "magic" else constants[length] if length else 1
            alignment = min(headers.sizes[kind], 8)
            offset = -(-end // alignment) * alignment
            codes = re.search(r"tavistro_\w+", comment)
            fields.append(Field(name, kind, count, offset, one_line(comment), codes[0] if codes else ""))
            end = offset + headers.sizes[kind] * count
        headers.records[record], headers.sizes[record] = fields, end
    check_layout(headers, source)
    return headers


def check_layout(headers, source):
    """The C compiler holds the headers to the numbers in their assertions."""
    stats = "tavistro_stats_block"
    stated = re.findall(r"ASSERT_OFFSET\((?:(tavistro_\w+), )?(\w+), (\d+)\);", source)
    for record, name, offset in stated:
        (field,) = [field for field in headers.records[record or stats] if field.name == name]
        assert field.offset == int(offset), field
    sizes = re.findall(r"sizeof\((\w+)\) == (\w+)\)", source)
    for record, size in sizes:
        assert headers.sizes[record] == int(headers.constants.get(size.removeprefix("TAVISTRO_"), 0) or size), record
    assert len(stated) > 60 and len(sizes) == 4
