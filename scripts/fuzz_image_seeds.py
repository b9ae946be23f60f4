#!/usr/bin/env python3
"""Writes the seeds of fuzz_image: small disks in its sparse form.

    fuzz_image_seeds.py DIR LOG.evtx

A 2 MB NTFS volume (mkntfs) holding LOG.evtx at its root (ntfscp), bare and inside an
MBR disk (sfdisk), and a GPT disk without a file system. The sparse form is "QVXI", the
media size (u32 little-endian), then runs of (offset u32, length u16, bytes) of every
512-byte sector that is neither all zeros nor all 0xFF (the journal's fill, never read).
Without mkntfs, ntfscp or sfdisk only the seeds that need none are written.
"""

import os
import shutil
import struct
import subprocess
import sys
import tempfile

SECTOR = 512
MAX_RUN = 65535 - SECTOR


def sparse(data: bytes, out: str) -> None:
    def blank(i):
        s = data[i:i + SECTOR]
        return s.count(0) == len(s) or s.count(0xFF) == len(s)
    runs, i = [], 0
    while i < len(data):
        if blank(i):
            i += SECTOR
            continue
        j = i
        while j < len(data) and not blank(j) and j - i < MAX_RUN:
            j += SECTOR
        runs.append((i, data[i:j]))
        i = j
    with open(out, "wb") as f:
        f.write(b"QVXI" + struct.pack("<I", len(data)))
        for offset, run in runs:
            f.write(struct.pack("<IH", offset, len(run)) + run)


def quiet(cmd, **kw):
    return subprocess.run(cmd, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, **kw).returncode == 0


def main() -> int:
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    out, log = sys.argv[1], sys.argv[2]
    os.makedirs(out, exist_ok=True)
    with tempfile.TemporaryDirectory() as tmp:
        if shutil.which("sfdisk"):
            gpt = os.path.join(tmp, "gpt.raw")
            with open(gpt, "wb") as f:
                f.truncate(2 << 20)
            if quiet(["sfdisk", "-q", gpt], input=b"label: gpt\n2048,1024,EBD0A0A2-B9E5-4433-87C0-68B6B72699C7\n"):
                sparse(open(gpt, "rb").read(), os.path.join(out, "gpt-empty"))
        if not (shutil.which("mkntfs") and shutil.which("ntfscp")):
            return 0
        vol = os.path.join(tmp, "vol.img")
        with open(vol, "wb") as f:
            f.truncate(2 << 20)
        if not quiet(["mkntfs", "-F", "-q", "-Q", "-p", "2048", vol]) or \
           not quiet(["ntfscp", "-f", vol, log, "System.evtx"]):
            return 0
        data = open(vol, "rb").read()
        sparse(data, os.path.join(out, "ntfs-volume"))
        if shutil.which("sfdisk"):
            disk = os.path.join(tmp, "mbr.raw")
            with open(disk, "wb") as f:
                f.truncate((1 << 20) + len(data))
                f.seek(1 << 20)
                f.write(data)
            if quiet(["sfdisk", "-q", disk], input=f"2048,{len(data) // SECTOR},7\n".encode()):
                sparse(open(disk, "rb").read(), os.path.join(out, "mbr-ntfs"))
    return 0


if __name__ == "__main__":
    sys.exit(main())
