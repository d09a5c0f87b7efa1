#!/usr/bin/env python3
"""calls.py DATE VERSION FOLDER EXAMPLE HEADER...: writes FOLDER/CALL.3.gz for each call of the
headers.

A header is read as blocks between empty lines. A block that declares calls begins with the comment
that documents them. Its page shows the types and constants that stand right above it or that it
names, the declarations, the comment, the codes that it names, and the function of the example that
calls it.
"""

import gzip
import pathlib
import re
import sys

NAME = r"\b(?:BC[A-Z]\w*|BLOBRING_\w+|BlobringHost\w+|FilterException)\b"
ERRORS = "BLOBRING_ERROR_"  # shown by BCLastErrorCode alone
BLOCK = re.compile(r"\s*(?:/\*(?P<comment>.*?)\*/\n)?(?P<code>.*)", re.DOTALL)


def escaped(line: str) -> str:
    line = line.replace("\\", "\\e").replace("-", "\\-")
    return "\\&" + line if line[:1] in (".", "'") else line


def marked(line: str) -> str:
    """Names in bold, arguments, which the header has in backticks, in italics."""
    line = re.sub(NAME, r"\\%\\fB\g<0>\\fP", escaped(line))
    return re.sub("`([^`]+)`", r"\\fI\1\\fP", line)


def lines_of(comment: str) -> list[str]:
    return [re.sub(r"^ ?\* ?", "", line).rstrip() for line in comment.strip().split("\n")]


def description(lines: list[str]) -> list[str]:
    """Indented lines are a list if they begin with a dash, and a table otherwise."""
    page, kind = [], "text"
    for line in lines:
        before = kind
        if not line.startswith("  "):
            kind = "text"
        elif line.startswith("  - "):
            kind = "list"
        elif kind == "text":
            kind = "table"
        if "table" in (before, kind) and before != kind:
            page.append(".nf" if kind == "table" else ".fi")
        if line.startswith("  - "):
            page.append(f".IP \\(bu 2\n{marked(line[4:])}")
        elif not line or (kind == "text" and before != kind):
            page += [".PP"] + [marked(line)] * bool(line)
        else:
            page.append(marked(line[2:] if kind == "table" else line.strip()))
    return page


def returns(lines: list[str]) -> tuple[list[str], list[str]]:
    """Takes what is said of the result, from "Returns" to the end of the paragraph, out."""
    text = "\n".join(lines)
    found = re.search(r"(?:^|(?<=[.:]) |(?<=[.:])\n|(?<=\n))(Returns? .*?)(?=\n\n|\n  |\Z)", text, re.DOTALL)
    if not found:
        return lines, []
    return (text[: found.start()] + text[found.end() :]).split("\n"), found[1].split("\n")


def calling(example: str, calls: list[str]) -> str:
    """Returns the first function of the example that makes one of the calls, with its comment."""
    comment = r"(?:^/\*(?:(?!\*/).)*\*/\n)?"
    functions = re.findall(comment + r"^(?:static|int) [^;\n]*\{\n.*?^\}$", example, re.DOTALL | re.MULTILINE)
    return next((text for text in functions if any(f"{call}(" in text for call in calls)), "")


def summary(lines: list[str]) -> str:
    sentence = re.split(r"[.:;](?:\s|$)", " ".join(lines))[0].replace("`", "")
    return escaped(sentence[0].lower() + sentence[1:])


def declarations(code: str) -> list[str]:
    mark = "BLOBRING_API "
    indent = re.compile(f"^(?:{mark}|{' ' * len(mark)})", re.MULTILINE)
    return indent.sub("", code[: code.rindex(";") + 1]).split("\n")


def page(title: str, header: pathlib.Path, calls: list[str], shown: list[str], block: re.Match[str],
         known: set[str], codes: dict[str, str], example: str) -> str:
    lines = lines_of(block["comment"])
    named = set(re.findall(NAME, block["comment"])) | {"BCLastError", "BCLastErrorCode"}
    described, result = returns(lines)
    text = [
        f'.TH {calls[0].upper()} 3 {title} "Library Functions Manual"',
        f".SH NAME\n{', '.join(calls)} \\- {summary(lines)}",
        ".SH LIBRARY\nBlobring\n.RI ( libblobring \", \" \\-lblobring )",
        f".SH SYNOPSIS\n.nf\n.B #include <blobring/{header.name}>",
    ]
    for definition in shown:
        text += [".PP", *map(escaped, definition.strip("\n").split("\n"))]
    text += [".PP", *(f"\\fB{escaped(line)}\\fP" for line in declarations(block["code"])), ".fi"]
    if any(described):
        text += [".SH DESCRIPTION", *description(described)]
    if result:
        text += [".SH RETURN VALUE", *map(marked, result)]
    text += [".SH ERRORS", "The text of a failure is that of \\fBBCLastError\\fP(3), its code that of",
             "\\fBBCLastErrorCode\\fP(3)."]
    for code in sorted(named & codes.keys()):
        text += [f".TP\n\\fB{code}\\fP", escaped(codes[code])]
    if function := calling(example, calls):
        text += [".SH EXAMPLES", "From", ".IR /usr/share/doc/libblobring\\-dev/examples/blobs.c :", ".PP",
                 ".nf", *map(escaped, function.split("\n")), ".fi"]
    text += [".SH SEE ALSO"]
    also = sorted(named & known - set(calls)) + ["blobring"]
    text += [f".BR {call} (3){',' if call != also[-1] else ''}" for call in also]
    return "\n".join(text) + "\n"


def main() -> None:
    date, version, folder = sys.argv[1], sys.argv[2], pathlib.Path(sys.argv[3])
    example = pathlib.Path(sys.argv[4]).read_text()
    pages: list[tuple[pathlib.Path, list[str], list[str], re.Match[str]]] = []
    definitions: dict[str, str] = {}  # the block that defines a name
    codes: dict[str, str] = {}  # what a code stands for
    for header in map(pathlib.Path, sys.argv[5:]):
        above: list[str] = []
        for text in header.read_text().split("\n\n"):
            block = BLOCK.match(text)
            assert block
            calls = re.findall(r"^BLOBRING_API [^;]*?(\w+)\(", block["code"], re.MULTILINE)
            if calls:
                if not block["comment"]:
                    sys.exit(f"{header}: {calls[0]} has no comment")
                pages.append((header, calls, above, block))
                above = []
            elif block["code"].startswith(("#define BLOBRING_", "typedef ")):
                if above and "/*" not in above[-1]:  # constants of the type below them
                    text = above.pop() + "\n\n" + text
                above = above + [text]
                named = re.findall(rf"^(?:#define|typedef \w+) ({NAME})", text, re.MULTILINE)
                definitions |= dict.fromkeys(named, text)
            else:
                above = []
            codes |= re.findall(rf"^#define ({ERRORS}\w+) +\d+ +/\* (.*) \*/", text, re.MULTILINE)

    known = {call for _, calls, _, _ in pages for call in calls}
    folder.mkdir(parents=True, exist_ok=True)
    for header, calls, above, block in pages:
        named = [name for name in re.findall(NAME, block[0]) if not name.startswith(ERRORS)]
        wanted = above + [definitions[name] for name in named if name in definitions]
        shown = [text for text in dict.fromkeys(definitions.values()) if text in wanted]
        text = page(f'"{date}" "Blobring {version}"', header, calls, shown, block, known, codes, example)
        target = folder / f"{calls[0]}.3.gz"
        target.write_bytes(gzip.compress(text.encode(), 9, mtime=0))
        for call in calls[1:]:
            (folder / f"{call}.3.gz").symlink_to(target.name)


if __name__ == "__main__":
    main()
