/* Where a process stands in the emulated chassis, and the file layout of a
 * chassis directory.
 *
 * chassisd starts each board's daemon with TBDL_CHASSIS_DIR (the chassis
 * directory), TBDL_BOARD (0 or 1), TBDL_START_CAUSE (0 system boot, 1
 * process restart) and TBDL_JOURNAL (1 = journal platform calls). The
 * platform library reads them once, on first use; the daemon never does.
 *
 * The path helpers take the directory explicitly so that chassisd and the
 * tools, which know the directory from their own options, build the same
 * paths as the library does from the environment. */
#ifndef TBDL_PLAT_CHASSIS_ENV_H
#define TBDL_PLAT_CHASSIS_ENV_H

#include <cstdint>
#include <string>

#include "settings.h"

namespace tbdl::plat {

/* Environment variable names. */
inline constexpr const char *kEnvChassisDir = "TBDL_CHASSIS_DIR";
inline constexpr const char *kEnvBoard = "TBDL_BOARD";
inline constexpr const char *kEnvStartCause = "TBDL_START_CAUSE";
inline constexpr const char *kEnvJournal = "TBDL_JOURNAL";

/* Port of the daemon's configuration endpoint. */
inline constexpr uint16_t kCfgPort = 2681;

struct ChassisEnv {
    bool inChassis = false;  /* TBDL_CHASSIS_DIR set and not empty */
    std::string dir;         /* chassis directory, "" when not in a chassis */
    int board = 0;           /* TBDL_BOARD, 0 when absent or invalid */
    bool hasStartCause = false;
    uint32_t startCause = 0; /* valid when hasStartCause */
    bool journal = false;    /* TBDL_JOURNAL=1 */
};

/* The environment of this process, read on first use. */
const ChassisEnv &GetChassisEnv();

/* Reads the environment again (for tests that change it between cases;
 * not for use while other threads call into the platform library). */
void ReloadChassisEnv();

/* Paths inside chassis directory dir. */
std::string SettingsPathOf(const std::string &dir);       /* dir/chassis.json */
std::string DatabasePathOf(const std::string &dir);       /* dir/dbm.sqlite */
std::string ChassisSocketPathOf(const std::string &dir);  /* dir/chassisd.sock */
std::string ChassisLogPathOf(const std::string &dir);     /* dir/chassisd.log */
std::string ChassisPidPathOf(const std::string &dir);     /* dir/chassisd.pid */
std::string BoardDirOf(const std::string &dir, int board);       /* dir/board<N> */
std::string BoardLogPathOf(const std::string &dir, int board);   /* .../tbdld.log */
std::string JournalPathOf(const std::string &dir, int board);    /* .../journal.jsonl */
/* Host path of local port `port` of a board: cfg.sock for the
 * configuration port, lipc-<port>.sock for any other. */
std::string LipcPathOf(const std::string &dir, int board, uint16_t port);

/* The same for this process's chassis and board ("" outside a chassis). */
std::string BoardDir();

/* Creates dir/board<N> (and dir) when missing. true when it exists after. */
bool EnsureBoardDir(const std::string &dir, int board);

/* Loads this chassis's settings file. false outside a chassis or when the
 * file is missing, unreadable or invalid (err says which). Missing keys take
 * their defaults. Read on every call: the file is small and chassisd may
 * rewrite it when it restarts the chassis. */
bool LoadChassisSettings(ChassisSettings &settings, std::string &err);

} // namespace tbdl::plat

#endif
