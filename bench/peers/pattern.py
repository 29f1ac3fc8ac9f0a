"""The bytes every upload of the peer benchmark carries, shared by the script
and the ftplib peer; StoreBench.cpp makes the same bytes in C++.

A file is a run of 64 KiB blocks of one fixed pattern (xorshift32 from
0x9E3779B9, low byte of each step). The first eight bytes of each block hold
the block's number from the start of the file and the next eight the file's
number, both little-endian, so a block lost, doubled or moved is seen.
"""
import struct

BLOCK = 65536
_pattern = None


def block_pattern():
    global _pattern
    if _pattern is None:
        out = bytearray(BLOCK)
        x = 0x9E3779B9
        for i in range(BLOCK):
            x ^= (x << 13) & 0xFFFFFFFF
            x ^= x >> 17
            x ^= (x << 5) & 0xFFFFFFFF
            out[i] = x & 0xFF
        _pattern = bytes(out)
    return _pattern


def block(number, file_number):
    return struct.pack("<QQ", number, file_number) + block_pattern()[16:]


def file_bytes(size, file_number=0):
    """The whole content of a file of `size` bytes (for small files)."""
    parts = []
    at = 0
    number = 0
    while at < size:
        piece = block(number, file_number)[: min(BLOCK, size - at)]
        parts.append(piece)
        at += len(piece)
        number += 1
    return b"".join(parts)


def write_file(path, size, file_number=0):
    with open(path, "wb") as out:
        at = 0
        number = 0
        while at < size:
            piece = block(number, file_number)[: min(BLOCK, size - at)]
            out.write(piece)
            at += len(piece)
            number += 1


def check_file(path, size, file_number=0):
    """None when the file holds exactly the expected bytes, else a reason."""
    try:
        with open(path, "rb") as f:
            at = 0
            number = 0
            while at < size:
                want = block(number, file_number)[: min(BLOCK, size - at)]
                got = f.read(len(want))
                if got != want:
                    return "bytes differ in block %d (offset %d)" % (number, at)
                at += len(want)
                number += 1
            if f.read(1):
                return "longer than %d bytes" % size
    except OSError as e:
        return str(e)
    return None
