#!/usr/bin/env python3
"""Malformed and hostile property lists, one or more per rule of Plinth's hardened readers.

    hostile.py DIR    writes the inputs into DIR (the committed tests/data/hostile) with
                      index.txt: one line per input, "FILE|OPTIONS|REASON", REASON being the start
                      of the one-line failure that Plinth must give for it

The test "Hostile" reads every input with the options given and expects null, that reason, and
no object left alive. Inputs found by fuzzing are added to index.txt by hand, with their file
kept as the fuzzer wrote it (fuzz-*.binary, fuzz-*.xml).
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
    i8 = lambda n: n.to_bytes(8, 'big')  # noqa: E731
    yield 'magic.binary', 0, BINARY + 'not a binary property list (no bplist00 magic)', \
        b'bplist01' + bplist([b'\x09'])[8:]
    yield 'short.binary', 0, BINARY + 'file too short for a binary property list', b'bplist00\x09'
    yield 'offset-width-zero.binary', 0, BINARY + 'trailer: offset or reference width outside 1 to 8', \
        bplist([b'\x09'], offset_size=1)[:-26] + b'\x00' + bplist([b'\x09'])[-25:]
    yield 'reference-width-nine.binary', 0, BINARY + 'trailer: offset or reference width outside 1 to 8', \
        bplist([b'\x09'], ref_size=9)
    yield 'no-objects.binary', 0, BINARY + 'trailer: no objects', bplist([b'\x09'], count=0)
    yield 'top-outside.binary', 0, BINARY + 'trailer: top object outside the object count', bplist([b'\x09'], top=1)
    yield 'table-overflow.binary', 0, BINARY + 'trailer: offset table not inside the file', \
        bplist([b'\x09'], offset_size=8, offsets=[8], count=2**61 + 1)
    yield 'table-past-end.binary', 0, BINARY + 'trailer: offset table not inside the file', \
        bplist([b'\x09'], table=2**64 - 4)
    yield 'table-in-header.binary', 0, BINARY + 'trailer: offset table not inside the file', \
        bplist([b'\x09'], table=3)
    yield 'references-too-narrow.binary', 0, BINARY + 'trailer: references too narrow for the object count', \
        bplist([b'\x09'] * 300, offset_size=2, ref_size=1)
    yield 'offset-outside.binary', 0, BINARY + 'offset table: object outside the object area', \
        bplist([b'\x09'], offsets=[9])
    yield 'offset-in-magic.binary', 0, BINARY + 'offset table: object outside the object area', \
        bplist([b'\x09'], offsets=[0])
    yield 'reference-outside.binary', 0, BINARY + 'reference outside the object count', \
        bplist([b'\xa1\x05', b'\x09'])
    yield 'key-reference-outside.binary', 0, BINARY + 'reference outside the object count', \
        bplist([b'\xd1\x07\x01', b'\x09'])
    yield 'cycle-self.binary', 0, BINARY + 'reference cycle', bplist([b'\xa1\x00'])
    yield 'cycle-dictionary.binary', 1, BINARY + 'reference cycle', bplist([b'\xd1\x01\x02', b'\x51k', b'\xa1\x00'])
    yield 'nesting-513.binary', 0, BINARY + 'containers nested too deeply', nested_arrays(513)
    yield 'expansion-60.binary', 1, BINARY + 'shared objects expand beyond the input\'s size', doubling(60)
    yield 'array-count-huge.binary', 0, BINARY + 'container runs past the object area', \
        bplist([b'\xaf\x13' + i8(2**40)])
    yield 'dictionary-count-overflow.binary', 0, BINARY + 'container runs past the object area', \
        bplist([b'\xdf\x13' + i8(2**62 + 1)], ref_size=4)
    yield 'data-count-huge.binary', 0, BINARY + 'data runs past the object area', bplist([b'\x4f\x13' + i8(2**62)])
    yield 'string-count-overflow.binary', 0, BINARY + 'string runs past the object area', \
        bplist([b'\x6f\x13' + i8(2**63 - 1)])
    yield 'count-negative.binary', 0, BINARY + 'negative count', bplist([b'\x5f\x13' + i8(2**64 - 1)])
    yield 'count-not-integer.binary', 0, BINARY + 'count is not an integer of 1 to 8 bytes', \
        bplist([b'\x5f\x23' + i8(3) + b'abc'])
    yield 'count-past-end.binary', 0, BINARY + 'count runs past the object area', bplist([b'\x5f\x12\x00'])
    yield 'integer-past-object-area.binary', 0, BINARY + 'integer runs past the object area', bplist([b'\x13\xff'])
    yield 'integer-128-too-big.binary', 0, BINARY + 'integer outside -2^63 to 2^64-1', \
        bplist([b'\x14' + i8(1) + i8(0)])
    yield 'integer-256-bits.binary', 0, BINARY + 'integer wider than 128 bits', bplist([b'\x15' + bytes(32)])
    yield 'real-width.binary', 0, BINARY + 'real of an unknown width', bplist([b'\x21\x00\x00'])
    yield 'date-nan.binary', 0, BINARY + 'date outside years 1 to 9999', \
        bplist([b'\x33' + struct.pack('>d', float('nan'))])
    yield 'date-year-10000.binary', 0, BINARY + 'date outside years 1 to 9999', \
        bplist([b'\x33' + struct.pack('>d', 252423993600.0)])
    yield 'marker-0f.binary', 0, BINARY + 'unknown object marker', bplist([b'\x0f'])
    yield 'marker-c1.binary', 0, BINARY + 'unknown object marker', bplist([b'\xc1\x00'])
    yield 'null.binary', 0, BINARY + 'null objects are not supported', bplist([b'\x00'])
    yield 'uid.binary', 0, BINARY + 'UID objects are not supported', bplist([b'\x80\x01'])
    yield 'ascii-high-byte.binary', 0, BINARY + 'ASCII string with a byte above 0x7F', bplist([b'\x51\x80'])
    yield 'utf16-unpaired.binary', 0, BINARY + 'UTF-16 string with an unpaired surrogate', \
        bplist([b'\x62\xd8\x00\x00\x41'])
    yield 'key-not-string.binary', 0, BINARY + 'dictionary key is not a string', \
        bplist([b'\xd1\x01\x01', b'\x10\x01'])
    yield 'truncated.binary', 0, BINARY + 'trailer: offset table not inside the file', \
        bplist([b'\x53abc', b'\x09'])[:-1] + b'\x00'

    yield 'garbage.txt', 0, 'property list: neither a binary (bplist00) nor an XML property list', b'hello'
    yield 'empty.txt', 0, 'property list: neither a binary (bplist00) nor an XML property list', b''
    yield 'entity-declaration.xml', 0, XML + 'entity declarations are not supported', \
        xml('<!DOCTYPE plist [<!ENTITY a "aaaaaaaaaa">]>\n<plist><string>&a;</string></plist>\n')
    yield 'billion-laughs.xml', 0, XML + 'entity declarations are not supported', xml(
        '<!DOCTYPE lolz [\n<!ENTITY lol "lol">\n' + ''.join(
            '<!ENTITY lol%d "%s">\n' % (i, ('&lol%s;' % ('' if i == 1 else i - 1)) * 10) for i in range(1, 10))
        + ']>\n<plist><string>&lol9;</string></plist>\n')
    yield 'external-entity.xml', 0, XML + 'entity declarations are not supported', \
        xml('<!DOCTYPE plist [<!ENTITY x SYSTEM "file:///etc/passwd">]>\n<plist><string>&x;</string></plist>\n')
    yield 'undefined-entity.xml', 0, XML + 'unknown entity', plist('<string>&foo;</string>')
    yield 'character-reference-nul.xml', 0, XML + 'malformed character reference', plist('<string>&#0;</string>')
    yield 'character-reference-surrogate.xml', 0, XML + 'malformed character reference', \
        plist('<string>&#xD800;</string>')
    yield 'mismatched-tag.xml', 0, XML + 'mismatched end tag', plist('<string>a</integer>')
    yield 'unclosed-tag.xml', 0, XML + 'unexpected end of input', xml('<plist><array><string>a</string>')
    yield 'unterminated-tag.xml', 0, XML + 'unterminated tag', xml('<plist><array')
    yield 'unknown-element.xml', 0, XML + 'unknown element', plist('<array><foo>1</foo></array>')
    yield 'text-in-array.xml', 0, XML + 'text where an element belongs', plist('<array>stray<true/></array>')
    yield 'content-after-root.xml', 0, XML + 'content after the root element', plist('<true/>') + b'<true/>'
    yield 'two-values.xml', 0, XML + 'more than one value in the plist element', plist('<true/><false/>')
    yield 'two-doctypes.xml', 0, XML + 'DOCTYPE out of place', \
        xml('<!DOCTYPE plist>\n<!DOCTYPE plist>\n<plist><true/></plist>')
    yield 'control-character.xml', 0, XML + 'invalid character', plist('<string>a\x01b</string>')
    yield 'invalid-utf8.xml', 0, XML + 'invalid character', plist('<string>X</string>').replace(b'X', b'\xc3\x28')
    yield 'overlong-utf8.xml', 0, XML + 'invalid character', plist('<string>X</string>').replace(b'X', b'\xc0\xbc')
    yield 'raw-ampersand.xml', 0, XML + 'unknown entity', plist('<string>a & b</string>')
    yield 'raw-less-than.xml', 0, XML + 'element inside a value', plist('<string>a < b</string>')
    yield 'key-without-value.xml', 0, XML + 'key without a value', plist('<dict><key>k</key></dict>')
    yield 'value-without-key.xml', 0, XML + 'dictionary value without a key', plist('<dict><true/></dict>')
    yield 'two-keys.xml', 0, XML + 'key outside a dictionary\'s key position', \
        plist('<dict><key>a</key><key>b</key></dict>')
    yield 'key-in-array.xml', 0, XML + 'key outside a dictionary\'s key position', plist('<array><key>a</key></array>')
    yield 'key-on-top.xml', 0, XML + 'key or plist element as the top value', plist('<key>a</key>')
    yield 'empty-plist.xml', 0, XML + 'plist element without a value', xml('<plist/>')
    yield 'integer-too-big.xml', 0, XML + 'integer outside -2^63 to 2^64-1', plist('<integer>18446744073709551616</integer>')
    yield 'integer-too-small.xml', 0, XML + 'integer outside -2^63 to 2^64-1', \
        plist('<integer>-9223372036854775809</integer>')
    yield 'integer-malformed.xml', 0, XML + 'malformed integer', plist('<integer>1_000</integer>')
    yield 'integer-empty.xml', 0, XML + 'malformed integer', plist('<integer/>')
    yield 'real-malformed.xml', 0, XML + 'malformed real', plist('<real>1,5</real>')
    yield 'date-malformed.xml', 0, XML + 'malformed date', plist('<date>2020-01-02T03:04:05</date>')
    yield 'date-february-30.xml', 0, XML + 'malformed date', plist('<date>2021-02-30T00:00:00Z</date>')
    yield 'date-trailing-text.xml', 0, XML + 'malformed date', plist('<date>2020-01-02T03:04:05Zjunk</date>')
    yield 'base64-unpadded.xml', 0, XML + 'malformed Base64 data', plist('<data>eA</data>')
    yield 'base64-stray-character.xml', 0, XML + 'malformed Base64 data', plist('<data>eA!=</data>')
    yield 'boolean-with-text.xml', 0, XML + 'text inside a boolean', plist('<true>yes</true>')
    yield 'nesting-513.xml', 0, XML + 'containers nested too deeply', plist('<array>' * 513 + '</array>' * 513)
    yield 'unterminated-comment.xml', 0, XML + 'unterminated comment', plist('<!-- <true/>')
    yield 'cdata-unterminated.xml', 0, XML + 'unterminated CDATA section', plist('<string><![CDATA[abc</string>')
    yield 'unsupported-encoding.xml', 0, XML + 'unsupported encoding', \
        b'<?xml version="1.0" encoding="Shift_JIS"?><plist><true/></plist>'
    yield 'utf16-odd.xml', 0, XML + 'UTF-16 input of an odd length', b'\xff\xfe<\x00p'


def main(directory):
    os.makedirs(directory, exist_ok=True)
    index = []
    for name, options, reason, data in inputs():
        with open(os.path.join(directory, name), 'wb') as f:
            f.write(data)
        index.append('%s|%d|%s\n' % (name, options, reason))
    kept = []
    path = os.path.join(directory, 'index.txt')
    if os.path.exists(path):
        kept = [line for line in open(path, encoding='utf-8') if line.startswith('fuzz-')]
    with open(path, 'w', encoding='utf-8') as f:
        f.writelines(index + kept)


if __name__ == '__main__':
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    main(sys.argv[1])
