"""Byte check of reference-streams.stg: instance 1 lists (3, Q) and (2, P) in
the order of addition, instance 2 had its super reference removed (empty
strings, not null ones), instance 3 names 1 through Q."""
import os
import struct
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', 'instances'))
from store_streams import check, string  # noqa: E402


def instance(lock_count, super_id, super_parameter, subs):
    data = struct.pack('<II', 1, lock_count) + string(super_id) + string(super_parameter)
    data += struct.pack('<I', len(subs))
    for sub_id, parameter in subs:
        data += string(sub_id) + string(parameter)
    return data


EXPECTED = {
    '1/instance': instance(0, None, None, [('3', 'Q'), ('2', 'P')]),
    '2/instance': instance(0, '', '', []),
    '3/instance': instance(0, '1', 'Q', []),
}

if __name__ == '__main__':
    sys.exit(check(os.path.join(sys.argv[1], 'reference-streams.stg'), EXPECTED, storages=['1', '2', '3']))
