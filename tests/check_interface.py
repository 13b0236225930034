#!/usr/bin/env python3
"""One truth for the interface: docs/interface.json describes the status line's keys, the binary messages and
the shared-memory records once. This checks everything else that states them against it:

- docs/interface.md: the key table, the message and record tables, the sizes and the longest text;
- the C client header (the tarnwick_status record, its field count and text capacity), the C++ interface header
  (tarnwickclient/interface.h: the offsets the relay and the library are both built from) and the library's
  status-line table (clients/cpp/src/report.cpp);
- the Python module: its constants and key types, and its parsers fed messages built from the description;
- the relay itself: the keys and conversions its status line formats (src/state/status_report.cpp) and the text
  capacities of its record (src/state/camera_state.h), which bound the longest text.

    tests/check_interface.py ROOT            check; one line per disagreement, exit 1 when there is any
    tests/check_interface.py --write ROOT    rewrite the generated parts (the document's tables and the C record's
                                             members) from the description, then check
"""

import importlib.machinery
import json
import os
import re
import struct
import sys
import types

WIDTHS = {"u8": "B", "i16": "h", "u16": "H"}


class Problems(list):
    def check(self, condition, where, text):
        if not condition:
            self.append("%s: %s" % (where, text))


def read(root, path):
    with open(os.path.join(root, path), encoding="utf-8") as f:
        return f.read()


# --- docs/interface.md -----------------------------------------------------------------------------------------

def find_table(lines, anchor):
    """(first row index, end index) of the Markdown table after the first line that starts with `anchor`,
    header and rule included in neither."""
    for i, line in enumerate(lines):
        if line.startswith(anchor):
            start = i + 1
            while start < len(lines) and not lines[start].startswith("|"):
                start += 1
            end = start
            while end < len(lines) and lines[end].startswith("|"):
                end += 1
            return start + 2, end
    raise LookupError("no table after %r" % anchor)


def cells(line):
    return [cell.strip() for cell in line.strip().strip("|").split("|")]


def row(values):
    return "|" + "|".join(" %s " % value if str(value) else " " for value in values) + "|"


def document_tables(truth):
    """anchor -> the table's rows as the description gives them."""
    status = truth["status_line"]
    messages = truth["binary_messages"]
    return {
        "<!-- status-keys -->": [[k["key"], k["type"], k["meaning"], k["values"], k["empty_when"]]
                                 for k in status["keys"]],
        "**State message**": [[f["offset"], f["width"], f["content"]] for f in messages["state"]["fields"]],
        "**Tracking message**": [[f["offset"], f["width"], f["content"]] for f in messages["tracking"]["fields"]],
        'POSIX shared memory "/shared_camstate"': [[f["offset"], f["width"], f["content"]]
                                                    for f in truth["attitude"]["fields"]],
        'POSIX shared memory "/shared_rc_raw"': [[r["bytes"], r["type"], r["content"]]
                                                 for r in truth["remote_control"]["rows"]],
    }


def write_document(root, truth):
    path = os.path.join(root, "docs", "interface.md")
    with open(path, encoding="utf-8") as f:
        lines = f.read().split("\n")
    for anchor, rows in document_tables(truth).items():
        start, end = find_table(lines, anchor)
        lines[start:end] = [row(values) for values in rows]
    with open(path, "w", encoding="utf-8") as f:
        f.write("\n".join(lines))


def check_document(root, truth, problems):
    where = "docs/interface.md"
    text = read(root, "docs/interface.md")
    lines = text.split("\n")
    for anchor, rows in document_tables(truth).items():
        start, end = find_table(lines, anchor)
        documented = [cells(line) for line in lines[start:end]]
        expected = [[str(value) for value in values] for values in rows]
        for i in range(max(len(documented), len(expected))):
            have = documented[i] if i < len(documented) else None
            want = expected[i] if i < len(expected) else None
            problems.check(have == want, where, "table after %r, row %d is %s, the description says %s"
                           % (anchor, i + 1, have, want))

    status = truth["status_line"]
    messages = truth["binary_messages"]
    facts = [
        (r"the byte 7, then text \(no terminating zero\), at most (\d+) bytes in all", status["maximum_size"]),
        (r"The text is (\d+) items", len(status["keys"])),
        (r"No text is longer than (\d+) bytes", status["longest_text"]),
        (r"\*\*State message\*\* \(kind (\d+), \d+ bytes\)", messages["state"]["kind"]),
        (r"\*\*State message\*\* \(kind \d+, (\d+) bytes\)", messages["state"]["size"]),
        (r"\*\*Tracking message\*\* \(kind (\d+), \d+ bytes\)", messages["tracking"]["kind"]),
        (r"\*\*Tracking message\*\* \(kind \d+, (\d+) bytes\)", messages["tracking"]["size"]),
        (r"\*\*Histogram message\*\* \(kind (\d+), \d+ bytes\)", messages["histogram"]["kind"]),
        (r"\*\*Histogram message\*\* \(kind \d+, (\d+) bytes\)", messages["histogram"]["size"]),
        (r"Byte 0 is (\d+), byte 1 the kind", messages["type_byte"]),
        (r'"/shared_camstate" \(file /dev/shm/shared_camstate\), exactly (\d+) bytes', truth["attitude"]["size"]),
        (r'"/shared_rc_raw" \(file /dev/shm/shared_rc_raw\), exactly (\d+) bytes', truth["remote_control"]["size"]),
        (r"/dev/shm/tarnwickrelay_framebuffer\), (\d+) bytes", truth["ring"]["size"]),
        (r"bytes: a (\d+)-byte header and \d+ slots", truth["ring"]["header_size"]),
        (r"-byte header and (\d+) slots of", truth["ring"]["slot_count"]),
        (r"slots of (\d+) bytes", truth["ring"]["slot_header_size"] + truth["ring"]["chunk_capacity"]),
        (r'"tarnwickrelay_framebuffer_transcoding", (\d+) bytes', truth["transcoding"]["size"]),
    ]
    for pattern, value in facts:
        found = re.search(pattern, text)
        problems.check(found is not None and int(found.group(1)) == value, where,
                       "%r should give %s, finds %s" % (pattern, value, found and found.group(1)))

    # The ring's tables: offsets, widths and the header fields' names (their prose is the reader's story).
    ring = truth["ring"]
    start, end = find_table(lines, "Header:")
    documented = [cells(line) for line in lines[start:end]]
    for field in ring["header"]:
        match = [c for c in documented if c[0] == str(field["offset"])]
        problems.check(match and match[0][1] == field["width"] and match[0][2].startswith("`%s`" % field["name"]),
                       where, "ring header field %s at %d (%s)" % (field["name"], field["offset"], field["width"]))
    start, end = find_table(lines, "Slot k (0 to")
    documented = [cells(line)[:2] for line in lines[start:end]]
    expected = [[str(f["offset"]), f["width"]] for f in ring["slot"]]
    problems.check(documented == expected, where, "ring slot table %s, the description says %s"
                   % (documented, expected))


# --- The C and C++ headers and the library's table ---------------------------------------------------------------

STATUS_RECORD = re.compile(r"typedef struct tarnwick_status \{\n    uint64_t present;\n(.*?)\} tarnwick_status;",
                           re.S)


def record_members(truth):
    """The members of tarnwick_status after `present`, as the description gives them."""
    members = []
    for key in truth["status_line"]["keys"]:
        name = key["key"]
        if key["type"] == "text":
            declaration = "char %s[%sTARNWICK_TEXT_CAPACITY];" % (name, "2 * " if name == "format" else "")
        else:
            declaration = "%s %s;" % ("int64_t" if name == "shots_left" else "int32_t", name)
        members.append((declaration, key["meaning"]))
    return members


def record_text(truth):
    return "".join("    %-44s/* %s */\n" % (declaration, meaning) for declaration, meaning in record_members(truth))


def write_header(root, truth):
    path = os.path.join(root, "clients", "cpp", "include", "tarnwickclient.h")
    with open(path, encoding="utf-8") as f:
        text = f.read()
    found = STATUS_RECORD.search(text)
    text = text[:found.start(1)] + record_text(truth) + text[found.end(1):]
    with open(path, "w", encoding="utf-8") as f:
        f.write(text)


def constants(text):
    """name -> value of every `constexpr` in a header whose value is a number, a text or a sum or product of
    those; later ones may use earlier ones. Names in a namespace are qualified with it."""
    values = {}
    namespace = []
    for line in text.split("\n"):
        opened = re.match(r"namespace (\w+) \{", line)
        if opened and opened.group(1) != "tarnwick":
            namespace.append(opened.group(1))
            continue
        if re.match(r"\}  // namespace (\w+)$", line) and namespace and line.endswith(namespace[-1]):
            namespace.pop()
            continue
        found = re.match(r"\s*constexpr [\w:* ]+? (k\w+) = (.+?);", line)
        if not found:
            continue
        name, expression = found.groups()
        scope = {k.split("::")[-1]: v for k, v in values.items() if "::" not in k}
        if namespace:
            scope.update({k.split("::")[-1]: v for k, v in values.items() if k.startswith(namespace[-1] + "::")})
        if re.fullmatch(r'"[^"]*"', expression):
            value = expression[1:-1]
        elif re.fullmatch(r"'.'", expression):
            value = ord(expression[1])
        elif re.fullmatch(r"[\w\s+*()]+", expression):
            try:
                value = eval(expression, {"__builtins__": {}}, scope)
            except NameError:
                continue
        else:
            continue
        values[(namespace[-1] + "::" if namespace else "") + name] = value
    return values


def check_c(root, truth, problems):
    where = "clients/cpp/include/tarnwickclient.h"
    header = read(root, "clients/cpp/include/tarnwickclient.h")
    status = truth["status_line"]
    found = STATUS_RECORD.search(header)
    problems.check(found is not None, where, "no tarnwick_status record of the expected shape")
    if found:
        have = found.group(1).split("\n")[:-1]
        want = record_text(truth).split("\n")[:-1]
        for i in range(max(len(have), len(want))):
            problems.check(i < len(have) and i < len(want) and have[i] == want[i], where,
                           "tarnwick_status member %d is %r, the description gives %r"
                           % (i + 1, have[i] if i < len(have) else None, want[i] if i < len(want) else None))
    count = re.search(r"#define TARNWICK_STATUS_FIELD_COUNT (\d+)", header)
    problems.check(count and int(count.group(1)) == len(status["keys"]), where,
                   "TARNWICK_STATUS_FIELD_COUNT should be %d" % len(status["keys"]))
    capacity = re.search(r"#define TARNWICK_TEXT_CAPACITY (\d+) +/\* the relay's longest text value is (\d+) bytes",
                         header)
    problems.check(capacity and int(capacity.group(2)) == status["longest_text"] and
                   int(capacity.group(1)) > status["longest_text"], where,
                   "TARNWICK_TEXT_CAPACITY must hold the longest text, %d bytes, and say so" % status["longest_text"])

    # The library's table of the line's items: the same keys, in order, each parsed as its type.
    where = "clients/cpp/src/report.cpp"
    table = re.search(r"kStatusFields\[\] = \{(.*?)\n\};", read(root, where), re.S)
    items = re.findall(r'(I32|TEXT)\((\w+)\)|\{"(\w+)", FieldKind::(\w+)', table.group(1)) if table else []
    kinds = {"I32": "int", "TEXT": "text", "kInteger32": "int", "kInteger64": "int", "kText": "text",
             "kFormat": "text"}
    parsed = [(item[1] or item[2], kinds.get(item[0] or item[3])) for item in items]
    problems.check(parsed == [(k["key"], k["type"]) for k in status["keys"]], where,
                   "kStatusFields %s differs from the description's keys and types" % parsed)

    where = "clients/cpp/include/tarnwickclient/interface.h"
    values = constants(read(root, where))
    messages = truth["binary_messages"]
    ring = truth["ring"]
    record = truth["remote_control"]
    expected = {
        "kStatusLineType": status["type_byte"], "kStatusLineMaximumSize": status["maximum_size"],
        "kBinaryMessageType": messages["type_byte"], "kStateMessageKind": messages["state"]["kind"],
        "kTrackingMessageKind": messages["tracking"]["kind"], "kHistogramMessageKind": messages["histogram"]["kind"],
        "kHistogramBinCount": messages["histogram"]["bin_count"],
        "state_message::kSize": messages["state"]["size"], "tracking_message::kSize": messages["tracking"]["size"],
        "histogram_message::kBins": messages["histogram"]["bins_offset"],
        "histogram_message::kSize": messages["histogram"]["size"],
        "kFrameBufferName": ring["name"], "kFrameBufferSize": ring["size"], "kRingHeaderSize": ring["header_size"],
        "kRingSlotCount": ring["slot_count"], "kRingSlotHeaderSize": ring["slot_header_size"],
        "kRingChunkCapacity": ring["chunk_capacity"], "kSlotWrittenMarkCount": 10,
        "kTranscodingFrameBufferName": truth["transcoding"]["name"],
        "kTranscodingFrameBufferSize": truth["transcoding"]["size"],
        "kSharedAttitudeName": truth["attitude"]["name"], "kSharedAttitudeSize": truth["attitude"]["size"],
        "kRcRawStateName": record["name"], "kRcRawStateSize": record["size"], "kRcSlotCount": record["slot_count"],
        "kRcSlotValueOffset": record["value_offset"], "kRcSlotFlagOffset": record["flag_offset"],
    }
    for kind in ("state", "tracking"):
        for field in messages[kind]["fields"]:
            if field["constant"]:
                expected["%s_message::%s" % (kind, field["constant"])] = field["offset"]
    for field in ring["header"] + ring["slot"]:
        if field["constant"]:
            expected[field["constant"]] = field["offset"]
    for name, value in expected.items():
        problems.check(values.get(name) == value, where, "%s is %r, the description says %r"
                       % (name, values.get(name), value))


# --- The Python module ---------------------------------------------------------------------------------------

def message_from_fields(fields, size):
    """A message with a distinct value in every named field; the values each field must parse into."""
    data = bytearray(size)
    data[0] = 6
    expected = {}
    for number, field in enumerate(fields):
        if field["name"] in ("type", "kind", "zero"):
            continue
        code = WIDTHS[field["width"]]
        value = {"B": 1 + number, "h": -300 - number, "H": 40000 + number}[code]
        struct.pack_into("<" + code, data, field["offset"], value)
        expected[field["name"]] = value
    return bytes(data), expected


def attribute(record, name):
    found = re.fullmatch(r"(\w+)\[(\d+)\]", name)
    return getattr(record, found.group(1))[int(found.group(2))] if found else getattr(record, name)


def check_python(root, truth, problems):
    where = "clients/python/tarnwick.py"
    loader = importlib.machinery.SourceFileLoader("tarnwick", os.path.join(root, where))
    module = types.ModuleType(loader.name)
    module.__file__ = loader.path
    loader.exec_module(module)
    status = truth["status_line"]
    messages = truth["binary_messages"]
    ring = truth["ring"]
    record = truth["remote_control"]
    keys = [(k["key"], {"int": int, "text": str}[k["type"]]) for k in status["keys"]]
    problems.check(list(module.STATUS_KEYS) == keys, where, "STATUS_KEYS differs from the description's keys")
    expected = {
        "STATUS_LINE_TYPE": status["type_byte"], "STATUS_LINE_MAXIMUM": status["maximum_size"],
        "BINARY_MESSAGE_TYPE": messages["type_byte"], "STATE_KIND": messages["state"]["kind"],
        "TRACKING_KIND": messages["tracking"]["kind"], "HISTOGRAM_KIND": messages["histogram"]["kind"],
        "RING_NAME": ring["name"], "RING_SIZE": ring["size"], "RING_HEADER_SIZE": ring["header_size"],
        "RING_SLOT_COUNT": ring["slot_count"], "RING_SLOT_HEADER_SIZE": ring["slot_header_size"],
        "RING_CHUNK_CAPACITY": ring["chunk_capacity"],
        "TRANSCODING_NAME": truth["transcoding"]["name"], "TRANSCODING_SIZE": truth["transcoding"]["size"],
        "ATTITUDE_NAME": truth["attitude"]["name"].lstrip("/"), "ATTITUDE_SIZE": truth["attitude"]["size"],
        "RC_NAME": record["name"].lstrip("/"), "RC_SIZE": record["size"], "RC_SLOT_COUNT": record["slot_count"],
        "RC_VALUE_OFFSET": record["value_offset"], "RC_FLAG_OFFSET": record["flag_offset"],
    }
    for name, value in expected.items():
        have = getattr(module, name, None)
        problems.check(have == value, where, "%s is %r, the description says %r" % (name, have, value))

    # The parsers, fed messages built from the description's layouts.
    for kind in ("state", "tracking"):
        layout = messages[kind]
        data, values = message_from_fields(layout["fields"], layout["size"])
        data = data[:1] + bytes([layout["kind"]]) + data[2:]
        try:
            parsed = module.parse_binary_message(data)
        except ValueError as error:
            problems.append("%s: the %s message of the description does not parse: %s" % (where, kind, error))
            continue
        for name, value in values.items():
            try:
                have = attribute(parsed, name)
            except (AttributeError, IndexError, TypeError):
                have = "(missing)"
            problems.check(have == value, where, "%s message field %s parses as %r, not %r"
                           % (kind, name, have, value))
    histogram = messages["histogram"]
    bins = bytes(range(histogram["bin_count"]))
    data = bytes([messages["type_byte"], histogram["kind"]]) + bins
    problems.check(len(data) == histogram["size"] and module.parse_binary_message(data).bins == bins, where,
                   "the histogram message of the description does not parse into its bins")


# --- The relay ------------------------------------------------------------------------------------------------

def check_relay(root, truth, problems):
    where = "src/state/status_report.cpp"
    status = truth["status_line"]
    items = re.findall(r'line\.Add\("(\w+)=([^"]*),"', read(root, where))
    problems.check([key for key, _ in items] == [k["key"] for k in status["keys"]], where,
                   "the status line's keys %s differ from the description's" % [key for key, _ in items])
    # "%1.0f" prints a whole number: the line carries no decimals.
    conversions = {"%d": "int", "%1.0f": "int", "%s": "text", "%s@%s": "text"}
    types = {k["key"]: k["type"] for k in status["keys"]}
    for key, conversion in items:
        problems.check(conversions.get(conversion) == types.get(key), where,
                       "%s is formatted %r, the description's type is %s" % (key, conversion, types.get(key)))

    # The record's text capacities bound what the line can carry; the longest of them is the longest text.
    where = "src/state/camera_state.h"
    header = read(root, where)
    named = {name: int(value) for name, value in re.findall(r"constexpr size_t (k\w+) = (\d+);", header)}
    capacity = {name: int(size) if size.isdigit() else named.get(size, 0)
                for name, size in re.findall(r"^\s+char (\w+)\[(\w+)\];", header, re.M)}
    longest = {}
    for key in status["keys"]:
        if key["type"] != "text":
            continue
        if key["key"] == "format":
            longest[key["key"]] = capacity["resolution"] - 1 + 1 + capacity["framerate"] - 1
        else:
            problems.check(key["key"] in capacity, where, "no text field %s in CameraState" % key["key"])
            longest[key["key"]] = capacity.get(key["key"], 1) - 1
    problems.check(max(longest.values()) == status["longest_text"], where,
                   "the longest text CameraState can hold is %d bytes, the description says %d"
                   % (max(longest.values()), status["longest_text"]))
    problems.check(len(status["longest_text_example"]) == status["longest_text"], "docs/interface.json",
                   "the longest text's example is not %d bytes long" % status["longest_text"])


def main(arguments):
    write = "--write" in arguments
    roots = [a for a in arguments if a != "--write"]
    root = roots[0] if roots else os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
    with open(os.path.join(root, "docs", "interface.json"), encoding="utf-8") as f:
        truth = json.load(f)
    if write:
        write_document(root, truth)
        write_header(root, truth)
    problems = Problems()
    for check in (check_document, check_c, check_python, check_relay):
        check(root, truth, problems)
    for problem in problems:
        print(problem)
    print("interface: %d disagreements with docs/interface.json" % len(problems))
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
