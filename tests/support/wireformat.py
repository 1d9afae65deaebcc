"""A second implementation of the wire format of a message, independent of the library's: a block, its encoding, and a
decoder that takes nothing on trust."""

import dataclasses
import struct


@dataclasses.dataclass
class Block:
    """Doubles are held as their 64 bits, so that every NaN and zero compares; strings and data as bytes."""

    action: int = -1
    error: int = 0
    longs: list = dataclasses.field(default_factory=list)
    doubles: list = dataclasses.field(default_factory=list)
    strings: list = dataclasses.field(default_factory=list)
    structs: list = dataclasses.field(default_factory=list)  # (name, int, int, int, double, string)
    long_lists: list = dataclasses.field(default_factory=list)
    double_lists: list = dataclasses.field(default_factory=list)
    string_lists: list = dataclasses.field(default_factory=list)
    binary: bytes = b""
    wide: list = dataclasses.field(default_factory=list)  # 32-bit units
    void: bytes = b""


class _Writer:
    def __init__(self):
        self.data = bytearray()
        self.fields = []  # where the integers lie

    def int(self, value):
        self.fields.append(len(self.data))
        self.data += struct.pack("<i", value)

    def bits(self, value):
        self.data += struct.pack("<Q", value)

    def string(self, value):
        self.int(len(value))
        self.data += value

    def list(self, values, write):
        self.int(len(values))
        for value in values:
            write(value)

    def record(self, value):
        name, first, second, third, bits, text = value
        self.string(name)
        for number in (first, second, third):
            self.int(number)
        self.bits(bits)
        self.string(text)


def encode_with_fields(block):
    """The message, and the offsets of the integers in it."""
    w = _Writer()
    for value in (0, block.action, block.error):
        w.int(value)
    w.list(block.longs, w.int)
    w.list(block.doubles, w.bits)
    w.list(block.strings, w.string)
    w.list(block.structs, w.record)
    w.list(block.long_lists, lambda values: w.list(values, w.int))
    w.list(block.double_lists, lambda values: w.list(values, w.bits))
    w.list(block.string_lists, lambda values: w.list(values, w.string))
    w.string(block.binary)
    w.int(len(block.wide))
    for unit in block.wide:
        w.data += struct.pack("<I", unit)
    w.string(block.void)
    w.data[0:4] = struct.pack("<i", len(w.data))
    return bytes(w.data), w.fields


def encode(block):
    return encode_with_fields(block)[0]


class _Reader:
    def __init__(self, data):
        self.data = data
        self.at = 0

    def take(self, length):
        if length < 0 or length > len(self.data) - self.at:
            raise ValueError("past the end")
        self.at += length
        return self.data[self.at - length : self.at]

    def int(self):
        return struct.unpack("<i", self.take(4))[0]

    def bits(self):
        return struct.unpack("<Q", self.take(8))[0]

    def string(self):
        return self.take(self.int())

    def list(self, read):
        count = self.int()
        if count < 0:
            raise ValueError("negative count")
        return [read() for _ in range(count)]  # ends with the data, however large the count

    def record(self):
        return (self.string(), self.int(), self.int(), self.int(), self.bits(), self.string())


def decode(data):
    """The block of a message; ValueError when the bytes are not one message and nothing else."""
    r = _Reader(data)
    if r.int() != len(data):
        raise ValueError("wrong length")
    block = Block(r.int(), r.int())
    block.longs = r.list(r.int)
    block.doubles = r.list(r.bits)
    block.strings = r.list(r.string)
    block.structs = r.list(r.record)
    block.long_lists = r.list(lambda: r.list(r.int))
    block.double_lists = r.list(lambda: r.list(r.bits))
    block.string_lists = r.list(lambda: r.list(r.string))
    block.binary = r.string()
    block.wide = r.list(lambda: struct.unpack("<I", r.take(4))[0])
    block.void = r.string()
    if r.at != len(data):
        raise ValueError("more than a message")
    return block
