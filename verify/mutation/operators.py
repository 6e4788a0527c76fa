# SPDX-License-Identifier: Apache-2.0
"""Finds the mutants of a source in clang's syntax tree.

A mutant inserts text before and after a piece of the source: `(mutant::on(7) ? (a <= b) : (a < b))`.
The changed expression is copied from the original source, so mutants nest, and one build contains all
of them.
"""
import dataclasses

from clang import cindex

K = cindex.CursorKind

COMPARISONS = {"<": ("<=", ">="), "<=": ("<", ">"), ">": (">=", "<"), ">=": (">", "<="),
               "==": ("!=",), "!=": ("==",)}
ARITHMETIC = {"+": "-", "-": "+", "*": "/", "/": "*", "%": "/", "&": "|", "|": "&",
              "<<": ">>", ">>": "<<"}
ASSIGNMENTS = {"+=": "-=", "-=": "+=", "*=": "/=", "/=": "*=", "|=": "&=", "&=": "|="}
LOG_CALLS = ("logLine", "logPlain", "syslog")
FUNCTIONS = (K.FUNCTION_DECL, K.CXX_METHOD, K.CONSTRUCTOR, K.DESTRUCTOR)
NOTHING = ("0", "false", "nullptr", "{}", '""')  # the same value as `return {}`


@dataclasses.dataclass
class Mutant:
    path: str
    line: int
    function: str
    change: str  # "a < b  ->  a <= b"
    start: int   # byte offsets of the piece of source
    end: int
    before: str  # text inserted before it; @ is the mutant's number
    after: str
    last_line: int = 0
    number: int = 0
    nth: int = 0  # index among the mutants with the same change on the same line

    def place(self):
        """A unique key that changes below it in the file do not affect."""
        return (self.path, self.line, self.change, self.nth)


class Source:
    """One source file, and the mutants found in it."""

    def __init__(self, root, path, arguments):
        self.path = path
        self.data = (root / path).read_bytes()
        self.mutants = []
        self.full = str(root / path)
        index = cindex.Index.create()
        unit = index.parse(self.full, args=arguments)
        errors = [d for d in unit.diagnostics if d.severity >= cindex.Diagnostic.Error]
        if errors:
            raise SystemExit(f"mutate: {path}: {errors[0]}")
        for cursor in unit.cursor.get_children():
            self._find_functions(cursor)

    def _find_functions(self, cursor):
        if not cursor.location.file or cursor.location.file.name != self.full:
            return
        if cursor.kind in FUNCTIONS and cursor.is_definition():
            head = self._text(cursor).split(b"{")[0]
            if b"constexpr" not in head:
                for child in cursor.get_children():
                    if child.kind == K.COMPOUND_STMT:
                        self._function = cursor
                        self._in_lambda = False
                        self._statements(child)
        elif cursor.kind in (K.NAMESPACE, K.CLASS_DECL, K.STRUCT_DECL, K.UNEXPOSED_DECL,
                             K.LINKAGE_SPEC):
            for child in cursor.get_children():
                self._find_functions(child)

    def _text(self, cursor):
        return self.data[cursor.extent.start.offset:cursor.extent.end.offset]

    def _word(self, cursor):
        return " ".join(self._text(cursor).decode().split())

    def _add(self, cursor, change, before, after=""):
        extent = cursor.extent
        self.mutants.append(Mutant(
            self.path, extent.start.line, self._function.spelling, change, extent.start.offset,
            extent.end.offset, before, after, extent.end.line))

    def _replace(self, cursor, text):
        """Adds a mutant that replaces the expression with @p text."""
        text = text.strip()
        if "//" in text:  # a comment would hide the text behind it
            return
        self._add(cursor, f"{self._word(cursor)}  ->  {' '.join(text.split())}",
                  f"(mutant::on(@) ? ({' '.join(text.split())}) : (", "))")

    # Statements

    def _statements(self, block):
        for statement in block.get_children():
            if statement.kind.is_expression():
                self._add(statement, f"{self._word(statement)}  ->  (removed)",
                          "if (mutant::on(@)) {} else ")
            elif statement.kind in (K.BREAK_STMT, K.CONTINUE_STMT):
                self._add(statement, f"{self._word(statement)}  ->  (removed)",
                          "if (mutant::on(@)) {} else ")
            self._visit(statement)

    def _visit(self, cursor):
        kind = cursor.kind
        children = list(cursor.get_children())
        if kind == K.COMPOUND_STMT:
            self._statements(cursor)
            return
        if kind == K.LAMBDA_EXPR:
            self._lambda(children)
            return
        if kind == K.CASE_STMT:
            children = children[1:]
        elif kind == K.DECL_STMT and b"constexpr" in self._text(cursor).split(b"=")[0]:
            return
        elif kind == K.VAR_DECL and cursor.type.kind == cindex.TypeKind.CONSTANTARRAY:
            children = [c for c in children if c.kind != K.INTEGER_LITERAL]
        elif kind == K.CALL_EXPR and cursor.spelling in LOG_CALLS:
            return
        elif kind in (K.STATIC_ASSERT, K.TYPE_REF, K.TEMPLATE_REF, K.CXX_UNARY_EXPR):
            return
        elif kind == K.RETURN_STMT:
            self._return(cursor, children)
        elif kind in (K.IF_STMT, K.WHILE_STMT, K.CONDITIONAL_OPERATOR):
            self._condition(children)
        elif kind == K.BINARY_OPERATOR:
            self._binary(cursor, children)
        elif kind == K.COMPOUND_ASSIGNMENT_OPERATOR:
            self._swap(cursor, children, ASSIGNMENTS)
        elif kind == K.CALL_EXPR and cursor.spelling in ("operator==", "operator!=", "operator<"):
            self._overloaded(cursor, children)
        elif kind == K.UNARY_OPERATOR:
            self._unary(cursor, children)
        elif kind == K.INTEGER_LITERAL:
            self._number(cursor)
        elif kind == K.CXX_BOOL_LITERAL_EXPR:
            word = self._word(cursor)
            if word in ("true", "false"):
                self._replace(cursor, "false" if word == "true" else "true")
        for child in children:
            if not (child.kind == K.INTEGER_LITERAL and self._is_compared(cursor, children)):
                self._visit(child)

    def _is_compared(self, cursor, children):
        """Whether changing a number equals changing the comparison: a > 1 is a >= 2."""
        return (cursor.kind == K.BINARY_OPERATOR and len(children) == 2 and
                self._operator(*children) in ("<", "<=", ">", ">="))

    def _lambda(self, children):
        outer, self._in_lambda = self._in_lambda, True
        for child in children:
            if child.kind == K.COMPOUND_STMT:
                self._statements(child)
        self._in_lambda = outer

    def _return(self, cursor, children):
        if not children:
            self._add(cursor, "return  ->  (removed)", "if (mutant::on(@)) {} else ")
            return
        value = children[0]
        word = self._word(value)
        kind = value.type.get_canonical().kind
        if kind == cindex.TypeKind.BOOL:
            if not self._has_own_negation(value):
                self._replace(value, f"!({word})")
        elif not self._in_lambda and word not in NOTHING and self._gives_value():
            self._add(cursor, f"return {word}  ->  return {{}}",
                      "if (mutant::on(@)) return {}; else ")

    def _gives_value(self):
        kind = self._function.result_type.get_canonical().kind
        return kind not in (cindex.TypeKind.LVALUEREFERENCE, cindex.TypeKind.RVALUEREFERENCE,
                            cindex.TypeKind.VOID)

    # Expressions

    def _condition(self, children):
        if children and children[0].kind.is_expression():
            condition = children[0]
            if not self._has_own_negation(condition):
                self._replace(condition, f"!({self._word(condition)})")

    def _has_own_negation(self, cursor):
        """Whether another mutant already negates the expression's operator."""
        while cursor.kind in (K.UNEXPOSED_EXPR, K.PAREN_EXPR):
            children = list(cursor.get_children())
            if len(children) != 1:
                return False
            cursor = children[0]
        if cursor.kind in (K.BINARY_OPERATOR, K.CALL_EXPR):
            children = list(cursor.get_children())
            if len(children) in (2, 3):
                return self._operator(children[0], children[-1]) in COMPARISONS
        return cursor.kind == K.CXX_BOOL_LITERAL_EXPR or (
            cursor.kind == K.UNARY_OPERATOR and self._text(cursor).startswith(b"!"))

    def _operator(self, left, right):
        text = self.data[left.extent.end.offset:right.extent.start.offset].decode()
        return text.strip()

    def _binary(self, cursor, children):
        if len(children) != 2:
            return
        left, right = (self._word(child) for child in children)
        sign = self._operator(*children)
        if sign in COMPARISONS:
            for other in COMPARISONS[sign]:
                self._replace(cursor, f"{left} {other} {right}")
        elif sign in ("&&", "||"):
            other = "||" if sign == "&&" else "&&"
            self._replace(cursor, f"({left}) {other} ({right})")
            self._replace(cursor, left)
            self._replace(cursor, right)
        else:
            self._swap(cursor, children, ARITHMETIC)

    def _swap(self, cursor, children, table):
        if len(children) != 2:
            return
        sign = self._operator(*children)
        if sign in table:
            left, right = (self._word(child) for child in children)
            self._replace(cursor, f"{left} {table[sign]} {right}")

    def _overloaded(self, cursor, children):
        if len(children) != 3:
            return
        left, right = children[0], children[2]
        sign = self._operator(left, right)
        for other in COMPARISONS.get(sign, ())[:1]:
            other = ">" if sign == "<" else other
            self._replace(cursor, f"{self._word(left)} {other} {self._word(right)}")

    def _unary(self, cursor, children):
        text = self._word(cursor)
        operand = self._word(children[0])
        if text.startswith("!"):
            self._replace(cursor, f"!!({operand})")
        elif text.startswith("++"):
            self._replace(cursor, f"--{operand}")
        elif text.startswith("--"):
            self._replace(cursor, f"++{operand}")

    def _number(self, cursor):
        word = self._word(cursor)
        if word[:1].isdigit():
            self._replace(cursor, f"{word} + 1")
            self._replace(cursor, f"{word} - 1")


def instrument(data, mutants, header):
    """The source @p data with all of @p mutants inserted. Line numbers stay the same."""
    insertions = []
    for order, mutant in enumerate(mutants):
        length = mutant.end - mutant.start
        # At one position: first the closing texts, shortest piece first, then the opening texts,
        # longest piece first.
        insertions.append((mutant.start, 1, -length, order, mutant.before.replace("on(@)", f"on({mutant.number})")))
        if mutant.after:
            insertions.append((mutant.end, 0, length, -order, mutant.after))
    parts, at = [], 0
    for offset, _, _, _, text in sorted(insertions):
        parts += [data[at:offset], text.encode()]
        at = offset
    start = f'#include "{header}"\n#line 1\n'.encode()
    return b"".join([start, *parts, data[at:]])
