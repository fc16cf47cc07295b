"""Tests of source_notes.py."""

import textwrap
import unittest

from source_notes import MUTATION, NOT_REACHED, Source, blank, without_notes


def source(text):
    return Source(textwrap.dedent(text).lstrip("\n"))


def notes(text):
    return [(note.kind, note.reason, list(note.lines), list(note.block))
            for note in source(text).notes]


class Macros(unittest.TestCase):
    def untestable(self, read):
        return [read.text[start:end] for start, end in read.untestable]

    def test_assertion_may_span_lines(self):
        read = source("""
            a();
            QUORVEL_ASSERT(b ||
                           c(")"));
            d();
            """)
        self.assertEqual(read.branchless, {2, 3})
        self.assertEqual(read.unreachable, set())
        self.assertEqual([" ".join(part.split()) for part in self.untestable(read)],
                         ['QUORVEL_ASSERT(b || c(")"));'])

    def test_never_includes_the_body_of_its_if(self):
        read = source("""
            if (QUORVEL_NEVER(
                    a(b))) {
                for (;;) {
                    c();
                }
            } else if (QUORVEL_NEVER(d)) {
                e();
            } else {
                f();
            }
            """)
        self.assertEqual(read.branchless, {1, 2, 6})
        self.assertEqual(read.unreachable, {3, 4, 5, 7})
        self.assertNotIn("f();", "".join(self.untestable(read)))
        self.assertIn("c();", "".join(self.untestable(read)))

    def test_never_in_a_longer_condition_leaves_the_body(self):
        read = source("""
            if (QUORVEL_NEVER(a) || b) {
                c();
            }
            """)
        self.assertEqual(read.branchless, {1})
        self.assertEqual(read.unreachable, set())
        self.assertEqual(self.untestable(read), ["QUORVEL_NEVER(a)"])

    def test_definitions_comments_and_literals_do_not_count(self):
        read = source("""
            #define QUORVEL_ASSERT(condition) \\
                f(QUORVEL_NEVER(condition))
            // QUORVEL_ASSERT(a);
            f("QUORVEL_NEVER(b)", '"');
            """)
        self.assertEqual(read.untestable, [])


class Notes(unittest.TestCase):
    def test_at_the_end_of_a_line(self):
        self.assertEqual(notes("""
            a();
            b();  // mutation: costs time alone
            c();
            """), [(MUTATION, "costs time alone", [2], [])])

    def test_on_a_line_before_the_code(self):
        self.assertEqual(notes("""
            // What the code does.
            // not reached in tests: it takes
            // half a gigabyte

            a(b,
              c);
            d();
            """), [(NOT_REACHED, "it takes half a gigabyte", [5, 6], [])])

    def test_two_before_the_same_code(self):
        self.assertEqual(notes("""
            // not reached in tests: a
            // mutation: b
            c();
            """), [(NOT_REACHED, "a", [3], []), (MUTATION, "b", [3], [])])

    def test_covers_the_rest_of_a_condition_and_its_block(self):
        self.assertEqual(notes("""
            if (a &&
                b &&  // not reached in tests: b is true
                c) {
                d();
                if (e) {
                    f();
                }
            } else {
                g();
            }
            """), [(NOT_REACHED, "b is true", [2, 3], [4, 5, 6, 7])])

    def test_needs_a_reason_and_code(self):
        self.assertEqual(notes("""
            a();  // mutation:
            b();  // a mutation: of something else
            // not reached in tests: the file ends here
            """), [])

    def test_can_be_taken_out(self):
        self.assertEqual(without_notes("a();  // mutation: reason\nb();  // c"),
                         "a();\nb();  // c")


class Blank(unittest.TestCase):
    def test_keeps_code_and_places(self):
        text = "a /* b\nc */ d(\"//\", '\\''); // e\n#define f \\\n    g\nh"
        self.assertEqual(len(blank(text)), len(text))
        self.assertEqual(blank(text).split(), ["a", "d(", ",", ");", "h"])


if __name__ == "__main__":
    unittest.main()
