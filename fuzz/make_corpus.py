#!/usr/bin/env python3
"""Writes the fuzzers' seed corpus, fuzz/corpus/<target>/<name>: one
received datagram per file (behind a selector byte for netlink_report),
built field by field here so that every byte is accounted for. Rewrites
both folders whole; the files are checked in, so run it after changing it.
"""
import ipaddress
import pathlib
import shutil
import struct

CORPUS = pathlib.Path(__file__).resolve().parent / "corpus"


def ip(text):
    return ipaddress.ip_address(text).packed


def checksum(header):
    total = sum(struct.unpack(f"!{len(header) // 2}H", header))
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return ~total & 0xFFFF


def udp(payload, sport=5000, dport=5001):
    # The checksum is left zero, which IPv4 allows; nothing here reads it.
    return struct.pack("!HHHH", sport, dport, 8 + len(payload), 0) + payload


def ipv4(src, dst, payload, ttl=64, proto=17):
    header = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + len(payload), 0x1234, 0x4000, ttl, proto, 0,
                         ip(src), ip(dst))
    return header[:10] + struct.pack("!H", checksum(header)) + header[12:] + payload


def ipv6(src, dst, payload, hops=64, next_header=17):
    return struct.pack("!IHBB16s16s", 6 << 28, len(payload), next_header, hops, ip(src), ip(dst)) + payload


# --- The raw IPv4 socket's upcalls --------------------------------------
# The kernel lays its record over a copy of the packet's IPv4 header: the
# message type over the TTL (byte 8), a zero over the protocol (9), the vif
# over the checksum (10-11, low byte first, the high byte for vifs past
# 255), the packet's source and group where they were (12-19), and the
# header length set to 20. A no-cache or wrong-vif upcall ends with an
# 8-byte IGMP header of the same type; a whole-packet upcall is followed by
# the packet itself.
NOCACHE, WRONGVIF, WHOLEPKT, WRVIFWHOLE = 1, 2, 3, 4


def igmpmsg(msgtype, vif, packet, whole=False):
    record = bytearray(packet[:20])
    record[0] = 0x45
    record[2:4] = struct.pack("!H", len(packet) + 20)
    record[8] = msgtype
    record[9] = 0
    record[10] = vif & 0xFF
    record[11] = vif >> 8
    if whole:
        return bytes(record) + packet
    return bytes(record) + struct.pack("!BBH4s", msgtype, 0, 0, bytes(4))


flow4 = ipv4("10.1.1.1", "239.2.2.2", udp(b"seed"))

raw = {
    "nocache-vif3": igmpmsg(NOCACHE, 3, flow4),
    "wrongvif-vif261": igmpmsg(WRONGVIF, 261, flow4),
    "nocache-unmapped-vif7": igmpmsg(NOCACHE, 7, flow4),
    "wholepkt-vif3": igmpmsg(WHOLEPKT, 3, ipv4("10.9.9.9", "239.9.9.9", udp(bytes(range(32)))), whole=True),
    # The smallest whole packet the parser takes: a bare IPv4 header, 40 bytes in all.
    "wholepkt-header-only-vif0": igmpmsg(WHOLEPKT, 0, ipv4("10.9.9.9", "239.9.9.9", b"", proto=0), whole=True),
    "wrvifwhole-vif3": igmpmsg(WRVIFWHOLE, 3, flow4, whole=True),
    # The record alone: a whole-packet upcall cut before its packet.
    "wholepkt-record-only": igmpmsg(WHOLEPKT, 3, flow4, whole=True)[:20],
    # Shorter than a record.
    "short-igmpmsg": igmpmsg(NOCACHE, 3, flow4)[:12],
}

# --- Netlink cache reports -----------------------------------------------
# Host byte order (little-endian here) for the netlink and attribute
# headers; network order inside addresses and packets.
RTM_NEWCACHEREPORT = 96
NLMSG_NOOP, NLMSG_ERROR, NLMSG_DONE = 1, 2, 3
IPMR, IP6MR = 128, 129
# Attributes as IPv6 numbers them; IPv4 adds 7.
MSGTYPE, MIF, SRC, DST, PKT, INTF = 1, 2, 3, 4, 5, 6
V4_OFFSET = 7
# The fuzzer's first byte: bit 0 the manager's family, bit 1 no status.
V4, V6, NO_STATUS = 0, 1, 2


def nlmsg(msgtype, payload, flags=0, seq=0, pid=0):
    return struct.pack("<IHHII", 16 + len(payload), msgtype, flags, seq, pid) + payload


def nla(attrtype, payload, length=None):
    b = struct.pack("<HH", 4 + len(payload) if length is None else length, attrtype) + payload
    return b + bytes(-len(b) % 4)


def u32(v):
    return struct.pack("<I", v)


def intf_id(tag, number):
    # An interface id as the kernel carries it: two 32-bit words, high
    # first; the kind's tag in the high word's top byte, its number below.
    return u32(tag << 24 | number) + u32(0)


ETHERNET7 = intf_id(1, 7)


def report(family, attrs):
    return nlmsg(RTM_NEWCACHEREPORT, bytes([family, 0, 0, 0]) + b"".join(attrs))


def v6report(msgtype, mif, src, dst, packet, extra=()):
    return report(IP6MR, [nla(MSGTYPE, bytes([msgtype])), nla(MIF, u32(mif)), *extra,
                          nla(SRC, ip(src)), nla(DST, ip(dst)), nla(PKT, packet)])


def v4report(msgtype, vif, src, dst, packet, extra=()):
    o = V4_OFFSET
    return report(IPMR, [nla(MSGTYPE + o, bytes([msgtype])), nla(MIF + o, u32(vif)), *extra,
                         nla(SRC + o, ip(src)), nla(DST + o, ip(dst)), nla(PKT + o, packet)])


flow6 = ipv6("2001:db8::1", "ff3e::1", udp(b"seed"))
nocache6 = v6report(NOCACHE, 3, "2001:db8::1", "ff3e::1", flow6)
wrongvif6 = v6report(WRONGVIF, 3, "2001:db8::1", "ff3e::1", flow6, [nla(INTF, ETHERNET7)])
# The last attribute cut short: the datagram (and nlmsg_len) end 6 bytes
# into the packet attribute, whose nla_len still claims it whole.
truncated = nocache6[:len(nocache6) - len(flow6) + 2]
truncated = struct.pack("<I", len(truncated)) + truncated[4:]

netlink = {
    "v6-nocache": bytes([V6]) + nocache6,
    "v6-wrongvif-intfid": bytes([V6]) + wrongvif6,
    "v6-wholepkt": bytes([V6]) + v6report(WHOLEPKT, 99, "2001:db8::1", "ff3e::1",
                                          ipv6("2001:db8::9", "ff3e::42", udp(bytes(range(24))))),
    "v6-wrongvif-intfid-no-status": bytes([V6 | NO_STATUS]) + wrongvif6,
    "v4-nocache": bytes([V4]) + v4report(NOCACHE, 3, "10.1.1.1", "239.2.2.2", flow4),
    "v4-wrongvif-vif261": bytes([V4]) + v4report(WRONGVIF, 261, "10.1.1.1", "239.2.2.2", flow4),
    "v4-wholepkt": bytes([V4]) + v4report(WHOLEPKT, 3, "10.1.1.1", "239.2.2.2",
                                          ipv4("10.9.9.9", "239.9.9.9", udp(bytes(range(24))))),
    # A stock kernel's attribute 13 is a 4-byte table id, too short for an
    # interface id.
    "v4-nocache-table-id": bytes([V4]) + v4report(NOCACHE, 3, "10.1.1.1", "239.2.2.2", flow4,
                                                  [nla(INTF + V4_OFFSET, u32(254))]),
    # Bookkeeping messages before the report: a no-op, a done carrying its
    # 4-byte status, an error carrying -EEXIST and the header it answers.
    "v6-stream-noop-done-error-report": bytes([V6]) + nlmsg(NLMSG_NOOP, b"")
    + nlmsg(NLMSG_DONE, struct.pack("<i", 0), flags=2)
    + nlmsg(NLMSG_ERROR, struct.pack("<i", -17) + struct.pack("<IHHII", 16, 24, 0x405, 7, 0))
    + nocache6,
    "v6-two-reports": bytes([V6]) + nocache6 + wrongvif6,
    "v6-truncated-attribute": bytes([V6]) + truncated,
    # Found by the fuzzer, as it found them: a report of family 140 (which
    # the in-kernel filter keeps out, so the target skips it); a no-cache
    # report (its type in the IPv4 numbering) whose vif attribute is empty,
    # so vif 65535; a whole-packet report without its packet attribute.
    "found-family-140": bytes.fromhex(
        "411500000060004a000030ffff8c8c8c8c8c8c8c41170000000163000000000000008f52c34e3b8f2e65522a"),
    "found-unmapped-vif": bytes.fromhex(
        "3a3f0000006000507672742f4368614a00811500000400020004000500050001002f0c05050500080001002f0c05"
        "0505000800609756786c616e610005050505"),
    "found-wholepkt-without-pkt": bytes.fromhex(
        "3a3f0000006000506f72762f43689f4a00815500001400020000002f610000010004074a00810002000400"
        "6b0005000100030060050500bc614a007268614a00"),
}


# The relay's input: what the kernel writes on its IPv6 mroute socket, an
# mrt6msg record (mbz 0, type, mif, pad, source, group); for a whole packet
# the packet follows, its IPv6 header included.
def mrt6msg(msgtype, mif, src, dst, payload=b""):
    return struct.pack("<BBHI", 0, msgtype, mif, 0) + ip(src) + ip(dst) + payload


relay = {
    "nocache-mif1": mrt6msg(1, 1, "2001:db8:1::2", "ff0e::1:2"),
    "wrongmif-mif0": mrt6msg(2, 0, "2001:db8::2", "ff0e::1:3"),
    "wholepkt-mif3": mrt6msg(3, 3, "2001:db8:3::2", "ff3e::8000:1",
                             ipv6("2001:db8:3::2", "ff3e::8000:1", udp(b"payload"))),
    "record-only-39-bytes": mrt6msg(1, 1, "2001:db8:1::2", "ff0e::1:2")[:39],
    "unknown-type": mrt6msg(7, 1, "2001:db8:1::2", "ff0e::1:2"),
}


def write(target, cases):
    folder = CORPUS / target
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    for name, data in cases.items():
        (folder / name).write_bytes(data)


write("raw_igmpmsg", raw)
write("netlink_report", netlink)
write("relay_mrt6msg", relay)
