#!/usr/bin/env python3
"""Writes the code-set conversion tables the converter engine loads.

Every mapping is taken from the system's own converter (glibc iconv, called
through ctypes), so the tables agree with it by construction; the layout is
described in docs/codeset.md.  Usage: gen_codeset.py OUTPUT_DIR [NAME...]
"""
import ctypes
import ctypes.util
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

EINVAL = 22
NONE = 0xFFFF
HEADER = 1760


class Converter:
    """One glibc iconv direction; convert() gives (bytes or None, errno)."""

    def __init__(self, to, frm):
        self.cd = libc.iconv_open(to.encode(), frm.encode())
        if self.cd in (None, ctypes.c_void_p(-1).value):
            raise SystemExit("iconv_open(%s, %s) failed" % (to, frm))
        self.out = ctypes.create_string_buffer(64)

    def convert(self, data):
        libc.iconv(self.cd, None, None, None, None)
        inbuf = ctypes.c_char_p(data)
        inleft = ctypes.c_size_t(len(data))
        outp = ctypes.cast(self.out, ctypes.c_char_p)
        outleft = ctypes.c_size_t(64)
        r = libc.iconv(self.cd, ctypes.byref(inbuf), ctypes.byref(inleft), ctypes.byref(outp), ctypes.byref(outleft))
        if r == ctypes.c_size_t(-1).value:
            return None, ctypes.get_errno()
        # Flush: stateful code sets return to their initial shift state here.
        libc.iconv(self.cd, None, None, ctypes.byref(outp), ctypes.byref(outleft))
        return self.out.raw[:64 - outleft.value], 0


def decoder(cs):
    conv = Converter("UTF-32BE", cs)

    def decode(data):
        out, err = conv.convert(data)
        if out is None:
            return None, err
        chars = [struct.unpack(">I", out[i:i + 4])[0] for i in range(0, len(out), 4)]
        return (chars[0] if len(chars) == 1 else None), 0
    return decode


def encoder(cs):
    conv = Converter(cs, "UTF-32BE")
    return lambda u: conv.convert(struct.pack(">I", u))[0]


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


def from_mapping(cs, strip_shifts=False):
    enc = encoder(cs)
    mapping = {}
    for u in bmp():
        b = enc(u)
        if b is None:
            continue
        if strip_shifts:
            b = b.strip(b"\x0e\x0f")
        mapping[u] = packed(b)
    return mapping


def single_byte(name, cs, ebcdic):
    dec = decoder(cs)
    subst, subst_ucs = (0x3F, 0x1A) if ebcdic else (0x1A, 0x1A)
    img = Image(name, 8 if ebcdic else 1, subst, subst_ucs, ebcdic)
    for b in range(256):
        v, _ = dec(bytes([b]))
        struct.pack_into(">H", img.head, 736 + 2 * b, NONE if v is None or v > 0xFFFF else v)
    img.from_rows(from_mapping(cs), 1, subst)
    return img


def double_byte(name, cs):
    """Kind 2: single bytes and lead bytes with one trail byte (Shift-JIS)."""
    dec = decoder(cs)
    img = Image(name, 2, 0x1A, 0x1A)
    single = [NONE] * 256
    leads = {}
    for b in range(256):
        v, err = dec(bytes([b]))
        if v is not None:
            img.head[1248 + b] = 1
            single[b] = v if v <= 0xFFFF else NONE
        elif err == EINVAL:
            img.head[1248 + b] = 2
            leads[b] = [dec(bytes([b, t]))[0] for t in range(256)]
        else:
            img.head[1248 + b] = 255
    struct.pack_into(">H", img.head, 736, img.row(struct.pack(">256H", *single)))
    for b, vals in leads.items():
        vals = [NONE if v is None or v > 0xFFFF else v for v in vals]
        struct.pack_into(">H", img.head, 736 + 2 * b, img.row(struct.pack(">256H", *vals)))
    img.from_rows(from_mapping(cs), 2, 0x1A)
    return img


def multi_byte(name, cs):
    """Kind 3: the class gives each lead byte's sequence length; rows nest."""
    dec = decoder(cs)
    img = Image(name, 3, 0x1A, 0x1A)

    def length_of(b):
        v, err = dec(bytes([b]))
        if v is not None:
            return 1
        if err != EINVAL:
            return 255
        for t in range(256):
            v, err = dec(bytes([b, t]))
            if v is not None:
                return 2
        return 3

    def build(prefix, remaining):
        entries = {}
        for t in range(256):
            if remaining == 1:
                v, _ = dec(prefix + bytes([t]))
                if v is not None and v <= 0xFFFF:
                    entries[t] = v
            else:
                sub = build(prefix + bytes([t]), remaining - 1)
                if sub is not None:
                    entries[t] = 0x80000000 | sub
        if not entries:
            return None
        first, last = min(entries), max(entries)
        row = struct.pack(">HH", last - first + 1, first)
        row += b"".join(struct.pack(">I", entries.get(t, NONE)) for t in range(first, last + 1))
        return img.row(row)

    empty = img.row(struct.pack(">HH", 0, 0))
    for b in range(256):
        n = length_of(b)
        img.head[1248 + b] = n
        if 2 <= n <= 4:
            row = build(bytes([b]), n - 1)
            struct.pack_into(">H", img.head, 736 + 2 * b, empty if row is None else row)
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
        vals = [dec(bytes([0x0E, b, t, 0x0F]))[0] for t in range(256)]
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
    for index in range(1, 0xFFFF):
        v, _ = dec(gb18030_bytes(index))
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
    "ISO88591": lambda n: single_byte(n, "ISO-8859-1", False),
    "ISO885915": lambda n: single_byte(n, "ISO-8859-15", False),
    "1252": lambda n: single_byte(n, "CP1252", False),
    "850": lambda n: single_byte(n, "IBM850", False),
    "037": lambda n: single_byte(n, "IBM037", True),
    "1047": lambda n: single_byte(n, "IBM1047", True),
    "943": lambda n: double_byte(n, "CP932"),
    "EUCJP": lambda n: multi_byte(n, "EUC-JP"),
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
LATIN9 ISO885915
ISO885915 ISO885915
CP1252 1252
WINDOWS1252 1252
IBM1252 1252
CP850 850
IBM850 850
CP037 037
IBM037 037
EBCDICCPUS 037
37 037
CP1047 1047
IBM1047 1047
SJIS 943
SHIFTJIS 943
MSKANJI 943
IBM943 943
CP943 943
EUCJP EUCJP
UJIS EUCJP
IBM939 939
CP939 939
GB18030 GB18030
"""


def main():
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
