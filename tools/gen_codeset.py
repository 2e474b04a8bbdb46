#!/usr/bin/env python3
"""Writes the code-set conversion tables the converter engine loads.

Every mapping is taken from the system's own converter (glibc iconv, called
through ctypes), so the tables agree with it by construction; the layout is
described in docs/codeset.md.  Usage: gen_codeset.py OUTPUT_DIR [NAME...], or --list for the names.
"""
import ctypes
import ctypes.util
import itertools
import os
import struct
import sys

libc = ctypes.CDLL(ctypes.util.find_library("c"), use_errno=True)
libc.iconv_open.restype = ctypes.c_void_p
libc.iconv_open.argtypes = [ctypes.c_char_p, ctypes.c_char_p]
libc.iconv.restype = ctypes.c_size_t
libc.iconv.argtypes = [ctypes.c_void_p, ctypes.POINTER(ctypes.c_char_p), ctypes.POINTER(ctypes.c_size_t),
                       ctypes.POINTER(ctypes.c_char_p), ctypes.POINTER(ctypes.c_size_t)]
libc.iconv_close.argtypes = [ctypes.c_void_p]

EILSEQ = 84
EINVAL = 22
NONE = 0xFFFF
HEADER = 1760


class Converter:
    """One glibc iconv direction."""

    def __init__(self, to, frm):
        self.cd = libc.iconv_open(to.encode(), frm.encode())
        if self.cd in (None, ctypes.c_void_p(-1).value):
            raise SystemExit("iconv_open(%s, %s) failed" % (to, frm))
        self.size = 0

    def run(self, data, start=0):
        """Converts `data` from `start` on, from the initial state: (output,
        bytes read, errno or 0)."""
        if len(data) * 8 + 64 > self.size:
            self.size = len(data) * 8 + 64
            self.out = ctypes.create_string_buffer(self.size)
        libc.iconv(self.cd, None, None, None, None)
        inbuf = ctypes.c_char_p(ctypes.cast(data, ctypes.c_void_p).value + start)
        inleft = ctypes.c_size_t(len(data) - start)
        outp = ctypes.cast(self.out, ctypes.c_char_p)
        outleft = ctypes.c_size_t(self.size)
        err = 0
        while inleft.value:
            before = inleft.value
            r = libc.iconv(self.cd, ctypes.byref(inbuf), ctypes.byref(inleft), ctypes.byref(outp), ctypes.byref(outleft))
            if r != ctypes.c_size_t(-1).value:
                break
            err = ctypes.get_errno()
            # With //IGNORE glibc skips what it cannot write yet reports EILSEQ, sometimes before the end.
            if err != EILSEQ or inleft.value == before:
                break
            err = 0
        if not err:
            # Flush: stateful code sets return to their initial shift state here.
            libc.iconv(self.cd, None, None, ctypes.byref(outp), ctypes.byref(outleft))
        return ctypes.string_at(self.out, self.size - outleft.value), len(data) - start - inleft.value, err


def chars_of(out):
    return struct.unpack(">%dI" % (len(out) // 4), out)


def decoder(cs):
    """Decoding one code: (value or None, errno); None with 0 when glibc reads it as several characters."""
    conv = Converter("UTF-32BE", cs)

    def decode(data):
        out, _, err = conv.run(data)
        if err:
            return None, err
        chars = chars_of(out)
        return (chars[0] if len(chars) == 1 else None), 0
    decode.conv = conv
    return decode


def decode_many(dec, seqs, deepest):
    """decode() of every sequence, most of them in one call: each is followed
    by a line feed, and a code glibc refuses ends the call and is looked at
    alone (unless no longer code can start with it)."""
    sep = b"\n" if dec.conv.run(b"\n")[0] == struct.pack(">I", 10) else b"\x25"
    whole = sep.join(seqs) + sep
    ends = list(itertools.accumulate(len(s) + 1 for s in seqs))
    results = []
    start = 0
    while len(results) < len(seqs):
        out, used, err = dec.conv.run(whole, start)
        piece = []
        for c in chars_of(out):
            if c != 10:
                piece.append(c)
                continue
            results.append((piece[0] if len(piece) == 1 else None, 0))
            piece = []
        k = len(results)
        if not err:
            break
        if k == len(seqs) or start + used >= ends[k]:
            raise SystemExit("a code read as a line feed")
        results.append((None, EILSEQ) if deepest else dec(seqs[k]))
        start = ends[k]
    if len(results) != len(seqs):
        raise SystemExit("a code read as a line feed")
    return results


def codes_of(cs, max_len):
    """{code: value} for every code of up to max_len bytes glibc reads as one
    character, and the lead bytes that begin longer codes."""
    dec = decoder(cs)
    values, leads = {}, []
    level = []
    for b in range(256):
        v, err = dec(bytes([b]))
        if v is not None:
            values[bytes([b])] = v
        elif err == EINVAL:
            level.append(bytes([b]))
            leads.append(b)
    for n in range(2, max_len + 1):
        seqs = [p + bytes([t]) for p in level for t in range(256)]
        level = []
        for s, (v, err) in zip(seqs, decode_many(dec, seqs, n == max_len)):
            if v is not None:
                values[s] = v
            elif err == EINVAL:
                level.append(s)
    return values, leads


def from_mapping(cs, strip_shifts=False):
    """{BMP value: code} for every character glibc writes; one call for all
    of them, each followed by a line feed, those it cannot write skipped."""
    conv = Converter(cs + "//IGNORE", "UTF-32BE")
    sep = conv.run(struct.pack(">I", 10))[0]
    chars = [u for u in bmp() if u != 10]
    out, used, err = conv.run(b"".join(struct.pack(">II", u, 10) for u in chars))
    pieces = out.split(sep)
    if err or len(pieces) != len(chars) + 1 or len(sep) != 1:
        raise SystemExit("%s: cannot write the characters apart" % cs)
    mapping = {10: packed(sep)}
    for u, b in zip(chars, pieces):
        if strip_shifts:
            b = b.strip(b"\x0e\x0f")
        if b:
            mapping[u] = packed(b)
    return mapping


def bmp():
    return (u for u in range(0x10000) if not 0xD800 <= u <= 0xDFFF)


class Image:
    """Header, then rows appended to the row area (addressed in 4-byte units)."""

    def __init__(self, name, kind, subst, subst_ucs, ebcdic=False):
        self.head = bytearray(HEADER)
        self.head[8:11] = b"ucv"
        self.head[16:16 + len(name)] = name.encode()
        struct.pack_into(">H", self.head, 48, kind)
        struct.pack_into(">H", self.head, 50, 0x1100 if ebcdic else 0)
        struct.pack_into(">HH", self.head, 58, subst_ucs, subst)
        self.pre = bytearray()  # between the header and the row area (kind 10 ranges)
        self.rows = bytearray()
        self.seen = {}

    def row(self, data):
        data = bytes(data)
        if data not in self.seen:
            self.seen[data] = len(self.rows) // 4
            self.rows += data
            self.rows += b"\0" * (-len(self.rows) % 4)
        unit = self.seen[data]
        if unit > 0xFFFF:
            raise SystemExit("row area too large")
        return unit

    def from_rows(self, mapping, width, subst):
        fmt = {1: "B", 2: ">H", 4: ">I"}[width]
        for hi in range(256):
            row = bytearray()
            for lo in range(256):
                row += struct.pack(fmt, mapping.get(hi << 8 | lo, subst))
            struct.pack_into(">H", self.head, 224 + 2 * hi, self.row(row))

    def write(self, path):
        rows_at = HEADER + len(self.pre)
        struct.pack_into(">I", self.head, 0, rows_at)
        with open(path, "wb") as f:
            f.write(self.head + self.pre + self.rows)


def packed(b):
    return int.from_bytes(b, "big")


def single_byte(name, cs, ebcdic):
    values, leads = codes_of(cs, 1)
    mapping = from_mapping(cs)
    if not ebcdic and (any(values.get(bytes([b])) != b or mapping.get(b) != b for b in range(0x80))
                       or max(mapping.values()) > 0xFF):
        raise SystemExit("%s: not one byte a character over ASCII" % cs)
    subst, subst_ucs = (0x3F, 0x1A) if ebcdic else (0x1A, 0x1A)
    img = Image(name, 8 if ebcdic else 1, subst, subst_ucs, ebcdic)
    for b in range(256):
        v = values.get(bytes([b]), NONE)
        struct.pack_into(">H", img.head, 736 + 2 * b, NONE if v > 0xFFFF else v)
    img.from_rows(mapping, 1, subst)
    return img


def double_byte(name, cs):
    """Kind 2: single bytes (read through the table, written as ASCII below
    0x80) and lead bytes with one trail byte (Shift-JIS, Big5, ...)."""
    values, leads = codes_of(cs, 2)
    mapping = from_mapping(cs)
    if any(mapping.get(u) != u for u in range(0x80)):
        raise SystemExit("%s: ASCII not written as itself" % cs)
    # A code holds two bytes: characters glibc writes in three (two Hebrew
    # presentation forms in CP1255) are unmappable here.
    mapping = {u: c for u, c in mapping.items() if c <= 0xFFFF}
    img = Image(name, 2, 0x1A, 0x1A)
    rows = {b: [NONE] * 256 for b in [0] + leads}
    for code, v in values.items():
        rows[code[0] if len(code) == 2 else 0][code[-1]] = NONE if v > 0xFFFF else v
    for b in range(256):
        img.head[1248 + b] = 1 if bytes([b]) in values else 2 if b in leads else 255
    for b, vals in rows.items():
        struct.pack_into(">H", img.head, 736 + 2 * b, img.row(struct.pack(">256H", *vals)))
    img.from_rows(mapping, 2, 0x1A)
    return img


def multi_byte(name, cs, max_len):
    """Kind 3: the class gives each lead byte's sequence length; rows nest."""
    values, leads = codes_of(cs, max_len)
    img = Image(name, 3, 0x1A, 0x1A)
    trie, lengths = {}, {}
    for code, v in values.items():
        if len(code) == 1:
            if code[0] != v:
                raise SystemExit("%s: single byte %02X is not read as itself" % (cs, code[0]))
            continue
        lengths.setdefault(code[0], set()).add(len(code))
        if v <= 0xFFFF:
            node = trie
            for c in code[:-1]:
                node = node.setdefault(c, {})
            node[code[-1]] = v

    def row_of(node):
        first, last = min(node), max(node)
        entries = {t: 0x80000000 | row_of(x) if isinstance(x, dict) else x for t, x in node.items()}
        row = struct.pack(">HH", last - first + 1, first)
        return img.row(row + b"".join(struct.pack(">I", entries.get(t, NONE)) for t in range(first, last + 1)))

    empty = img.row(struct.pack(">HH", 0, 0))
    for b in range(256):
        if bytes([b]) in values:
            img.head[1248 + b] = 1
        elif b in lengths:
            if len(lengths[b]) != 1:
                raise SystemExit("%s: codes of lead byte %02X differ in length" % (cs, b))
            img.head[1248 + b] = lengths[b].pop()
            struct.pack_into(">H", img.head, 736 + 2 * b, row_of(trie[b]) if b in trie else empty)
        elif b in leads:  # begins codes glibc has no character for: read as one unknown pair
            img.head[1248 + b] = 2
            struct.pack_into(">H", img.head, 736 + 2 * b, empty)
        else:
            img.head[1248 + b] = 255
    img.from_rows(from_mapping(cs), 4, 0x1A)
    return img


def stateful_ebcdic(name, cs):
    """Kind 4: single bytes, and pairs between shift-out and shift-in."""
    dec = decoder(cs)
    img = Image(name, 4, 0x3F, 0x1A)
    single = [NONE] * 256
    for b in range(256):
        if b not in (0x0E, 0x0F):
            v, _ = dec(bytes([b]))
            single[b] = NONE if v is None or v > 0xFFFF else v
    struct.pack_into(">H", img.head, 736, img.row(struct.pack(">256H", *single)))
    for b in range(0x40, 0xFF):
        vals = [v for v, _ in decode_many(dec, [bytes([0x0E, b, t, 0x0F]) for t in range(256)], True)]
        vals = [NONE if v is None or v > 0xFFFF else v for v in vals]
        struct.pack_into(">H", img.head, 736 + 2 * b, img.row(struct.pack(">256H", *vals)))
    img.from_rows(from_mapping(cs, strip_shifts=True), 2, 0x3F)
    return img


def gb18030_bytes(index):
    if index <= 24066:
        i = index - 1
        return bytes([0x81 + i // 191, 0x40 + i % 191])
    lin = index - 24067
    b4 = 0x30 + lin % 10
    lin //= 10
    b3 = 0x81 + lin % 126
    lin //= 126
    return bytes([0x81 + lin // 10, 0x30 + lin % 10, b3, b4])


def gb18030(name, cs):
    """Kind 10: the linear index of a two- or four-byte code through ranges."""
    dec = decoder(cs)
    img = Image(name, 10, 0x1A, 0x1A)
    values = [NONE]
    for v, _ in decode_many(dec, [gb18030_bytes(index) for index in range(1, 0xFFFF)], True):
        values.append(NONE if v is None or v > 0x2FFFF or 0xFFFF < v < 0x20000 else v)
    # Runs of at least 1024 values rising by one become linear ranges; the rest
    # are listed.
    ranges, listed = [], []
    i = 0
    while i < len(values):
        j = i
        while j + 1 < len(values) and values[j] != NONE and values[j + 1] == values[j] + 1:
            j += 1
        if values[i] > 0xFFFF:  # a plane-2 character: a range of its own
            ranges.append((i, 3, len(listed)))
            listed.append(values[i] - 0x20000)
            i += 1
            continue
        if j - i + 1 >= 1024:
            ranges.append((i, 2, values[i]))
            i = j + 1
            continue
        if not ranges or ranges[-1][1] != 1:
            ranges.append((i, 1, len(listed)))
        listed.append(values[i])
        i += 1
    if len(listed) > 0xFFFF:
        raise SystemExit("too many listed values")
    index = []
    r = 0
    for block in range(128):
        while r + 1 < len(ranges) and ranges[r + 1][0] <= block * 512:
            r += 1
        index.append(r)
    body = struct.pack(">128H", *index)
    list_at = len(body)
    body += b"".join(struct.pack(">HHHH", s, k, b, 0) for s, k, b in ranges)
    values_at = len(body)
    body += struct.pack(">%dH" % len(listed), *listed)
    header = bytearray(32)
    struct.pack_into(">IIII", header, 16, 0, list_at // 2, values_at // 2, len(ranges))
    img.pre = header + body
    img.pre += b"\0" * (-len(img.pre) % 4)
    struct.pack_into(">H", img.head, 38, HEADER)
    img.from_rows(from_mapping(cs), 4, 0x1A)
    return img


TABLES = {
    **{n: (lambda cs: lambda n: single_byte(n, cs, False))(cs) for n, cs in [
        ("ISO88591", "ISO-8859-1"), ("ISO88592", "ISO-8859-2"), ("ISO88595", "ISO-8859-5"),
        ("ISO88596", "ISO-8859-6"), ("ISO88597", "ISO-8859-7"), ("ISO88598", "ISO-8859-8"),
        ("ISO88599", "ISO-8859-9"), ("ISO885915", "ISO-8859-15"), ("437", "IBM437"), ("850", "IBM850"),
        ("852", "IBM852"), ("857", "IBM857"), ("862", "IBM862"), ("866", "IBM866"), ("869", "IBM869"),
        ("TIS620", "TIS-620"), ("1250", "CP1250"), ("1251", "CP1251"), ("1252", "CP1252"),
        ("1253", "CP1253"), ("1254", "CP1254"), ("1256", "CP1256")]},
    "037": lambda n: single_byte(n, "IBM037", True),
    "1047": lambda n: single_byte(n, "IBM1047", True),
    # Kind 2 with single bytes only: glibc writes 34 Hebrew presentation
    # forms as a letter and its point, two bytes.
    "1255": lambda n: double_byte(n, "CP1255"),
    "943": lambda n: double_byte(n, "CP932"),
    "SJIS": lambda n: double_byte(n, "SJIS"),
    "GBK": lambda n: double_byte(n, "GBK"),
    "BIG5": lambda n: double_byte(n, "BIG5"),
    "949": lambda n: double_byte(n, "CP949"),
    "EUCJP": lambda n: multi_byte(n, "EUC-JP", 3),
    "EUCKR": lambda n: multi_byte(n, "EUC-KR", 2),
    "EUCCN": lambda n: multi_byte(n, "EUC-CN", 2),
    "939": lambda n: stateful_ebcdic(n, "IBM939"),
    "GB18030": lambda n: gb18030(n, "GB18030"),
}

# Usual spellings, normalised (upper case, letters and digits only), to the
# table names above.
ALIASES = """# alias  table
ISO88591 ISO88591
LATIN1 ISO88591
L1 ISO88591
CP819 ISO88591
IBM819 ISO88591
819 ISO88591
ANSIX341968 ISO88591
ASCII ISO88591
USASCII ISO88591
LATIN2 ISO88592
CYRILLIC ISO88595
ARABIC ISO88596
GREEK ISO88597
HEBREW ISO88598
LATIN5 ISO88599
LATIN9 ISO885915
ISO885915 ISO885915
CP437 437
IBM437 437
CP850 850
IBM850 850
CP852 852
IBM852 852
CP857 857
IBM857 857
CP862 862
IBM862 862
CP866 866
IBM866 866
CP869 869
IBM869 869
CP1250 1250
WINDOWS1250 1250
CP1251 1251
WINDOWS1251 1251
CP1252 1252
WINDOWS1252 1252
IBM1252 1252
CP1253 1253
WINDOWS1253 1253
CP1254 1254
WINDOWS1254 1254
CP1255 1255
WINDOWS1255 1255
CP1256 1256
WINDOWS1256 1256
CP037 037
IBM037 037
EBCDICCPUS 037
37 037
CP1047 1047
IBM1047 1047
SHIFTJIS SJIS
MSKANJI SJIS
CSSHIFTJIS SJIS
IBM943 943
CP943 943
CP932 943
WINDOWS31J 943
EUCJP EUCJP
UJIS EUCJP
EUCKR EUCKR
EUCCN EUCCN
GB2312 EUCCN
CP936 GBK
BIG5 BIG5
BIGFIVE BIG5
CP949 949
UHC 949
IBM939 939
CP939 939
GB18030 GB18030
"""


def main():
    if sys.argv[1:] == ["--list"]:  # the table names, for the build to know its outputs
        print(";".join(TABLES))
        return
    out = sys.argv[1]
    names = sys.argv[2:] or list(TABLES)
    os.makedirs(out, exist_ok=True)
    for name in names:
        tmp = os.path.join(out, name + ".tmp")
        TABLES[name](name).write(tmp)
        os.replace(tmp, os.path.join(out, name))
    with open(os.path.join(out, "aliases"), "w") as f:
        f.write(ALIASES)


if __name__ == "__main__":
    main()
