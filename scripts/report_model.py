#!/usr/bin/env python3
"""Reference model of `velkmsg`, written apart from the C++ code.

It reads the catalogue table (src/catalogue/catalogue_rows.inc), replays the
registrations into a model of base::hash_map (inline slots, pooled overflow
nodes, growth that rebuilds chains from their head) and produces the report
that `velkmsg <pattern>` writes, byte for byte, together with its exit status.

Matching uses Python's `re` on bytes. It agrees with PCRE on the patterns the
golden cases use (literals, anchors, classes, alternation, `.`, `\\D`); it is
not a PCRE emulator, so do not feed it patterns where the two dialects part.

Usage:
    report_model.py [--catalogue FILE] --stats
    report_model.py [--catalogue FILE] --pattern-hex HEX   (report to stdout/stderr)
    report_model.py [--catalogue FILE] --write-golden DIR
    report_model.py [--catalogue FILE] --check-golden DIR
"""

import argparse
import os
import re
import sys

REPO = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
DEFAULT_CATALOGUE = os.path.join(REPO, "src", "catalogue", "catalogue_rows.inc")

DEFAULT_ACTION = b"No recommended action available."
LEVELS = ("developer", "trace", "stats", "info", "warning", "error", "critical", "emergency")

# ---------------------------------------------------------------------------
# Catalogue table


def _unescape(literal, where):
    """Decodes the body of a C string literal into bytes."""
    out = bytearray()
    i = 0
    simple = {'"': b'"', "\\": b"\\", "'": b"'", "?": b"?", "n": b"\n", "t": b"\t",
              "r": b"\r", "a": b"\a", "b": b"\b", "f": b"\f", "v": b"\v"}
    while i < len(literal):
        c = literal[i]
        if c != "\\":
            out += c.encode("utf-8")
            i += 1
            continue
        e = literal[i + 1]
        if e in simple:
            out += simple[e]
            i += 2
        elif e in "01234567":
            j = i + 1
            while j < len(literal) and j < i + 4 and literal[j] in "01234567":
                j += 1
            out.append(int(literal[i + 1:j], 8) & 0xFF)
            i = j
        elif e == "x":
            j = i + 2
            while j < len(literal) and literal[j] in "0123456789abcdefABCDEF":
                j += 1
            out.append(int(literal[i + 2:j], 16) & 0xFF)
            i = j
        else:
            raise ValueError(f"{where}: unknown escape \\{e}")
    return bytes(out)


def _split_args(text, where):
    """Splits a macro argument list into bare tokens and (concatenated) strings."""
    args = []
    i = 0
    n = len(text)
    while True:
        while i < n and text[i] in " \t":
            i += 1
        if i < n and text[i] == '"':
            value = b""
            while i < n and text[i] == '"':
                j = i + 1
                while text[j] != '"':
                    j += 2 if text[j] == "\\" else 1
                value += _unescape(text[i + 1:j], where)
                i = j + 1
                while i < n and text[i] in " \t":
                    i += 1
            args.append(value)
        else:
            j = i
            while j < n and text[j] not in ",)":
                j += 1
            args.append(text[i:j].strip())
            i = j
        while i < n and text[i] in " \t":
            i += 1
        if i >= n:
            raise ValueError(f"{where}: unterminated row")
        if text[i] == ")":
            if text[i + 1:].strip():
                raise ValueError(f"{where}: text after the row")
            return args
        if text[i] != ",":
            raise ValueError(f"{where}: expected ',' at column {i}")
        i += 1


class Row:
    __slots__ = ("category", "code", "level", "description", "action")

    def __init__(self, category, code, level, description, action):
        self.category = category
        self.code = code
        self.level = level
        self.description = description
        self.action = action

    @property
    def key(self):
        return (self.category, self.code)


def load_catalogue(path):
    rows = []
    with open(path, encoding="utf-8") as f:
        for number, line in enumerate(f, 1):
            line = line.rstrip("\n")
            where = f"{path}:{number}"
            for macro in ("VLK_ROW(", "VLK_BARE("):
                if line.startswith(macro):
                    args = _split_args(line[len(macro):], where)
                    break
            else:
                if line.strip() and not line.lstrip().startswith("//"):
                    raise ValueError(f"{where}: not a row: {line[:60]}")
                continue
            if macro == "VLK_ROW(":
                if len(args) < 7:
                    raise ValueError(f"{where}: a class row needs a fragment")
                category, code, level, _shape, description, action = args[:6]
            else:
                if len(args) != 5:
                    raise ValueError(f"{where}: a bare row has five fields")
                category, code, level, description, action = args
            if not re.fullmatch(r"[0-9A-F]{2}", category) or not re.fullmatch(r"\d{4}", code):
                raise ValueError(f"{where}: bad identifier {category}-{code}")
            if level not in LEVELS:
                raise ValueError(f"{where}: bad level {level}")
            if action == "VLK_DEFAULT_ACTION":
                action = DEFAULT_ACTION
            if not isinstance(description, bytes) or not isinstance(action, bytes):
                raise ValueError(f"{where}: description and action must be strings")
            rows.append(Row(int(category, 16), int(code, 10), level, description, action))
    return rows


# ---------------------------------------------------------------------------
# base::hash_map<error_id, error_description>


class HashMap:
    SLOTS = 3
    NODES_PER_SEGMENT = 10
    FIRST_BUCKETS = 4096
    FIRST_SEGMENTS = 32
    GROWTH = 2

    def __init__(self):
        self.buckets = None  # each bucket: [inline entries, chain with head first]
        self.bucket_count = 0
        self.segment_count = 0
        self.free = None  # free nodes left in each pool segment
        self.size = 0
        self.growths = 0
        self.node_requests = 0
        self.node_requests_at_growth = []

    @staticmethod
    def hash(key):
        category, code = key
        return category << 16 | code

    def _new_table(self, bucket_count, segment_count):
        self.bucket_count = bucket_count
        self.segment_count = segment_count
        self.buckets = [([], []) for _ in range(bucket_count)]
        self.free = [self.NODES_PER_SEGMENT] * segment_count

    def _take_node(self, h):
        # Start at the key's own segment and wrap round the pool once.
        for i in range(self.segment_count):
            s = (h + i) & (self.segment_count - 1)
            if self.free[s]:
                self.free[s] -= 1
                return True
        return False

    def _place(self, entry):
        """Puts an entry known to be absent into its bucket; False if no node."""
        slots, chain = self.buckets[self.hash(entry[0]) & (self.bucket_count - 1)]
        if len(slots) < self.SLOTS:
            slots.append(entry)
            return True
        if not self._take_node(self.hash(entry[0])):
            return False
        chain.insert(0, entry)
        return True

    def _grow(self):
        old = self.buckets
        bucket_count = max(self.bucket_count * self.GROWTH, 8)
        segment_count = min(max(bucket_count // 128, 8), 16384)
        self._new_table(bucket_count, segment_count)
        for slots, chain in old:
            # Inline slots first, then the chain from its head: a chain that
            # stays together comes out reversed.
            for entry in slots + chain:
                if not self._place(entry):
                    raise AssertionError("growth ran out of nodes")
        self.growths += 1

    def insert(self, key, value):
        if self.buckets is None:
            self._new_table(self.FIRST_BUCKETS, self.FIRST_SEGMENTS)
        while True:
            slots, chain = self.buckets[self.hash(key) & (self.bucket_count - 1)]
            if any(k == key for k, _ in slots) or any(k == key for k, _ in chain):
                return False
            if len(slots) < self.SLOTS:
                slots.append((key, value))
                self.size += 1
                return True
            self.node_requests += 1
            if self._take_node(self.hash(key)):
                chain.insert(0, (key, value))
                self.size += 1
                return True
            self.node_requests_at_growth.append(self.node_requests)
            self._grow()

    def __iter__(self):
        if not self.buckets:
            return
        for slots, chain in self.buckets:
            yield from slots
            yield from chain

    def used_buckets(self):
        return sum(1 for slots, _ in (self.buckets or []) if slots)

    def nodes_used(self):
        return sum(len(chain) for _, chain in (self.buckets or []))

    def nodes_total(self):
        return self.segment_count * self.NODES_PER_SEGMENT


# ---------------------------------------------------------------------------
# The utility


def render_id(category, code):
    head = b"%02X" % category
    if code < 10:
        return head + b"-000" + b"%d" % code
    if code < 100:
        return head + b"-00" + b"%d" % code
    if code < 1000:
        return head + b"-0" + b"%d" % code
    if code < 10000:
        return head + b"-" + b"%d" % code
    return head + b"B" + b"%d" % code


def fold(argument):
    return bytes(b - 0x20 if 0x61 <= b <= 0x66 else b for b in argument)


C_SPACE = b" \t\n\v\f\r"


def build_catalogue(rows):
    catalogue = HashMap()
    for row in rows:
        catalogue.insert(row.key, row)
    return catalogue


def find_errors(catalogue, pattern):
    """The search: returns the result map for an already folded pattern."""
    result = HashMap()
    try:
        regex = re.compile(pattern.strip(C_SPACE))
    except re.error:
        return result
    for key, row in catalogue:
        if regex.search(render_id(*key)):
            result.insert(key, row)
    return result


def display_error(row):
    return (b"VELK Message " + render_id(*row.key) + b" [level = " + row.level.encode()
            + b"]\n\n    DESCRIPTION : " + row.description + b"\n\n    ACTION      : "
            + row.action + b"\n\n")


def run(catalogue, argument):
    """Returns (body, summary, stderr, status) of `velkmsg <argument>`."""
    folded = fold(argument)
    result = find_errors(catalogue, folded)
    if result.size == 0:
        return b"", b"", b"No errors found matching '" + folded + b"'.\n", 1
    body = b"".join(display_error(row) for _, row in result)
    word = b"error" if result.size == 1 else b"errors"
    summary = b"Found %d " % result.size + word + b" matching '" + folded + b"'.\n"
    return body, summary, b"", 0


def report_ids(catalogue, argument):
    folded = fold(argument)
    return [render_id(*key).decode() for key, _ in find_errors(catalogue, folded)]


# ---------------------------------------------------------------------------
# Self-checks against the figures the product documents


def self_check(rows, catalogue):
    assert len(rows) == 1006, len(rows)
    assert len({r.key for r in rows}) == 1006, "duplicate identifiers"
    assert [r.key for r in rows] == sorted(r.key for r in rows), "rows out of order"
    assert catalogue.size == 1006
    assert catalogue.growths == 1, catalogue.growths
    assert catalogue.node_requests_at_growth == [321], catalogue.node_requests_at_growth
    assert catalogue.bucket_count == 8192 and catalogue.segment_count == 64
    assert catalogue.used_buckets() == 167, catalogue.used_buckets()
    assert (catalogue.nodes_used(), catalogue.nodes_total()) == (624, 640)

    everything = report_ids(catalogue, b".")
    assert len(everything) == 1006
    assert everything[:12] == ["00-0000", "12-0000", "30-0000", "70-0000", "00-0001", "01-0001",
                               "02-0001", "FF-0001", "70-0001", "31-0001", "2F-0001",
                               "2D-0001"], everything[:12]
    assert everything[-3:] == ["12-2001", "17-2001", "12-2005"], everything[-3:]
    # The same rows in the result map: one growth, the same final numbers.
    full = find_errors(catalogue, b".")
    assert full.growths == 1 and full.used_buckets() == 167
    assert (full.nodes_used(), full.nodes_total()) == (624, 640)

    ones = report_ids(catalogue, b"0001")
    assert len(ones) == 48, len(ones)
    assert ones[:6] == ["00-0001", "01-0001", "02-0001", "1D-0001", "1C-0001", "1B-0001"], ones[:6]
    assert len(report_ids(catalogue, b"00-")) == 59
    assert len(report_ids(catalogue, b"^FF-")) == 12
    assert report_ids(catalogue, b"01-0001") == ["01-0001"]
    # No code reaches five digits, so no identifier has the "B" separator; the
    # letter still matches the categories 0B, 1B and 2B.
    assert all(r.code < 10000 for r in rows)
    assert report_ids(catalogue, b"B") == ["2B-0001", "0B-0001", "1B-0001", "2B-0002", "1B-0002",
                                           "2B-0003", "1B-0003", "2B-0004", "1B-0004", "1B-0005",
                                           "1B-0006"]
    assert report_ids(catalogue, b"info") == []
    assert len(report_ids(catalogue, b"\\d")) == 1006

    # The container rules on a small scale: six keys of one bucket, then the
    # same after a growth that keeps them together.
    small = HashMap()
    keys = [(c, 5) for c in range(1, 7)]
    for k in keys:
        small.insert(k, None)
    assert [k for k, _ in small] == [keys[i] for i in (0, 1, 2, 5, 4, 3)]
    small._grow()
    assert [k for k, _ in small] == keys

    levels = {}
    for r in rows:
        levels[r.level] = levels.get(r.level, 0) + 1
    expected_levels = {"developer": 317, "trace": 33, "stats": 23, "info": 175, "warning": 203,
                       "error": 102, "critical": 103, "emergency": 50}
    assert levels == expected_levels, levels
    assert sum(r.action == DEFAULT_ACTION for r in rows) == 876
    assert sum(r.action == b"Contact Ostrand Technologies support." for r in rows) == 12


def print_stats(rows, catalogue):
    print(f"rows                 {len(rows)}")
    print(f"bucket_count         {catalogue.bucket_count}")
    print(f"segment_count        {catalogue.segment_count}")
    print(f"used buckets         {catalogue.used_buckets()}")
    print(f"nodes used / total   {catalogue.nodes_used()} / {catalogue.nodes_total()}")
    print(f"growths              {catalogue.growths} "
          f"(at overflow entry {catalogue.node_requests_at_growth})")
    largest = max(len(s) + len(c) for s, c in catalogue.buckets)
    print(f"largest bucket       {largest}")


# ---------------------------------------------------------------------------
# Golden cases
#
# Manifest, one case a line, fields separated by one blank:
#   name  argument  status  stdout  stderr
# argument: the bytes in hex, or "-" for the empty argument.
# stdout, stderr: "-" for nothing, else file names in the golden directory,
# joined by "+", whose contents are concatenated.

GOLDEN_CASES = [
    ("exact_id", b"01-0001"),
    ("lower_hex_id", b"1d-0001"),
    ("upper_hex_id", b"1D-0001"),
    ("category_00", b"00-"),
    ("dot", b"."),
    ("empty", b""),
    ("blanks_only", b"   "),
    ("code_0001", b"0001"),
    ("anchored_start", b"^01-"),
    ("anchored_end", b"-0001$"),
    ("category_ff", b"^FF-"),
    ("escape_d_folds_to_non_digit", b"\\d"),
    ("class_folded", b"[a-f]F-00"),
    ("open_paren", b"("),
    ("no_match_zz", b"zz"),
    ("level_not_searchable", b"info"),
    ("letter_b", b"B"),
    ("category_1x_low_codes", b"^1[0-9a-f]-00[0-4]"),
    ("blanks_around_id", b" 01-0001 "),
    ("whitespace_kinds", b"\t\v\f\r\n 1d-0001 \n"),
    ("high_bytes", b"\xff\xfe"),
    ("entitlement_block", b"12-200[0-9]"),
    ("alternation_all", b"0|1"),
    ("code_2005", b"2005$"),
    ("categories_2x_3x", b"^[23].-000[1-3]$"),
    ("code_42", b"-0042"),
]

ALL_ROWS_FILE = "all_rows.txt"


def write_golden(catalogue, directory):
    os.makedirs(directory, exist_ok=True)
    all_body = b"".join(display_error(row) for _, row in find_errors(catalogue, b"."))
    with open(os.path.join(directory, ALL_ROWS_FILE), "wb") as f:
        f.write(all_body)
    lines = ["# name argument(hex, - for empty) status stdout stderr",
             "# stdout/stderr: - for nothing, else files of this directory joined by +"]
    written = {ALL_ROWS_FILE, "cases.txt"}
    for name, argument in GOLDEN_CASES:
        body, summary, err, status = run(catalogue, argument)
        out_files = []
        if body == all_body:
            out_files.append(ALL_ROWS_FILE)
            out_text = summary
        else:
            out_text = body + summary
        if out_text:
            out_files.append(name + ".out")
            with open(os.path.join(directory, name + ".out"), "wb") as f:
                f.write(out_text)
            written.add(name + ".out")
        if err:
            with open(os.path.join(directory, name + ".err"), "wb") as f:
                f.write(err)
            written.add(name + ".err")
        lines.append(" ".join([name, argument.hex() or "-", str(status),
                               "+".join(out_files) or "-", name + ".err" if err else "-"]))
    with open(os.path.join(directory, "cases.txt"), "w", encoding="ascii") as f:
        f.write("\n".join(lines) + "\n")
    stale = sorted(set(os.listdir(directory)) - written)
    if stale:
        print("not produced by the model, remove by hand: " + " ".join(stale), file=sys.stderr)


def check_golden(catalogue, directory):
    """Compares the committed golden files with what the model produces now."""
    import tempfile
    with tempfile.TemporaryDirectory() as fresh:
        write_golden(catalogue, fresh)
        different = []
        for name in sorted(os.listdir(fresh)):
            with open(os.path.join(fresh, name), "rb") as a:
                want = a.read()
            try:
                with open(os.path.join(directory, name), "rb") as b:
                    have = b.read()
            except FileNotFoundError:
                have = None
            if want != have:
                different.append(name)
    for name in different:
        print(f"differs: {name}", file=sys.stderr)
    return not different


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--catalogue", default=DEFAULT_CATALOGUE)
    group = parser.add_mutually_exclusive_group(required=True)
    group.add_argument("--stats", action="store_true")
    group.add_argument("--pattern-hex", metavar="HEX")
    group.add_argument("--write-golden", metavar="DIR")
    group.add_argument("--check-golden", metavar="DIR")
    options = parser.parse_args()

    rows = load_catalogue(options.catalogue)
    catalogue = build_catalogue(rows)
    self_check(rows, catalogue)

    if options.stats:
        print_stats(rows, catalogue)
        return 0
    if options.pattern_hex is not None:
        body, summary, err, status = run(catalogue, bytes.fromhex(options.pattern_hex))
        sys.stdout.buffer.write(body + summary)
        sys.stderr.buffer.write(err)
        return status
    if options.write_golden:
        write_golden(catalogue, options.write_golden)
        return 0
    return 0 if check_golden(catalogue, options.check_golden) else 1


if __name__ == "__main__":
    sys.exit(main())
