/* Chassis environment of the process and the chassis directory layout. */
#include "chassis_env.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <mutex>

namespace tbdl::plat {

namespace {

/* Parses a whole decimal string; false when empty, not a number or too big. */
bool ParseDecimal(const char *text, unsigned long long limit, unsigned long long &out)
{
    if (text == nullptr || *text < '0' || *text > '9') {
        return false;
    }
    char *end = nullptr;
    errno = 0;
    unsigned long long v = std::strtoull(text, &end, 10);
    if (errno != 0 || *end != '\0' || v > limit) {
        return false;
    }
    out = v;
    return true;
}

ChassisEnv ReadEnv()
{
    ChassisEnv env;
    const char *dir = std::getenv(kEnvChassisDir);
    if (dir != nullptr && *dir != '\0') {
        env.inChassis = true;
        env.dir = dir;
        while (env.dir.size() > 1 && env.dir.back() == '/') {
            env.dir.pop_back();
        }
    }
    unsigned long long v = 0;
    if (ParseDecimal(std::getenv(kEnvBoard), kMaxBoards - 1, v)) {
        env.board = static_cast<int>(v);
    }
    if (ParseDecimal(std::getenv(kEnvStartCause), UINT32_MAX, v)) {
        env.hasStartCause = true;
        env.startCause = static_cast<uint32_t>(v);
    }
    const char *journal = std::getenv(kEnvJournal);
    env.journal = journal != nullptr && journal[0] == '1' && journal[1] == '\0';
    return env;
}

ChassisEnv g_env;
std::once_flag g_envOnce;

} // namespace

const ChassisEnv &GetChassisEnv()
{
    std::call_once(g_envOnce, [] { g_env = ReadEnv(); });
    return g_env;
}

void ReloadChassisEnv()
{
    GetChassisEnv();
    g_env = ReadEnv();
}

std::string SettingsPathOf(const std::string &dir) { return dir + "/chassis.json"; }
std::string DatabasePathOf(const std::string &dir) { return dir + "/dbm.sqlite"; }
std::string ChassisSocketPathOf(const std::string &dir) { return dir + "/chassisd.sock"; }
std::string ChassisLogPathOf(const std::string &dir) { return dir + "/chassisd.log"; }
std::string ChassisPidPathOf(const std::string &dir) { return dir + "/chassisd.pid"; }

std::string BoardDirOf(const std::string &dir, int board)
{
    return dir + "/board" + std::to_string(board);
}

std::string BoardLogPathOf(const std::string &dir, int board)
{
    return BoardDirOf(dir, board) + "/tbdld.log";
}

std::string JournalPathOf(const std::string &dir, int board)
{
    return BoardDirOf(dir, board) + "/journal.jsonl";
}

std::string LipcPathOf(const std::string &dir, int board, uint16_t port)
{
    if (port == kCfgPort) {
        return BoardDirOf(dir, board) + "/cfg.sock";
    }
    return BoardDirOf(dir, board) + "/lipc-" + std::to_string(port) + ".sock";
}

std::string BoardDir()
{
    const ChassisEnv &env = GetChassisEnv();
    return env.inChassis ? BoardDirOf(env.dir, env.board) : std::string();
}

bool EnsureBoardDir(const std::string &dir, int board)
{
    std::string boardDir = BoardDirOf(dir, board);
    struct stat st {};
    if (stat(boardDir.c_str(), &st) == 0) {
        return S_ISDIR(st.st_mode);
    }
    (void)mkdir(dir.c_str(), 0755);
    return mkdir(boardDir.c_str(), 0755) == 0 || errno == EEXIST;
}

bool LoadChassisSettings(ChassisSettings &settings, std::string &err)
{
    const ChassisEnv &env = GetChassisEnv();
    if (!env.inChassis) {
        err = std::string("not in a chassis (") + kEnvChassisDir + " is not set)";
        return false;
    }
    return LoadSettings(SettingsPathOf(env.dir), settings, err);
}

} // namespace tbdl::plat
