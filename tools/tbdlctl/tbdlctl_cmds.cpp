/* tbdlctl commands: connect, send one request (or a paged walk), print. */
#include "tbdlctl_cmds.h"

#include <iostream>

#include "tbdl_errcode.h"
#include "tbdlctl_output.h"

namespace tbdlctl {

namespace tc = tbdl::client;

namespace {

int Broken(const std::string &why)
{
    std::cerr << "tbdlctl: " << why << "\n";
    return kExitError;
}

/* A failure result: the code, its name and sentence; non-zero exit. */
int Refused(const Context &ctx, std::uint32_t uiResult)
{
    if (ctx.json) {
        nlohmann::json j = ResultJson(uiResult);
        j["ok"] = false;
        std::cout << j.dump() << "\n";
    }
    std::cerr << tc::DescribeResult(uiResult) << "\n";
    return kExitRefused;
}

template <class Fn>
int WithClient(const Context &ctx, Fn fn)
{
    tc::Outcome<tc::Client> client = tc::Client::Connect(ctx.dir, ctx.board, ctx.timeoutMs);
    if (!client) {
        return Broken(client.error());
    }
    return fn(*client);
}

/* Prints the outcome of a configuration request. What succeeded is said in
 * one line; the result that reports the start of the hold after the last
 * bundle is a success with a note. */
int Configured(const Context &ctx, const tc::Outcome<std::uint32_t> &res, const std::string &done)
{
    if (!res) {
        return Broken(res.error());
    }
    const std::uint32_t uiResult = *res;
    if (uiResult != TBDL_OK && uiResult != TBDL_E_LAST_BND_DELETED) {
        return Refused(ctx, uiResult);
    }
    if (ctx.json) {
        nlohmann::json j = ResultJson(uiResult);
        j["ok"] = true;
        std::cout << j.dump() << "\n";
        return kExitOk;
    }
    std::cout << done << "\n";
    if (uiResult != TBDL_OK) {
        std::cout << tc::DescribeResult(uiResult) << "\n";
    }
    return kExitOk;
}

std::string BndName(std::uint32_t uiBnd)
{
    return "Tunnel-Bundle" + std::to_string(uiBnd);
}

template <class T, class JsonFn, class PrintFn>
int Shown(const Context &ctx, const tc::Outcome<tc::Shown<T>> &res, JsonFn toJson, PrintFn print)
{
    if (!res) {
        return Broken(res.error());
    }
    if (res->uiResult != TBDL_OK) {
        return Refused(ctx, res->uiResult);
    }
    if (ctx.json) {
        std::cout << toJson(*res->value).dump() << "\n";
    } else {
        print(std::cout, *res->value);
    }
    return kExitOk;
}

}  // namespace

int CmdBundleCreate(const Context &ctx, std::uint32_t uiBnd, std::uint16_t usMode, std::uint16_t usTnlMode)
{
    return WithClient(ctx, [&](tc::Client &c) {
        return Configured(ctx, c.CreateBundle(uiBnd, usMode, usTnlMode),
                          BndName(uiBnd) + " created (" + tc::ModeName(usMode) + ").");
    });
}

int CmdBundleDelete(const Context &ctx, std::uint32_t uiBnd)
{
    return WithClient(ctx, [&](tc::Client &c) {
        return Configured(ctx, c.DeleteBundle(uiBnd), BndName(uiBnd) + " deleted.");
    });
}

int CmdBundleAddress(const Context &ctx, std::uint32_t uiBnd, const std::optional<tc::AddrBlock> &addr)
{
    return WithClient(ctx, [&](tc::Client &c) {
        if (!addr) {
            return Configured(ctx, c.RemoveAddress(uiBnd), BndName(uiBnd) + " address removed.");
        }
        return Configured(ctx, c.SetAddress(uiBnd, *addr),
                          BndName(uiBnd) + " address set to " + tc::FormatAddr(*addr) + ".");
    });
}

int CmdMemberAdd(const Context &ctx, std::uint32_t uiBnd, const tc::MembOp &memb)
{
    return WithClient(ctx, [&](tc::Client &c) {
        return Configured(ctx, c.AddMember(uiBnd, memb),
                          "Tunnel" + std::to_string(memb.uiTnlNum) + " bound to " + BndName(uiBnd) + ".");
    });
}

int CmdMemberRemove(const Context &ctx, std::uint32_t uiBnd, std::uint32_t uiTnl)
{
    return WithClient(ctx, [&](tc::Client &c) {
        return Configured(ctx, c.RemoveMember(uiBnd, uiTnl),
                          "Tunnel" + std::to_string(uiTnl) + " unbound from " + BndName(uiBnd) + ".");
    });
}

int CmdDebug(const Context &ctx, bool bOn, std::uint32_t uiType)
{
    return WithClient(ctx, [&](tc::Client &c) {
        return Configured(ctx, c.SetDebug(bOn, uiType),
                          std::string("Debug output switched ") + (bOn ? "on." : "off."));
    });
}

int CmdShowBundle(const Context &ctx, std::uint32_t uiBnd)
{
    return WithClient(ctx, [&](tc::Client &c) { return Shown(ctx, c.ShowBundle(uiBnd), BundleJson, PrintBundle); });
}

int CmdShowBundles(const Context &ctx)
{
    return WithClient(ctx, [&](tc::Client &c) {
        tc::Outcome<tc::BndWalk> walk = c.WalkBundles();
        if (!walk) {
            return Broken(walk.error());
        }
        if (ctx.json) {
            nlohmann::json arr = nlohmann::json::array();
            for (const tc::BndDetail &d : walk->bundles) {
                arr.push_back(BundleJson(d));
            }
            std::cout << nlohmann::json{{"bundles", arr}}.dump() << "\n";
        } else {
            PrintBundles(std::cout, walk->bundles);
        }
        return kExitOk;
    });
}

int CmdShowCounts(const Context &ctx, std::optional<std::uint32_t> bnd)
{
    return WithClient(ctx, [&](tc::Client &c) { return Shown(ctx, c.Counts(bnd), CountsJson, PrintCounts); });
}

int CmdShowDebug(const Context &ctx)
{
    return WithClient(ctx, [&](tc::Client &c) { return Shown(ctx, c.Debug(), DebugJson, PrintDebug); });
}

int CmdShowLimits(const Context &ctx)
{
    return WithClient(ctx, [&](tc::Client &c) { return Shown(ctx, c.GetLimits(), LimitsJson, PrintLimits); });
}

int CmdRaw(const Context &ctx, const tc::Bytes &request)
{
    return WithClient(ctx, [&](tc::Client &c) {
        tc::Outcome<tc::Bytes> bytes = c.connection().Exchange(request);
        if (!bytes) {
            return Broken(bytes.error());
        }
        std::string err;
        std::optional<tc::Message> reply = tc::DecodeMessage(bytes->data(), bytes->size(), &err);
        if (!reply) {
            std::cout << "reply " << tc::ToHex(*bytes) << "\n";
            return Broken(err);
        }
        if (ctx.json) {
            std::cout << MessageJson(*reply).dump() << "\n";
        } else {
            PrintMessage(std::cout, *reply);
        }
        return reply->head.uiResult == TBDL_OK ? kExitOk : kExitRefused;
    });
}

}  // namespace tbdlctl
