/* The commands of tbdlctl. Each returns the process exit status:
 * kExitOk, kExitRefused (the daemon answered a failure result) or
 * kExitError (no connection, no reply, or a reply that cannot be read). */
#ifndef TBDLCTL_CMDS_H
#define TBDLCTL_CMDS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tbdl_client.h"

namespace tbdlctl {

constexpr int kExitOk = 0;
constexpr int kExitRefused = 1;
constexpr int kExitError = 2;

struct Context {
    std::string dir;
    std::optional<int> board;
    bool json = false;
    int timeoutMs = tbdl::client::kDefaultTimeoutMs;
};

int CmdBundleCreate(const Context &ctx, std::uint32_t uiBnd, std::uint16_t usMode, std::uint16_t usTnlMode);
int CmdBundleDelete(const Context &ctx, std::uint32_t uiBnd);
int CmdBundleAddress(const Context &ctx, std::uint32_t uiBnd, const std::optional<tbdl::client::AddrBlock> &addr);
int CmdMemberAdd(const Context &ctx, std::uint32_t uiBnd, const tbdl::client::MembOp &memb);
int CmdMemberRemove(const Context &ctx, std::uint32_t uiBnd, std::uint32_t uiTnl);
int CmdDebug(const Context &ctx, bool bOn, std::uint32_t uiType);
int CmdShowBundle(const Context &ctx, std::uint32_t uiBnd);
int CmdShowBundles(const Context &ctx);
int CmdShowCounts(const Context &ctx, std::optional<std::uint32_t> bnd);
int CmdShowDebug(const Context &ctx);
int CmdShowLimits(const Context &ctx);
int CmdRaw(const Context &ctx, const tbdl::client::Bytes &request);

}  // namespace tbdlctl

#endif
