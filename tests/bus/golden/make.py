#!/usr/bin/env python3
"""Wrote the golden files once, from docs/wire.md and the page of the writer, without the library: what it reads and
writes on every system is held against them. Needs the openssl program."""
import struct
import subprocess
import zlib
from pathlib import Path

FOLDER = Path(__file__).parent
KEY = "8f1c0de47a2b5d3396e0c4f87b1a62d95ce83f70a4d6b12e0f9b48c7d35e6a11"  # the development key
IV = bytes(range(16))
TEXT = "grüße \U0001F600\n".encode()


def integer(value):
    return struct.pack(">I", value & 0xFFFFFFFF)


def string(data):
    return integer(len(data)) + data


def wide(text):
    return string(text.encode("utf-16-be", "surrogatepass"))


def frame(ids, encrypted, iv, body):
    payload = b"".join(map(integer, ids)) + integer(encrypted) + string(iv) + string(body)
    header = integer(len(payload)) + integer(0) + integer(zlib.crc32(payload))
    return header + integer(zlib.crc32(header)) + payload


def write(name, data):
    (FOLDER / name).write_bytes(data)


ciphertext = subprocess.run(["openssl", "enc", "-aes-256-cbc", "-K", KEY, "-iv", IV.hex()], input=TEXT, check=True,
                            capture_output=True).stdout
write("plain.frame", frame((0x900001, 0x800002, 7, 0xFFFFFFFF, 8, 0xFFFFFFFF), 0, b"", bytes(range(256))))
write("enciphered.frame", frame((0, 0x10000, 0x10004, 0x10004, 0, 1), 1, IV, ciphertext))
write("values.stream",
      wide("a\u20ac\U0001F600\U0010FFFF\ud800") + integer(0x89ABCDEF) + integer(0x01234567)  # a file time: low, high
      + struct.pack(">q", -2) + integer(2) + wide("\U00010000") + wide("z") + integer(1) + string(b"key") + string(b""))
