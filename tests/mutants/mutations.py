"""The small random changes that a mutant is made of.

A mutation replaces some columns of one line. Which ones a line offers follows from its text alone, so
that a seed names the same mutants on every machine that runs the same code. Comments, strings,
preprocessor lines and static assertions offer none.
"""
import re

_WORD = r"[A-Za-z_][A-Za-z0-9_]*"
_ARGUMENT = rf"[*&]?{_WORD}(?:(?:\.|->|::){_WORD})*|\d+"

# The project's formatter puts spaces around a binary operator and none around the angle brackets of a
# template or the ampersand of a type, so the spaces tell them apart.
_OPERATORS = [
    ("comparison", " == ", (" != ",)),
    ("comparison", " != ", (" == ",)),
    ("comparison", " < ", (" <= ", " >= ")),
    ("comparison", " <= ", (" < ", " > ")),
    ("comparison", " > ", (" >= ", " <= ")),
    ("comparison", " >= ", (" > ", " < ")),
    ("arithmetic", " + ", (" - ",)),
    ("arithmetic", " - ", (" + ",)),
    ("arithmetic", " * ", (" / ",)),
    ("arithmetic", " / ", (" * ",)),
    ("arithmetic", " % ", (" / ",)),
    ("arithmetic", " << ", (" >> ",)),
    ("arithmetic", " >> ", (" << ",)),
    ("arithmetic", " & ", (" | ",)),
    ("arithmetic", " | ", (" & ",)),
    ("arithmetic", " += ", (" -= ",)),
    ("arithmetic", " -= ", (" += ",)),
    ("condition", " && ", (" || ",)),
    ("condition", " || ", (" && ",)),
]
_STEPS = [("++", "--"), ("--", "++")]
_ORDER = re.compile(r"std::memory_order_(acquire|release|acq_rel|seq_cst)")
_DEFAULT_ORDER = re.compile(
    r"\.(?:load|store|exchange|fetch_add|fetch_sub|fetch_or|fetch_and|compare_exchange_strong|"
    r"compare_exchange_weak)\(([^()]*)\)")
_CONSTANT = re.compile(r"(?<![\w.])(?:0x[0-9a-fA-F]+|\d+)(?=u?\b)(?![\w.]*\.)")
_STATEMENT = re.compile(
    rf"^\s*(?:\+\+|--)?[*(]*{_WORD}[\w.>:()\[\]-]*(?:\(.*\)|\s[-+|&^]?=\s.*|\+\+|--)?;\s*$")
_NOT_A_STATEMENT = re.compile(
    r"^\s*(?:return|using|typedef|static|friend|template|namespace|class|struct|enum|extern|break|"
    r"continue|goto|throw|delete|new|default|case|const|constexpr|public|private|unsigned|int|bool|"
    r"void|auto|double|char)\b")
_SWAP = re.compile(rf"\(({_ARGUMENT}), ({_ARGUMENT})\)")
_FUNCTION = re.compile(r"^(?:    )?(?![\s#})])[^=;]*\)(?: const)?(?: noexcept)?(?: override)? \{$")
# Comments and literals. An apostrophe between digits separates them.
_NO_CODE = re.compile(
    r"//[^\n]*|/\*.*?\*/|\"(?:\\.|[^\"\\\n])*\"|(?<![0-9A-Za-z])'(?:\\.|[^'\\\n])*'", re.DOTALL)
_BLOCK = re.compile(rf"\b(?:if|for|while|switch|catch|else|do|try|namespace|struct|class|enum)\b|\] ?\(|\]\(")


def blanked(text, literals=True):
    """The text with its comments, and its literals too, blanked out."""
    return _NO_CODE.sub(lambda found: re.sub(r"[^\n]", " ", found.group())
                        if literals or found.group().startswith("/") else found.group(), text)


def code_of(lines):
    """The lines with comments, string and character literals and the lines that offer nothing blanked
    out, column by column."""
    text = blanked("\n".join(lines))
    result = []
    in_macro = False
    in_assertion = False
    for line, code in zip(lines, text.split("\n")):
        macro = in_macro or code.lstrip().startswith("#")
        in_macro = macro and line.endswith("\\")
        assertion = in_assertion or "static_assert" in code or "tls_model" in code
        in_assertion = assertion and ";" not in code
        result.append("" if macro or assertion else code.rstrip())
    return result


def _matching(text, start):
    """Where the parenthesis that opens at `start` closes on this line, or -1."""
    depth = 0
    for index in range(start, len(text)):
        depth += {"(": 1, ")": -1}.get(text[index], 0)
        if depth == 0:
            return index
    return -1


def mutations_of(code, following):
    """All mutations of a line: (kind, first column, end column, replacement). `following` is the code of
    the next line."""
    found = []
    for kind, operator, others in _OPERATORS:
        at = code.find(operator)
        while at != -1:
            found += [(kind, at, at + len(operator), other) for other in others]
            at = code.find(operator, at + 1)
    for step, other in _STEPS:
        for match in re.finditer(re.escape(step), code):
            found.append(("arithmetic", match.start(), match.end(), other))
    for match in _CONSTANT.finditer(code):
        value = int(match.group(), 0)
        found.append(("constant", match.start(), match.end(), str(value + 1)))
        if value > 0:
            found.append(("constant", match.start(), match.end(), str(value - 1)))
    for match in re.finditer(r"\b(?:if|while) (?:\[\[\w+\]\] )?(\()", code):
        opening = match.start(1)
        closing = _matching(code, opening)
        if closing != -1 and ";" not in code[opening:closing]:
            found.append(("negation", opening, closing + 1, f"(!{code[opening:closing + 1]})"))
    match = re.search(r"\belse if \(", code)
    if match:
        found.append(("else", match.end(), match.end(), "false && "))
    elif re.search(r"\belse\b", code):
        at = code.index("else") + 4
        found.append(("else", at, at, " if (false)"))
    for match in _ORDER.finditer(code):
        found.append(("order", match.start(), match.end(), "std::memory_order_relaxed"))
    for match in _DEFAULT_ORDER.finditer(code):
        if "memory_order" not in match.group(1):
            separator = ", " if match.group(1) else ""
            at = match.end(1)
            found.append(("order", at, at, f"{separator}std::memory_order_relaxed"))
    for match in _SWAP.finditer(code):
        if match.group(1) != match.group(2):
            found.append(("arguments", match.start(1), match.end(2),
                          f"{match.group(2)}, {match.group(1)}"))
    if (_STATEMENT.match(code) and not _NOT_A_STATEMENT.match(code)
            and code.count("(") == code.count(")")):
        start = len(code) - len(code.lstrip())
        found.append(("statement", start, len(code), "{}"))
    if _FUNCTION.match(code) and not _BLOCK.search(code) and following.strip() not in ("", "}"):
        void = re.search(r"\bvoid\b(?! ?\*)", code.split("(")[0])
        found.append(("return", len(code), len(code), " return;" if void else " return {};"))
    return found
