/* Codec of the configuration channel: big-endian header and STLV TLVs, and
 * the value layouts of TLVs 402-405. The values of TLVs 2, 202-204 and 398
 * are encoded by the daemon's own codec of those values. */
#include "tbdl_cfg_codec.h"

#include <algorithm>
#include <cctype>
#include <cstdio>

#include "tbdl_cfg_oper_codec.h"

namespace tbdl::client {

namespace {

constexpr std::size_t kTlvHeadLen = 4;

void PutU16(Bytes &b, std::uint16_t v)
{
    b.push_back(static_cast<std::uint8_t>(v >> 8));
    b.push_back(static_cast<std::uint8_t>(v));
}

void PutU32(Bytes &b, std::uint32_t v)
{
    PutU16(b, static_cast<std::uint16_t>(v >> 16));
    PutU16(b, static_cast<std::uint16_t>(v));
}

std::uint16_t GetU16(const std::uint8_t *p)
{
    return static_cast<std::uint16_t>((p[0] << 8) | p[1]);
}

std::uint32_t GetU32(const std::uint8_t *p)
{
    return (static_cast<std::uint32_t>(GetU16(p)) << 16) | GetU16(p + 2);
}

void PutAddr(Bytes &b, const AddrBlock &addr)
{
    PutU16(b, addr.usFamily);
    b.insert(b.end(), addr.aucCarried.begin(), addr.aucCarried.end());
    b.insert(b.end(), addr.aucAddr.begin(), addr.aucAddr.end());
}

AddrBlock GetAddr(const std::uint8_t *p)
{
    AddrBlock addr;
    addr.usFamily = GetU16(p);
    for (std::size_t i = 0; i < addr.aucCarried.size(); i++) {
        addr.aucCarried[i] = p[2 + i];
    }
    for (std::size_t i = 0; i < addr.aucAddr.size(); i++) {
        addr.aucAddr[i] = p[4 + i];
    }
    return addr;
}

bool LengthIs(const Bytes &value, std::size_t want, const char *what, std::string *pErr)
{
    if (value.size() == want) {
        return true;
    }
    if (pErr != nullptr) {
        *pErr = std::string(what) + " value has " + std::to_string(value.size()) + " bytes, expected " +
                std::to_string(want);
    }
    return false;
}

int HexDigit(char c)
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return -1;
}

/* A TLV of the given type whose value is filled by one of the daemon's
 * value encoders. */
template <typename ENCODE>
Tlv EncodedTlv(std::uint16_t usType, std::size_t len, ENCODE encode)
{
    Tlv t;
    t.usType = usType;
    t.value.resize(len);
    encode(t.value.data());
    return t;
}

}  // namespace

static_assert(sizeof(TBDL_CFG_MSG_HEAD_S) == TBDL_CFG_MSG_HEAD_LEN);
static_assert(TBDL_DISP_BND_FIXED_LEN == kAddrBlockLen + 4 + 4 + 2 + 1 + 1);

const Tlv *Message::find(std::uint16_t usType) const
{
    for (const Tlv &t : tlvs) {
        if (t.usType == usType) {
            return &t;
        }
    }
    return nullptr;
}

Bytes EncodeHeader(const MsgHeader &head)
{
    Bytes b;
    b.reserve(TBDL_CFG_MSG_HEAD_LEN);
    PutU16(b, head.usMsgClass);
    PutU16(b, head.usDataLen);
    PutU32(b, head.uiResult);
    PutU16(b, head.usMsgType);
    PutU16(b, head.usOper);
    return b;
}

Bytes EncodeTlvs(const std::vector<Tlv> &tlvs)
{
    Bytes b;
    for (const Tlv &t : tlvs) {
        PutU16(b, t.usType);
        PutU16(b, static_cast<std::uint16_t>(t.value.size()));
        b.insert(b.end(), t.value.begin(), t.value.end());
    }
    return b;
}

Bytes EncodeRequest(std::uint16_t usClass, std::uint16_t usType, std::uint16_t usOper,
                    const std::vector<Tlv> &tlvs)
{
    Bytes payload = EncodeTlvs(tlvs);
    MsgHeader head;
    head.usMsgClass = usClass;
    head.usDataLen = static_cast<std::uint16_t>(payload.size());
    head.usMsgType = usType;
    head.usOper = usOper;
    Bytes b = EncodeHeader(head);
    b.insert(b.end(), payload.begin(), payload.end());
    return b;
}

std::optional<MsgHeader> DecodeHeader(const std::uint8_t *p, std::size_t len)
{
    if (len < TBDL_CFG_MSG_HEAD_LEN) {
        return std::nullopt;
    }
    MsgHeader head;
    head.usMsgClass = GetU16(p);
    head.usDataLen = GetU16(p + 2);
    head.uiResult = GetU32(p + 4);
    head.usMsgType = GetU16(p + 8);
    head.usOper = GetU16(p + 10);
    return head;
}

std::optional<std::vector<Tlv>> DecodeTlvs(const std::uint8_t *p, std::size_t len)
{
    std::vector<Tlv> tlvs;
    std::size_t off = 0;
    while (off < len) {
        if (len - off < kTlvHeadLen) {
            return std::nullopt;
        }
        Tlv t;
        t.usType = GetU16(p + off);
        std::size_t vlen = GetU16(p + off + 2);
        off += kTlvHeadLen;
        if (len - off < vlen) {
            return std::nullopt;
        }
        t.value.assign(p + off, p + off + vlen);
        off += vlen;
        tlvs.push_back(std::move(t));
    }
    return tlvs;
}

std::optional<Message> DecodeMessage(const std::uint8_t *p, std::size_t len, std::string *pErr)
{
    auto fail = [pErr](const std::string &why) -> std::optional<Message> {
        if (pErr != nullptr) {
            *pErr = why;
        }
        return std::nullopt;
    };
    std::optional<MsgHeader> head = DecodeHeader(p, len);
    if (!head) {
        return fail("reply of " + std::to_string(len) + " bytes is shorter than a header");
    }
    if (head->usDataLen != len - TBDL_CFG_MSG_HEAD_LEN) {
        return fail("reply announces " + std::to_string(head->usDataLen) + " payload bytes but carries " +
                    std::to_string(len - TBDL_CFG_MSG_HEAD_LEN));
    }
    std::optional<std::vector<Tlv>> tlvs = DecodeTlvs(p + TBDL_CFG_MSG_HEAD_LEN, head->usDataLen);
    if (!tlvs) {
        return fail("reply payload is not a sequence of whole TLVs");
    }
    Message msg;
    msg.head = *head;
    msg.tlvs = std::move(*tlvs);
    return msg;
}

Tlv TlvU32(std::uint16_t usType, std::uint32_t uiValue)
{
    return EncodedTlv(usType, TBDL_CFG_U32_VAL_LEN, [&](std::uint8_t *p) { TBDL_CFG_EncU32Val(uiValue, p); });
}

Tlv TlvBndNum(std::uint32_t uiBndNum)
{
    return TlvU32(TBDL_TLV_BND_NUM, uiBndNum);
}

Tlv TlvBndOp(std::uint16_t usMode, std::uint16_t usTnlMode)
{
    const TBDL_CFG_BND_VAL_S val = {usMode, usTnlMode};
    return EncodedTlv(TBDL_TLV_OP_BND, TBDL_CFG_BND_VAL_LEN, [&](std::uint8_t *p) { TBDL_CFG_EncBndVal(&val, p); });
}

Tlv TlvAddr(const AddrBlock &addr)
{
    TBDL_ADDR_S val{};
    val.usFamily = addr.usFamily;
    std::copy(addr.aucCarried.begin(), addr.aucCarried.end(), val.aucCarried);
    std::copy(addr.aucAddr.begin(), addr.aucAddr.end(), val.aucAddr);
    return EncodedTlv(TBDL_TLV_OP_ADDR, TBDL_CFG_ADDR_VAL_LEN, [&](std::uint8_t *p) { TBDL_CFG_EncAddrVal(&val, p); });
}

std::optional<AddrBlock> ParseIpv4(const std::string &text)
{
    unsigned a[4];
    char tail = 0;
    if (std::sscanf(text.c_str(), "%u.%u.%u.%u%c", &a[0], &a[1], &a[2], &a[3], &tail) != 4) {
        return std::nullopt;
    }
    AddrBlock addr;
    addr.usFamily = kFamilyIpv4;
    for (int i = 0; i < 4; i++) {
        if (a[i] > 255) {
            return std::nullopt;
        }
        addr.aucAddr[i] = static_cast<std::uint8_t>(a[i]);
    }
    return addr;
}

std::string FormatAddr(const AddrBlock &addr)
{
    if (addr.usFamily == 0) {
        return "";
    }
    if (addr.usFamily == kFamilyIpv4) {
        char buf[20];
        std::snprintf(buf, sizeof(buf), "%u.%u.%u.%u", addr.aucAddr[0], addr.aucAddr[1], addr.aucAddr[2],
                      addr.aucAddr[3]);
        return buf;
    }
    return "family " + std::to_string(addr.usFamily);
}

Tlv TlvMemb(const MembOp &memb)
{
    TBDL_MEMB_CFG_S val{};
    val.uiTnlNum = memb.uiTnlNum;
    val.usWeight = memb.usWeight;
    val.ucRole = memb.ucRole;
    return EncodedTlv(TBDL_TLV_OP_MEMB, TBDL_CFG_MEMB_VAL_LEN, [&](std::uint8_t *p) { TBDL_CFG_EncMembVal(&val, p); });
}

std::optional<BndDetail> DecodeBndDetail(const Bytes &value, std::string *pErr)
{
    const std::size_t fixed = TBDL_DISP_BND_FIXED_LEN;
    if (value.size() < fixed) {
        LengthIs(value, fixed, "bundle detail", pErr);
        return std::nullopt;
    }
    const std::uint8_t *p = value.data();
    BndDetail d;
    d.stAddr = GetAddr(p);
    d.uiBndNum = GetU32(p + 20);
    std::uint64_t count = GetU32(p + 24);
    d.usTnlMode = GetU16(p + 28);
    d.ucState = p[30];
    d.ucMode = p[31];
    if (value.size() != fixed + count * TBDL_DISP_BND_MEMB_LEN) {
        if (pErr != nullptr) {
            *pErr = "bundle detail announces " + std::to_string(count) + " members in " +
                    std::to_string(value.size()) + " bytes";
        }
        return std::nullopt;
    }
    for (std::uint64_t i = 0; i < count; i++) {
        const std::uint8_t *m = p + fixed + i * TBDL_DISP_BND_MEMB_LEN;
        d.members.push_back(MembDetail{GetU32(m), GetU16(m + 4), m[6], m[7]});
    }
    return d;
}

std::optional<BndCounts> DecodeBndCounts(const Bytes &value, std::string *pErr)
{
    if (!LengthIs(value, TBDL_DISP_COUNT_LEN, "bundle counts", pErr)) {
        return std::nullopt;
    }
    return BndCounts{GetU32(value.data()), GetU32(value.data() + 4), GetU32(value.data() + 8)};
}

std::optional<DebugSwitch> DecodeDebugSwitch(const Bytes &value, std::string *pErr)
{
    if (!LengthIs(value, TBDL_DISP_DEBUG_LEN, "debug switch", pErr)) {
        return std::nullopt;
    }
    return DebugSwitch{GetU32(value.data())};
}

std::optional<Limits> DecodeLimits(const Bytes &value, std::string *pErr)
{
    if (!LengthIs(value, TBDL_DISP_SPEC_LEN, "limits", pErr)) {
        return std::nullopt;
    }
    const std::uint8_t *p = value.data();
    return Limits{GetU32(p), GetU32(p + 4), GetU16(p + 8), GetU16(p + 10), GetU16(p + 12)};
}

Bytes EncodeBndDetail(const BndDetail &detail)
{
    Bytes b;
    PutAddr(b, detail.stAddr);
    PutU32(b, detail.uiBndNum);
    PutU32(b, static_cast<std::uint32_t>(detail.members.size()));
    PutU16(b, detail.usTnlMode);
    b.push_back(detail.ucState);
    b.push_back(detail.ucMode);
    for (const MembDetail &m : detail.members) {
        PutU32(b, m.uiTnlNum);
        PutU16(b, m.usWeight);
        b.push_back(m.ucRole);
        b.push_back(m.ucState);
    }
    return b;
}

Bytes EncodeBndCounts(const BndCounts &counts)
{
    Bytes b;
    PutU32(b, counts.uiTotal);
    PutU32(b, counts.uiUp);
    PutU32(b, counts.uiDown);
    return b;
}

Bytes EncodeDebugSwitch(const DebugSwitch &dbg)
{
    Bytes b;
    PutU32(b, dbg.uiSwitch);
    return b;
}

Bytes EncodeLimits(const Limits &limits)
{
    Bytes b;
    PutU32(b, limits.uiMaxBndNum);
    PutU32(b, limits.uiMaxMembNum);
    PutU16(b, limits.usLoadBalancing);
    PutU16(b, limits.usProtectionOnetoone);
    PutU16(b, limits.usProtectionOneplusone);
    PutU16(b, 0);
    return b;
}

std::string ToHex(const std::uint8_t *p, std::size_t len)
{
    static const char digits[] = "0123456789abcdef";
    std::string s;
    s.reserve(len * 2);
    for (std::size_t i = 0; i < len; i++) {
        s.push_back(digits[p[i] >> 4]);
        s.push_back(digits[p[i] & 0xf]);
    }
    return s;
}

std::optional<Bytes> FromHex(const std::string &text)
{
    std::string digits;
    std::size_t start = 0;
    if (text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        start = 2;
    }
    for (std::size_t i = start; i < text.size(); i++) {
        char c = text[i];
        if (c == ' ' || c == ':' || c == '\t') {
            continue;
        }
        if (HexDigit(c) < 0) {
            return std::nullopt;
        }
        digits.push_back(c);
    }
    if (digits.size() % 2 != 0) {
        return std::nullopt;
    }
    Bytes b;
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        b.push_back(static_cast<std::uint8_t>(HexDigit(digits[i]) * 16 + HexDigit(digits[i + 1])));
    }
    return b;
}

}  // namespace tbdl::client
