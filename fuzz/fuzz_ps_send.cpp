/* Fuzz target of chassisd's PS receiver: each input is one send of a PS
 * client. Besides the sanitizers, an accepted send must be exactly its
 * messages back to back, each of a known type with a valid smooth type. */
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "ps_msg.h"
#include "tbdl_ps_msg.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::vector<chassis::PsMsg> msgs;
    std::string why;
    if (!chassis::ParsePsSend(data, size, msgs, why)) {
        return 0;
    }
    size_t total = 0;
    for (const chassis::PsMsg &m : msgs) {
        if (m.type == TBDL_PS_MSG_SMOOTH) {
            total += sizeof(TBDL_PS_SMOOTH_MSG_S);
            if (m.smooth > TBDL_PS_SMOOTH_END) {
                std::abort();
            }
        } else if (m.type == TBDL_PS_MSG_BND_UPDATE || m.type == TBDL_PS_MSG_BND_DELETE) {
            total += sizeof(TBDL_PS_BND_MSG_S);
        } else {
            std::abort();
        }
    }
    if (total != size || msgs.empty()) {
        std::abort();
    }
    return 0;
}
