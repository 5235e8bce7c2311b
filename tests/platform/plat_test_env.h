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
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
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

/* A fresh chassis directory (with board<N>/) for the life of the object;
 * the environment points the platform library at it, with the start cause
 * set when given. */
class TempChassis {
public:
    explicit TempChassis(int board = 0, const char *startCause = nullptr)
    {
        char tmpl[] = "/tmp/tbdl-plat-XXXXXX";
        dir_ = mkdtemp(tmpl);
        std::filesystem::create_directories(tbdl::plat::BoardDirOf(dir_, board));
        setenv(tbdl::plat::kEnvChassisDir, dir_.c_str(), 1);
        setenv(tbdl::plat::kEnvBoard, std::to_string(board).c_str(), 1);
        (void)(startCause != nullptr ? setenv(tbdl::plat::kEnvStartCause, startCause, 1)
                                     : unsetenv(tbdl::plat::kEnvStartCause));
        unsetenv(tbdl::plat::kEnvJournal);
        Reload();
    }
    ~TempChassis()
    {
        for (const char *name : {tbdl::plat::kEnvChassisDir, tbdl::plat::kEnvBoard, tbdl::plat::kEnvStartCause}) {
            unsetenv(name);
        }
        Reload();
        std::filesystem::remove_all(dir_);
    }
    TempChassis(const TempChassis &) = delete;
    TempChassis &operator=(const TempChassis &) = delete;
    const std::string &Dir() const { return dir_; }
    void WriteSettings(const std::string &json) const
    {
        std::ofstream(tbdl::plat::SettingsPathOf(dir_), std::ios::trunc) << json;
    }

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
