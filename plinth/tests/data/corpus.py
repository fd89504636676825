#!/usr/bin/env python3
"""The interoperability corpus of Plinth's property-list formats, with Python's plistlib on the
other side.

    corpus.py make DIR     writes what plistlib makes of every corpus value into DIR (the
                           committed tests/data/plistlib), with index.txt naming the files:
                           NAME.binary, NAME.xml, and NAME.wR-O.binary re-encoded here with
                           references of R and offsets of O bytes (plistlib writes only 1, 2 and 4)
    corpus.py verify DIR   reads with plistlib every file that Plinth wrote into DIR (the native
                           test "Interop") and compares it with the corpus value its name gives
"""
import datetime
import math
import os
import pathlib
import plistlib
import struct
import sys

D = datetime.datetime
# The corpus values that XML cannot hold: written in the binary format only.
BINARY_ONLY = {'string_nul', 'date_micro', 'dict_sorted_ffff'}


def corpus():
    """Name -> value."""
    values = {'true': True, 'false': False}
    for n in (0, 1, 255, 256, 65535, 65536, 2**32 - 1, 2**32, 2**63 - 1, -1, -255, -2**31, -2**63, 2**63, 2**64 - 1):
        values['integer%s%d' % ('_minus' if n < 0 else '', abs(n))] = n
    for name, r in (('zero', 0.0), ('minus_zero', -0.0), ('one_and_half', 1.5), ('tenth', 0.1), ('small', 1e-05),
                    ('big', 1e16), ('huge', 1.2345678901234568e+17), ('third', 1 / 3), ('tiniest', 5e-324),
                    ('largest', 1.7976931348623157e+308), ('inf', math.inf), ('minus_inf', -math.inf),
                    ('nan', math.nan), ('hundred', 100.0), ('negative', -2.5e-07)):
        values['real_' + name] = r
    deep = 'bottom'
    for i in range(100):
        deep = [deep] if i % 2 else {'level': deep}
    values.update(
        string_empty='', string_ascii='abc', string_15='x' * 15, string_300=''.join(chr(0x20 + i % 95) for i in range(300)),
        string_latin1='é', string_cjk='日本語のテキスト', string_astral='a\U0001F600b\U00010348',
        string_bom_inside='\ufeffx\ufffd', string_markup='<&>]]>"\'\t\n', string_long_unicode='ü' * 70000,
        string_nul='a\x00b', string_delete='\x7f\x85',
        data_empty=b'', data_bytes=bytes(range(256)), data_nested={'a': [[[[[[[[b'0123456789' * 10]]]]]]]], 'b': [b'x' * 57]},
        date_reference=D(2001, 1, 1), date_unix=D(1970, 1, 1), date_first=D(1, 1, 1), date_last=D(9999, 12, 31, 23, 59, 59),
        date_before_reference=D(2000, 12, 31, 23, 59, 59), date_micro=D(2020, 1, 2, 3, 4, 5, 250000),
        array_empty=[], array_20=list(range(20)), array_nested=[[1, [2]], 3, [[[]]]], array_deep=deep,
        array_shared_scalars=['a', 'a', 1, 1, 1.0, True, True, -0.0, 0.0, b'a', 'a'],
        dict_empty={},
        # Code-point order differs from UTF-16 order: U+FFFD (and U+FFFF) before U+1F600.
        dict_sorted={'b': 1, 'a': [True, 2.5], '\ufffd': 1, '\U0001F600': 2, 'B': 3, '': 4},
        dict_sorted_ffff={'\uffff': 1, '\U0001F600': 2},
        dict_every_type={'string': 'text', 'unicode': 'Grüße 😀', 'integer': -42, 'big': 2**64 - 1, 'real': 3.25,
                         'true': True, 'false': False, 'date': D(2024, 3, 4, 11, 43, 4), 'data': b'\x00\x01\xfe\xff',
                         'array': [1, 'two', [3.0]], 'dict': {'x': {}}},
        dict_refs_2={'k%03d' % i: 'value %d' % i for i in range(150)},
        dict_key_is_value={'a': 'a', 'b': ['a', {'a': 'b'}]})
    return values


# Values that Plinth makes by rule (too large to commit): the test writes them, plistlib checks.
GENERATED = {'generated_refs_4': list(range(70000)), 'generated_strings_4': ['s%d' % i for i in range(70000)]}
# The corpus entries re-encoded with every reference and offset width.
WIDTH_VARIANTS = ('dict_every_type', 'array_nested', 'string_astral')


def canonical(v):
    """A value that compares as plistlib's, but with NaN equal to NaN, the sign of zero kept and types apart."""
    if isinstance(v, dict):
        return 'dict', sorted((k, canonical(x)) for k, x in v.items())
    return ('list', [canonical(x) for x in v]) if isinstance(v, list) else (type(v).__name__, repr(v) if isinstance(v, float) else v)


def equal(a, b):
    return canonical(a) == canonical(b)


def reencode(data, ref_width, offset_width):
    """The same objects with references of ref_width and offsets of offset_width bytes."""
    offset_size, ref_size, count, top, table = struct.unpack('>6xBBQQQ', data[-32:])
    out, offsets = bytearray(b'bplist00'), []
    for i in range(count):
        at = int.from_bytes(data[table + i * offset_size:table + (i + 1) * offset_size], 'big')
        offsets.append(len(out))
        kind, low = data[at] >> 4, data[at] & 15
        head, n = 1, low
        if low == 15 and kind > 3:  # the count follows as an integer object
            size = 1 << (data[at + 1] & 15)
            head, n = 2 + size, int.from_bytes(data[at + 2:at + 2 + size], 'big')
        if kind in (0xA, 0xD):  # arrays and dictionaries: their references at the new width
            out += data[at:at + head]
            for r in range(n * (2 if kind == 0xD else 1)):
                start = at + head + r * ref_size
                out += int.from_bytes(data[start:start + ref_size], 'big').to_bytes(ref_width, 'big')
        else:
            out += data[at:at + {0: 1, 1: 1 + (1 << low), 2: 1 + (1 << low), 3: 9}.get(kind, head + n * (2 if kind == 6 else 1))]
    trailer = struct.pack('>6xBBQQQ', offset_width, ref_width, count, top, len(out))
    return bytes(out) + b''.join(offset.to_bytes(offset_width, 'big') for offset in offsets) + trailer


def make(directory):
    os.makedirs(directory, exist_ok=True)
    files = {}
    for name, value in sorted(corpus().items()):
        binary = files[name + '.binary'] = plistlib.dumps(value, fmt=plistlib.FMT_BINARY)
        if name not in BINARY_ONLY:
            files[name + '.xml'] = plistlib.dumps(value, fmt=plistlib.FMT_XML)
        for width in range(1, 9) if name in WIDTH_VARIANTS else ():
            for ref, off in ((width, width), (width, 8), (8, width)):
                try:
                    variant = reencode(binary, ref, off)
                except OverflowError:   # the objects or offsets don't fit this width
                    continue
                assert equal(plistlib.loads(variant), value), (name, ref, off)
                files.setdefault('%s.w%d-%d.binary' % (name, ref, off), variant)
    files['index.txt'] = ''.join(file + '\n' for file in files).encode()
    for file, data in files.items():
        pathlib.Path(directory, file).write_bytes(data)


def verify(directory):
    """Every file Plinth wrote: NAME[.wR-O].binary or NAME.xml, NAME from the corpus or generated."""
    values, failures, identical = dict(corpus(), **GENERATED), [], 0
    files = sorted(os.listdir(directory))
    for file in files:
        name, fmt = file.split('.')[0], plistlib.FMT_XML if file.endswith('.xml') else plistlib.FMT_BINARY
        data = pathlib.Path(directory, file).read_bytes()
        try:
            value = plistlib.loads(data)
        except Exception as e:  # noqa: BLE001 - any failure of plistlib is a mismatch
            failures.append('%s: plistlib failed: %s: %s' % (file, type(e).__name__, e))
            continue
        if name not in values:
            failures.append('%s: not a corpus name' % file)
            continue
        # Plinth read the value from plistlib's binary file, so it is compared with what plistlib
        # reads back from that (plistlib merges -0.0 and 0.0 into the first of them).
        want = plistlib.loads(plistlib.dumps(values[name], fmt=plistlib.FMT_BINARY))
        if not equal(value, want):
            failures.append('%s: plistlib read %r' % (file, value)[:300])
        elif file.count('.') == 1:
            # The default encoding is plistlib's, byte for byte (its XML has one DOCTYPE line more).
            theirs = plistlib.dumps(want, fmt=fmt, sort_keys=True)
            if fmt == plistlib.FMT_XML:
                theirs = b'\n'.join(line for line in theirs.split(b'\n') if not line.startswith(b'<!DOCTYPE'))
            if theirs == data:
                identical += 1
            else:
                failures.append('%s: read back equal, but not byte for byte what plistlib writes' % file)
    print('\n'.join(failures + ['verified %d files written by Plinth, %d byte-identical with plistlib, %d failures'
                                % (len(files), identical, len(failures))]))
    return 1 if failures or not files else 0


if __name__ == '__main__':
    if len(sys.argv) == 3 and sys.argv[1] in ('make', 'verify'):
        sys.exit({'make': make, 'verify': verify}[sys.argv[1]](sys.argv[2]))
    sys.exit(__doc__)
