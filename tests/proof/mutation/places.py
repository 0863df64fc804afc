"""The places of the daemon's sources that can be broken, one by one, and sources with a switch at each.

A place is a piece of text and what it is replaced by. Clang's library finds them. In a copy of the sources each place asks
mutant(NUMBER) whether it is the broken one, so that one build has them all; line numbers stay, as messages tell them. What
has to be known to the compiler (a constant, the size of an array) cannot ask: such a place is built by itself.
"""

import dataclasses
import os
import re

from clang import cindex

Kind = cindex.CursorKind

RELATIONS = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "=="}
LOGIC = {"&&": "||", "||": "&&"}
ARITHMETIC = {"+": "-", "-": "+", "*": "/", "/": "*", "%": "/", "<<": ">>", ">>": "<<", "&": "|", "|": "&", "^": "&"}
ASSIGNMENTS = {f"{one}=": f"{other}=" for one, other in ARITHMETIC.items()}
STEPS = {"++": "--", "--": "++"}
BOOLEANS = {"true": "false", "false": "true", "TRUE": "FALSE", "FALSE": "TRUE"}
KINDS = ("relations", "logic", "conditions", "arithmetic", "numbers", "dropped", "results", "texts")

FUNCTIONS = (Kind.FUNCTION_DECL, Kind.CXX_METHOD, Kind.CONSTRUCTOR, Kind.DESTRUCTOR, Kind.FUNCTION_TEMPLATE,
             Kind.CONVERSION_FUNCTION)
LOG_CALL = re.compile(r"(FWLOG\w*|TRACE_RECORD)$")
COMMENT = re.compile(r"//[^\n]*|/\*.*?\*/", re.DOTALL)
LITERAL = re.compile(r'("(?:[^"\\]|\\.)*")|//[^\n]*|/\*.*?\*/|\s+', re.DOTALL)


def one_line(text):
    """Without comments and line ends, and with its literals as they are."""
    return LITERAL.sub(lambda match: match.group(1) or " ", text).strip()


@dataclasses.dataclass
class Place:
    """One piece of a source, [start, end), and what it becomes."""
    file: str  # from the root of the tree
    line: int
    column: int
    kind: str
    function: str  # that it stands in, or the constant that it belongs to
    start: int
    end: int
    original: str
    broken: str
    form: str  # how it is put behind a switch: value, condition, statement
    alone: bool  # to be built by itself
    number: int = 0
    users: frozenset = frozenset()  # of a constant outside of functions: the functions that name it
    key: str = ""  # as the list of what cannot be noticed has it

    @property
    def where(self):
        return f"{os.path.basename(self.file)}:{self.line}:{self.column}"

    def __str__(self):
        return f"{self.file}:{self.line}:{self.column} {self.function}: {self.change}"

    @property
    def change(self):
        return f"{one_line(self.original)} -> {one_line(self.broken)}".rstrip()


class Source:
    """One file of the sources, by the offsets of Clang."""

    def __init__(self, root, path):
        self.path = path
        with open(os.path.join(root, path), "rb") as file:
            self.text = file.read().decode("latin-1")  # one character for each byte
        self.macros = list(self.find_macros())
        self.places = []

    def find_macros(self):
        """(start, end, name) of each macro that is called: the only capitals with a parenthesis. Clang's record has all of them in
        all headers, which takes a hundred times as long."""
        end = 0
        for match in re.finditer(r"\b([A-Z_][A-Z0-9_]+)\(", self.text):
            if match.start() < end or self.text.rfind("#define", self.text.rfind("\n", 0, match.start()) + 1, match.start()) >= 0:
                continue
            depth, end = 1, match.end()
            for part in re.finditer(r'"(?:[^"\\]|\\.)*"|[()]', self.text[end:]):
                depth += {"(": 1, ")": -1}.get(part.group(), 0)
                if depth == 0:
                    end += part.end()
                    break
            yield match.start(), end, match.group(1)

    def macro_at(self, offset):
        return next((macro for macro in self.macros if macro[0] <= offset < macro[1]), None)


class Finder:
    """Walks through one translation unit, and keeps the places of the files that it is asked for."""

    def __init__(self, sources, root):
        self.sources = sources  # by path from the root
        self.root = root
        self.files = {}  # by the names that Clang has for them
        self.seen = set()
        self.constants = {}  # name of a constant outside of functions: the functions that name it

    def source_of(self, file):
        name = file.name if file is not None else ""
        if name not in self.files:
            self.files[name] = self.sources.get(os.path.relpath(os.path.realpath(name), self.root))
        return self.files[name]

    def walk(self, unit):
        for cursor in unit.cursor.get_children():
            source = self.source_of(cursor.location.file)
            if source is not None:
                self.visit(cursor, source, None, Context())

    # ---- Where things stand ----

    def extent(self, cursor, source):
        start, end = cursor.extent.start, cursor.extent.end
        if self.source_of(start.file) is not source or self.source_of(end.file) is not source:
            return None
        first, last = start.offset, end.offset
        macro = source.macro_at(last)
        if macro is not None and macro[0] < last:
            last = macro[1]
        return (first, last) if first < last else None

    def add(self, source, span, kind, broken, context, form="value"):
        start, end = span
        if (source.path, start, end, kind, broken) in self.seen:
            return
        self.seen.add((source.path, start, end, kind, broken))
        before = source.text[:start]
        source.places.append(Place(
            source.path, before.count("\n") + 1, start - (before.rfind("\n") + 1) + 1, kind, context.function, start, end,
            source.text[start:end], one_line(broken), form, context.is_constant))

    # ---- What stands there ----

    def visit(self, cursor, source, parent, context):
        if self.source_of(cursor.location.file) is not source and cursor.location.file is not None:
            return
        span = self.extent(cursor, source)
        if span is None:
            for child in cursor.get_children():
                self.visit(child, source, cursor, context)
            return
        macro = source.macro_at(span[0])
        if macro is not None and span[1] <= macro[1]:
            self.use_of_macro(source, macro, context)
            return
        context = context.inside(cursor, source, span, self.constants)
        self.note_use(cursor, context)
        find = self.FINDERS.get(cursor.kind)
        if find is not None:
            find(self, cursor, source, span, context)
        if cursor.kind in (Kind.COMPOUND_STMT, Kind.CASE_STMT, Kind.DEFAULT_STMT):
            for child in cursor.get_children():
                self.statement(child, source, context)
        for index, child in enumerate(cursor.get_children()):
            inner = context
            if cursor.kind == Kind.CASE_STMT and index == 0:
                inner = context.constant()
            self.visit(child, source, cursor, inner)

    def note_use(self, cursor, context):
        if cursor.kind == Kind.DECL_REF_EXPR and cursor.spelling in self.constants and context.in_function:
            self.constants[cursor.spelling].add(context.function)

    def use_of_macro(self, source, macro, context):
        start, end, name = macro
        if not LOG_CALL.match(name):
            return
        text = source.text[start:end]
        self.add(source, (start, end), "dropped", "", context, "statement")
        literal = re.search(r'"(?:[^"\\]|\\.)*"', text)
        if literal is not None:
            self.add(source, (start, end), "texts", text[:literal.start()] + '"~" ' + text[literal.start():], context,
                     "statement")
        for other in re.finditer(r'"(?:[^"\\]|\\.)*"', text):
            before = text[:other.start()].rstrip()
            if literal is not None and other.start() > literal.start() and before[-1] in ",:?":
                self.add(source, (start + other.start(), start + other.end()), "texts", '"~" ' + other.group(), context)

    def operator(self, source, left, right, span, context, is_number):
        first, second = self.extent(left, source), self.extent(right, source)
        if first is None or second is None or first[1] > second[0]:
            return
        sign = COMMENT.sub("", source.text[first[1]:second[0]]).strip()
        tables = [("relations", RELATIONS), ("logic", LOGIC)]
        if is_number:
            tables += [("arithmetic", ARITHMETIC), ("arithmetic", ASSIGNMENTS)]
        for kind, table in tables:
            if sign in table:
                self.add(source, span, kind,
                         f"{source.text[span[0]:first[1]]} {table[sign]} {source.text[second[0]:span[1]]}", context)

    def binary(self, cursor, source, span, context):
        children = list(cursor.get_children())
        if len(children) == 2:
            self.operator(source, children[0], children[1], span, context, True)

    def call(self, cursor, source, span, context):
        arguments = list(cursor.get_arguments())
        if cursor.spelling.startswith("operator") and len(arguments) == 2:
            self.operator(source, arguments[0], arguments[1], span, context, False)

    def unary(self, cursor, source, span, context):
        text = source.text[span[0]:span[1]]
        if text.startswith("!"):
            self.add(source, span, "logic", f"!!({text[1:]})", context)
        for sign, other in STEPS.items():
            if text.startswith(sign):
                self.add(source, span, "arithmetic", other + text[2:], context)

    def condition_of(self, cursor, source, span, context):
        """Turns round what an if, a loop or a choice asks."""
        children = list(cursor.get_children())
        asked = children[0] if children else None
        if cursor.kind == Kind.FOR_STMT:
            asked = self.asked_by_for(children, source, span)
        extent = self.extent(asked, source) if asked is not None and asked.kind.is_expression() else None
        if extent is None:
            return
        text = source.text[extent[0]:extent[1]]
        inner = asked
        while inner.kind == Kind.UNEXPOSED_EXPR and len(list(inner.get_children())) == 1:
            inner = next(inner.get_children())
        # Those are turned round by another kind of place.
        if text.startswith("!") and inner.kind == Kind.UNARY_OPERATOR or self.is_equality(inner, source):
            return
        self.add(source, extent, "conditions", f"!({text})", context, "condition")

    def asked_by_for(self, children, source, span):
        text = source.text[span[0]:span[1]]
        depth, signs = 0, []
        for offset, sign in enumerate(text):
            depth += sign in "([{"
            depth -= sign in ")]}"
            if sign == ";" and depth == 1:
                signs.append(span[0] + offset)
            if len(signs) == 2:
                break
        for child in children:
            extent = self.extent(child, source)
            if len(signs) == 2 and extent is not None and signs[0] < extent[0] and extent[1] <= signs[1]:
                return child
        return None

    def is_equality(self, cursor, source):
        parts = (list(cursor.get_children()) if cursor.kind == Kind.BINARY_OPERATOR else
                 list(cursor.get_arguments()) if cursor.kind == Kind.CALL_EXPR else [])
        spans = [self.extent(part, source) for part in parts]
        return (len(spans) == 2 and None not in spans and
                source.text[spans[0][1]:spans[1][0]].strip() in ("==", "!="))

    def number(self, cursor, source, span, context):
        text = source.text[span[0]:span[1]]
        if text in BOOLEANS:  # TRUE and FALSE are macros
            self.boolean(cursor, source, span, context)
        match = re.fullmatch(r"(0[xX][0-9a-fA-F']+|[0-9][0-9']*)([uUlL]*)", text)
        if match is None:
            return
        digits = match.group(1).replace("'", "")
        if digits.lower().startswith("0x"):
            changed = f"0x{int(digits, 16) + 1:0{len(digits) - 2}X}"
        elif len(digits) > 1 and digits.startswith("0"):
            changed = f"0{int(digits, 8) + 1:o}"
        else:
            changed = str(int(digits) + 1)
        self.add(source, span, "numbers", changed + match.group(2), context)

    def boolean(self, cursor, source, span, context):
        text = source.text[span[0]:span[1]]
        if text in BOOLEANS:
            self.add(source, span, "numbers", BOOLEANS[text], context)

    def character(self, cursor, source, span, context):
        text = source.text[span[0]:span[1]]
        if text != r"'\0'":
            self.add(source, span, "numbers", f"static_cast<char>({text} + 1)", context)

    def text(self, cursor, source, span, context):
        text = source.text[span[0]:span[1]]
        if text.startswith('"'):
            self.add(source, span, "texts", '"~"' if text == '""' else f'"~" {text}', context)

    def result(self, cursor, source, span, context):
        children = list(cursor.get_children())
        extent = self.extent(children[0], source) if children else None
        if extent is None:
            return
        text = source.text[extent[0]:extent[1]]
        returned = children[0].type.get_canonical()
        wanted = (context.result or returned).get_canonical()
        if text in ("0", "nullptr", '""', "{}") or text in BOOLEANS or wanted.kind in (
                cindex.TypeKind.LVALUEREFERENCE, cindex.TypeKind.VOID):
            return
        if wanted.kind == cindex.TypeKind.BOOL:
            broken = f"return !({text})"
        elif wanted.kind == cindex.TypeKind.ENUM:
            broken = f"return static_cast<{wanted.spelling}>(({text}) + 1)"
        else:
            broken = "return {}"
        self.add(source, span, "results", broken, context, "statement")

    def statement(self, cursor, source, context):
        inner = cursor
        while inner.kind == Kind.UNEXPOSED_EXPR and len(list(inner.get_children())) == 1:
            inner = next(inner.get_children())
        span = self.extent(cursor, source)
        if span is None or self.source_of(cursor.location.file) is not source:
            return
        macro = source.macro_at(span[0])
        if macro is not None and LOG_CALL.match(macro[2]):
            return
        is_assignment = (inner.kind == Kind.BINARY_OPERATOR and re.match(
            r"\s*=[^=]", source.text[self.extent(next(inner.get_children()), source)[1]:]))
        if inner.kind in (Kind.CALL_EXPR, Kind.CXX_THROW_EXPR) or is_assignment:
            self.add(source, span, "dropped", "", context, "statement")

    FINDERS = {
        Kind.BINARY_OPERATOR: binary,
        Kind.COMPOUND_ASSIGNMENT_OPERATOR: binary,
        Kind.CALL_EXPR: call,
        Kind.UNARY_OPERATOR: unary,
        Kind.IF_STMT: condition_of,
        Kind.WHILE_STMT: condition_of,
        Kind.FOR_STMT: condition_of,
        Kind.CONDITIONAL_OPERATOR: condition_of,
        Kind.INTEGER_LITERAL: number,
        Kind.CXX_BOOL_LITERAL_EXPR: boolean,
        Kind.CHARACTER_LITERAL: character,
        Kind.STRING_LITERAL: text,
        Kind.RETURN_STMT: result,
    }


@dataclasses.dataclass(frozen=True)
class Context:
    """What the place that is looked at stands in."""
    function: str = ""
    in_function: bool = False
    is_constant: bool = False  # the compiler has to know it
    result: object = None  # type of what the function returns; none in a lambda

    def constant(self):
        return dataclasses.replace(self, is_constant=True)

    def inside(self, cursor, source, span, constants):
        head = source.text[span[0]:span[1]].split("{")[0].split("=")[0]
        is_constant = self.is_constant or "constexpr" in head.split()
        if cursor.kind in FUNCTIONS:
            return Context(cursor.spelling, True, is_constant, cursor.result_type)
        if cursor.kind == Kind.LAMBDA_EXPR:
            return dataclasses.replace(self, result=None)
        if cursor.kind in (Kind.ENUM_CONSTANT_DECL, Kind.TYPE_ALIAS_DECL, Kind.STATIC_ASSERT, Kind.TYPEDEF_DECL):
            return dataclasses.replace(self, function=self.function or cursor.spelling, is_constant=True)
        if cursor.kind == Kind.VAR_DECL:
            is_constant = is_constant or cursor.type.kind == cindex.TypeKind.CONSTANTARRAY
            if not self.in_function:
                constants.setdefault(cursor.spelling, set())
                return dataclasses.replace(self, function=cursor.spelling, is_constant=is_constant)
            return dataclasses.replace(self, is_constant=is_constant)
        if cursor.kind == Kind.FIELD_DECL and not self.in_function:
            return dataclasses.replace(self, function=cursor.spelling)
        return self


def find_places(root, commands, others):
    """All places, numbered from 1 in the order of files and offsets.

    `commands`: the compiler's arguments by source. `others`: names of headers that are left out.
    """
    sources = {}
    for directory, _, names in os.walk(os.path.join(root, "src")):
        for name in names:
            if name.endswith((".cpp", ".h")) and name not in others:
                path = os.path.relpath(os.path.join(directory, name), root)
                sources[path] = Source(root, path)
    finder = Finder(sources, os.path.realpath(root))
    index = cindex.Index.create()
    for path in sorted(commands):
        unit = index.parse(os.path.join(root, path), commands[path])
        wrong = [text for text in unit.diagnostics if text.severity >= cindex.Diagnostic.Error]
        if wrong:
            raise RuntimeError(f"{path}: Clang's library cannot read it: {wrong[0]}")
        finder.walk(unit)
    places = []
    for path in sorted(sources):
        places += sorted(sources[path].places, key=lambda place: (place.start, -place.end, place.kind, place.broken))
    name_all(places, finder.constants)
    return sources, places


def name_all(places, constants):
    counts = {}
    for number, place in enumerate(places, 1):
        place.number = number
        place.users = frozenset(constants.get(place.function, ()))
        key = f"{place.file} {place.function}: {place.change}"
        counts[key] = counts.get(key, 0) + 1
        place.key = key if counts[key] == 1 else f"{key} #{counts[key]}"


# ---- Sources with switches ----

def switched(place, inner):
    original, broken = one_line(place.original), place.broken
    if place.form == "condition":
        return f"(mutant({place.number}) ? !({original}) : !!({inner}))"
    if place.form == "statement":
        return f"if (mutant({place.number})) {{ {broken}; }} else {{ {inner}; }}"
    return f"(mutant({place.number}) ? ({broken}) : ({inner}))"


def with_switches(source, places):
    """The source with a switch at each of these places."""
    at = {}
    for place in places:
        at.setdefault((place.start, place.end), []).append(place)
    spans = sorted(at, key=lambda span: (span[0], -span[1]))

    def render(start, end, index):
        parts, position = [], start
        while index < len(spans) and spans[index][0] < end:
            span = spans[index]
            parts.append(source.text[position:span[0]])
            inner, index = render(span[0], span[1], index + 1)
            # What is worth a value is inside of what is a statement.
            for place in sorted(at[span], key=lambda place: (place.form == "statement", place.form == "condition")):
                inner = switched(place, inner)
            parts.append(inner)
            position = span[1]
        parts.append(source.text[position:end])
        return "".join(parts), index

    return render(0, len(source.text), 0)[0]


def broken_alone(source, place):
    """The source with this place broken and nothing else."""
    broken = place.broken if place.form == "statement" else f"({place.broken})"
    lines = place.original.count("\n")
    if place.kind == "texts" or place.broken == "":
        broken = place.broken
    return source.text[:place.start] + broken + "\n" * lines + source.text[place.end:]
