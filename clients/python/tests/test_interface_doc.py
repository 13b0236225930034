"""docs/interface.md and the Python module tell the same story: the key table, the example status line and the
example state message parse into the values the document gives."""

import ast
import os
import re
import sys
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, ".."))
import tarnwick  # noqa: E402

DOCUMENT = os.path.join(HERE, "..", "..", "..", "docs", "interface.md")


def section_after(text, marker):
    """The lines after an HTML comment marker, up to the next blank line after its block."""
    start = text.index("<!-- %s -->" % marker) + len(marker) + 9
    lines = text[start:].lstrip("\n").split("\n")
    if lines[0].startswith("```"):
        return lines[1:lines.index("```", 1)]
    block = []
    for line in lines:
        if not line.startswith("|"):
            break
        block.append(line)
    return block


def table_rows(lines):
    """The cells of a Markdown table, header and rule dropped."""
    return [[cell.strip() for cell in line.strip("|").split("|")] for line in lines[2:]]


def literal(cell):
    return ast.literal_eval(re.fullmatch(r"`(.*)`", cell).group(1))


class InterfaceDocumentTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        with open(DOCUMENT, encoding="utf-8") as f:
            cls.text = f.read()

    def test_key_table_matches_the_module(self):
        rows = table_rows(section_after(self.text, "status-keys"))
        documented = [(row[0], {"int": int, "text": str}[row[1]]) for row in rows]
        self.assertEqual(documented, list(tarnwick.STATUS_KEYS))

    def test_example_status_line(self):
        (line,) = section_after(self.text, "example-status-line")
        record = tarnwick.parse_status_line(b"\x07" + line.encode("utf-8"))
        self.assertEqual(list(record), [key for key, _ in tarnwick.STATUS_KEYS])
        rows = table_rows(section_after(self.text, "example-status-values"))
        self.assertGreater(len(rows), 5)
        for key, value in rows:
            self.assertEqual(record[key], literal(value), key)

    def test_example_state_message(self):
        (hex_text,) = section_after(self.text, "example-state-message")
        message = bytes.fromhex(hex_text)
        self.assertEqual(len(message), 39)
        state = tarnwick.parse_datagram(message)
        rows = table_rows(section_after(self.text, "example-state-values"))
        self.assertGreater(len(rows), 5)
        for field, value in rows:
            self.assertEqual(getattr(state, field), literal(value), field)


if __name__ == "__main__":
    unittest.main()
