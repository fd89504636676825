#!/usr/bin/env python3
"""Malformed and hostile property lists, one or more per rule of Plinth's hardened readers.

    hostile.py DIR    writes the inputs into DIR (the committed tests/data/hostile) with
                      index.txt: one line per input, "FILE|OPTIONS|REASON", REASON being the start
                      of the one-line failure that Plinth must give for it (test "Hostile")

Inputs found by fuzzing are added to index.txt by hand, with their file kept as the fuzzer wrote
it (fuzz-*.binary, fuzz-*.xml).
"""
import os
import struct
import sys

BINARY = 'binary property list: '
XML = 'XML property list: '


def bplist(objects, offsets=None, offset_size=1, ref_size=1, count=None, top=0, table=None, tail=b''):
    """A binary property list of raw object bytes, with every trailer field overridable."""
    out = bytearray(b'bplist00')
    starts = []
    for obj in objects:
        starts.append(len(out))
        out += obj
    offsets = starts if offsets is None else offsets
    table_start = len(out) if table is None else table
    for offset in offsets:
        out += offset.to_bytes(offset_size, 'big')
    out += tail
    count = len(offsets) if count is None else count
    out += struct.pack('>6xBBQQQ', offset_size, ref_size, count, top, table_start)
    return bytes(out)


def nested_arrays(depth):
    """Object i is an array holding object i+1; the last is an empty array."""
    objects = [b'\xa1' + (i + 1).to_bytes(2, 'big') for i in range(depth)] + [b'\xa0']
    return bplist(objects, offset_size=2, ref_size=2)


def doubling(levels):
    """Object i is an array holding object i+1 twice: 2^levels leaves from a few hundred bytes."""
    objects = [b'\xa2' + bytes([i + 1, i + 1]) for i in range(levels)] + [b'\x09']
    return bplist(objects, offset_size=2)


def xml(body, declaration=True):
    head = '<?xml version="1.0" encoding="UTF-8"?>\n' if declaration else ''
    return (head + body).encode('utf-8') if isinstance(body, str) else head.encode() + body


def plist(value):
    return xml('<plist version="1.0">\n%s\n</plist>\n' % value)


def inputs():
    """(FILE, REASON without the prefix of the format, DATA[, OPTIONS])"""
    i8 = lambda n: n.to_bytes(8, 'big')  # noqa: E731
    return [
        ('magic.binary', 'not a binary property list (no bplist00 magic)', b'bplist01' + bplist([b'\x09'])[8:]),
        ('short.binary', 'file too short for a binary property list', b'bplist00\x09'),
        ('offset-width-zero.binary', 'trailer: offset or reference width outside 1 to 8',
          bplist([b'\x09'], offset_size=1)[:-26] + b'\x00' + bplist([b'\x09'])[-25:]),
        ('reference-width-nine.binary', 'trailer: offset or reference width outside 1 to 8',
          bplist([b'\x09'], ref_size=9)),
        ('no-objects.binary', 'trailer: no objects', bplist([b'\x09'], count=0)),
        ('top-outside.binary', 'trailer: top object outside the object count', bplist([b'\x09'], top=1)),
        ('table-overflow.binary', 'trailer: offset table not inside the file',
          bplist([b'\x09'], offset_size=8, offsets=[8], count=2**61 + 1)),
        ('table-past-end.binary', 'trailer: offset table not inside the file', bplist([b'\x09'], table=2**64 - 4)),
        ('table-in-header.binary', 'trailer: offset table not inside the file', bplist([b'\x09'], table=3)),
        ('references-too-narrow.binary', 'trailer: references too narrow for the object count',
          bplist([b'\x09'] * 300, offset_size=2, ref_size=1)),
        ('offset-outside.binary', 'offset table: object outside the object area', bplist([b'\x09'], offsets=[9])),
        ('offset-in-magic.binary', 'offset table: object outside the object area', bplist([b'\x09'], offsets=[0])),
        ('reference-outside.binary', 'reference outside the object count', bplist([b'\xa1\x05', b'\x09'])),
        ('key-reference-outside.binary', 'reference outside the object count', bplist([b'\xd1\x07\x01', b'\x09'])),
        ('cycle-self.binary', 'reference cycle', bplist([b'\xa1\x00'])),
        ('cycle-dictionary.binary', 'reference cycle', bplist([b'\xd1\x01\x02', b'\x51k', b'\xa1\x00']), 1),
        ('nesting-513.binary', 'containers nested too deeply', nested_arrays(513)),
        ('expansion-60.binary', 'shared objects expand beyond the input\'s size', doubling(60), 1),
        ('expansion-60.binary', 'shared objects expand beyond 1 MiB + 32 times the input\'s size', doubling(60)),
        ('array-count-huge.binary', 'container runs past the object area', bplist([b'\xaf\x13' + i8(2**40)])),
        ('dictionary-count-overflow.binary', 'container runs past the object area',
          bplist([b'\xdf\x13' + i8(2**62 + 1)], ref_size=4)),
        ('data-count-huge.binary', 'data runs past the object area', bplist([b'\x4f\x13' + i8(2**62)])),
        ('string-count-overflow.binary', 'string runs past the object area', bplist([b'\x6f\x13' + i8(2**63 - 1)])),
        ('count-negative.binary', 'negative count', bplist([b'\x5f\x13' + i8(2**64 - 1)])),
        ('count-not-integer.binary', 'count is not an integer of 1 to 8 bytes', bplist([b'\x5f\x23' + i8(3) + b'abc'])),
        ('count-past-end.binary', 'count runs past the object area', bplist([b'\x5f\x12\x00'])),
        ('integer-past-object-area.binary', 'integer runs past the object area', bplist([b'\x13\xff'])),
        ('integer-128-too-big.binary', 'integer outside -2^63 to 2^64-1', bplist([b'\x14' + i8(1) + i8(0)])),
        ('integer-256-bits.binary', 'integer wider than 128 bits', bplist([b'\x15' + bytes(32)])),
        ('real-width.binary', 'real of an unknown width', bplist([b'\x21\x00\x00'])),
        ('date-nan.binary', 'date outside years 1 to 9999', bplist([b'\x33' + struct.pack('>d', float('nan'))])),
        ('date-year-10000.binary', 'date outside years 1 to 9999', bplist([b'\x33' + struct.pack('>d', 252423993600.0)])),
        ('marker-0f.binary', 'unknown object marker', bplist([b'\x0f'])),
        ('marker-c1.binary', 'unknown object marker', bplist([b'\xc1\x00'])),
        ('null.binary', 'null objects are not supported', bplist([b'\x00'])),
        ('uid.binary', 'UID objects are not supported', bplist([b'\x80\x01'])),
        ('ascii-high-byte.binary', 'ASCII string with a byte above 0x7F', bplist([b'\x51\x80'])),
        ('utf16-unpaired.binary', 'UTF-16 string with an unpaired surrogate', bplist([b'\x62\xd8\x00\x00\x41'])),
        ('key-not-string.binary', 'dictionary key is not a string', bplist([b'\xd1\x01\x01', b'\x10\x01'])),
        ('truncated.binary', 'trailer: offset table not inside the file', bplist([b'\x53abc', b'\x09'])[:-1] + b'\x00'),

        ('garbage.txt', 'property list: neither a binary (bplist00) nor an XML property list', b'hello'),
        ('empty.txt', 'property list: neither a binary (bplist00) nor an XML property list', b''),
        ('entity-declaration.xml', 'entity declarations are not supported',
          xml('<!DOCTYPE plist [<!ENTITY a "aaaaaaaaaa">]>\n<plist><string>&a;</string></plist>\n')),
        ('billion-laughs.xml', 'entity declarations are not supported',
          xml('<!DOCTYPE lolz [\n<!ENTITY lol "lol">\n' + ''.join('<!ENTITY lol%d "%s">\n' % (i, ('&lol%s;' % (
          '' if i == 1 else i - 1)) * 10) for i in range(1, 10)) + ']>\n<plist><string>&lol9;</string></plist>\n')),
        ('external-entity.xml', 'entity declarations are not supported',
          xml('<!DOCTYPE plist [<!ENTITY x SYSTEM "file:///etc/passwd">]>\n<plist><string>&x;</string></plist>\n')),
        ('undefined-entity.xml', 'unknown entity', plist('<string>&foo;</string>')),
        ('character-reference-nul.xml', 'malformed character reference', plist('<string>&#0;</string>')),
        ('character-reference-surrogate.xml', 'malformed character reference', plist('<string>&#xD800;</string>')),
        ('mismatched-tag.xml', 'mismatched end tag', plist('<string>a</integer>')),
        ('unclosed-tag.xml', 'unexpected end of input', xml('<plist><array><string>a</string>')),
        ('unterminated-tag.xml', 'unterminated tag', xml('<plist><array')),
        ('unknown-element.xml', 'unknown element', plist('<array><foo>1</foo></array>')),
        ('text-in-array.xml', 'text where an element belongs', plist('<array>stray<true/></array>')),
        ('content-after-root.xml', 'content after the root element', plist('<true/>') + b'<true/>'),
        ('two-values.xml', 'more than one value in the plist element', plist('<true/><false/>')),
        ('two-doctypes.xml', 'DOCTYPE out of place', xml('<!DOCTYPE plist>\n<!DOCTYPE plist>\n<plist><true/></plist>')),
        ('control-character.xml', 'invalid character', plist('<string>a\x01b</string>')),
        ('invalid-utf8.xml', 'invalid character', plist('<string>X</string>').replace(b'X', b'\xc3\x28')),
        ('overlong-utf8.xml', 'invalid character', plist('<string>X</string>').replace(b'X', b'\xc0\xbc')),
        ('raw-ampersand.xml', 'unknown entity', plist('<string>a & b</string>')),
        ('raw-less-than.xml', 'element inside a value', plist('<string>a < b</string>')),
        ('key-without-value.xml', 'key without a value', plist('<dict><key>k</key></dict>')),
        ('value-without-key.xml', 'dictionary value without a key', plist('<dict><true/></dict>')),
        ('two-keys.xml', 'key outside a dictionary\'s key position', plist('<dict><key>a</key><key>b</key></dict>')),
        ('key-in-array.xml', 'key outside a dictionary\'s key position', plist('<array><key>a</key></array>')),
        ('key-on-top.xml', 'key or plist element as the top value', plist('<key>a</key>')),
        ('empty-plist.xml', 'plist element without a value', xml('<plist/>')),
        ('integer-too-big.xml', 'integer outside -2^63 to 2^64-1', plist('<integer>18446744073709551616</integer>')),
        ('integer-too-small.xml', 'integer outside -2^63 to 2^64-1', plist('<integer>-9223372036854775809</integer>')),
        ('integer-malformed.xml', 'malformed integer', plist('<integer>1_000</integer>')),
        ('integer-empty.xml', 'malformed integer', plist('<integer/>')),
        ('real-malformed.xml', 'malformed real', plist('<real>1,5</real>')),
        ('date-malformed.xml', 'malformed date', plist('<date>2020-01-02T03:04:05</date>')),
        ('date-february-30.xml', 'malformed date', plist('<date>2021-02-30T00:00:00Z</date>')),
        ('date-trailing-text.xml', 'malformed date', plist('<date>2020-01-02T03:04:05Zjunk</date>')),
        ('base64-unpadded.xml', 'malformed Base64 data', plist('<data>eA</data>')),
        ('base64-stray-character.xml', 'malformed Base64 data', plist('<data>eA!=</data>')),
        ('boolean-with-text.xml', 'text inside a boolean', plist('<true>yes</true>')),
        ('nesting-513.xml', 'containers nested too deeply', plist('<array>' * 513 + '</array>' * 513)),
        ('unterminated-comment.xml', 'unterminated comment', plist('<!-- <true/>')),
        ('cdata-unterminated.xml', 'unterminated CDATA section', plist('<string><![CDATA[abc</string>')),
        ('unsupported-encoding.xml', 'unsupported encoding',
          b'<?xml version="1.0" encoding="Shift_JIS"?><plist><true/></plist>'),
        ('utf16-odd.xml', 'UTF-16 input of an odd length', b'\xff\xfe<\x00p'),
    ]

def main(directory):
    os.makedirs(directory, exist_ok=True)
    path = os.path.join(directory, 'index.txt')
    kept = [line for line in open(path, encoding='utf-8') if line.startswith('fuzz-')] if os.path.exists(path) else []
    index = []
    for name, reason, data, *options in inputs():
        with open(os.path.join(directory, name), 'wb') as f:
            f.write(data)
        prefix = {'binary': BINARY, 'xml': XML}.get(name.rsplit('.', 1)[1], '')
        index.append('%s|%d|%s%s\n' % (name, options[0] if options else 0, prefix, reason))
    with open(path, 'w', encoding='utf-8') as f:
        f.writelines(index + kept)


if __name__ == '__main__':
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    main(sys.argv[1])
