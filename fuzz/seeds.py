#!/usr/bin/env python3
"""Writes the seed inputs of the fuzz target: fuzz/corpus/fuzz_operations/seed-*.

    fuzz/seeds.py [OUTPUT_DIR]      (default: the corpus directory beside this script)

Each seed is a byte that picks the operation, then a settings file together
with the names, numbers and switches the operation reads from its input, laid
out as the target takes them (see fuzz_operations.cpp): integers from the end
of the input, texts from the front, each ended by a backslash and one other
byte, and the file as the rest.
"""
import pathlib
import sys

MISSING = None  # a file that does not exist

DEVICE = b"""# Settings of one capture unit
[Network]
Address = 192.168.1.20
Netmask = 255.255.255.0
Port = 8080
DHCP = yes

[Video]
Format = 1080p59.94
Resolution = 1920x1080
Size = 1080
Gain = 1.5
Enabled = On

[Audio]
Channels = 2
Volume = -12
Delay = 4294967297
"""

def large_file():
    """About 6 KB: more than one 4096-byte block of the library's reader."""
    parts = [b"# Settings of a unit with many channels\n"]
    for channel in range(64):
        parts.append(b"[Channel%d]\nName = input %d\nFormat = 720p50\nGain = %d.5\n"
                     b"# tuned on site\nEnabled = %s\n\n"
                     % (channel, channel, channel, b"yes" if channel % 2 else b"no"))
    parts.append(b"[Last]\nk=" + b"v" * 300 + b"\n")
    return b"".join(parts)


FILES = {
    "device": DEVICE,
    "device-crlf": DEVICE.replace(b"\n", b"\r\n"),
    "trimmed-names": b"[ Net ]\n   PORT = 80\r\n",
    "two-sections": b"[a]\nx=1\n\n[b]\ny=2\n",
    "duplicates": b"[a]\nk=1\nk=2\n[a]\nk=3\n",
    "nul-bytes": b"[a]\nj=1\0x\nk=1\n\0\nq=2\n",
    "blank-section": b"  [ net ]  \nk=v1\n[   ]\nk=1\n",
    "tab-before-section": b"\t[net]\nk=v1\n[net] # main\nk=v2\n",
    "carriage-returns": b"[a]\nkey=value\r\r\n\tk = v \r\n",
    "comments": b"[a]\n # k=1\nk=2\n#[b]\n",
    "malformed-sections": b"[ab\n []\n[a]\nk=1\n[" + b"s" * 80 + b"]\nk=2\n",
    "unterminated-section": b"xy=1\n[ab]",
    "unterminated-key": b"[a]\nxy=1",
    "short-lines": b"[a]\n\n\na=\n[b]\nk=1\n\n",
    "long-line": b"[a]\n" + b"x" * 1199 + b"k=tail\n[b]\nk=1\n",
    "long-section-piece": b"x" * 511 + b"[piece]\n[real]\nk=1\n",
    "empty": b"",
    "large": large_file(),
}


class Input:
    """One fuzz input, built field by field in the order a target takes them."""

    def __init__(self):
        self.front = b""
        self.back = b""

    def integer(self, value, low, high):
        """A value for ConsumeIntegralInRange(low, high): bytes from the end."""
        span, offset, count = high - low, 0, 0
        while offset < 64 and (span >> offset) > 0:
            offset += 8
            count += 1
        raw = (value - low).to_bytes(count, "big") if count else b""
        self.back = raw[::-1] + self.back
        return self

    def int64(self, value):
        """A value for ConsumeIntegral<int64_t>()."""
        return self.integer((value + 2**63) % 2**64 - 2**63, -(2**63), 2**63 - 1)

    def text(self, value):
        self.front += value.replace(b"\\", b"\\\\") + b"\\|"
        return self

    def build(self, file_bytes):
        return self.front + (file_bytes or b"") + self.back


def present(file_bytes):
    return 0 if file_bytes is MISSING else 1


def getters():
    cases = [
        ("device", b"Video", b"Format", 256, -1),
        ("device", b"network", b"port", 8, 0),
        ("device", b"Audio", b"Delay", 64, 7),
        ("device", b"Video", b"Size", 300, 1),
        ("device-crlf", b"Video", b"Enabled", 4, 0),
        ("trimmed-names", b"net", b"port", 16, 80),
        ("duplicates", b"a", b"k", 2, 0),
        ("nul-bytes", b"a", b"k", 32, 0),
        ("blank-section", b"", b"k", 32, 0),
        ("carriage-returns", b"a", b"key", 1, 0),
        ("malformed-sections", b"s" * 80, b"k", 32, 0),
        ("long-line", b"a", b"k", 300, 0),
        ("unterminated-key", b"a", b"xy", 8, 0),
        ("large", b"Last", b"k", 300, 0),
    ]
    for name, section, key, capacity, default in cases:
        seed = (Input().integer(capacity, 1, 300).integer(1, 0, 15).integer(1, 0, 7)
                .int64(default).text(section).text(key).text(b"fallback"))
        yield f"{name}-{key.decode()[:8]}", seed.build(FILES[name])
    yield "missing-file", (Input().integer(64, 1, 300).integer(0, 0, 15).integer(1, 0, 7)
                           .int64(0).text(b"a").text(b"k").text(b"x").build(MISSING))


def writer():
    string, integer, int64, boolean, real = range(5)
    cases = [
        ("device", string, b"Video", b"Format", b"720p50"),
        ("device", string, b"Network", b"Gateway", b"192.168.1.1"),
        ("device", string, b"Storage", b"Path", b"/var/lib/unit"),
        ("device-crlf", integer, b"audio", b"volume", b""),
        ("two-sections", string, b"a", b"z", b"3"),
        ("duplicates", string, b"a", b"k", b"b=c"),
        ("short-lines", string, b"b", b"k", b""),
        ("unterminated-key", string, b"a", b"k", b"2"),
        ("unterminated-section", boolean, b"ab", b"k", b""),
        ("nul-bytes", int64, b"a", b"k", b""),
        ("long-line", string, b"a", b"k", b"2"),
        ("comments", real, b"a", b"k", b""),
        ("empty", string, b"Net", b"Port", b"80"),
        ("large", string, b"Channel20", b"Gain", b"7.25"),
    ]
    for name, setter, section, key, value in cases:
        seed = (Input().integer(setter, 0, 4).integer(1, 0, 15).integer(1, 0, 7)
                .int64(-1536).integer(3, -2, 40).text(section).text(key)
                .text(section).text(b"other").text(value))
        yield f"{name}-{setter}-{key.decode()}", seed.build(FILES[name])
    yield "missing-file", (Input().integer(string, 0, 4).integer(0, 0, 15).integer(1, 0, 7)
                           .int64(0).integer(0, -2, 40).text(b"Net").text(b"Port")
                           .text(b"").text(b"").text(b"80").build(MISSING))


def deletions():
    sections, key, all_keys = range(3)
    cases = [
        ("device", sections, b"Video", b""),
        ("device", sections, b"*", b""),
        ("device", key, b"network", b"DHCP"),
        ("device", all_keys, b"Audio", b""),
        ("duplicates", key, b"a", b"k"),
        ("duplicates", all_keys, b"A", b""),
        ("blank-section", sections, b"", b""),
        ("malformed-sections", sections, b"a*", b""),
        ("nul-bytes", key, b"a", b"k"),
        ("long-line", all_keys, b"a", b""),
        ("unterminated-key", key, b"a", b"xy"),
        ("short-lines", key, b"a", b"a"),
        ("large", sections, b"Channel1*", b""),
        ("large", key, b"Channel23", b"Gain"),
    ]
    for name, deletion, section, key_name in cases:
        seed = (Input().integer(deletion, 0, 2).integer(1, 0, 15).integer(1, 0, 7)
                .text(section).text(key_name))
        yield f"{name}-{deletion}-{section.decode()}", seed.build(FILES[name])


def enumerate_sections():
    cases = [("device", b"", 600), ("device", b"v", 6), ("device-crlf", b"AUDIO", 0),
             ("blank-section", b"", 3), ("malformed-sections", b"s", 100),
             ("long-section-piece", b"", 20), ("unterminated-section", b"a", 10),
             ("empty", b"", 1), ("large", b"channel", 200)]
    for name, prefix, capacity in cases:
        seed = Input().integer(capacity, 0, 600).integer(1, 0, 15).integer(1, 0, 7).text(prefix)
        yield f"{name}-{capacity}", seed.build(FILES[name])


def lines():
    find, comment, delete = range(3)
    cases = [
        ("device", find, b"Port", 64),
        ("device", find, b"[", 300),
        ("device", comment, b"DHCP", 2),
        ("device", delete, b"Gain =", 2),
        ("device-crlf", comment, b"", 2),
        ("comments", delete, b"k=", 2),
        ("nul-bytes", comment, b"j=1", 2),
        ("long-line", find, b"x", 300),
        ("unterminated-key", delete, b"xy", 2),
        ("short-lines", find, b"a", 4),
        ("large", delete, b"Enabled = yes", 2),
    ]
    for name, operation, prefix, capacity in cases:
        seed = (Input().integer(operation, 0, 2).integer(capacity, 2, 300).integer(1, 0, 15)
                .integer(1, 0, 7).text(prefix))
        yield f"{name}-{operation}-{capacity}", seed.build(FILES[name])


# In the order of the first byte that picks them.
OPERATIONS = {
    "getters": getters,
    "writer": writer,
    "deletions": deletions,
    "enumerate": enumerate_sections,
    "lines": lines,
}


def main():
    output = pathlib.Path(sys.argv[1]) if len(sys.argv) > 1 else pathlib.Path(__file__).parent / "corpus"
    directory = output / "fuzz_operations"
    directory.mkdir(parents=True, exist_ok=True)
    for selector, (operation, seeds) in enumerate(OPERATIONS.items()):
        for name, data in seeds():
            safe = "".join(c if c.isalnum() or c in "-_" else "_" for c in name)
            (directory / f"seed-{operation}-{safe}").write_bytes(bytes([selector]) + data)


if __name__ == "__main__":
    main()
