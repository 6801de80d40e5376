"""Byte check of the parameter streams of
ParameterStreams-FileForTheIndependentCheck.stg, read with olefile instead of
the platform's structured storage."""
import os
import struct
import sys

from store_bytes import check, string, u32, vt


def parameter(name, locked, protected, mandatory, private, value, default, index=0, data_type=0, size=0,
              object_type=0):
    return (u32(1, 2) + string(name) + u32(locked, protected, mandatory, private) + value + default +
            u32(index, data_type, size, object_type))


VT_EMPTY, VT_I2, VT_I4, VT_R8, VT_CY, VT_BSTR, VT_BOOL, VT_I1, VT_UI2, VT_I8 = 0, 2, 3, 5, 6, 8, 11, 16, 18, 20

EXPECTED = {
    # "b" was allocated before "a"; the map lists them by name.
    '1/map': u32(1, 2, 2) + string('a') + u32(2, 1) + string('b') + u32(2, 0),
    '1/0': parameter('b', 1, 0, 0, 0, vt(VT_I4) + u32(0x01020304), vt(VT_BOOL) + b'\xff\xff',
                     index=-5, data_type=0xFF, size=7, object_type=9),
    '1/1': parameter('a', 0, 1, 0, 0, vt(VT_EMPTY) + string(''), vt(VT_BSTR) + string(None),
                     index=0x11, data_type=0x22, size=0x33, object_type=0x44),
    '2/map': (u32(1, 4, 4) + string('m') + u32(2, 0) + string('p') + u32(2, 1) + string('w') + u32(2, 2) +
              string('x') + u32(2, 3)),
    '2/0': parameter('m', 0, 0, 1, 0, vt(VT_BSTR) + string(''), vt(VT_BOOL) + b'\0\0'),
    '2/1': parameter('p', 0, 0, 0, 1, vt(VT_BSTR) + string('abc'), vt(VT_R8) + struct.pack('<d', 1.5)),
    '2/2': parameter('w', 0, 0, 0, 0, vt(VT_I1) + b'\xfe', vt(VT_CY) + struct.pack('<q', 12345)),
    '2/3': parameter('x', 0, 0, 0, 0, vt(VT_UI2) + struct.pack('<H', 0xBEEF), vt(VT_I8) + string('-7')),
}
# Sizes stated once more by hand: a VT_I4 value is 2 + 4 bytes, an empty
# value 2 + 6, a null string 4.
SIZES = {'1/0': 4 + 4 + 8 + 16 + 6 + 4 + 16, '1/1': 4 + 4 + 8 + 16 + 8 + 6 + 16}


def main(directory):
    return check(os.path.join(directory, 'ParameterStreams-FileForTheIndependentCheck.stg'), EXPECTED, SIZES)


if __name__ == '__main__':
    sys.exit(main(sys.argv[1]))
