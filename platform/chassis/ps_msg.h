/* The sends a PS client writes: one or more messages back to back, each a
 * 4-byte big-endian header {type, bytes that follow}, then exactly one TLV
 * (update and delete: the 16-byte bundle value; smooth: the 4-byte smooth
 * type, 0 or 1). */
#ifndef TBDL_CHASSIS_PS_MSG_H
#define TBDL_CHASSIS_PS_MSG_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace chassis {

/* What an update says of a bundle. */
struct PsBundleValue {
    uint32_t workIfIndex = 0;
    uint32_t protIfIndex = 0;
    uint8_t protKind = 0;
    bool workUp = false;
    bool protUp = false;
};

/* One message of a send, checked. */
struct PsMsg {
    uint16_t type = 0;
    uint32_t bundle = 0;  /* update, delete */
    PsBundleValue value;  /* update */
    uint32_t smooth = 0;  /* smooth */
};

/* Splits and checks a whole send. false (out partly filled, why says what
 * and where) when any part of it is malformed, or it is empty. */
bool ParsePsSend(const uint8_t *send, size_t len, std::vector<PsMsg> &out, std::string &why);

} // namespace chassis

#endif
