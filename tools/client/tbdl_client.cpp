/* Configuration client: request building per command and reply checks. */
#include "tbdl_client.h"

#include <algorithm>
#include <cctype>
#include <cstdio>

#include <chrono>
#include <thread>

#include "tbdl_board.h"
#include "tbdl_errcode.h"

namespace tbdl::client {

namespace {

/* Pause between connection attempts while a new master is activating:
 * short, so the socket is reached within milliseconds of its opening (the
 * restart benchmark times exactly that). */
constexpr std::chrono::milliseconds kConnectRetry{5};

std::string Lower(std::string s)
{
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::tolower(c); });
    return s;
}

std::optional<std::uint32_t> ParseNumber(const std::string &text, std::uint32_t max)
{
    if (text.empty()) {
        return std::nullopt;
    }
    std::size_t used = 0;
    unsigned long long v = 0;
    try {
        v = std::stoull(text, &used, 0);
    } catch (...) {
        return std::nullopt;
    }
    if (used != text.size() || v > max || text[0] == '-') {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(v);
}

/* Decodes the display TLV of a successful answer. */
template <class T>
Outcome<Shown<T>> TakeShown(const Outcome<Message> &reply, std::uint16_t usTlv,
                            std::optional<T> (*decode)(const Bytes &, std::string *))
{
    if (!reply) {
        return Fail(reply.error());
    }
    Shown<T> shown;
    shown.uiResult = reply->head.uiResult;
    if (shown.uiResult != TBDL_OK) {
        return shown;
    }
    const Tlv *tlv = reply->find(usTlv);
    if (tlv == nullptr) {
        return Fail("the reply carries no TLV " + std::to_string(usTlv));
    }
    std::string err;
    shown.value = decode(tlv->value, &err);
    if (!shown.value) {
        return Fail(err);
    }
    return shown;
}

}  // namespace

std::string ResultHex(std::uint32_t uiCode)
{
    char buf[16];
    std::snprintf(buf, sizeof(buf), "0x%08x", uiCode);
    return buf;
}

std::string ResultName(std::uint32_t uiCode)
{
    const TBDL_ERRCODE_DESC_S *desc = TBDL_ERRCODE_Find(uiCode);
    return desc != nullptr ? desc->pcName : "";
}

std::string DescribeResult(std::uint32_t uiCode)
{
    const TBDL_ERRCODE_DESC_S *desc = TBDL_ERRCODE_Find(uiCode);
    if (desc == nullptr) {
        return ResultHex(uiCode) + " (unknown result code)";
    }
    return ResultHex(uiCode) + " " + desc->pcName + ": " + desc->pcMeaning;
}

std::optional<std::uint16_t> ParseMode(const std::string &text)
{
    const std::string s = Lower(text);
    if (s == "loadbalancing" || s == "load-balancing" || s == "lb") {
        return TBDL_MODE_LOADBALANCING;
    }
    if (s == "1:1" || s == "protectiononetoone") {
        return TBDL_MODE_ONETOONE;
    }
    if (s == "1+1" || s == "protectiononeplusone") {
        return TBDL_MODE_ONEPLUSONE;
    }
    std::optional<std::uint32_t> n = ParseNumber(text, 0xFFFF);
    if (!n) {
        return std::nullopt;
    }
    return static_cast<std::uint16_t>(*n);
}

std::string ModeName(std::uint32_t uiMode)
{
    switch (uiMode) {
    case TBDL_MODE_LOADBALANCING:
        return "loadbalancing";
    case TBDL_MODE_ONETOONE:
        return "1:1";
    case TBDL_MODE_ONEPLUSONE:
        return "1+1";
    default:
        return std::to_string(uiMode);
    }
}

std::optional<std::uint32_t> ParseDebugType(const std::string &text)
{
    const std::string s = Lower(text);
    if (s == "error") {
        return kDebugError;
    }
    if (s == "event") {
        return kDebugEvent;
    }
    if (s == "all") {
        return kDebugAll;
    }
    return ParseNumber(text, 0xFFFFFFFFu);
}

Outcome<Client> Client::Connect(const std::string &dir, std::optional<int> board, int timeoutMs)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        Outcome<int> chosen = ChooseBoard(dir, board, timeoutMs);
        if (!chosen) {
            return Fail(chosen.error());
        }
        Outcome<Client> client = ConnectPath(CfgSocketOf(dir, *chosen), timeoutMs);
        if (client || std::chrono::steady_clock::now() >= deadline) {
            if (client) {
                client->m_dir = dir;
                client->m_board = *chosen;
            }
            return client;
        }
        std::this_thread::sleep_for(kConnectRetry);
    }
}

Outcome<Client> Client::ConnectPath(const std::string &path, int timeoutMs)
{
    Outcome<Connection> conn = Connection::Open(path, timeoutMs);
    if (!conn) {
        return Fail(conn.error());
    }
    return Client(std::move(*conn));
}

Outcome<Message> Client::Transact(const Bytes &request)
{
    Outcome<Message> reply = m_conn.Transact(request);
    if (reply || m_conn.broke() == Break::NONE || !m_board) {
        return reply;
    }
    Outcome<int> master = AskMaster(m_dir, m_conn.timeout());
    if (master && *master != *m_board) {
        return Fail(reply.error() + " (board " + std::to_string(*m_board) + " is no longer the master board; board " +
                    std::to_string(*master) + " is)");
    }
    return reply;
}

Outcome<Message> Client::Raw(const Bytes &request)
{
    return Transact(request);
}

Outcome<Message> Client::Send(std::uint16_t usClass, std::uint16_t usType, std::uint16_t usOper,
                              const std::vector<Tlv> &tlvs)
{
    Outcome<Message> reply = Transact(EncodeRequest(usClass, usType, usOper, tlvs));
    if (reply && (reply->head.usMsgType != usType || reply->head.usOper != usOper)) {
        return Fail("the reply (type " + std::to_string(reply->head.usMsgType) + ", oper " +
                    std::to_string(reply->head.usOper) + ") does not answer the request (type " +
                    std::to_string(usType) + ", oper " + std::to_string(usOper) + ")");
    }
    return reply;
}

Outcome<std::uint32_t> Client::Configure(std::uint16_t usType, std::uint16_t usOper, const std::vector<Tlv> &tlvs)
{
    Outcome<Message> reply = Send(TBDL_CFG_MSG_CONFIG, usType, usOper, tlvs);
    if (!reply) {
        return Fail(reply.error());
    }
    return reply->head.uiResult;
}

Outcome<std::uint32_t> Client::CreateBundle(std::uint32_t uiBnd, std::uint16_t usMode, std::uint16_t usTnlMode)
{
    return Configure(TBDL_CFG_TYPE_BND, 0, {TlvBndNum(uiBnd), TlvBndOp(usMode, usTnlMode)});
}

Outcome<std::uint32_t> Client::DeleteBundle(std::uint32_t uiBnd)
{
    return Configure(TBDL_CFG_TYPE_BND, TBDL_CFG_OPER_UNDO, {TlvBndNum(uiBnd), TlvBndOp(0, 0)});
}

Outcome<std::uint32_t> Client::SetAddress(std::uint32_t uiBnd, const AddrBlock &addr)
{
    return Configure(TBDL_CFG_TYPE_BND, 0, {TlvBndNum(uiBnd), TlvAddr(addr)});
}

Outcome<std::uint32_t> Client::RemoveAddress(std::uint32_t uiBnd)
{
    AddrBlock none;
    none.usFamily = kFamilyIpv4;
    return Configure(TBDL_CFG_TYPE_BND, TBDL_CFG_OPER_UNDO, {TlvBndNum(uiBnd), TlvAddr(none)});
}

Outcome<std::uint32_t> Client::AddMember(std::uint32_t uiBnd, const MembOp &memb)
{
    return Configure(TBDL_CFG_TYPE_MEMB, 0, {TlvBndNum(uiBnd), TlvMemb(memb)});
}

Outcome<std::uint32_t> Client::RemoveMember(std::uint32_t uiBnd, std::uint32_t uiTnlNum)
{
    MembOp memb;
    memb.uiTnlNum = uiTnlNum;
    return Configure(TBDL_CFG_TYPE_MEMB, TBDL_CFG_OPER_UNDO, {TlvBndNum(uiBnd), TlvMemb(memb)});
}

Outcome<std::uint32_t> Client::SetDebug(bool bOn, std::uint32_t uiType)
{
    return Configure(TBDL_CFG_TYPE_DEBUG, bOn ? 0 : TBDL_CFG_OPER_UNDO, {TlvU32(TBDL_TLV_OP_U32, uiType)});
}

Outcome<Shown<BndDetail>> Client::BundleQuery(std::uint16_t usOper, std::optional<std::uint32_t> bnd)
{
    std::vector<Tlv> tlvs;
    if (bnd) {
        tlvs.push_back(TlvBndNum(*bnd));
    }
    return TakeShown<BndDetail>(Send(TBDL_CFG_MSG_DISPLAY, TBDL_DISP_TYPE_TNLBND, usOper, tlvs),
                                TBDL_TLV_DISP_BND, DecodeBndDetail);
}

Outcome<Shown<BndDetail>> Client::ShowBundle(std::uint32_t uiBnd)
{
    return BundleQuery(TBDL_DISP_OPER_ONE, uiBnd);
}

Outcome<Shown<BndDetail>> Client::FirstBundle()
{
    return BundleQuery(TBDL_DISP_OPER_FIRST, std::nullopt);
}

Outcome<Shown<BndDetail>> Client::NextBundle(std::uint32_t uiAfter)
{
    return BundleQuery(TBDL_DISP_OPER_NEXT, uiAfter);
}

Outcome<BndWalk> Client::WalkBundles()
{
    BndWalk walk;
    Outcome<Shown<BndDetail>> page = FirstBundle();
    for (;;) {
        walk.uiRequests++;
        if (!page) {
            return Fail(page.error());
        }
        if (page->uiResult != TBDL_OK) {
            walk.uiEndResult = page->uiResult;
            return walk;
        }
        const std::uint32_t uiBnd = page->value->uiBndNum;
        if (!walk.bundles.empty() && uiBnd <= walk.bundles.back().uiBndNum) {
            return Fail("the walk went back from bundle " + std::to_string(walk.bundles.back().uiBndNum) +
                        " to " + std::to_string(uiBnd));
        }
        walk.bundles.push_back(std::move(*page->value));
        page = NextBundle(uiBnd);
    }
}

Outcome<Shown<BndCounts>> Client::Counts(std::optional<std::uint32_t> bnd)
{
    return TakeShown<BndCounts>(Send(TBDL_CFG_MSG_DISPLAY, TBDL_DISP_TYPE_TNLBND, TBDL_DISP_OPER_COUNT,
                                     {TlvBndNum(bnd.value_or(TBDL_DISP_ALL_BND))}),
                                TBDL_TLV_DISP_COUNT, DecodeBndCounts);
}

Outcome<Shown<DebugSwitch>> Client::Debug()
{
    return TakeShown<DebugSwitch>(Send(TBDL_CFG_MSG_DISPLAY, TBDL_DISP_TYPE_DEBUG, 0, {}), TBDL_TLV_DISP_DEBUG,
                                  DecodeDebugSwitch);
}

Outcome<Shown<Limits>> Client::GetLimits()
{
    return TakeShown<Limits>(Send(TBDL_CFG_MSG_DISPLAY, TBDL_DISP_TYPE_SPEC, 0, {}), TBDL_TLV_DISP_SPEC,
                             DecodeLimits);
}

}  // namespace tbdl::client
