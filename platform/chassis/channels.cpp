/* Subscriber lists: one per kind of event channel. The request that opens a
 * channel puts its connection on its kind's list; the loop takes it off
 * when the connection closes. A service reaches a board's channels of one
 * kind through the list, never through descriptors of its own. */
#include <algorithm>
#include <array>

#include "chassisd.h"

namespace chassis {

namespace {

std::array<SubscriberList, kChannelKinds> g_lists;

} // namespace

void SubscriberList::Add(Conn &c)
{
    if (std::find(conns_.begin(), conns_.end(), &c) == conns_.end()) {
        conns_.push_back(&c);
    }
}

bool SubscriberList::Remove(const Conn &c)
{
    auto it = std::find(conns_.begin(), conns_.end(), &c);
    if (it == conns_.end()) {
        return false;
    }
    conns_.erase(it);
    return true;
}

Conn *SubscriberList::First(int board) const
{
    for (Conn *c : conns_) {
        if (c->board == board) {
            return c;
        }
    }
    return nullptr;
}

void SubscriberList::ForBoard(int board, const std::function<void(Conn &)> &fn) const
{
    /* A copy: fn may close a connection and so change the list. */
    std::vector<Conn *> now = conns_;
    for (Conn *c : now) {
        if (c->board == board) {
            fn(*c);
        }
    }
}

SubscriberList &Subscribers(Channel kind) { return g_lists[static_cast<size_t>(kind)]; }

void OpenChannel(Conn &c, Channel kind, int board)
{
    if (c.channel != Channel::NONE && c.channel != kind) {
        Subscribers(c.channel).Remove(c);
    }
    c.channel = kind;
    c.board = board;
    Subscribers(kind).Add(c);
}

void Publish(Channel kind, int board, uint16_t op, uint32_t arg, const Bytes &body)
{
    Subscribers(kind).ForBoard(board, [&](Conn &c) {
        Push(c.fd, op, static_cast<uint16_t>(board), arg, body.data(), body.size());
    });
}

} // namespace chassis
