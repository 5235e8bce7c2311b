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


def stored_bnd(n, mode=1, vrf=0, family=0):
    return struct.pack(">H", family) + bytes(18) + struct.pack(">IBBHHH", n, mode, 0, 0, vrf, 0)


def stored_memb(t, weight=1, role=0, vrf=0):
    return struct.pack(">IHBBHH", t, weight, role, 0, vrf, 0)


def rec(sel, data):
    return bytes([sel, len(data)]) + data


def bnd_rec(*args, **kw):
    return rec(0, stored_bnd(*args, **kw))


def memb_rec(bnd, *args, **kw):
    return rec(1 | bnd << 2, stored_memb(*args, **kw))


# Head byte: bit 0 system boot, bits 1-3 the failing call, bits 4-7 which
# of its calls fails.
DBM = {
    "two_bundles_with_members": b"\x00" + bnd_rec(1) + bnd_rec(2, 2) + memb_rec(1, 10) + memb_rec(1, 11)
    + memb_rec(2, 12) + memb_rec(2, 13, 1, 1, 5),
    "boot_keeps_stored_vrf": b"\x01" + bnd_rec(3, 1, 7) + memb_rec(3, 13, 2, 0, 5),
    "vrf_moved_since": b"\x00" + bnd_rec(3, 1, 7) + memb_rec(3, 12, 1, 0, 9),
    "bad_number_and_mode": b"\x00" + bnd_rec(40) + bnd_rec(41, 4) + bnd_rec(5, 4) + bnd_rec(6, 0) + memb_rec(5, 10),
    "short_records": b"\x00" + rec(0, stored_bnd(4)[:25]) + rec(1 | 4 << 2, stored_memb(10)[:5]),
    "odd_keys": b"\x00" + rec(2 | 1 << 2, b"\x01\x07" + stored_bnd(7)) + rec(2 | 7 << 2, b"\x02\x00\x00" + stored_memb(10))
    + bnd_rec(0),
    "full_bundle": b"\x00" + bnd_rec(3) + bnd_rec(4) + b"".join(memb_rec(3, t) for t in (10, 11, 12, 13))
    + memb_rec(4, 10),
    "count_beyond_block": b"\x02" + bnd_rec(1) + memb_rec(1, 10),
    "failed_removal": b"\x08" + bnd_rec(1, 4) + bnd_rec(2),
    "many_blocks": b"\x00" + b"".join(bnd_rec(n) for n in range(16)),
}


def dgram(op, board=0, arg=0, payload=b""):
    return struct.pack("<HHI", op, board, arg) + payload


def ctl(**req):
    return dgram(60, payload=json.dumps(req).encode())


KBND = struct.pack("<H", 2) + bytes(2) + bytes([10, 0, 0, 1]) + bytes(12) + struct.pack("<IIIHH", 0x1001, 0, 1, 0, 0)
CIOCTL_HEAD = struct.pack("<IIIII", 0xFFFF8000, 0x7C0002, 0, 0, 0)
LSM_KEY = bytes(28)

# Datagrams: the header (op, board, argument; host order) and the payload.
CHASSIS = {
    "if_index_by_name": dgram(2, payload=b"Tunnel-Bundle5"),
    "if_get_data": dgram(3, 1, 31, struct.pack("<I", 0x1001)),
    "if_delete": dgram(4, 0, 1, struct.pack("<II", 0x1001, 0)),
    "tunnel_get_mode": dgram(5, payload=struct.pack("<I", 0x100)),
    "l3vpn_get_vrf": dgram(6, payload=struct.pack("<I", 0x100)),
    "cioctl_bnd_update": dgram(7, payload=CIOCTL_HEAD + KBND),
    "cioctl_memb_add": dgram(7, payload=struct.pack("<IIIII", 0xFFFF8000, 0x7C0003, 0, 0, 0)
                             + struct.pack("<II", 0x1001, 0x100)),
    "ha_register": dgram(20, 1, payload=bytes([0x7A, 0x0A, 0, 0, 0x79, 0x0A, 0, 0])),
    "ha_send": dgram(9, 0, 1, tlv(1, bytes(36))),
    "ha_response": dgram(8, 1, 3, struct.pack("<I", 0)),
    "lsm_register": dgram(22, 0, 7),
    "lsm_gr_begin": dgram(23, 0, 1),
    "lsm_batch_delete": dgram(24, 0, 1, struct.pack("<HH", 2, 0) + LSM_KEY),
    "set_status": dgram(1, 0, 2),
    "ctl_status": ctl(cmd="status"),
    "ctl_role": ctl(cmd="role"),
    "ctl_if_add": ctl(cmd="if_add", name="Tunnel7", mode=1, state="up", vrf=3),
    "ctl_if_set": ctl(cmd="if_set", name="Tunnel7", state="down"),
    "ctl_if_del": ctl(cmd="if_del", name="Tunnel7"),
    "ctl_vrf_bind": ctl(cmd="vrf_bind", name="Tunnel-Bundle5", vrf=9),
    "ctl_fail": ctl(cmd="fail", board=0, call="CIOCTL", count=2, result=1),
    "ctl_fail_clear": ctl(cmd="fail_clear"),
    "ctl_ha_event": ctl(cmd="ha_event", board=1, event=3),
    "ctl_dump_ktbdl": ctl(cmd="dump_ktbdl", board=0),
    "ctl_dump_lsm": ctl(cmd="dump_lsm", board=0),
    "ctl_ps_stop": ctl(cmd="ps_stop", board=1),
    "ctl_unknown": ctl(cmd="no_such_command"),
}


def write(folder, seeds):
    path = os.path.join(HERE, "corpus", folder)
    os.makedirs(path, exist_ok=True)
    for name, data in seeds.items():
        with open(os.path.join(path, name), "wb") as f:
            f.write(data)


if __name__ == "__main__":
    write("ha_msg", HA)
    write("dbm_recover", DBM)
    write("chassis_rpc", CHASSIS)
