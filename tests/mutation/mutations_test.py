"""What counts as a change: each test is a piece of C++ and what may become of it."""

import unittest

from mutations import mutations


def changes(source, kind=None):
    """The changed texts, each as one line."""
    found = mutations("x.cpp", source)
    return [" ".join(change.apply(source).split()) for change in found if kind in (None, change.kind)]


def in_function(body, kind=None):
    head = "int f(int a, int b) { "
    return [text[len(head) : -2] for text in changes(head + body + " }", kind)]


class MutationsTest(unittest.TestCase):
    def test_relations_have_two_neighbours_or_their_opposite(self):
        self.assertEqual(["a <= b;", "a >= b;"], in_function("a < b;", "relation"))
        self.assertEqual(["a != b;"], in_function("a == b;", "relation"))

    def test_brackets_of_templates_are_no_relations(self):
        self.assertEqual([], in_function("g<int>(a);", "relation"))
        self.assertEqual([], changes("template <typename T>\nvoid f(T &&t, const T *p, T &r);"))

    def test_operators_become_others_of_their_kind(self):
        self.assertEqual(["a - b;"], in_function("a + b;", "arithmetic"))
        self.assertEqual(["a >> b;", "a | b;"], in_function("a << b;", "bits") + in_function("a & b;", "bits"))
        self.assertEqual(["a || b;"], in_function("a && b;", "logic"))
        self.assertEqual(["--a;", "a -= b;"], in_function("++a;", "step") + in_function("a += b;", "step"))

    def test_negations_go_and_conditions_turn(self):
        self.assertEqual(["g(a);"], in_function("g(!a);", "removed negation"))
        self.assertEqual(["if (!(a)) { g(); }"], in_function("if (a) { g(); }", "negated condition"))

    def test_declaration_in_a_condition_stays(self):
        self.assertEqual([], in_function("if (auto c = g()) { g(); }", "negated condition"))

    def test_numbers_grow_by_one_or_become_zero(self):
        self.assertEqual(["g(0);", "g(8);"], in_function("g(7);", "number"))
        self.assertEqual(["g(1);"], in_function("g(0);", "number"))
        self.assertEqual(["g(0x0U);", "g(0x10U);"], in_function("g(0xFU);", "number"))
        self.assertEqual(["g(2.5F);"], in_function("g(1.5F);", "number"))

    def test_negative_number_loses_its_sign(self):
        self.assertEqual(["g(1);"], in_function("g(-1);", "sign"))

    def test_texts_characters_and_truths_change(self):
        self.assertEqual(['g("~text");'], in_function('g("text");', "text"))
        self.assertEqual(["g('b');"], in_function("g('a');", "character"))
        self.assertEqual(["g(false);"], in_function("g(true);", "truth"))

    def test_calls_and_assignments_are_removed(self):
        for statement in ("g(a);", "x->y.g(a, b);", "*x = g();", "(*x)->g();", "++a;", "new X();", "x << a;"):
            self.assertEqual([";"], in_function(statement, "removed statement"), statement)

    def test_declarations_are_not_removed(self):
        for statement in ("X x(a);", "X<int> x(a);", "X &x = a;", "auto x = a;", "const int x = g();", "X::Y *x = a;"):
            self.assertEqual([], in_function(statement, "removed statement"), statement)

    def test_call_of_a_case_is_removed_without_its_label(self):
        self.assertEqual(
            ["switch (a) { case 1: ; break; }"], in_function("switch (a) { case 1: g(); break; }", "removed statement")
        )

    def test_members_of_a_class_are_not_statements(self):
        self.assertEqual([], changes("class X { public: X(); void g(int a); };"))
        self.assertEqual(["void g() { ; }"], changes("void g() { h(); }"))

    def test_results_become_empty_ones(self):
        self.assertEqual(["return {};"], in_function("return a;", "result"))
        self.assertEqual([], in_function("return nullptr;", "result"))

    def test_neighbouring_arguments_are_swapped(self):
        self.assertEqual(["g(b, a, 1);", "g(a, 1, b);"], in_function("g(a, b, 1);", "swapped arguments"))
        self.assertEqual(["g(b, h(a));"], in_function("g(h(a), b);", "swapped arguments"))

    def test_format_stays_in_its_place(self):
        self.assertEqual([], in_function('g("%d", a);', "swapped arguments"))

    def test_comments_directives_and_assertions_of_the_compiler_are_left_alone(self):
        self.assertEqual([], changes("// a < 1\n/* b == 2 */\n#define X 1 + 2 \\\n  + 3\nstatic_assert(1 + 1 == 2);"))

    def test_line_numbers_stay(self):
        source = "void f()\n{\n    g(a,\n      b);\n    h();\n}\n"
        for change in mutations("x.cpp", source):
            self.assertEqual(source.count("\n"), change.apply(source).count("\n"))
        self.assertEqual([3, 5], [c.line(source) for c in mutations("x.cpp", source) if c.kind == "removed statement"])


if __name__ == "__main__":
    unittest.main()
