"""Byte check of ParameterStreams-FileForTheIndependentCheck.stg."""
import os
import struct
import sys

from store_bytes import check, string, u32, vt

VT_EMPTY, VT_I2, VT_I4, VT_R8, VT_CY, VT_BSTR, VT_BOOL, VT_I1, VT_UI2, VT_I8 = 0, 2, 3, 5, 6, 8, 11, 16, 18, 20


def parameter(name, flags, value, default, fields=(0, 0, 0, 0)):
    """flags: locked, protected, mandatory, private; fields: index, data type, size, object type."""
    return u32(1, 2) + string(name) + u32(*flags) + value + default + u32(*fields)


EXPECTED = {
    # "b" was allocated before "a"; the map lists them by name.
    '1/map': u32(1, 2, 2) + string('a') + u32(2, 1) + string('b') + u32(2, 0),
    '1/0': parameter('b', (1, 0, 0, 0), vt(VT_I4) + u32(0x01020304), vt(VT_BOOL) + b'\xff\xff', (-5, 0xFF, 7, 9)),
    '1/1': parameter('a', (0, 1, 0, 0), vt(VT_EMPTY) + string(''), vt(VT_BSTR) + string(None),
                     (0x11, 0x22, 0x33, 0x44)),
    '2/map': (u32(1, 4, 4) + string('m') + u32(2, 0) + string('p') + u32(2, 1) + string('w') + u32(2, 2) +
              string('x') + u32(2, 3)),
    '2/0': parameter('m', (0, 0, 1, 0), vt(VT_BSTR) + string(''), vt(VT_BOOL) + b'\0\0'),
    '2/1': parameter('p', (0, 0, 0, 1), vt(VT_BSTR) + string('abc'), vt(VT_R8) + struct.pack('<d', 1.5)),
    '2/2': parameter('w', (0, 0, 0, 0), vt(VT_I1) + b'\xfe', vt(VT_CY) + struct.pack('<q', 12345)),
    '2/3': parameter('x', (0, 0, 0, 0), vt(VT_UI2) + struct.pack('<H', 0xBEEF), vt(VT_I8) + string('-7')),
}
# Sizes stated once more by hand: a VT_I4 value is 2 + 4 bytes, an empty
# value 2 + 6, a null string 4.
SIZES = {'1/0': 4 + 4 + 8 + 16 + 6 + 4 + 16, '1/1': 4 + 4 + 8 + 16 + 8 + 6 + 16}

if __name__ == '__main__':
    sys.exit(check(os.path.join(sys.argv[1], 'ParameterStreams-FileForTheIndependentCheck.stg'), EXPECTED, SIZES))
