"""The store's stream encodings, and a byte check of a store file's streams
read with olefile instead of the platform's structured storage."""
import struct

import olefile


def u32(*values):
    return b''.join(struct.pack('<I', value & 0xFFFFFFFF) for value in values)


def vt(value):
    return struct.pack('<H', value)


def string(text):
    """u32 byte count, UTF-16LE units and a 0 unit; None is the null string."""
    if text is None:
        return u32(0)
    units = text.encode('utf-16-le') + b'\0\0'
    return u32(len(units)) + units


def check(path, expected, sizes=None, storages=None):
    """Compares streams (name -> bytes), their sizes (name -> count) and the
    file's storages (a list); prints the failures and gives the exit code."""
    failures = []
    with olefile.OleFileIO(path) as ole:
        if storages is not None:
            found = sorted('/'.join(entry) for entry in ole.listdir(streams=False, storages=True))
            if found != sorted(storages):
                failures.append('storages %r, expected %r' % (found, storages))
        for name, content in expected.items():
            actual = ole.openstream(name).read() if ole.exists(name) else None
            if actual != content:
                failures.append('%s:\n  %r\n  expected %r' % (name, actual, content))
        for name, size in (sizes or {}).items():
            actual = ole.get_size(name) if ole.exists(name) else None
            if actual != size:
                failures.append('%s: %r bytes, expected %d' % (name, actual, size))
    print('\n'.join(failures + ['%s: %d failures' % (path, len(failures))]))
    return 1 if failures else 0
