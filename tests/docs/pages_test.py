"""What follows the pages finds what is wrong with one, and nothing in a page that is true.

Usage: pages_test.py BUILD
"""

import contextlib
import io
import sys
import tempfile
import unittest
from pathlib import Path

from blocks import PageError, blocks_of
from expected import parse_shown, text_differs, value_differs
from pages import Pages

BUILD = Path(sys.argv.pop()).resolve()


def wrong_with(page):
    """All that is found wrong with a page of this text."""
    with tempfile.TemporaryDirectory() as folder, contextlib.redirect_stdout(io.StringIO()):
        source = Path(folder)
        (source / "script").mkdir()
        (source / "PAGE.md").write_text(page)
        return "\n".join(Pages(source, BUILD, ["PAGE.md"]).all())


def fenced(text, language="sh"):
    return f"```{language}\n{text}\n```\n"


class PagesTest(unittest.TestCase):
    def test_commands_of_a_chapter_share_a_shell_and_what_they_print_is_compared(self):
        page = fenced("count=3") + "\nSo:\n\n" + fenced("echo $count\necho later") + fenced("3\n...", "text")
        self.assertEqual("", wrong_with(page))

    def test_output_that_is_another_one_is_wrong(self):
        self.assertIn("-4\n+3", wrong_with(fenced("echo 3") + fenced("4", "text")))

    def test_output_without_a_language_is_output_too(self):
        self.assertIn("-4\n+3", wrong_with(fenced("echo 3") + fenced("4", "")))

    def test_command_that_fails_is_wrong_and_named(self):
        found = wrong_with(fenced("true") + "\n" + fenced("echo before\nfalse\necho after"))
        self.assertIn("PAGE.md:5: it ends with 1:\nbefore", found)
        self.assertNotIn("after", found)

    def test_indented_commands_are_run(self):
        self.assertIn("it ends with", wrong_with("Do this:\n\n    parvane-host --no-such-option\n"))

    def test_service_that_a_block_starts_is_there_for_the_next_and_ends(self):
        start = fenced("parvane &\nparvane-host --wait list >/dev/null")
        self.assertEqual("", wrong_with(start + fenced("parvane-watch status >/dev/null")))

    def test_block_that_is_not_run_has_a_reason(self):
        self.assertEqual("", wrong_with("<!-- not run: takes a friend -->\n" + fenced("false")))
        self.assertIn("lacks its reason", wrong_with("<!-- not run: -->\n" + fenced("false")))
        self.assertIn("begins with one of", wrong_with("<!-- not-run: takes a friend -->\n" + fenced("false")))

    def test_reason_does_not_name_what_is_not_there(self):
        page = "<!-- not run: script/none does it -->\n" + fenced("false")
        self.assertIn("script/none, which is not there", wrong_with(page))

    def test_comment_about_no_block_is_wrong(self):
        page = "<!-- not run: takes a friend -->\nNothing.\n\n" + fenced("true")
        self.assertIn("not right before a block", wrong_with(page))

    def test_text_that_nobody_prints_is_wrong(self):
        self.assertIn("no command above it", wrong_with("# One\n" + fenced("echo 3") + "# Two\n" + fenced("3", "text")))

    def test_unknown_language_is_wrong(self):
        self.assertIn("'console'", wrong_with(fenced("$ true", "console")))

    def test_replies_of_the_control_socket_are_compared(self):
        request = '    > {"request":"link","state":"down"}\n'
        self.assertEqual("", wrong_with(request + '    < {"ok":true,"version":1}\n'))
        wrong = wrong_with(request + '    < {"ok":false,"version":1}\n')
        self.assertIn("the message.ok is true, the page shows false", wrong)
        self.assertIn("has the members", wrong_with(request + '    < {"ok":true}\n'))

    def test_request_without_a_reply_is_not_refused(self):
        self.assertEqual("", wrong_with('    > {"request":"quit"}\n    > {"request":"status"}\n'))
        self.assertIn("is refused", wrong_with('    > {"request":"quite"}\n'))

    def test_reply_without_a_request_is_wrong(self):
        self.assertIn("begins with a request", wrong_with('    < {"ok":true}\n'))

    def test_packets_of_the_link_are_compared_but_for_their_time(self):
        self.assertEqual("", wrong_with(fenced("phone  14 00 00 03\nwatch  14 02 00 03   stopped", "")))
        self.assertIn("the page shows", wrong_with(fenced("phone  14 00 00 03\nwatch  14 00 02 03", "")))
        twice = "phone  14 00 00 03\nphone  24 00 00 03\nwatch  14 02 00 03\nwatch  24 02 00 03"
        self.assertEqual("", wrong_with(fenced(twice, "")))
        self.assertIn("more comes than is shown", wrong_with(fenced("phone  01 00 00 00\n" + twice, "")))
        reading = "watch  12 00 0E 01 11 00 00 00 00 12 34 56 78 00 00 00 00 00"
        self.assertEqual("", wrong_with(fenced(f"phone  12 00 00 01\n{reading}", "")))

    def test_something_is_done_before_and_meanwhile(self):
        pushed = """phone  23 00 00 01 00
watch  23 00 0E 01 11 00 00 00 00 00 00 00 00 00 00 00 00 00
watch  23 00 0E 01 11 00 00 00 00 00 00 00 00 3F 80 00 00 00"""
        walks = "<!-- meanwhile: parvane-watch set activity walking -->\n"
        self.assertEqual("", wrong_with(walks + fenced(pushed, "")))
        page = fenced("phone  12 00 00 04\nwatch  12 00 0E 04 11 00 00 00 00 00 00 00 00 3F 80 00 00 00", "")
        self.assertEqual("", wrong_with("<!-- first: parvane-watch set hr 60 -->\n" + page))
        self.assertIn("first ends with 7", wrong_with("<!-- first: exit 7 -->\n" + page))

    def test_configurations_and_recordings_are_checked(self):
        columns = "t_ms,heart_rate,total_steps,walk_steps,run_steps,distance_m,calories_kcal,speed,activity,gesture"
        self.assertEqual("", wrong_with(f"\n    {columns}\n    0,60,,,,,,,,\n"))
        self.assertEqual("", wrong_with(fenced("[sensors]\nheart_rate=manual", "ini")))
        self.assertIn("hart_rate", wrong_with(fenced("[sensors]\nhart_rate=manual", "ini")))
        self.assertIn("check-config ends with 1", wrong_with("\n    t_ms,heart_rate\n    0,60\n"))

    def test_scenarios_are_played(self):
        self.assertEqual("", wrong_with("\n    t_s,heart_rate\n    0,60\n    5,70\n"))
        self.assertIn("parvane-watch play ends with", wrong_with("\n    t_s,heart_rate\n    0,fast\n"))

    def test_statements_are_run(self):
        insertion = fenced("INSERT INTO a VALUES(1);", "sql")
        self.assertEqual("", wrong_with(fenced("CREATE TABLE a(b);", "sql") + insertion))
        self.assertIn("no such table", wrong_with(insertion))

    def test_links_lead_somewhere(self):
        links = "[here](#the-first-part) [there](PAGE.md#the-first-part) [away](https://example.org)\n"
        self.assertEqual("", wrong_with("# The `first` part\n" + links))
        self.assertIn("nowhere", wrong_with("[x](NONE.md)\n"))
        self.assertIn("no such heading", wrong_with("[x](#none)\n"))


class BlocksTest(unittest.TestCase):
    def test_pictures_and_log_lines_are_only_shown(self):
        page = fenced("┌─┐", "") + "\n    W platform: iio: gone\n\nor\n\n    parvane-1-1 17000\n"
        self.assertEqual(["shown"] * 3, [block.kind for block in blocks_of(page)])

    def test_unended_comment_is_wrong(self):
        with self.assertRaises((PageError, ValueError)):
            blocks_of("<!-- not run: takes\n" + fenced("true"))


class ExpectedTest(unittest.TestCase):
    def test_numbers_vary_only_when_told(self):
        self.assertIsNone(text_differs("heart rate:  72 bpm", "heart rate: 108 bpm\n", True))
        self.assertIsNotNone(text_differs("heart rate: 72 bpm", "heart rate: 108 bpm\n", False))
        self.assertIsNotNone(text_differs("heart rate: 72 bpm", "heart rate: none\n", True))

    def test_dots_are_a_part_of_a_line_or_lines(self):
        self.assertIsNone(text_differs("a ... c\n...\nend", "a b c\n1\n2\nend\n", False))
        self.assertIsNotNone(text_differs("a ... c\nend", "a b c\n1\nend\n", False))

    def test_dots_are_members_and_elements(self):
        shown = parse_shown('{"a":[...,{"b":"...",...}],...}')
        self.assertIsNone(value_differs(shown, {"a": [1, {"b": "x", "c": 2}], "d": 3}, False))
        self.assertIsNotNone(value_differs(shown, {"a": [1, {"c": 2}], "d": 3}, False))

    def test_types_differ(self):
        self.assertIsNotNone(value_differs({"a": 1}, {"a": True}, True))
        self.assertIsNotNone(value_differs({"a": 1}, {"a": "1"}, True))
        self.assertIsNotNone(value_differs([1], [1, 2], True))


if __name__ == "__main__":
    unittest.main()
