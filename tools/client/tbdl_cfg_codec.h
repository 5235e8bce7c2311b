/* Codec of the configuration channel as the front end sees it: request
 * building, reply decoding and the value layouts of the operation and
 * display TLVs. Every byte the client puts on or takes off the wire passes
 * through this file; nothing else in the tools builds message bytes. */
#ifndef TBDL_CFG_CODEC_H
#define TBDL_CFG_CODEC_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tbdl_cfg_msg.h"

namespace tbdl::client {

using Bytes = std::vector<std::uint8_t>;

/* The 12-byte header in host order. */
struct MsgHeader {
    std::uint16_t usMsgClass = 0;
    std::uint16_t usDataLen = 0;
    std::uint32_t uiResult = 0;
    std::uint16_t usMsgType = 0;
    std::uint16_t usOper = 0;
};

struct Tlv {
    std::uint16_t usType = 0;
    Bytes value;
};

/* A decoded message: header plus the TLVs of its payload. */
struct Message {
    MsgHeader head;
    std::vector<Tlv> tlvs;

    /* First TLV of the given type, or nullptr. */
    const Tlv *find(std::uint16_t usType) const;
};

/* Header and TLVs in wire form; usDataLen is the length of the TLV bytes. */
Bytes EncodeRequest(std::uint16_t usClass, std::uint16_t usType, std::uint16_t usOper,
                    const std::vector<Tlv> &tlvs);
Bytes EncodeHeader(const MsgHeader &head);
Bytes EncodeTlvs(const std::vector<Tlv> &tlvs);

/* Decodes a whole received message. Fails (with a reason in *pErr) when it
 * is shorter than a header, when usDataLen disagrees with the received
 * size, or when the payload is not an exact sequence of TLVs. */
std::optional<Message> DecodeMessage(const std::uint8_t *p, std::size_t len, std::string *pErr);
std::optional<MsgHeader> DecodeHeader(const std::uint8_t *p, std::size_t len);
/* Splits a payload into TLVs; fails when bytes are left that do not form a
 * whole TLV. */
std::optional<std::vector<Tlv>> DecodeTlvs(const std::uint8_t *p, std::size_t len);

/* ---- operation TLV values (requests) ---- */

Tlv TlvU32(std::uint16_t usType, std::uint32_t uiValue);
/* TLV 2: the bundle number. */
Tlv TlvBndNum(std::uint32_t uiBndNum);
/* TLV 202: work mode and tunnel mode. */
Tlv TlvBndOp(std::uint16_t usMode, std::uint16_t usTnlMode);

/* The 20-byte address block: family (big-endian on the wire), two carried
 * bytes, 16 address bytes. */
struct AddrBlock {
    std::uint16_t usFamily = 0;
    std::array<std::uint8_t, 2> aucCarried{};
    std::array<std::uint8_t, 16> aucAddr{};
};
static constexpr std::size_t kAddrBlockLen = TBDL_CFG_ADDR_VAL_LEN;
static constexpr std::uint16_t kFamilyIpv4 = 2;
/* TLV 203. */
Tlv TlvAddr(const AddrBlock &addr);
/* Family 2 with the four bytes of a dotted IPv4 address; nullopt when the
 * text is not one. */
std::optional<AddrBlock> ParseIpv4(const std::string &text);
/* "A.B.C.D" for family 2, "" for family 0, otherwise "family F". */
std::string FormatAddr(const AddrBlock &addr);

/* TLV 204: tunnel number, weight, role. */
struct MembOp {
    std::uint32_t uiTnlNum = 0;
    std::uint16_t usWeight = 0;
    std::uint8_t ucRole = 0;
};
static constexpr std::size_t kMembOpLen = TBDL_CFG_MEMB_VAL_LEN;
Tlv TlvMemb(const MembOp &memb);

/* ---- display TLV values (replies) ---- */

struct MembDetail {
    std::uint32_t uiTnlNum = 0;
    std::uint16_t usWeight = 0;
    std::uint8_t ucRole = 0;
    std::uint8_t ucState = 0;
};

/* TLV 402. */
struct BndDetail {
    AddrBlock stAddr;
    std::uint32_t uiBndNum = 0;
    std::uint16_t usTnlMode = 0;
    std::uint8_t ucState = 0;
    std::uint8_t ucMode = 0;
    std::vector<MembDetail> members;
};

/* TLV 403: bundles counted, up, down. */
struct BndCounts {
    std::uint32_t uiTotal = 0;
    std::uint32_t uiUp = 0;
    std::uint32_t uiDown = 0;
};

/* TLV 404: bit 0 = ERROR output on, bit 1 = EVENT output on. */
struct DebugSwitch {
    std::uint32_t uiSwitch = 0;
    bool error() const { return (uiSwitch & 1u) != 0; }
    bool event() const { return (uiSwitch & 2u) != 0; }
};

/* TLV 405. */
struct Limits {
    std::uint32_t uiMaxBndNum = 0;
    std::uint32_t uiMaxMembNum = 0;
    std::uint16_t usLoadBalancing = 0;
    std::uint16_t usProtectionOnetoone = 0;
    std::uint16_t usProtectionOneplusone = 0;
};

/* Value decoders: fail on a value whose length does not fit the layout. */
std::optional<BndDetail> DecodeBndDetail(const Bytes &value, std::string *pErr);
std::optional<BndCounts> DecodeBndCounts(const Bytes &value, std::string *pErr);
std::optional<DebugSwitch> DecodeDebugSwitch(const Bytes &value, std::string *pErr);
std::optional<Limits> DecodeLimits(const Bytes &value, std::string *pErr);

/* Value encoders of the same layouts (for servers in tests and for
 * comparing wire bytes). */
Bytes EncodeBndDetail(const BndDetail &detail);
Bytes EncodeBndCounts(const BndCounts &counts);
Bytes EncodeDebugSwitch(const DebugSwitch &dbg);
Bytes EncodeLimits(const Limits &limits);

/* ---- helpers ---- */

std::string ToHex(const std::uint8_t *p, std::size_t len);
inline std::string ToHex(const Bytes &b) { return ToHex(b.data(), b.size()); }
/* Accepts hex digits with optional spaces, colons or a leading "0x". */
std::optional<Bytes> FromHex(const std::string &text);

}  // namespace tbdl::client

#endif
