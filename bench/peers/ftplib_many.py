#!/usr/bin/python3
"""The peer of the many-files row: Python's ftplib on one connection, storing
COUNT files of BYTES each in a loop (one STOR per file, the library's default
8 KiB blocks). The bytes are those the store's bench writes (see pattern.py),
made before the clock starts. Prints one "key=value" line; `seconds` runs from
connect and login to QUIT, as the store's own figure does.

    ftplib_many.py HOST PORT USER PASSWORD DIR COUNT BYTES
"""
import ftplib
import io
import os
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import pattern  # noqa: E402


def main():
    if len(sys.argv) != 8:
        print(__doc__, file=sys.stderr)
        return 2
    host, port, user, password, folder = sys.argv[1:6]
    count, size = int(sys.argv[6]), int(sys.argv[7])
    bodies = [pattern.file_bytes(size, i) for i in range(count)]
    started = time.monotonic()
    ftp = ftplib.FTP()
    ftp.connect(host, int(port), timeout=60)
    ftp.login(user, password)
    for i, body in enumerate(bodies):
        ftp.storbinary("STOR %s/f%06d.bin" % (folder.rstrip("/"), i), io.BytesIO(body))
    ftp.quit()
    print("ok=1 seconds=%.6f" % (time.monotonic() - started))
    return 0


if __name__ == "__main__":
    sys.exit(main())
