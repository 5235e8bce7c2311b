/* The table of chassisd's services, and the look-ups the loop and
 * chassisctl's commands make in it. Operations are indexed once, at first
 * use; an operation claimed by two rows is a programming error and stops
 * chassisd at start. */
#include <array>
#include <cstdlib>

#include "chassisd.h"

namespace chassis {

namespace {

using OpIndex = std::array<OpHandler, 256>;

OpIndex BuildOpIndex()
{
    OpIndex index{};
    for (const Service *s : Services()) {
        for (const OpRoute &r : s->ops) {
            if (r.op >= index.size() || index[r.op] != nullptr) {
                Log(std::string("service ") + s->name + ": operation " + std::to_string(r.op) +
                    " is out of range or served twice");
                std::abort();
            }
            index[r.op] = r.handler;
        }
    }
    return index;
}

} // namespace

const std::vector<const Service *> &Services()
{
    static const std::vector<const Service *> all = {
        &SvcService(), &IfService(),  &L3vpnService(), &SvcPortService(),
        &HaService(),  &LsmService(), &PsService(),    &KtbdlService(),
        &IfEventService(),
    };
    return all;
}

OpHandler FindOp(uint16_t op)
{
    static const OpIndex index = BuildOpIndex();
    return op < index.size() ? index[op] : nullptr;
}

const Service *FindDump(const std::string &dumpName)
{
    for (const Service *s : Services()) {
        if (s->dumpName != nullptr && dumpName == s->dumpName) {
            return s;
        }
    }
    return nullptr;
}

bool ServicesInit(std::string &err)
{
    for (const Service *s : Services()) {
        if (s->init != nullptr && !s->init(err)) {
            return false;
        }
    }
    return true;
}

} // namespace chassis
