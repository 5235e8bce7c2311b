/* Test helpers for the emulated platform library: a temporary chassis
 * directory that the library sees through its environment. */
#ifndef TBDL_TESTS_PLAT_TEST_ENV_H
#define TBDL_TESTS_PLAT_TEST_ENV_H

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "chassis_env.h"
#include "journal.h"

namespace plattest {

inline std::string ReadFile(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

inline void WriteFile(const std::string &path, const std::string &text)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

inline std::vector<std::string> Lines(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

inline void SetOrUnset(const char *name, const char *value)
{
    (void)(value != nullptr ? setenv(name, value, 1) : unsetenv(name));
}

/* Variables a test may set; the others are cleared for each chassis. */
struct EnvVars {
    int board = 0;
    const char *startCause = nullptr;
    bool journal = false;
};

/* A fresh chassis directory (with board<N>/) for the life of the object;
 * the environment points the platform library at it. */
class TempChassis {
public:
    explicit TempChassis(EnvVars vars = {})
    {
        char tmpl[] = "/tmp/tbdl-plat-XXXXXX";
        dir_ = mkdtemp(tmpl);
        std::filesystem::create_directories(tbdl::plat::BoardDirOf(dir_, vars.board));
        SetOrUnset(tbdl::plat::kEnvChassisDir, dir_.c_str());
        SetOrUnset(tbdl::plat::kEnvBoard, std::to_string(vars.board).c_str());
        SetOrUnset(tbdl::plat::kEnvStartCause, vars.startCause);
        SetOrUnset(tbdl::plat::kEnvJournal, vars.journal ? "1" : nullptr);
        Reload();
    }
    ~TempChassis()
    {
        for (const char *name : {tbdl::plat::kEnvChassisDir, tbdl::plat::kEnvBoard, tbdl::plat::kEnvStartCause,
                                 tbdl::plat::kEnvJournal}) {
            unsetenv(name);
        }
        Reload();
        std::error_code ec;
        std::filesystem::permissions(dir_, std::filesystem::perms::owner_all, ec);
        std::filesystem::remove_all(dir_, ec);
    }
    TempChassis(const TempChassis &) = delete;
    TempChassis &operator=(const TempChassis &) = delete;

    const std::string &Dir() const { return dir_; }
    std::string Path(const std::string &name) const { return dir_ + "/" + name; }
    void WriteSettings(const std::string &json) const { WriteFile(tbdl::plat::SettingsPathOf(dir_), json); }

    static void Reload()
    {
        tbdl::plat::ReloadChassisEnv();
        tbdl::plat::JournalReset();
    }

private:
    std::string dir_;
};

} // namespace plattest

#endif
