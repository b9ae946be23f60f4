#!/usr/bin/env python3
"""Cuts seed inputs for the fuzz targets out of .evtx files.

    fuzz_seeds.py --chunks DIR --binxml DIR FILE.evtx...

For fuzz_evtx_chunk: every 64 KiB chunk (from offset 4096 on) that starts with
"ElfChnk\\0", plus damaged copies of the first chunks: cut short at several
points, with a zeroed or garbled header field, with bytes flipped in the records.

For fuzz_binxml: the binary XML of each record (the bytes between the 24-byte
record header and the trailing size copy), a few of them cut short, and slices of
the record area after offset 512.

Output names say where each seed came from; identical seeds are written once.
Only the standard library is used. Deterministic: the same input gives the same seeds.
"""

import argparse
import hashlib
import os
import random
import struct
import sys

FILE_HEADER_SIZE = 4096
CHUNK_SIZE = 65536
CHUNK_HEADER_SIZE = 512
CHUNK_MAGIC = b"ElfChnk\x00"
RECORD_MAGIC = b"\x2a\x2a\x00\x00"
RECORD_HEADER_SIZE = 24

MUTATED_CHUNKS = 3  # damaged copies are made of this many chunks per file
RECORDS_PER_CHUNK = 24  # binary XML seeds taken from each chunk


class SeedDir:
    def __init__(self, path):
        self.path = path
        self.seen = set()
        self.count = 0
        os.makedirs(path, exist_ok=True)

    def add(self, name, data):
        digest = hashlib.sha1(data).digest()
        if digest in self.seen:
            return
        self.seen.add(digest)
        with open(os.path.join(self.path, name), "wb") as out:
            out.write(data)
        self.count += 1


def chunks_of(data):
    """(index, bytes) of each chunk that carries the chunk magic."""
    index = 0
    offset = FILE_HEADER_SIZE
    while offset + CHUNK_SIZE <= len(data):
        chunk = data[offset : offset + CHUNK_SIZE]
        if chunk[:8] == CHUNK_MAGIC:
            yield index, chunk
        index += 1
        offset += CHUNK_SIZE


def records_of(chunk):
    """(offset, size) of the records from 512 up to the free space offset."""
    free = struct.unpack_from("<I", chunk, 48)[0]
    end = min(free, CHUNK_SIZE) if free >= CHUNK_HEADER_SIZE else CHUNK_SIZE
    offset = CHUNK_HEADER_SIZE
    while offset + RECORD_HEADER_SIZE + 4 <= end and chunk[offset : offset + 4] == RECORD_MAGIC:
        size = struct.unpack_from("<I", chunk, offset + 4)[0]
        if size < RECORD_HEADER_SIZE + 4 or offset + size > end:
            break
        yield offset, size
        offset += size


def put_u32(buf, offset, value):
    struct.pack_into("<I", buf, offset, value & 0xFFFFFFFF)


def mutations(chunk, rng):
    """(label, bytes) damaged copies of one chunk."""
    free = struct.unpack_from("<I", chunk, 48)[0]
    last = struct.unpack_from("<I", chunk, 44)[0]
    records = list(records_of(chunk))

    # Cut short: the harness pads with zeros, so these end in a zeroed tail.
    for cut in sorted({CHUNK_HEADER_SIZE, CHUNK_HEADER_SIZE + 100, free // 2, free - 1, 4096}):
        if CHUNK_HEADER_SIZE <= cut < len(chunk):
            yield "cut%d" % cut, chunk[:cut]
    if records:
        off, size = records[-1]
        yield "cut-last-record", chunk[: off + size // 2]

    def patched(label, offset, value):
        buf = bytearray(chunk)
        put_u32(buf, offset, value)
        return label, bytes(buf)

    yield patched("free-space-past-end", 48, CHUNK_SIZE + 8)
    yield patched("free-space-in-header", 48, 100)
    yield patched("last-record-mid", 44, (CHUNK_HEADER_SIZE + max(last, CHUNK_HEADER_SIZE)) // 2 + 1)
    yield patched("header-crc-zero", 124, 0)
    yield patched("data-crc-zero", 52, 0)
    yield patched("header-size-huge", 40, 0xFFFFFFFF)
    if records:
        off, size = records[0]
        yield patched("record-size-huge", off + 4, 0xFFFFFFF0)
        yield patched("record-size-small", off + 4, 8)
        yield patched("record-size-copy-off", off + size - 4, size + 8)
        yield patched("record-magic-off", off, 0x2A2A0001)
    # Template and common string offsets pointing into the middle of the records.
    buf = bytearray(chunk)
    for slot in range(32):
        if struct.unpack_from("<I", buf, 384 + 4 * slot)[0]:
            put_u32(buf, 384 + 4 * slot, struct.unpack_from("<I", buf, 384 + 4 * slot)[0] + 3)
    yield "template-offsets-shifted", bytes(buf)
    buf = bytearray(chunk)
    for slot in range(64):
        if struct.unpack_from("<I", buf, 128 + 4 * slot)[0]:
            put_u32(buf, 128 + 4 * slot, 0xFFF0)
    yield "string-offsets-past-data", bytes(buf)

    # Random byte flips in the record area.
    hi = max(CHUNK_HEADER_SIZE + 1, min(free, CHUNK_SIZE))
    for n in range(4):
        buf = bytearray(chunk)
        for _ in range(4 << n):
            pos = rng.randrange(CHUNK_HEADER_SIZE, hi)
            buf[pos] ^= 1 << rng.randrange(8)
        yield "flip%d" % n, bytes(buf)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--chunks", required=True, help="output directory for fuzz_evtx_chunk seeds")
    parser.add_argument("--binxml", required=True, help="output directory for fuzz_binxml seeds")
    parser.add_argument("files", nargs="+", help=".evtx files to cut")
    args = parser.parse_args()

    chunk_dir = SeedDir(args.chunks)
    binxml_dir = SeedDir(args.binxml)
    rng = random.Random(0x51564)

    for path in args.files:
        with open(path, "rb") as f:
            data = f.read()
        stem = os.path.splitext(os.path.basename(path))[0]
        found = 0
        for index, chunk in chunks_of(data):
            found += 1
            tag = "%s-c%d" % (stem, index)
            chunk_dir.add(tag + ".bin", chunk)
            if index < MUTATED_CHUNKS:
                for label, mutated in mutations(chunk, rng):
                    chunk_dir.add("%s-%s.bin" % (tag, label), mutated)

            records = list(records_of(chunk))
            for n, (off, size) in enumerate(records[:RECORDS_PER_CHUNK]):
                body = chunk[off + RECORD_HEADER_SIZE : off + size - 4]
                binxml_dir.add("%s-r%d.bin" % (tag, n), body)
                if n < 2 and len(body) > 8:
                    binxml_dir.add("%s-r%d-cut.bin" % (tag, n), body[: len(body) // 2])
            if records:
                start = CHUNK_HEADER_SIZE + RECORD_HEADER_SIZE
                end = records[-1][0] + records[-1][1]
                binxml_dir.add("%s-records.bin" % tag, chunk[start:end])
                binxml_dir.add("%s-slice4k.bin" % tag, chunk[start : start + 4096])
        if found == 0:
            print("fuzz_seeds: %s: no chunk found" % path, file=sys.stderr)
            return 1

    print("fuzz_seeds: %d chunk seed(s) in %s, %d binary XML seed(s) in %s"
          % (chunk_dir.count, args.chunks, binxml_dir.count, args.binxml))
    return 0 if chunk_dir.count and binxml_dir.count else 1


if __name__ == "__main__":
    sys.exit(main())
