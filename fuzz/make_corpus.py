#!/usr/bin/env python3
"""Writes the seed corpus of tblmsg_fuzz: well-formed messages of every kind the fuzz
registration serves (see tblmsg_fuzz.cpp for the input format)."""
import os
import struct

here = os.path.dirname(os.path.abspath(__file__))
out = os.path.join(here, "corpus")


def w(*words):
    return b"".join(struct.pack("<I", x) for x in words)


def tlv(table, typ, value):
    return w(table, typ, len(value)) + value


def trans(sel, tlvs, area=None):
    body = b"\xee" * 8 + w(len(tlvs) if area is None else area) + tlvs
    return bytes([sel]) + body


def recv(msg_id, payload):
    return bytes([msg_id]) + b"\xee" * 8 + payload


def items(table):
    return (w(7, 16, table, 41) + w(15, 20, table, 42, 3) + w(9, 32, table, 5, 6, 7, 8, 9)
            + w(10, 28, table, 43, 1, 2, 3) + w(11, 28, table, 44, 4, 5, 6) + w(8, 16, table, 45)
            + w(16, 16, table, 46) + w(17, 16, table, 47) + w(190, 16, table, 48) + w(191, 16, table, 49))


def rec(key, val, size=16):
    return (w(key, val) + b"\0" * size)[:size]


seeds = {
    "trans_tables": trans(0x80, tlv(10, 1, bytes(range(20))) + tlv(12, 2, bytes(24)) + tlv(10, 18, bytes(8))
                          + tlv(12, 19, b"") + tlv(20, 1, w(0, 12, 1, 2, 3)) + tlv(20, 2, w(0, 6) + bytes(12))
                          + tlv(21, 1, w(0, 8, 1, 2)) + tlv(13, 1, bytes(8)) + tlv(22, 18, b"") + tlv(99, 1, b"")),
    "trans_smooth": trans(0x8F, tlv(10, 0, items(10)) + tlv(11, 3, items(11)) + tlv(12, 20, items(12))
                          + tlv(20, 17, items(20))),
    "trans_smooth_fail": trans(0xC1, tlv(10, 0, items(10)) + tlv(12, 5, w(9, 32, 12, 1, 2, 3, 4, 5))),
    "trans_bad_area": trans(0x80, tlv(10, 1, bytes(8)), area=64),
    "trans_cut": trans(0x80, tlv(10, 1, bytes(8)) + w(10, 1)),
    "trans_short_items": trans(0x80, tlv(10, 0, w(7, 16, 10, 1, 2)) + tlv(10, 0, w(9, 28, 10, 1, 2, 3, 4))),
    "trans_fes_edges": trans(0x80, tlv(20, 2, w(0, 4) + bytes(12)) + tlv(21, 1, w(0, 8) + bytes(8))
                             + tlv(22, 1, w(0, 16) + bytes(16)) + tlv(20, 1, w(0, 64) + bytes(8)) + tlv(20, 1, w(0))
                             + tlv(20, 2, w(0, 0) + bytes(8)) + tlv(21, 2, w(0, 20) + bytes(40))),
    "trans_dam_edges": trans(0x80, tlv(11, 1, bytes(16)) + tlv(10, 2, b"") + tlv(12, 1, bytes(100))
                             + tlv(11, 2, bytes(12)) + tlv(13, 2, bytes(4))),
    "trans_composite": trans(0x80, tlv(10, 18, b"") + tlv(20, 19, bytes(5)) + tlv(13, 18, b"") + tlv(21, 19, w(1))
                             + tlv(99, 18, b"")),
    "trans_platform": trans(0x81, tlv(13, 0, items(13)) + tlv(22, 4, items(22))),
    "trans_platform_fail": trans(0xC2, tlv(13, 0, w(7, 16, 13, 1)) + tlv(13, 0, w(8, 16, 13, 1))
                                 + tlv(13, 0, w(9, 32, 13, 1, 2, 3, 4, 5)) + tlv(13, 0, w(10, 28, 13, 1, 2, 3, 4))
                                 + tlv(13, 0, w(11, 28, 13, 1, 2, 3, 4)) + tlv(13, 0, w(15, 20, 13, 1, 2))),
    "trans_smooth_bad": trans(0x80, tlv(10, 0, w(12, 16, 10, 0)) + tlv(10, 3, w(9, 28, 10, 1, 2, 3, 4))
                              + tlv(10, 5, w(7, 16, 10, 1, 9)) + tlv(10, 6, w(7, 40, 10, 1)) + tlv(10, 7, w(200, 16, 10, 0))
                              + tlv(10, 0, b"")),
    "trans_tlv_overrun": trans(0x80, tlv(10, 1, bytes(8)) + w(10, 1, 100) + bytes(8)),
    "trans_area_ragged": trans(0x80, tlv(10, 1, bytes(8)) + bytes(5), area=25),
    "trans_body_short": bytes([0x80]) + b"\xee" * 5,
    "trans_area_short": trans(0x80, b"", area=11),
    "recv_immediate": recv(1, rec(1, 1) + rec(2, 2) + rec(3, 3)),
    "recv_userdef": recv(2, rec(1, 1) + rec(2, 2)),
    "recv_serial": bytes([3]) + b"\xee" * 8 + w(1) + rec(5, 1) + rec(6, 2) + rec(5, 3),
    "recv_serial_mismatch": bytes([3]) + b"\xee" * 8 + w(0) + rec(5, 1),
    "recv_fes_merge": recv(4, rec(1, 1, 8) + rec(2, 2, 8) + rec(1, 3, 8) + rec(3, 4, 8) + rec(2, 5, 8)),
    "recv_key_outside": recv(5, rec(1, 1)),
    "recv_no_size": recv(6, rec(1, 1)),
    "recv_userdef_fails": recv(2, rec(1, 1) + rec(2, 2) + rec(3, 3)),
    "recv_serial_no_release": bytes([0]) + b"\xee" * 8 + w(1) + rec(5, 1),
    "recv_short": bytes([1]) + b"\xee" * 3,
    "recv_unknown": recv(7, rec(1, 1)),
    "recv_ragged": recv(1, rec(1, 1) + b"\1\2\3"),
}

os.makedirs(out, exist_ok=True)
for name, data in seeds.items():
    with open(os.path.join(out, name), "wb") as f:
        f.write(data)
print(f"{len(seeds)} seeds in {out}")
