"""Byte check of the file of Instances.NewInstancesAndTheirIdentification: the streams of a new instance made
from the store's own new descriptor objects (instance 1) and of one made from
the caller's own descriptor objects (instance 2)."""
import os
import struct
import sys

from store_bytes import check, string

EXPECTED = {
    'admin': struct.pack('<II', 1, 3),
    '1/instance': struct.pack('<IIIII', 1, 0, 0, 0, 0),
    '1/map': struct.pack('<III', 1, 0, 0),
    '1/dtm': struct.pack('<IBi', 1, 1, 0) + string('') + string('') + struct.pack('<ii', 0x020001FE, 0x400),
    '1/comm': struct.pack('<IB', 1, 1) + string('A'),
    '2/dtm': struct.pack('<IBi', 1, 7, -2) + string('Dev') + string(None) + struct.pack('<ii', 0x12345678, 0x407),
    '2/comm': struct.pack('<IB', 1, 0xFE) + string('HART'),
}
# The sizes that the format gives, stated on their own.
SIZES = {'admin': 8, '1/instance': 20, '1/map': 12, '1/dtm': 29, '1/comm': 13}

if __name__ == '__main__':
    assert all(len(EXPECTED[name]) == size for name, size in SIZES.items())
    sys.exit(check(os.path.join(sys.argv[1], 'Instances-NewInstancesAndTheirIdentification.stg'), EXPECTED,
                   storages=['1', '2']))
