#!/usr/bin/env python3
"""Writes a C++ source that holds files as byte arrays: the browser page built into quorvex.

    embed_files.py OUT.cpp URL=FILE...
"""
import gzip
import sys

TYPES = {'html': 'text/html; charset=utf-8', 'js': 'text/javascript; charset=utf-8',
         'css': 'text/css; charset=utf-8', 'svg': 'image/svg+xml'}


def main() -> int:
    out, items = sys.argv[1], sys.argv[2:]
    lines = ['// Written by scripts/embed_files.py at build time; do not edit.',
             '#include "server/web_server.h"', '', 'namespace qvx::server {', '', 'namespace {']
    entries = []
    for index, item in enumerate(items):
        url, path = item.split('=', 1)
        kind = TYPES[path.rsplit('.', 1)[-1]]
        data = open(path, 'rb').read()
        packed = gzip.compress(data, compresslevel=9, mtime=0)
        for name, payload in ((f'kFile{index}', data), (f'kPacked{index}', packed)):
            body = ','.join(str(b) for b in payload) or '0'
            lines.append(f'const unsigned char {name}[] = {{{body}}};')
        entries.append(f'      {{"{url}", "{kind}", std::string_view(reinterpret_cast<const char*>(kFile{index}), {len(data)}),'
                       f' std::string_view(reinterpret_cast<const char*>(kPacked{index}), {len(packed)})}},')
    lines += ['} // namespace', '', 'const std::vector<TPageFile>& PageFiles() {',
              '  static const std::vector<TPageFile> files = {'] + entries + ['  };', '  return files;', '}', '',
              '} // namespace qvx::server', '']
    text = '\n'.join(lines)
    try:
        if open(out).read() == text:
            return 0
    except OSError:
        pass
    with open(out, 'w') as f:
        f.write(text)
    return 0


if __name__ == '__main__':
    sys.exit(main())
