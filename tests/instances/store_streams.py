"""Shared by the byte checks of store files: the store's string encoding and
a comparison of streams read with olefile (not the platform's structured
storage) against expected bytes."""
import struct

import olefile


def string(text):
    """A string in the store's encoding; None is the null string."""
    if text is None:
        return struct.pack('<I', 0)
    units = text.encode('utf-16-le') + b'\0\0'
    return struct.pack('<I', len(units)) + units


def check(path, expected, storages):
    """Compares each stream path of expected with the file's bytes and the
    file's storages with storages; prints and counts failures."""
    failures = []
    with olefile.OleFileIO(path) as ole:
        found = sorted('/'.join(entry) for entry in ole.listdir(streams=False, storages=True))
        if found != sorted(storages):
            failures.append('storages %r, expected %r' % (found, storages))
        for name, data in expected.items():
            actual = ole.openstream(name).read() if ole.exists(name) else None
            if actual != data:
                failures.append('%s: %r, expected %r' % (name, actual, data))
    for failure in failures:
        print(failure)
    print('%s: %d streams checked, %d failures' % (path, len(expected), len(failures)))
    return 1 if failures else 0
