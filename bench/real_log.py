#!/usr/bin/env python3
"""A large .evtx made of real logs' chunks, for the benchmarks.

Every chunk of every .evtx under SAMPLES/evtx whose header and checksums are sound (and
that evtxexport, when installed, reads to the end) is copied byte for byte, in file order, and the whole set is repeated until the file reaches
--size-mb. The file header counts the chunks and carries its checksum, so every reader
takes it as a plain log. Real events are slower to read than generated ones (more
templates, longer values, more kinds of provider), which is why the targets are measured
on this file too. Nothing of the samples goes into the repository: the file is written to
the benchmark cache folder.

    python3 bench/real_log.py [--samples DIR] [--size-mb 64] [--out FILE]
"""

from __future__ import annotations

import argparse
import shutil
import struct
import subprocess
import sys
import zlib
from pathlib import Path

CHUNK = 65536
HEADER = 4096


def sound_chunks(path: Path):
    data = path.read_bytes()
    for off in range(HEADER, len(data) - CHUNK + 1, CHUNK):
        c = data[off:off + CHUNK]
        if c[:8] != b"ElfChnk\0":
            continue
        # Header checksum: bytes 0-119 and 128-511; event checksum: 512 .. free space.
        free = struct.unpack_from("<I", c, 48)[0]
        if not 512 < free <= CHUNK:
            continue
        if zlib.crc32(c[:120] + c[128:512]) != struct.unpack_from("<I", c, 124)[0]:
            continue
        if zlib.crc32(c[512:free]) != struct.unpack_from("<I", c, 52)[0]:
            continue
        yield c


def file_header(chunks: int, next_id: int) -> bytes:
    h = bytearray(HEADER)
    h[0:8] = b"ElfFile\0"
    struct.pack_into("<QQQIHHHH", h, 8, 0, chunks - 1, next_id, 128, 1, 3, HEADER, chunks)
    struct.pack_into("<I", h, 120, 0)
    struct.pack_into("<I", h, 124, zlib.crc32(bytes(h[:120])))
    return bytes(h)


def make(samples: Path, size_mb: float, out: Path) -> Path:
    """Writes out (once) and returns it; None-like errors raise SystemExit."""
    want = max(1, int(size_mb * 1e6 // CHUNK))
    if out.exists() and out.stat().st_size == HEADER + want * CHUNK:
        return out
    chunks = []
    peer = shutil.which("evtxexport")
    for p in sorted((samples / "evtx").rglob("*.evtx")):
        # A log the peer reader cannot read to its end would cut its runs short (it stops
        # at the first value type it does not know): such logs are left out.
        if peer and subprocess.run([peer, "-f", "xml", str(p)], stdout=subprocess.DEVNULL,
                                   stderr=subprocess.DEVNULL).returncode != 0:
            continue
        chunks.extend(sound_chunks(p))
    if not chunks:
        raise SystemExit(f"no sound chunks under {samples / 'evtx'}")
    if want > 0xFFFF:
        raise SystemExit("too many chunks for one file header")
    last_id = max(struct.unpack_from("<Q", c, 24)[0] for c in chunks)
    out.parent.mkdir(parents=True, exist_ok=True)
    tmp = out.with_suffix(".tmp")
    with open(tmp, "wb") as f:
        f.write(file_header(want, last_id + 1))
        for i in range(want):
            f.write(chunks[i % len(chunks)])
    tmp.replace(out)
    return out


def main() -> int:
    sys.path.insert(0, str(Path(__file__).resolve().parent))
    from bench_dump import default_cache, default_samples  # noqa: E402
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--samples", type=Path, default=default_samples())
    ap.add_argument("--size-mb", type=float, default=64)
    ap.add_argument("--out", type=Path)
    args = ap.parse_args()
    out = args.out or default_cache() / f"real-{int(args.size_mb)}mb.evtx"
    print(make(args.samples, args.size_mb, out))
    return 0


if __name__ == "__main__":
    sys.exit(main())
