#!/usr/bin/env python3
"""Writes the seed corpus of fuzz_ha_msg, fuzz_dbm_recover and
fuzz_chassis_rpc (a few valid inputs each; the input layouts are described
at the top of each target).

Usage: fuzz/gen_seeds.py
"""
import json
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))


def tlv(t, value):
    return struct.pack(">HH", t, len(value)) + value


def ha_bnd(ifindex, state, family=2, addr=(10, 0, 0, 1), vrf=0, tnl_mode=0):
    body = struct.pack(">H", family) + bytes(2) + bytes(addr) + bytes(16 - len(addr))
    return tlv(1, body + struct.pack(">IIIHH", ifindex, tnl_mode, state, vrf, 0))


def ha_memb(t, bnd_if, memb_if):
    return tlv(t, struct.pack(">II", bnd_if, memb_if))


HA = {
    "bnd_update": b"\x01" + ha_bnd(0x1001, 1),
    "memb_add": b"\x01" + ha_memb(2, 0x1001, 0x100),
    "memb_del": b"\x01" + ha_memb(3, 0x1001, 0x100),
    "batch": b"\x00" + ha_bnd(0x1001, 1) + ha_memb(2, 0x1001, 0x100) + ha_memb(2, 0x1001, 0x101)
    + ha_bnd(0x1002, 0),
    "short_and_unknown": b"\x01" + tlv(2, b"\x00\x00\x10\x01") + tlv(9, b"xyz") + ha_memb(3, 1, 2),
    "truncated_tail": b"\x00" + ha_bnd(0x1001, 1) + ha_memb(2, 0x1001, 0x100)[:6],
}


def write(folder, seeds):
    path = os.path.join(HERE, "corpus", folder)
    os.makedirs(path, exist_ok=True)
    for name, data in seeds.items():
        with open(os.path.join(path, name), "wb") as f:
            f.write(data)


if __name__ == "__main__":
    write("ha_msg", HA)
