#!/usr/bin/env python3
"""Writes the seed corpus of fuzz_cfg_request (one valid request per file)
and the hand-made edge inputs of fuzz/regressions/.

The fuzz target starts every input with bundle 1 (load balancing, address,
members Tunnel10 and Tunnel11), bundle 2 (1:1, member Tunnel12) and bundle 3
(1+1, no member); Tunnel13 exists and is unbound. The seeds name those.

Usage: fuzz/gen_corpus.py
"""
import os
import struct


def tlv(t, value):
    return struct.pack(">HH", t, len(value)) + value


def req(cls, mtype, oper, *tlvs):
    payload = b"".join(tlvs)
    return struct.pack(">HHIHH", cls, len(payload), 0, mtype, oper) + payload


def bnd(n):
    return tlv(2, struct.pack(">I", n))


def op_bnd(mode, tnl_mode=0):
    return tlv(202, struct.pack(">HH", mode, tnl_mode))


def op_addr(family, addr):
    return tlv(203, struct.pack(">H", family) + b"\0\0" + bytes(addr) + bytes(16 - len(addr)))


def op_memb(tnl, weight, role):
    return tlv(204, struct.pack(">IHB", tnl, weight, role))


SEEDS = {
    "debug_on_all": req(0, 0, 0, tlv(398, struct.pack(">I", 2))),
    "debug_off_event": req(0, 0, 1, tlv(398, struct.pack(">I", 1))),
    "bnd_create_lb": req(0, 1, 0, bnd(5), op_bnd(1)),
    "bnd_create_1to1": req(0, 1, 0, bnd(6), op_bnd(2, 3)),
    "bnd_create_existing_conflict": req(0, 1, 0, bnd(1), op_bnd(4)),
    "bnd_delete_with_members": req(0, 1, 1, bnd(1), op_bnd(1)),
    "bnd_delete_empty": req(0, 1, 1, bnd(3), op_bnd(4)),
    "bnd_addr_set": req(0, 1, 0, bnd(2), op_addr(2, [10, 0, 0, 5])),
    "bnd_addr_remove": req(0, 1, 1, bnd(1), op_addr(2, [10, 0, 0, 1])),
    "memb_bind": req(0, 2, 0, bnd(1), op_memb(13, 2, 0)),
    "memb_bind_protection": req(0, 2, 0, bnd(2), op_memb(13, 1, 2)),
    "memb_weight": req(0, 2, 0, bnd(1), op_memb(10, 7, 0)),
    "memb_unbind": req(0, 2, 1, bnd(1), op_memb(11, 0, 0)),
    "memb_bind_short_value": req(0, 2, 0, bnd(3), tlv(204, struct.pack(">I", 13))),
    "disp_bnd_one": req(1, 0, 2, bnd(1)),
    "disp_bnd_first": req(1, 0, 3),
    "disp_bnd_next": req(1, 0, 4, bnd(1)),
    "disp_bnd_count_all": req(1, 0, 5, bnd(0xFFFFFFFF)),
    "disp_bnd_count_one": req(1, 0, 5, bnd(2)),
    "disp_debug": req(1, 1, 0),
    "disp_spec": req(1, 5, 0),
    "disp_unknown_tlvs": req(1, 0, 2, tlv(3, b"x"), tlv(401, b""), tlv(450, b"\1\2"), bnd(2)),
}


# Inputs at the edges of the framing and the TLV walk; inputs that once made
# the target fail are added to fuzz/regressions/ next to these.
EDGES = {
    "edge_empty": b"",
    "edge_header_cut": req(0, 1, 1)[:11],
    "edge_tlv_length_past_end": req(0, 1, 0, bnd(1), struct.pack(">HH", 202, 0xFFFF) + b"\0\1"),
    "edge_tlv_header_cut": req(0, 2, 0, bnd(1), b"\0\xcc\0"),
    "edge_short_values": req(0, 1, 0, tlv(2, b"\0"), tlv(202, b"\0"), tlv(203, b"\0\2"), tlv(204, b"")),
    "edge_oversized_truncated": req(1, 0, 5, bnd(0xFFFFFFFF), tlv(450, bytes(2100))),
    "edge_full_receive_buffer": req(0, 0, 0, tlv(398, struct.pack(">I", 0)), tlv(450, bytes(2048 - 12 - 8 - 4))),
    "edge_two_requests": req(0, 0, 0, tlv(398, b"\0\0\0\2")) * 2,
    "edge_op_range_unknown": req(0, 1, 1, bnd(1), op_bnd(1), tlv(397, b"")),
}


def write_all(out, files):
    os.makedirs(out, exist_ok=True)
    for name, data in files.items():
        with open(os.path.join(out, name), "wb") as f:
            f.write(data)


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    write_all(os.path.join(here, "corpus", "cfg_request"), SEEDS)
    write_all(os.path.join(here, "regressions"), EDGES)


if __name__ == "__main__":
    main()
