"""Byte check of GroupStreams-FileForTheIndependentCheck.stg."""
import os
import sys

from store_bytes import check, string, u32

EXPECTED = {
    # Parameters A (0) and B (1), then the groups g (2) and empty (3); one
    # map for both kinds, in name order.
    '1/map': (u32(1, 4, 4) + string('A') + u32(2, 0) + string('B') + u32(2, 1) + string('empty') + u32(1, 3) +
              string('g') + u32(1, 2)),
    # Group identifier zero-extended, then the members in order, the duplicate kept.
    '1/2': u32(1, 1) + string('g') + u32(0xFF) + u32(3) + string('A') + string('B') + string('A'),
    '1/3': u32(1, 1) + string('empty') + u32(7) + u32(0),
}
# Header, identifier and count, three members of 4 + 4 bytes.
SIZES = {'1/2': 4 + 4 + 8 + 4 + 4 + 3 * 8}

if __name__ == '__main__':
    sys.exit(check(os.path.join(sys.argv[1], 'GroupStreams-FileForTheIndependentCheck.stg'), EXPECTED, SIZES))
