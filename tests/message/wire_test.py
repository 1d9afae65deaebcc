#!/usr/bin/env python3
"""Holds the library's messages against a second implementation of the format: `wire_test.py BLOCKPEER [SEED]`.

Seeded random blocks and broken messages go through the library's parser, and what it found, and built again from that,
is compared with the block that was meant."""

import copy
import json
import pathlib
import random
import struct
import subprocess
import sys

sys.path.insert(0, str(pathlib.Path(__file__).parent.parent / "support"))
from wireformat import Block, decode, encode, encode_with_fields  # noqa: E402

NUMBERS = [0, 1, -1, 2**31 - 1, -(2**31), 7]
DOUBLES = [
    0, 1 << 63, 0x3FF0000000000000, 0xFFEFFFFFFFFFFFFF, 0x7FF8000000000000, 0x7FF8DEADBEEF1234, 0xFFF0000000000001,
    0x7FF0000000000000, 1,
]  # 0, -0.0, 1, system-missing, NaNs with and without a payload, infinity, the smallest
TEXTS = [b"", b"ab", b"\0", b"a\0b", b"\xff\xfe", "\u00e9\U0001f600".encode(), b"s" * 15, b"t" * 16, b"u" * 300]
UNITS = [0x68, 0xE9, 0xD800, 0x1F600, 0x10FFFF, 0x110000, 0x7FFFFFFF, 0xFFFFFFFF]
ANNOUNCED = [-(2**31), -1, 0, 1, 51, 52, 53, 4096, 8192, 0x10000000, 0x20000000, 0x3FFFFFFF, 0x40000000, 2**31 - 1]


class Peer:
    def __init__(self, program):
        self.process = subprocess.Popen([program], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.checked = 0

    def ask(self, message):
        self.process.stdin.write(struct.pack("<I", len(message)) + message)
        self.process.stdin.flush()
        line = self.process.stdout.readline()
        assert line, f"the library's side ended on {message[:200].hex()}"
        return json.loads(line)

    def check(self, message):
        """The answer must be what the second implementation makes of the same bytes."""
        announced = struct.unpack("<i", message[:4])[0] if len(message) >= 4 else -1
        block = decoded(message[:announced]) if 0 <= announced <= len(message) else None
        answer = self.ask(message)
        assert answer["parsed"] == (block and shown(block)), message.hex()
        if block:
            assert bytes.fromhex(answer["rebuilt"]) == encode(as_texts(block)), message.hex()
        self.checked += 1


def decoded(message):
    try:
        return decode(message)
    except ValueError:
        return None


def as_texts(block):
    """Of the binary payload and the wide string a receiver sees what is before the first zero."""
    block = copy.copy(block)
    block.binary = block.binary.split(b"\0")[0]
    block.wide = block.wide[: block.wide.index(0)] if 0 in block.wide else block.wide
    return block


def shown(block):
    def show(value):
        if isinstance(value, bytes):
            return value.hex()
        return [show(item) for item in value] if isinstance(value, (list, tuple)) else value

    return {name: show(value) for name, value in vars(as_texts(block)).items()}


def random_block(rng):
    def some(most, make):
        return [make() for _ in range(rng.choice([0, 0, 1, 2, rng.randint(0, most)]))]

    def number():
        return rng.choice(NUMBERS + [rng.randint(-(2**31), 2**31 - 1)])

    def double():
        return rng.choice(DOUBLES + [rng.getrandbits(64)])

    def text():
        return rng.choice(TEXTS + [rng.randbytes(rng.randint(0, 40))])

    def record():
        return (text(), number(), number(), number(), double(), text())

    return Block(
        number(), number(), some(30, number), some(30, double), some(10, text), some(6, record),
        some(4, lambda: some(5, number)), some(4, lambda: some(5, double)), some(4, lambda: some(5, text)),
        text(), some(12, lambda: rng.choice(UNITS + [rng.getrandbits(32)])), text(),
    )  # fmt: skip


def examples():
    """A block of each kind of payload, and one of all."""
    record = (b"x", 1, 2, 3, DOUBLES[2], b"label")
    kinds = {
        "longs": [7, -1], "doubles": DOUBLES[:3], "strings": [b"ab", b""], "structs": [record, record],
        "long_lists": [[1], [], [2, 3]], "double_lists": [[1], []], "string_lists": [[b"a"], [], [b"", b"bc"]],
        "binary": b"abc", "wide": [0x68, 0xE9], "void": b"\0\1\2",
    }  # fmt: skip
    large = Block(strings=[b"s" * 4000] * 3, void=b"v" * 7900, doubles=[1])
    return [Block(), *(Block(**{name: value}) for name, value in kinds.items()), Block(3, 99103, **kinds), large]


def broken(block):
    """Every integer of the message with every length that could do harm, every cut, more bytes, every bit flipped."""
    message, fields = encode_with_fields(block)
    for at in fields:
        true = struct.unpack_from("<i", message, at)[0]
        for value in {*ANNOUNCED, true - 1, true + 1}:
            wrong = bytearray(message)
            struct.pack_into("<i", wrong, at, max(-(2**31), min(value, 2**31 - 1)))
            yield bytes(wrong)
    for length in range(len(message)):
        yield message[:length]
        yield struct.pack("<i", length)[:length] + message[4:length]
    for more in (1, 4, 52, 8192):
        yield message + bytes(more)
        yield struct.pack("<i", len(message) + more) + message[4:] + bytes(more)
    for bit in range(8 * min(len(message), 64)):
        wrong = bytearray(message)
        wrong[bit // 8] ^= 1 << bit % 8
        yield bytes(wrong)


def main():
    peer = Peer(sys.argv[1])
    seed = int(sys.argv[2]) if len(sys.argv) > 2 else 20261123
    print("seed", seed)
    rng = random.Random(seed)
    for _ in range(4000):
        peer.check(encode(random_block(rng)))
    for size in (8191, 8192, 8193, 16384, 20000, 3 * 8192 + 1):
        peer.check(encode(Block(void=b"v" * (size - 52))))
        peer.check(encode(Block(strings=[b"s" * (size - 56)])))
    peer.check(encode(Block(longs=list(range(100000)), doubles=[1] * 100000, strings=[b"x" * 12] * 10000)))
    peer.check(encode(Block(long_lists=[[]] * 100000, double_lists=[[]] * 50000, string_lists=[[]] * 50000)))
    for block in examples():
        for message in broken(block):
            peer.check(message)
    peer.process.stdin.close()
    assert peer.process.wait() == 0
    print(peer.checked, "messages checked")


main()
