/* Checking and decoding of the sends a PS client writes. */
#include "ps_msg.h"

#include "tbdl_ps_msg.h"

namespace chassis {

namespace {

uint16_t Be16(const uint8_t *p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }
uint32_t Be32(const uint8_t *p) { return (uint32_t{Be16(p)} << 16) | Be16(p + 2); }

/* The TLV type and value length each message type must carry. */
bool ExpectedTlv(uint16_t type, uint16_t &tlvType, uint16_t &valueLen)
{
    switch (type) {
    case TBDL_PS_MSG_BND_UPDATE:
    case TBDL_PS_MSG_BND_DELETE:
        tlvType = TBDL_PS_TLV_BND;
        valueLen = sizeof(TBDL_PS_BND_VAL_S);
        return true;
    case TBDL_PS_MSG_SMOOTH:
        tlvType = TBDL_PS_TLV_SMOOTH;
        valueLen = sizeof(TBDL_PS_SMOOTH_VAL_S);
        return true;
    default:
        return false;
    }
}

/* One message at p (left bytes remain in the send); its size, or 0 and why
 * when it is malformed. */
size_t ParseMsg(const uint8_t *p, size_t left, PsMsg &m, std::string &why)
{
    uint16_t tlvType = 0, valueLen = 0;
    if (left < TBDL_PS_MSG_HEAD_LEN + TBDL_PS_TLV_HEAD_LEN) {
        why = "truncated header";
        return 0;
    }
    m.type = Be16(p);
    uint16_t len = Be16(p + 2);
    if (!ExpectedTlv(m.type, tlvType, valueLen)) {
        why = "unknown message type " + std::to_string(m.type);
        return 0;
    }
    if (len != TBDL_PS_TLV_HEAD_LEN + valueLen || left - TBDL_PS_MSG_HEAD_LEN < len) {
        why = "message length " + std::to_string(len);
        return 0;
    }
    const uint8_t *tlv = p + TBDL_PS_MSG_HEAD_LEN;
    if (Be16(tlv) != tlvType || Be16(tlv + 2) != valueLen) {
        why = "TLV type " + std::to_string(Be16(tlv)) + " length " + std::to_string(Be16(tlv + 2));
        return 0;
    }
    const uint8_t *v = tlv + TBDL_PS_TLV_HEAD_LEN;
    if (m.type == TBDL_PS_MSG_SMOOTH) {
        m.smooth = Be32(v);
        if (m.smooth != TBDL_PS_SMOOTH_BEGIN && m.smooth != TBDL_PS_SMOOTH_END) {
            why = "smooth type " + std::to_string(m.smooth);
            return 0;
        }
    } else {
        m.bundle = Be32(v);
        m.value = {Be32(v + 4), Be32(v + 8), v[12], v[13] == 1, v[14] == 1};
    }
    return TBDL_PS_MSG_HEAD_LEN + len;
}

} // namespace

bool ParsePsSend(const uint8_t *send, size_t len, std::vector<PsMsg> &out, std::string &why)
{
    size_t off = 0;
    while (off < len) {
        PsMsg m;
        size_t n = ParseMsg(send + off, len - off, m, why);
        if (n == 0) {
            why += " at offset " + std::to_string(off);
            return false;
        }
        out.push_back(m);
        off += n;
    }
    return !out.empty() || (why = "empty send", false);
}

} // namespace chassis
