"""Finds the trace points in the sources: the numbers that are written out where something is reported.

Used by check-sources and trace-points. A trace point is a pair of a source name ("..\\\\source\\\\VoUtils" counts as VoUtils) and a
number; support looks reports up by it.
"""
import collections
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
FIXED = ROOT / "tools" / "trace-points.fixed"
ALLOWED = ROOT / "tools" / "trace-points.allow"

# `function` is None where the code passes one that the text does not show, and "" in a message, which has none.
Point = collections.namedtuple("Point", "source number function place")

STRINGS_AND_COMMENTS = re.compile(r'"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])+\'|//[^\n]*|/\*.*?\*/', re.S)
WIDE = r'L"((?:\\.|[^"\\])*)"'
CONSTANT = re.compile(
    r"constexpr\s+(?:const\s+(?:wchar_t|char)\s*\*\s*(?:const\s+)?|std::w?string_view\s+)(k\w*)\s*=\s*L?\"((?:\\.|[^\"\\])*)\"")
SOURCE = r'(?:k\w*|L"(?:\\.|[^"\\])*")'
# A reporter: a variable, or one made in place. Its second argument is the function's name.
MADE = re.compile(rf"CVoReporter\s*(?P<variable>\w*)\s*[({{]\s*(?P<source>{SOURCE})\s*,\s*(?P<function>[^;]*?)[)}}]", re.S)
USED = (
    r"(?:\b(?P<variable>{names})|CVoReporter\s*[({{][^;{{}}]*?[)}}])\s*"
    r"(?:\(|\.\s*(?P<call>CurrentException|Message|LastError|Win32|Guard)\s*\()\s*(?P<first>\d+)\s*(?:,\s*(?P<second>\d+)\s*[,)])?"
)
# A helper that the reporter is passed to, with the number behind it.
PASSED_ON = rf"\(\s*(?:\{{{{\s*(?P<source>{SOURCE})\s*,(?P<function>[^{{{{}}}}]*)\}}}}|(?P<variable>{{names}}))\s*,\s*(?P<number>\d+)\b(?:\s*,\s*(?P<second>\d+)\b)?"
# A helper that the function's name is passed to.
NAMED = re.compile(r'\(\s*L"(?P<function>[\w:~ ]+::[\w~ ]+)"\s*,\s*(?P<number>\d+)\b')
DIRECT = re.compile(
    rf"\b(?P<call>VoReportCode|VoReportMessage|WriteLine|WriteCode)\s*\(\s*(?P<source>{SOURCE})\s*,\s*(?P<number>\d+)\b"
    rf"(?:\s*,\s*(?P<function>[^,;]*))?")
# A reporter that picks one of two numbers.
EITHER = r"\b(?P<variable>{names})\(\s*[^;(){{}}]*\?\s*(?P<first>\d+)\s*:\s*(?P<second>\d+)\s*,"
# libcurl's options, set one after another with the number of each; the reporter is the nearest one called `report`.
OPTION = re.compile(r"\.\s*Set\s*\(\s*(?P<number>\d+)\s*,\s*CURLOPT_")
INCLUDE = re.compile(r'#\s*include\s*[<"]([^>"]+)[>"]')
# A constexpr table of a type ...TracePoints: .source names the source, .function the function of the numbers beside it.
TABLE = re.compile(r"constexpr\s+(?:\w+::)*\w*TracePoints\s+\w+\s*=?\s*\{")
TABLE_TOKEN = re.compile(r'\.(?P<field>\w+)\s*=\s*|L"(?P<text>(?:\\.|[^"\\])*)"|(?P<name>[A-Za-z_]\w*)|(?P<number>\d+)|(?P<brace>[{}])')


def without_comments(text):
    return STRINGS_AND_COMMENTS.sub(
        lambda m: re.sub(r"[^\n]", " ", m.group()) if m.group().startswith("/") else m.group(), text
    )


def literal(expression):
    """The text of a literal; None for any other expression."""
    match = re.match(rf"\s*{WIDE}\s*$", expression or "")
    return match[1] if match else None


def table_points(text, start, source_of):
    """(offset, source, number, function) of the table whose brace opens before `start`."""
    source, field, functions, found = None, None, [None], []
    for m in TABLE_TOKEN.finditer(text, start):
        if m["field"]:
            field = m["field"]
            continue
        if m["brace"] == "{":
            functions.append(functions[-1])
        elif m["brace"] == "}":
            functions.pop()
            if not functions:
                break
        elif field == "source" and (m["text"] is not None or m["name"]):
            source = source_of(m.group())
        elif field == "function" and m["text"] is not None:
            functions[-1] = m["text"]
        elif m["number"] and not (text[m.start() - 1].isalnum() or text[m.start() - 1] in "_."):
            found.append((m.start(), int(m["number"]), functions[-1]))
        field = None if m["brace"] is None else field
    return [(offset, source, number, function) for offset, number, function in found]


def included_constants(path):
    """The constants of the headers that lie beside the file, which may name its source."""
    constants = {}
    for name in INCLUDE.findall(path.read_text(encoding="utf-8")):
        header = path.parent / name
        if header.is_file():
            constants.update(CONSTANT.findall(without_comments(header.read_text(encoding="utf-8"))))
    return constants


def points_of_text(text, default, constants):
    """(offset, source, number, function) of every report in the text; `default` is the source of a file that names none."""
    own = dict(CONSTANT.findall(text))
    constants = {**constants, **own}
    sources = [value for name, value in own.items() if name.endswith("Source")]
    default = sources[0] if sources else constants.get("kSource", default)

    def source_of(word):
        if word.startswith("L"):
            return word[2:-1]
        return constants.get(word, default)

    made = [(m.start(), m["variable"], source_of(m["source"]), literal(m["function"])) for m in MADE.finditer(text)]

    def reporter(name, offset):
        # The nearest reporter of that name before; one that came as a parameter belongs to the file's own source.
        known = [(source, function) for start, variable, source, function in made if start <= offset and variable == (name or "")]
        return known[-1] if known else (default, None)

    names = "|".join({r"\w*[rR]eport\w*"} | {variable for _, variable, _, _ in made if variable})
    for m in re.finditer(USED.format(names=names), text):
        source, function = reporter(m["variable"], m.end())
        for number in {m["first"], m["second"] or m["first"]}:
            yield m.start(), source, int(number), "" if m["call"] == "Message" else function
    for m in re.finditer(PASSED_ON.format(names=names), text):
        source, function = (source_of(m["source"]), literal(m["function"])) if m["source"] else reporter(m["variable"], m.start())
        for number in {m["number"], m["second"] or m["number"]}:
            yield m.start(), source, int(number), function
    for m in re.finditer(EITHER.format(names=names), text):
        source, function = reporter(m["variable"], m.end())
        for number in (m["first"], m["second"]):
            yield m.start(), source, int(number), function
    for m in OPTION.finditer(text):
        source, function = reporter("report", m.start())
        yield m.start(), source, int(m["number"]), function
    for m in NAMED.finditer(text):
        yield m.start(), default, int(m["number"]), m["function"]
    for m in DIRECT.finditer(text):
        function = "" if m["call"] == "VoReportMessage" else literal(m["function"])
        yield m.start(), source_of(m["source"]), int(m["number"]), function
    for m in TABLE.finditer(text):
        for offset, source, number, function in table_points(text, m.end(), source_of):
            yield offset, source or default, number, function


def points_of_file(path):
    """Every trace point of a file, as a list of Point."""
    text = without_comments(path.read_text(encoding="utf-8"))
    name = str(path.relative_to(ROOT))
    points = []
    for offset, source, number, function in points_of_text(text, path.stem, included_constants(path)):
        line, column = text.count("\n", 0, offset) + 1, offset - text.rfind("\n", 0, offset)
        points.append(Point(re.split(r"\\+|/", source)[-1], number, function, f"{name}:{line}:{column}"))
    return points


def all_points():
    return [point for suffix in ("*.cpp", "*.h") for path in sorted((ROOT / "VoUtils").rglob(suffix))
            for point in points_of_file(path)]


def read_table(path, form, words):
    """The lines of a data file as tuples of `words` words, the last of which takes the rest of the line."""
    lines = []
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines() if path.exists() else [], 1):
        if not line.strip() or line.startswith("#"):
            continue
        parts = line.split(None, words - 1)
        if len(parts) != words or not parts[1].isdigit():
            sys.exit(f"{path.name}:{number}: not of the form {form}")
        lines.append((parts[0], int(parts[1]), *parts[2:]))
    return lines
