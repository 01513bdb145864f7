"""Writes many mutants into one source file, each behind a switch of its own.

    return a < b;   becomes   { if (ovel_mutants::is(7)) { return a <= b; } else { return a < b; } }

So one build serves all mutants. What is switched is a statement, a condition, an initialiser or an
argument: the smallest of these that contains the mutation and that the text alone shows to be one.
Constant expressions, immediate functions and initialisers outside of functions offer none; the compiler
finds the rest that cannot be switched.
"""
import re

from mutations import blanked, code_of

_CLOSING = {")": "(", "]": "[", "}": "{"}
_OPENING = {"(": ")", "[": "]", "{": "}"}
_FIXED = re.compile(r"\b(?:constexpr|constinit|consteval|static_assert|alignas|enum|template|decltype|using)\b")
_CONTROL = re.compile(r"(?:\} )?else\b(?: \[\[\w+\]\])?|do\b|(?:if|if constexpr|while|for|switch) (?=\()|\[\[\w+\]\]|"
                      r"case [^;]*?:(?!:)|\w+:(?!:)")
_DECLARATION = re.compile(r"(?:static |inline |auto |const |unsigned )*[\w:]+(?:<[^;=]*>)?[\w:<>&*, ]*[ &*]"
                          r"(?:\w+|\[[\w, ]+\])(?:\[\w*\])*$")


class Source:
    def __init__(self, lines):
        self.text = blanked("\n".join(lines), literals=False)
        self.code = "\n".join(code.ljust(len(line)) for code, line in zip(code_of(lines), lines))
        self.starts = [0]
        for line in lines:
            self.starts.append(self.starts[-1] + len(line) + 1)

    # Where the bracket at `index` has its partner, in the direction of `step`.
    def _partner(self, index, step):
        partners = _OPENING if step > 0 else _CLOSING
        depth = 0
        while 0 <= index < len(self.code):
            if self.code[index] in partners:
                depth += 1
            elif self.code[index] in partners.values():
                depth -= 1
                if depth == 0:
                    return index
            index += step
        return -1

    def _line_after(self, index):
        return self.code[index + 1:(self.code + "\n").index("\n", index)].strip()

    # Whether the brace at `index` opens a block rather than an initialiser.
    def _opens_block(self, index):
        before = self.code[:index].rstrip()
        return not self._line_after(index) or bool(re.search(
            r"[;{})\]]$|\b(?:else|do|try|const|noexcept|mutable)$", before))

    # The first column of the statement around `position`, and the brackets between, innermost first.
    def _statement(self, position):
        brackets = []
        index = position - 1
        while index >= 0:
            char = self.code[index]
            if char in ")]" or char == "}" and not re.match(r"$|else\b|while\b|catch\b",
                                                            self._line_after(index)):
                index = self._partner(index, -1)
                if index < 0:
                    return -1, brackets
            elif char in ";}" or char == "{" and self._opens_block(index):
                line = self.code.rfind("\n", 0, index) + 1
                head = re.search(r"\bfor (\()", self.code[line:index])
                if char != ";" or not head or self._partner(line + head.start(1), 1) < position:
                    break
            elif char in "([{":
                brackets.append(index)
            index -= 1
        start = index + 1
        while True:
            start += len(self.code[start:]) - len(self.code[start:].lstrip())
            control = _CONTROL.match(self.code, start)
            if not control:
                return start, brackets
            end = control.end()
            if self.code[end] == "(":
                if end in brackets:
                    return start, brackets
                end = self._partner(end, 1) + 1
            if end > position:
                return start, brackets
            start = end

    # What stands before each brace that is open at `index`, the innermost first.
    def _heads(self, index):
        index -= 1
        while index >= 0:
            if self.code[index] == "{":
                yield re.split(r"[;{}]", self.code[:index])[-1]
            index = self._partner(index, -1) - 1 if self.code[index] in _CLOSING else index - 1

    # Whether a variable declared at `index` is a function's or an object's. A switch would have others
    # initialised at run time, maybe after their first use.
    def _is_local(self, index):
        head = next(self._heads(index), "namespace")
        return not re.search(r"\b(?:namespace|union|extern)\b", head) and not (
            re.search(r"\b(?:class|struct)\b", head) and self.code.startswith("static ", index))

    # The end of the statement that starts at `start`, or -1 if it is none that ends in a semicolon.
    def _end(self, start):
        index = start
        while 0 <= index < len(self.code):
            char = self.code[index]
            if char == ";":
                return index + 1
            if char in ")]}":
                return -1
            if char in _OPENING:
                index = self._partner(index, 1)
                after = self.code[index + 1:index + 40].lstrip()
                if index < 0 or char == "{" and not re.match(r"[;,.)(+*/<>=|&?:-]", after):
                    return -1
            index += 1
        return -1

    # The parts of a bracket's contents between separators, as (start, end).
    def _parts(self, opening, separator):
        closing = self._partner(opening, 1)
        parts = []
        start = index = opening + 1
        while index < closing:
            if self.code[index] in _OPENING:
                index = self._partner(index, 1)
            elif self.code[index] == separator:
                parts.append((start, index))
                start = index + 1
            index += 1
        return parts + [(start, closing)]

    def _argument(self, position, brackets):
        if not brackets or self.code[brackets[0]] == "[":
            return None
        for start, end in self._parts(brackets[0], ","):
            if start <= position < end:
                default = self.code.find(" = ", start, end)
                return (default + 3 if default != -1 else start), end, "expression"
        return None

    def _region(self, first, end):
        start, brackets = self._statement(first)
        if start < 0 or _FIXED.search(self.code[start:first]):
            return None
        control = re.match(r"(?:\} )?(?:else )?(if|while|for|switch) (?:\[\[\w+\]\] )?(\()", self.code[start:])
        if control and start + control.start(2) in brackets + [first]:
            opening = start + control.start(2)
            parts = self._parts(opening, ";")
            if control.group(1) in ("if", "while"):
                simple = len(parts) == 1 and not re.search(r"[^=!<>]= ", self.code[slice(*parts[0])])
                return (*parts[0], "condition") if simple and first > opening else (
                    (opening, self._partner(opening, 1) + 1, "condition") if simple else None)
            if control.group(1) == "for" and len(parts) == 3:
                for number, (part, part_end) in enumerate(parts):
                    if part <= first < part_end:
                        if number == 0:
                            assigned = self.code.find(" = ", part, part_end)
                            return (assigned + 3, part_end, "expression") if part < assigned < first else None
                        return part, part_end, "condition" if number == 1 else "step"
            return self._argument(first, brackets[:-1])
        stop = self._end(start)
        if stop < end:
            return self._argument(first, brackets)
        statement = self.code[start:stop]
        if re.match(r"(?:return|throw|delete)\b", statement):
            return start, stop, "statement"
        assigned = re.search(r" = ", statement)
        if assigned and _DECLARATION.match(statement[:assigned.start()]):
            # The compiler evaluates what initialises a static variable if it can.
            if not self._is_local(start) or statement.startswith("static "):
                return None
            begin = start + assigned.end()
            if self.code[begin] == "{" or first < begin:
                return self._argument(first, brackets)
            return begin, stop - 1, "expression"
        if re.match(r"[\w:]+(?:<[^;=]*>)?(?: const)?[ &*]+\w+[({;]", statement):
            return self._argument(first, brackets)
        return start, stop, "statement"

    # (start, end, form) of what is switched for a mutation, or None.
    def region_of(self, line, mutation):
        kind, first, end, _ = mutation
        first += self.starts[line]
        end += self.starts[line]
        if any("consteval" in head for head in self._heads(first)):
            return None
        if kind in ("return", "else"):
            constant = re.search(r"\bconst(?:expr|eval)\b", self.code[self.starts[line]:first])
            return None if constant else (first, end, kind)
        return self._region(first, end)

    # Whether the compiler may evaluate the mutation's place, where a switch has no effect.
    def may_be_constant(self, line, mutation):
        return any("constexpr" in head for head in self._heads(self.starts[line] + mutation[1]))


# The text of the file with the mutants [(number, line, mutation, region)] in it. Lines keep their
# numbers.
def switched(source, mutants):
    by_region = {}
    for number, line, mutation, region in mutants:
        by_region.setdefault(region, []).append((number, line, mutation))
    text = source.text
    for (start, end, form), group in sorted(by_region.items(), reverse=True):
        original = text[start:end]
        result = {"condition": f"bool({original})", "expression": f"({original})",
                  "step": f"void(({original}))", "statement": f"{{ {original} }}"}.get(form, "")
        for number, line, (_, first, last, replacement) in group:
            first += source.starts[line] - start
            last += source.starts[line] - start
            mutant = (original[:first] + replacement + original[last:]).replace("\n", " ")
            chosen = f"ovel_mutants::is({number})"
            if form == "return":
                result = f" if ({chosen}){replacement}"
            elif form == "else":
                result = replacement.replace("false", f"!{chosen}")
            elif form == "statement":
                result = f"{{ if ({chosen}) {{ {mutant} }} else {result} }}"
            else:
                cast = {"condition": "bool(", "expression": "(", "step": "void(("}[form]
                result = f"({chosen} ? {cast}{mutant}{')' * cast.count('(')} : {result})"
        text = text[:start] + result + text[end:]
    return text
