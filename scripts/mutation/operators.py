"""Reads one source file as clang does and yields the small faults that can be planted in it.

Each fault is one or more replacements of byte ranges. What a macro expands to is left alone, except a log line's level;
a statement that is a macro call as a whole is treated like any other statement.
"""
import collections
import glob
import hashlib
import os
import re
import sys

sys.path.append("/usr/lib/python3/dist-packages")
try:
    from clang import cindex
except ImportError:
    sys.exit("mutate: python3-clang is missing: scripts/install-deps installs it")

# Of version 14, Debian 12's, where it is there; else the newest, whose module this is.
for _library in (glob.glob("/usr/lib/*/libclang-14.so.1") + glob.glob("/usr/lib/llvm-14/lib/libclang.so.1") +
                 sorted(glob.glob("/usr/lib/llvm-*/lib/libclang.so.1"), reverse=True,
                        key=lambda path: int(re.search(r"llvm-(\d+)", path).group(1)))):
    cindex.Config.set_library_file(_library)
    break

K = cindex.CursorKind
T = cindex.TypeKind

FUNCTIONS = {K.FUNCTION_DECL, K.CXX_METHOD, K.CONSTRUCTOR, K.DESTRUCTOR, K.CONVERSION_FUNCTION, K.FUNCTION_TEMPLATE}
SIMPLE_STATEMENTS = {K.CALL_EXPR, K.BINARY_OPERATOR, K.COMPOUND_ASSIGNMENT_OPERATOR, K.UNARY_OPERATOR, K.UNEXPOSED_EXPR,
                     K.CXX_DELETE_EXPR}
LOOPS = {K.FOR_STMT, K.WHILE_STMT, K.DO_STMT, K.CXX_FOR_RANGE_STMT}
BODY_OWNERS = LOOPS | {K.IF_STMT}
WIDE = {T.LONG: "int", T.LONGLONG: "int", T.ULONG: "unsigned int", T.ULONGLONG: "unsigned int"}

RELATIONAL = {"<": ("<=", ">="), "<=": ("<", ">"), ">": (">=", "<="), ">=": (">", "<"), "==": ("!=",), "!=": ("==",)}
ARITHMETIC = {"+": "-", "-": "+", "*": "/", "/": "*", "%": "/", "<<": ">>", ">>": "<<", "&": "|", "|": "&", "^": "|"}
ASSIGNING = {"+=": "-=", "-=": "+=", "*=": "/=", "/=": "*=", "|=": "&=", "&=": "|=", "^=": "|=", "<<=": ">>=",
             ">>=": "<<="}
LEVELS = {"kLogError": "kLogWarning", "kLogWarning": "kLogInfo", "kLogInfo": "kLogWarning", "kLogDebug": "kLogInfo"}

# Names of functions that give the same for the same arguments; of the C++ library all that are const are taken for it.
PURE_FILE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tests", "mutants", "pure.txt")
PURE_STD = {"min", "max", "abs", "to_string", "stoi", "stol", "stoul", "tie", "make_tuple"} | {
    "operator" + sign for sign in ("+", "-", "*", "/", "%", "==", "!=", "<", ">", "<=", ">=", "[]")}
# What counts things that stand in memory.
SIZES = re.compile(r"(^|\W)(s?size_t|size_type|difference_type)$")

OPERATORS = ("relational", "arithmetic", "width", "term-dropped", "negated", "swapped", "removed", "constant", "level",
             "early-return", "re-read")


def read_pure():
    """A name stands at the beginning of a line; what is indented says why."""
    with open(PURE_FILE, encoding="utf-8") as file:
        return {line.strip() for line in file if line.strip() and line[0] not in "# "}


class Mutant:
    """One fault: where it is, what it does, and the file's text with it."""

    def __init__(self, file, function, operator, ordinal, digest, edits, line, mangled, scope, body):
        self.file, self.function, self.operator = file, function, operator
        self.edits, self.line = edits, line
        self.mangled = mangled  # of the function that has to run for a test to notice; None: unknown, any test may
        self.scope = scope  # the class whose constructors hold the fault, for a member's first value
        # Byte range of the function's body where all edits lie in one that may exist more than once; else None
        self.body = body if body and all(body[0] <= e[0] and e[1] <= body[1] for e in edits) else None
        self.key = "%s:%s:%s#%s" % (file, function, operator, digest)
        self.id = "%s:%s:%s:%d#%s" % (file, function, operator, ordinal, digest)

    def apply(self, source):
        return apply_edits(source, self.edits)


def apply_edits(source, edits):
    for start, end, text in sorted(edits, reverse=True):
        source = source[:start] + text.encode() + source[end:]
    return source


def text_between_is(text):
    """The one token of a text that otherwise holds blanks, comments and closing brackets."""
    bare = re.sub(r"//[^\n]*|/\*.*?\*/", " ", text, flags=re.S)
    match = re.fullmatch(r"[\s)]*([^\s\w()]+)[\s(]*", bare)
    return match.group(1) if match else None


class Reader:
    def __init__(self, path, name, arguments):
        with open(path, "rb") as file:
            self.source = file.read()
        self.path, self.name = path, name
        unit = cindex.Index.create().parse(path, args=arguments,
                                           options=cindex.TranslationUnit.PARSE_DETAILED_PROCESSING_RECORD)
        errors = [d for d in unit.diagnostics if d.severity >= cindex.Diagnostic.Error]
        if errors:
            sys.exit("mutate: clang cannot read %s: %s" % (name, errors[0]))
        self.unit = unit
        self.macros = [(n.extent.start.offset, n.extent.end.offset) for n in unit.cursor.get_children()
                       if n.kind == K.MACRO_INSTANTIATION and self.is_here(n)]
        self.pure = read_pure()
        self.current = None
        self.found = []
        self.seen = set()
        self.counts = collections.Counter()
        self.digests = collections.Counter()

    # Places and texts

    def is_here(self, node):
        return node.location.file is not None and node.location.file.name == self.path

    def span(self, node):
        return node.extent.start.offset, node.extent.end.offset

    def text(self, start, end):
        return self.source[start:end].decode()

    def of(self, node):
        return self.text(*self.span(node))

    def in_macro(self, node):
        start, end = self.span(node)
        return start >= end or any(s <= start < e and not (start == s and end >= e) for s, e in self.macros)

    def is_macro_call(self, node):
        return self.span(node) in self.macros

    def statement_span(self, node):
        """With its semicolon where it has one; None for what cannot be told."""
        start, end = self.span(node)
        if start >= end:
            return None
        if self.source[end - 1:end] in (b"}", b";"):
            return start, end
        rest = re.match(rb"\s*;", self.source[end:])
        return (start, end + rest.end()) if rest else None

    # Yielding

    def add(self, where, operator, *edits):
        result = apply_edits(self.source, edits)
        if result == self.source or result in self.seen:
            return
        self.seen.add(result)
        first, last = min(e[0] for e in edits), max(e[1] for e in edits)
        line_start = self.source.rfind(b"\n", 0, first) + 1
        line_end = self.source.find(b"\n", last)
        grown = sum(len(e[2].encode()) - (e[1] - e[0]) for e in edits)
        shown = self.source[line_start:line_end] + b"\0" + result[line_start:line_end + grown]
        shown = re.sub(rb"\s+", b" ", shown)
        base = hashlib.sha1(("%s:%s:%s" % (self.name, where[0], operator)).encode() + shown)
        self.digests[base.digest()] += 1
        base.update(b"%d" % self.digests[base.digest()])
        self.counts[where[0], operator] += 1
        self.found.append(Mutant(self.name, where[0], operator, self.counts[where[0], operator], base.hexdigest()[:8],
                                 edits, self.source.count(b"\n", 0, first) + 1, where[1], where[2], where[3]))

    def mutants(self):
        for node in self.unit.cursor.get_children():
            if self.is_here(node):
                self.outer(node, None)
        return self.found

    def outer(self, node, scope):
        """Declarations outside of functions."""
        if node.kind in FUNCTIONS:
            if node.is_definition():
                self.function(node)
        elif node.kind in (K.NAMESPACE, K.CLASS_DECL, K.STRUCT_DECL, K.CLASS_TEMPLATE, K.LINKAGE_SPEC,
                           K.UNEXPOSED_DECL):
            inner = scope if node.kind in (K.NAMESPACE, K.LINKAGE_SPEC, K.UNEXPOSED_DECL) else node.spelling
            for child in node.get_children():
                self.outer(child, inner)
        elif node.kind in (K.VAR_DECL, K.FIELD_DECL):
            where = ((scope + "::" if scope else "") + node.spelling, None,
                     scope if node.kind == K.FIELD_DECL else None, None)
            for child in node.get_children():
                self.expression(child, where, node)

    def function(self, node):
        names = [node.spelling]
        parent = node.semantic_parent
        while parent is not None and parent.kind in (K.CLASS_DECL, K.STRUCT_DECL, K.CLASS_TEMPLATE):
            names.insert(0, parent.spelling)
            parent = parent.semantic_parent
        body = next((c for c in node.get_children() if c.kind == K.COMPOUND_STMT), None)
        if body is None:
            return
        head = self.text(node.extent.start.offset, body.extent.start.offset)
        template = node.kind == K.FUNCTION_TEMPLATE or (parent is not None and K.CLASS_TEMPLATE in (
            p.kind for p in ancestors(node)))
        mangled = None if template or re.search(r"\bconstexpr\b", head) else node.mangled_name
        where = (re.sub(r"\s+", "_", "::".join(names)), mangled, None, None if template else self.span(body))
        self.current = body
        for child in node.get_children():
            if child.kind == K.COMPOUND_STMT:
                self.block(child, where, node)
            elif child.kind not in (K.PARM_DECL, K.TYPE_REF, K.NAMESPACE_REF, K.MEMBER_REF, K.TEMPLATE_REF):
                self.expression(child, where, node)
        self.start_returns(node, body, where)
        self.levels(node, where)

    # Statements

    def block(self, block, where, function):
        statements = list(block.get_children())
        for index, node in enumerate(statements):
            last = index + 1 == len(statements)
            self.removed(node, where, function, last)
            if not last:
                self.swapped(node, statements[index + 1], where)
            self.statement(node, where, function)
        self.rereads(statements, where)

    def statement(self, node, where, function):
        if node.kind == K.COMPOUND_STMT:
            self.block(node, where, function)
            return
        if node.kind == K.DECL_STMT:
            for variable in node.get_children():
                for child in variable.get_children():
                    self.expression(child, where, variable)
            return
        if node.kind == K.RETURN_STMT:
            self.returned(node, where, function)
        if node.kind in BODY_OWNERS or node.kind == K.SWITCH_STMT or node.kind in (
                K.CASE_STMT, K.DEFAULT_STMT, K.CXX_TRY_STMT, K.CXX_CATCH_STMT, K.RETURN_STMT):
            self.condition(node, where)
            for child in node.get_children():
                if child.kind == K.COMPOUND_STMT or child.kind.is_statement():
                    if child.kind != K.COMPOUND_STMT:
                        self.removed(child, where, function, False)
                    self.statement(child, where, function)
                else:
                    if node.kind in BODY_OWNERS and self.is_body(node, child):
                        self.removed(child, where, function, False)
                    self.expression(child, where, node)
            return
        self.expression(node, where, function)

    def is_body(self, owner, child):
        """Whether an expression is the statement below an if or a loop: nothing but ';' ends it."""
        return child.kind in SIMPLE_STATEMENTS and self.source[child.extent.end.offset:].lstrip()[:1] == b";" and \
            not (owner.kind == K.FOR_STMT and child.extent.end.offset < self.header_end(owner))

    def header_end(self, owner):
        depth = 0
        for token in owner.get_tokens():
            depth += {"(": 1, ")": -1}.get(token.spelling, 0)
            if token.spelling == ")" and depth == 0:
                return token.extent.end.offset
        return owner.extent.end.offset

    def removed(self, node, where, function, last):
        span = self.statement_span(node)
        if span is None or (self.in_macro(node) and not self.is_macro_call(node)):
            return
        kind = node.kind
        if kind in SIMPLE_STATEMENTS or kind in LOOPS or kind in (K.IF_STMT, K.BREAK_STMT, K.CONTINUE_STMT):
            self.add(where, "removed", (span[0], span[1], ";"))
            if kind == K.IF_STMT:
                parts = list(node.get_children())
                if len(parts) == 3 and parts[2].kind != K.IF_STMT:
                    self.add(where, "removed", self.replace(parts[2], "{}", statement=True))
        elif kind == K.RETURN_STMT:
            if not (last and node.semantic_parent is None and self.ends_function(node, function)):
                self.add(where, "removed", (span[0], span[1], ";"))
        elif kind == K.DECL_STMT and self.is_guard(node):
            self.add(where, "removed", (span[0], span[1], ";"))

    def ends_function(self, node, function):
        """The last statement of a function that gives a value has to stay."""
        body = [c for c in function.get_children() if c.kind == K.COMPOUND_STMT]
        if not body or function.result_type.kind == T.VOID:
            return False
        last = list(body[-1].get_children())[-1:]
        return bool(last) and self.span(last[0]) == self.span(node)

    def is_guard(self, node):
        """A local object that only its lifetime is used of."""
        variables = list(node.get_children())
        if len(variables) != 1 or variables[0].kind != K.VAR_DECL:
            return False
        if variables[0].type.get_canonical().kind != T.RECORD:
            return False
        rest = self.source[node.extent.end.offset:]
        closing = rest.find(b"\n}")
        return not re.search(rb"\b%s\b" % variables[0].spelling.encode(), rest[:closing])

    def swapped(self, first, second, where):
        movable = SIMPLE_STATEMENTS | {K.IF_STMT, K.DECL_STMT} | LOOPS
        if first.kind not in movable or second.kind not in movable:
            return
        if first.kind == K.DECL_STMT and second.kind == K.DECL_STMT:
            return  # two readings: which comes first is nobody's promise
        one, two = self.statement_span(first), self.statement_span(second)
        if one is None or two is None or one[1] > two[0]:
            return
        if self.declares_used(first, second):
            return
        self.add(where, "swapped", (one[0], one[1], self.text(*two)), (two[0], two[1], self.text(*one)))

    def declares_used(self, first, second):
        if first.kind != K.DECL_STMT:
            return False
        return any(re.search(r"\b%s\b" % re.escape(v.spelling), self.of(second)) for v in first.get_children())

    def returned(self, node, where, function):
        value = next(iter(node.get_children()), None)
        if value is None or self.in_macro(value):
            return
        result = function.result_type.get_canonical().kind
        if result == T.BOOL and value.kind != K.CXX_BOOL_LITERAL_EXPR:
            if not self.is_relation(value):
                self.add(where, "negated", self.replace(value, "!(%s)" % self.of(value)))
        elif result not in (T.VOID, T.BOOL):
            self.add(where, "early-return", self.replace(value, "{}"))

    def start_returns(self, node, body, where):
        statements = list(body.get_children())
        result = node.result_type.get_canonical().kind
        if not statements or node.kind in (K.CONSTRUCTOR, K.DESTRUCTOR) and len(statements) == 1:
            return
        at = body.extent.start.offset + 1
        if result == T.VOID:
            if len(statements) > 1:
                self.add(where, "early-return", (at, at, " if (true) return;"))
            for statement in statements[1:-1]:
                start = statement.extent.start.offset
                if statement.kind != K.DECL_STMT and start < statement.extent.end.offset:
                    self.add(where, "early-return", (start, start, "if (true) return; "))
        elif len(statements) > 1:
            values = ("true", "false") if result == T.BOOL else ("{}",)
            for value in values:
                self.add(where, "early-return", (at, at, " if (true) return %s;" % value))

    def levels(self, node, where):
        start, end = self.span(node)
        for match in re.finditer(rb"\bkLog(Error|Warning|Info|Debug)\b", self.source[start:end]):
            self.add(where, "level", (start + match.start(), start + match.end(), LEVELS[match.group().decode()]))

    # Expressions

    def replace(self, node, text, statement=False):
        start, end = (self.statement_span(node) or self.span(node)) if statement else self.span(node)
        return start, end, text

    def is_relation(self, node):
        while node.kind in (K.UNEXPOSED_EXPR, K.PAREN_EXPR):
            children = list(node.get_children())
            if len(children) != 1:
                return False
            node = children[0]
        return node.kind == K.BINARY_OPERATOR and self.operator_of(node)[0] in RELATIONAL

    def operator_of(self, node):
        parts = list(node.get_children())
        if len(parts) != 2:
            return None, 0, 0
        start, end = parts[0].extent.end.offset, parts[1].extent.start.offset
        if start >= end or not (node.extent.start.offset <= start and end <= node.extent.end.offset):
            return None, 0, 0
        text = self.text(start, end)
        token = text_between_is(text)
        if token is None:
            return None, 0, 0
        at = start + len(text[:text.index(token)].encode())
        return token, at, at + len(token)

    def condition(self, node, where):
        parts = list(node.get_children())
        if not parts:
            return
        if node.kind in (K.IF_STMT, K.WHILE_STMT, K.CONDITIONAL_OPERATOR):
            condition = parts[0]
        elif node.kind == K.DO_STMT:
            condition = parts[-1]
        elif node.kind == K.FOR_STMT:
            condition = next((p for p in parts if p.type.get_canonical().kind == T.BOOL), None)
        else:
            return
        if condition is None or condition.kind in (K.DECL_STMT, K.VAR_DECL) or self.in_macro(condition):
            return
        if not self.is_relation(condition) and condition.kind != K.CXX_BOOL_LITERAL_EXPR:
            self.add(where, "negated", self.replace(condition, "!(%s)" % self.of(condition)))

    def expression(self, node, where, parent):
        if node.kind == K.LAMBDA_EXPR:
            for child in node.get_children():
                if child.kind == K.COMPOUND_STMT:
                    self.lambda_body(child, where)
            return
        if not self.in_macro(node):
            if node.kind == K.BINARY_OPERATOR:
                self.binary(node, where)
            elif node.kind == K.COMPOUND_ASSIGNMENT_OPERATOR:
                token, start, end = self.operator_of(node)
                if token in ASSIGNING:
                    self.add(where, "arithmetic", (start, end, ASSIGNING[token]))
                    self.add(where, "arithmetic", (start, end, "="))
            elif node.kind == K.UNARY_OPERATOR:
                self.unary(node, where)
            elif node.kind == K.CONDITIONAL_OPERATOR:
                self.condition(node, where)
            elif node.kind in (K.INTEGER_LITERAL, K.FLOATING_LITERAL, K.CXX_BOOL_LITERAL_EXPR):
                self.constant(node, where)
            self.width(node, where, parent)
        if self.is_macro_call(node):
            return
        for child in node.get_children():
            if child.kind == K.COMPOUND_STMT:
                self.block(child, where, parent)
            elif not child.kind.is_reference():
                self.expression(child, where, node)

    def lambda_body(self, block, where):
        class Nothing:
            kind = None
            result_type = self.unit.cursor.type

            @staticmethod
            def get_children():
                return [block]
        for node in block.get_children():
            if node.kind != K.RETURN_STMT:
                self.removed(node, where, Nothing, False)
            self.statement(node, where, Nothing)

    def binary(self, node, where):
        token, start, end = self.operator_of(node)
        if token in RELATIONAL:
            for other in RELATIONAL[token]:
                self.add(where, "relational", (start, end, other))
        elif token in ARITHMETIC:
            self.add(where, "arithmetic", (start, end, ARITHMETIC[token]))
        elif token in ("&&", "||"):
            for part in node.get_children():
                if not self.in_macro(part):
                    self.add(where, "term-dropped", self.replace(node, "(%s)" % self.of(part)))

    def unary(self, node, where):
        text = self.of(node)
        start, end = self.span(node)
        if text.startswith(("++", "--")):
            self.add(where, "arithmetic", (start, start + 2, "--" if text.startswith("++") else "++"))
        elif text.endswith(("++", "--")):
            self.add(where, "arithmetic", (end - 2, end, "--" if text.endswith("++") else "++"))
        elif text.startswith("!"):
            self.add(where, "negated", (start, start + 1, ""))
        elif text.startswith(("-", "~")):
            self.add(where, "arithmetic", (start, start + 1, ""))

    def constant(self, node, where):
        text = self.of(node)
        if node.kind == K.CXX_BOOL_LITERAL_EXPR:
            self.add(where, "constant", self.replace(node, {"true": "false", "false": "true"}.get(text, text)))
            return
        if not re.match(r"[0-9.]", text):
            return
        if node.kind == K.FLOATING_LITERAL:
            self.add(where, "constant", self.replace(node, "(%s * 1.01)" % text))
            self.add(where, "constant", self.replace(node, "0.0"))
            return
        value = int(re.sub(r"[uUlL']", "", text), 0) if not re.match(r"0[0-7]", text) else int(
            re.sub(r"[uUlL']", "", text), 8)
        self.add(where, "constant", self.replace(node, "(%s + 1)" % text))
        if value > 0:
            self.add(where, "constant", self.replace(node, "(%s - 1)" % text))
        if value > 1:
            self.add(where, "constant", self.replace(node, "0"))

    def width(self, node, where, parent):
        """A value of 64 bits loses its upper half where it is handed on. Sizes of what stands in memory are left out:
        no text or table of 4 GiB can be had to tell the difference."""
        if parent is None or parent.kind not in (
                K.CALL_EXPR, K.VAR_DECL, K.BINARY_OPERATOR, K.RETURN_STMT, K.COMPOUND_ASSIGNMENT_OPERATOR,
                K.CXX_METHOD, K.FUNCTION_DECL, K.CONDITIONAL_OPERATOR, K.CXX_STATIC_CAST_EXPR,
                K.CXX_FUNCTIONAL_CAST_EXPR):
            return
        if parent.kind == K.BINARY_OPERATOR and self.operator_of(parent)[0] == "=" and \
                self.span(next(parent.get_children())) == self.span(node):
            return
        if parent.kind == K.COMPOUND_ASSIGNMENT_OPERATOR and self.span(next(parent.get_children())) == self.span(node):
            return
        inner = node
        while inner.kind in (K.UNEXPOSED_EXPR, K.PAREN_EXPR):
            children = list(inner.get_children())
            if len(children) != 1:
                break
            if inner.type.get_canonical().kind not in WIDE or children[0].type.get_canonical().kind not in WIDE:
                break
            inner = children[0]
        source = inner.type.get_canonical()
        if inner.kind in (K.INTEGER_LITERAL, K.FLOATING_LITERAL, K.TYPE_REF, K.CXX_UNARY_EXPR) or \
                source.kind not in WIDE or not inner.kind.is_expression():
            return
        if inner.kind == K.UNEXPOSED_EXPR:
            below = list(inner.get_children())
            if below and below[0].type.get_canonical().kind not in WIDE and below[0].kind != K.CALL_EXPR:
                return
        if SIZES.search(re.sub(r"\bconst\b", "", inner.type.spelling).strip()) and inner.kind in (
                K.CALL_EXPR, K.DECL_REF_EXPR, K.UNEXPOSED_EXPR, K.BINARY_OPERATOR):
            return
        text = self.of(node)
        # What is handed over by reference cannot be copied, and a constant is what it is.
        if re.fullmatch(r"(\w+::)*k[A-Z]\w*|[A-Z][A-Z0-9_]*", text):
            return
        wide = re.sub(r"\b(const|volatile)\b ?", "", source.spelling).strip()
        self.add(where, "width", self.replace(node, "static_cast<%s>(static_cast<%s>(%s))" % (
            wide, WIDE[source.kind], text)))

    # A value that is kept, read again; a value that is read again, kept

    def rereads(self, statements, where):
        for index, node in enumerate(statements):
            if node.kind != K.DECL_STMT:
                continue
            variables = list(node.get_children())
            if len(variables) != 1 or variables[0].kind != K.VAR_DECL:
                continue
            variable = variables[0]
            match = re.match(r"[^=]*?\b%s\s*=\s*(.*?);?$" % re.escape(variable.spelling), self.of(node), re.S)
            if not match or "(" not in match.group(1) and "->" not in match.group(1) and "m_" not in match.group(1):
                continue
            if "[&" in match.group(1) or "[this" in match.group(1):
                continue
            if self.is_pure(list(variable.get_children())[-1]):
                continue
            uses = []
            for later in statements[index + 1:]:
                uses += [n for n in later.walk_preorder() if n.kind == K.DECL_REF_EXPR and
                         n.spelling == variable.spelling and self.of(n) == variable.spelling]
            # Where it is written, or handed out to be written, there is nothing to read again.
            if not variable.type.is_const_qualified() and not variable.type.get_pointee().is_const_qualified():
                if any(re.search(r"\b%s\s*([-+|&]?=[^=]|\+\+|--)|&%s\b" % (variable.spelling, variable.spelling),
                                 self.of(s)) for s in statements[index + 1:]):
                    continue
            for use in (uses[:1] + uses[-1:] if len(uses) > 1 else uses):
                self.add(where, "re-read", self.replace(use, "(%s)" % match.group(1)))
        self.kept(statements, where)

    def is_pure(self, expression):
        """Whether it gives the same when it is read again: nothing but functions of arguments that nobody changes."""
        for node in expression.walk_preorder():
            target = node.referenced
            if node.kind in (K.LAMBDA_EXPR, K.CXX_NEW_EXPR, K.CXX_THIS_EXPR, K.COMPOUND_ASSIGNMENT_OPERATOR):
                return False
            if node.kind == K.MEMBER_REF_EXPR and (target is None or target.kind == K.FIELD_DECL):
                return False
            if node.kind == K.CALL_EXPR and not self.is_pure_call(target):
                return False
            if node.kind == K.DECL_REF_EXPR and target is not None and target.kind in (K.VAR_DECL, K.PARM_DECL) and \
                    self.may_change(target):
                return False
        return not re.search(r"\+\+|--|[^=!<>]=[^=]", self.of(expression))

    def is_pure_call(self, target):
        if target is None:
            return False
        standard = any(node.kind == K.NAMESPACE and node.spelling == "std" for node in ancestors(target))
        if not standard:
            return target.spelling in self.pure
        if target.kind in (K.CONSTRUCTOR, K.CONVERSION_FUNCTION):
            return True
        return target.is_const_method() if target.kind == K.CXX_METHOD else target.spelling in PURE_STD

    def may_change(self, variable):
        kind = variable.type.get_canonical()
        if kind.is_const_qualified() or kind.kind == T.LVALUEREFERENCE and kind.get_pointee().is_const_qualified():
            return False
        if kind.kind in (T.LVALUEREFERENCE, T.RVALUEREFERENCE, T.POINTER) or self.current is None:
            return True
        name = re.escape(variable.spelling)
        if re.search(r"\b%s\s*([-+*/%%|&^]|<<|>>)?=[^=]|\b%s\s*(\+\+|--)|(\+\+|--|&)\s*%s\b|\[&\]" % (name, name, name),
                     re.sub(r"\b[\w:<>]+\s+%s\s*=" % name, "", self.of(self.current))):
            return True
        for parent in self.current.walk_preorder():
            target = parent.referenced
            for child in parent.get_children():
                if child.kind != K.DECL_REF_EXPR or child.spelling != variable.spelling:
                    continue
                if parent.kind == K.CALL_EXPR:
                    return True  # handed over by a reference that is not const
                if parent.kind == K.MEMBER_REF_EXPR and (target is None or not target.is_const_method()):
                    return True
        return False

    def kept(self, statements, where):
        """The second of two equal calls in a block gives what the first one gave."""
        first = {}
        for index, node in enumerate(statements):
            for part in node.walk_preorder():
                if part.kind != K.CALL_EXPR or self.in_macro(part):
                    continue
                text = self.of(part)
                kind = part.type.get_canonical().kind
                if kind in (T.VOID, T.RECORD, T.LVALUEREFERENCE) or "&" in text or not (
                        "(" in text or text.startswith("m_")):
                    continue
                if self.is_pure(part):
                    continue
                if text in first and first[text][0] < index:
                    at = first[text][1]
                    spelled = re.sub(r"\bconst\b ?", "", part.type.get_canonical().spelling)
                    self.add(where, "re-read", (at, at, "const auto keptRead = static_cast<%s>(%s); " % (
                        spelled, text)), self.replace(part, "keptRead"))
                elif text not in first:
                    first[text] = (index, node.extent.start.offset)


def ancestors(node):
    parent = node.semantic_parent
    while parent is not None and parent.kind != K.TRANSLATION_UNIT:
        yield parent
        parent = parent.semantic_parent


def mutants_of(path, name, arguments):
    return Reader(path, name, arguments).mutants()
