"""Byte check of the file of References.DuplicatesAreListedAndRemovedOneAtATime: instance 1 lists (3, Q) and (2, P) in
the order of addition, instance 2 had its super reference removed (empty
strings, not null ones), instance 3 names 1 through Q."""
import os
import struct
import sys

from store_bytes import check, string


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
    sys.exit(check(os.path.join(sys.argv[1], 'References-DuplicatesAreListedAndRemovedOneAtATime.stg'), EXPECTED, storages=['1', '2', '3']))
