/* tbdlctl: the operator's configuration tool of the tunnel-bundle daemon.
 * Speaks the configuration protocol to the master board's configuration
 * socket; the chassis is asked which board that is, so the same command
 * works after a switchover. --board names a board, refused unless it is the
 * master. */
#include <cstdlib>
#include <functional>
#include <iostream>

#include <CLI/CLI.hpp>

#include "tbdlctl_cmds.h"

namespace tc = tbdl::client;
using namespace tbdlctl;

namespace {

/* Turns "TYPE:HEX" into a TLV. */
std::optional<tc::Tlv> ParseTlvArg(const std::string &text)
{
    std::size_t colon = text.find(':');
    if (colon == std::string::npos) {
        return std::nullopt;
    }
    std::size_t used = 0;
    unsigned long type = 0;
    try {
        type = std::stoul(text.substr(0, colon), &used, 0);
    } catch (...) {
        return std::nullopt;
    }
    if (used != colon || type > 0xFFFF) {
        return std::nullopt;
    }
    std::optional<tc::Bytes> value = tc::FromHex(text.substr(colon + 1));
    if (!value || value->size() > 0xFFFF) {
        return std::nullopt;
    }
    return tc::Tlv{static_cast<std::uint16_t>(type), std::move(*value)};
}

std::string DefaultDir()
{
    const char *env = std::getenv("TBDL_CHASSIS_DIR");
    return env != nullptr && *env != '\0' ? env : "./chassis";
}

}  // namespace

int main(int argc, char **argv)
{
    CLI::App app{"Configure and inspect tunnel bundles over the daemon's configuration socket."};
    app.require_subcommand(1);
    Context ctx;
    ctx.dir = DefaultDir();
    int board = -1;
    app.add_option("--dir", ctx.dir, "chassis directory (default: $TBDL_CHASSIS_DIR or ./chassis)");
    app.add_option("--board", board, "board to send to; refused unless it is the master (default: the master)")
        ->check(CLI::Range(0, 1));
    app.add_flag("--json", ctx.json, "print JSON instead of tables");
    app.add_option("--timeout", ctx.timeoutMs, "milliseconds to wait for a reply")->check(CLI::PositiveNumber);

    std::function<int()> run;
    std::uint32_t uiBnd = 0;

    /* bundle */
    CLI::App *bundle = app.add_subcommand("bundle", "create, delete, address")->require_subcommand(1);
    std::string modeText;
    std::uint16_t usTnlMode = 0;
    CLI::App *create = bundle->add_subcommand("create", "create a tunnel bundle");
    create->add_option("N", uiBnd, "bundle number")->required();
    create->add_option("--mode", modeText, "loadbalancing | 1:1 | 1+1 | option name | number")->required();
    create->add_option("--tunnel-mode", usTnlMode, "tunnel mode of the bundle (default 0)");
    create->callback([&] {
        std::optional<std::uint16_t> mode = tc::ParseMode(modeText);
        if (!mode) {
            throw CLI::ValidationError("--mode", "unknown work mode: " + modeText);
        }
        run = [&, m = *mode] { return CmdBundleCreate(ctx, uiBnd, m, usTnlMode); };
    });
    CLI::App *del = bundle->add_subcommand("delete", "delete a tunnel bundle");
    del->add_option("N", uiBnd, "bundle number")->required();
    del->callback([&] { run = [&] { return CmdBundleDelete(ctx, uiBnd); }; });
    std::string addrText;
    bool bRemove = false;
    CLI::App *address = bundle->add_subcommand("address", "set or remove the IPv4 address");
    address->add_option("N", uiBnd, "bundle number")->required();
    address->add_option("ADDRESS", addrText, "A.B.C.D");
    address->add_flag("--remove", bRemove, "remove the address");
    address->callback([&] {
        if (bRemove == !addrText.empty()) {
            throw CLI::ValidationError("ADDRESS", "give either an address or --remove");
        }
        std::optional<tc::AddrBlock> addr;
        if (!bRemove) {
            addr = tc::ParseIpv4(addrText);
            if (!addr) {
                throw CLI::ValidationError("ADDRESS", "not an IPv4 address: " + addrText);
            }
        }
        run = [&, addr] { return CmdBundleAddress(ctx, uiBnd, addr); };
    });

    /* member */
    CLI::App *member = app.add_subcommand("member", "bind and unbind member tunnels")->require_subcommand(1);
    tc::MembOp memb;
    memb.usWeight = 1;
    CLI::App *add = member->add_subcommand("add", "bind Tunnel<T> to a bundle");
    add->add_option("N", uiBnd, "bundle number")->required();
    add->add_option("--tunnel", memb.uiTnlNum, "tunnel number T")->required();
    add->add_option("--weight", memb.usWeight, "weight (default 1)");
    add->add_option("--role", memb.ucRole, "role (default 0; the two members of 1:1 and 1+1 differ)");
    add->callback([&] { run = [&] { return CmdMemberAdd(ctx, uiBnd, memb); }; });
    CLI::App *remove = member->add_subcommand("remove", "unbind Tunnel<T> from a bundle");
    remove->add_option("N", uiBnd, "bundle number")->required();
    remove->add_option("--tunnel", memb.uiTnlNum, "tunnel number T")->required();
    remove->callback([&] { run = [&] { return CmdMemberRemove(ctx, uiBnd, memb.uiTnlNum); }; });

    /* debug */
    std::string onOff;
    std::string dbgText;
    CLI::App *debug = app.add_subcommand("debug", "switch debug output: debug on|off error|event|all");
    debug->add_option("SWITCH", onOff, "on | off")->required()->check(CLI::IsMember({"on", "off"}));
    debug->add_option("TYPE", dbgText, "error | event | all")->required();
    debug->callback([&] {
        std::optional<std::uint32_t> type = tc::ParseDebugType(dbgText);
        if (!type) {
            throw CLI::ValidationError("TYPE", "unknown debug type: " + dbgText);
        }
        run = [&, t = *type] { return CmdDebug(ctx, onOff == "on", t); };
    });

    /* show */
    CLI::App *show = app.add_subcommand("show", "display bundles, counts, debug switches, limits")
                         ->require_subcommand(1);
    CLI::App *showBnd = show->add_subcommand("bundle", "details of one bundle");
    showBnd->add_option("N", uiBnd, "bundle number")->required();
    showBnd->callback([&] { run = [&] { return CmdShowBundle(ctx, uiBnd); }; });
    show->add_subcommand("bundles", "all bundles")->callback([&] { run = [&] { return CmdShowBundles(ctx); }; });
    std::optional<std::uint32_t> countBnd;
    CLI::App *counts = show->add_subcommand("counts", "bundle counts (all, or one bundle)");
    counts->add_option("N", countBnd, "bundle number");
    counts->callback([&] { run = [&] { return CmdShowCounts(ctx, countBnd); }; });
    show->add_subcommand("debug", "debug switches")->callback([&] { run = [&] { return CmdShowDebug(ctx); }; });
    show->add_subcommand("limits", "device limits")->callback([&] { run = [&] { return CmdShowLimits(ctx); }; });

    /* raw */
    std::uint16_t usClass = 0;
    std::uint16_t usType = 0;
    std::uint16_t usOper = 0;
    std::vector<std::string> tlvTexts;
    std::string hexText;
    CLI::App *raw = app.add_subcommand("raw", "send a request as given and print the reply");
    raw->add_option("--class", usClass, "message class");
    raw->add_option("--type", usType, "message type");
    raw->add_option("--oper", usOper, "operation");
    raw->add_option("--tlv", tlvTexts, "TLV as TYPE:HEX (repeatable, in order)");
    raw->add_option("--hex", hexText, "the whole message (header included) as hex, sent unchanged")
        ->excludes("--class")
        ->excludes("--type")
        ->excludes("--oper")
        ->excludes("--tlv");
    raw->callback([&] {
        tc::Bytes request;
        if (!hexText.empty()) {
            std::optional<tc::Bytes> bytes = tc::FromHex(hexText);
            if (!bytes) {
                throw CLI::ValidationError("--hex", "not hex: " + hexText);
            }
            request = std::move(*bytes);
        } else {
            std::vector<tc::Tlv> tlvs;
            for (const std::string &t : tlvTexts) {
                std::optional<tc::Tlv> tlv = ParseTlvArg(t);
                if (!tlv) {
                    throw CLI::ValidationError("--tlv", "expected TYPE:HEX, got " + t);
                }
                tlvs.push_back(std::move(*tlv));
            }
            request = tc::EncodeRequest(usClass, usType, usOper, tlvs);
        }
        run = [&, request] { return CmdRaw(ctx, request); };
    });

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        return app.exit(e);
    }
    if (board >= 0) {
        ctx.board = board;
    }
    if (!run) {
        std::cerr << app.help();
        return kExitError;
    }
    return run();
}
