"""Byte check of a store file that a test program keeps, read with olefile
instead of the platform's structured storage: check_streams.py <dir> <file>."""
import os
import struct
import sys

import olefile

VT_EMPTY, VT_I4, VT_R8, VT_CY, VT_BSTR, VT_BOOL, VT_I1, VT_UI2, VT_I8 = 0, 3, 5, 6, 8, 11, 16, 18, 20


def u32(*values):
    return b''.join(struct.pack('<I', value & 0xFFFFFFFF) for value in values)


def vt(value, payload):
    return struct.pack('<H', value) + payload


def string(text):
    """u32 byte count, UTF-16LE units and a 0 unit; None is the null string."""
    if text is None:
        return u32(0)
    units = text.encode('utf-16-le') + b'\0\0'
    return u32(len(units)) + units


def names(*entries):
    """The stream name map: version, next number, count, then name, kind, number."""
    return u32(1, len(entries), len(entries)) + b''.join(string(n) + u32(k, s) for n, k, s in entries)


def parameter(name, flags, value, default, fields=(0, 0, 0, 0)):
    """flags: locked, protected, mandatory, private; fields: index, data type, size, object type."""
    return u32(1, 2) + string(name) + u32(*flags) + value + default + u32(*fields)


def instance(super_id, super_parameter, subs):
    return (u32(1, 0) + string(super_id) + string(super_parameter) + u32(len(subs)) +
            b''.join(string(i) + string(p) for i, p in subs))


# file: (streams, storages or None)
FILES = {
    # Parameters A (0) and B (1), then the groups g (2) and empty (3); one map
    # for both kinds, in name order. The group identifier is zero-extended,
    # the duplicate member kept.
    'GroupStreams-FileForTheIndependentCheck.stg': ({
        '1/map': names(('A', 2, 0), ('B', 2, 1), ('empty', 1, 3), ('g', 1, 2)),
        '1/2': u32(1, 1) + string('g') + u32(0xFF, 3) + string('A') + string('B') + string('A'),
        '1/3': u32(1, 1) + string('empty') + u32(7, 0),
    }, None),
    # Instance 1 from the store's own new descriptor objects, instance 2 from the caller's.
    'Instances-NewInstancesAndTheirIdentification.stg': ({
        'admin': u32(1, 3),
        '1/instance': u32(1, 0, 0, 0, 0),
        '1/map': u32(1, 0, 0),
        '1/dtm': struct.pack('<IBi', 1, 1, 0) + string('') + string('') + u32(0x020001FE, 0x400),
        '1/comm': struct.pack('<IB', 1, 1) + string('A'),
        '2/dtm': struct.pack('<IBi', 1, 7, -2) + string('Dev') + string(None) + u32(0x12345678, 0x407),
        '2/comm': struct.pack('<IB', 1, 0xFE) + string('HART'),
    }, ['1', '2']),
    # "b" was allocated before "a"; the map lists them by name.
    'ParameterStreams-FileForTheIndependentCheck.stg': ({
        '1/map': names(('a', 2, 1), ('b', 2, 0)),
        '1/0': parameter('b', (1, 0, 0, 0), vt(VT_I4, u32(0x01020304)), vt(VT_BOOL, b'\xff\xff'), (-5, 0xFF, 7, 9)),
        '1/1': parameter('a', (0, 1, 0, 0), vt(VT_EMPTY, string('')), vt(VT_BSTR, string(None)),
                         (0x11, 0x22, 0x33, 0x44)),
        '2/map': names(('m', 2, 0), ('p', 2, 1), ('w', 2, 2), ('x', 2, 3)),
        '2/0': parameter('m', (0, 0, 1, 0), vt(VT_BSTR, string('')), vt(VT_BOOL, b'\0\0')),
        '2/1': parameter('p', (0, 0, 0, 1), vt(VT_BSTR, string('abc')), vt(VT_R8, struct.pack('<d', 1.5))),
        '2/2': parameter('w', (0, 0, 0, 0), vt(VT_I1, b'\xfe'), vt(VT_CY, struct.pack('<q', 12345))),
        '2/3': parameter('x', (0, 0, 0, 0), vt(VT_UI2, struct.pack('<H', 0xBEEF)), vt(VT_I8, string('-7'))),
    }, None),
    # Instance 1 lists (3, Q) and (2, P) in the order of addition; instance 2
    # lost its super reference (empty strings, not null ones).
    'References-DuplicatesAreListedAndRemovedOneAtATime.stg': ({
        '1/instance': instance(None, None, [('3', 'Q'), ('2', 'P')]),
        '2/instance': instance('', '', []),
        '3/instance': instance('1', 'Q', []),
    }, ['1', '2', '3']),
}


def check(path, expected, storages):
    failures = []
    with olefile.OleFileIO(path) as ole:
        found = sorted('/'.join(entry) for entry in ole.listdir(streams=False, storages=True))
        if storages is not None and found != storages:
            failures.append('storages %r, expected %r' % (found, storages))
        for name, content in expected.items():
            actual = ole.openstream(name).read() if ole.exists(name) else None
            if actual != content:
                failures.append('%s:\n  %r\n  expected %r' % (name, actual, content))
    print('\n'.join(failures + ['%s: %d failures' % (path, len(failures))]))
    return 1 if failures else 0


if __name__ == '__main__':
    sys.exit(check(os.path.join(sys.argv[1], sys.argv[2]), *FILES[sys.argv[2]]))
