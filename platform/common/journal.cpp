/* Journal of platform calls and the line-append file it shares with the
 * board log. */
#include "journal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>

#include "chassis_env.h"

namespace tbdl::plat {

namespace {

/* Creates the directory holding path (and its parent) when missing. */
void MakeParentDirs(const std::string &path)
{
    size_t slash = path.rfind('/');
    if (slash == std::string::npos || slash == 0) {
        return;
    }
    std::string dir = path.substr(0, slash);
    if (mkdir(dir.c_str(), 0755) != 0 && errno == ENOENT) {
        size_t up = dir.rfind('/');
        if (up != std::string::npos && up != 0) {
            (void)mkdir(dir.substr(0, up).c_str(), 0755);
        }
        (void)mkdir(dir.c_str(), 0755);
    }
}

/* Process-wide journal file; never destroyed, so a platform call made
 * from a static destructor still finds it. */
AppendFile &JournalFile()
{
    static AppendFile *file = new AppendFile();
    return *file;
}

} // namespace

AppendFile::~AppendFile()
{
    Close();
}

bool AppendFile::Append(const std::string &path, const std::string &line)
{
    if (fd_ >= 0 && path != path_) {
        close(fd_);
        fd_ = -1;
    }
    if (fd_ < 0) {
        int flags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC;
        fd_ = open(path.c_str(), flags, 0644);
        if (fd_ < 0 && errno == ENOENT) {
            MakeParentDirs(path);
            fd_ = open(path.c_str(), flags, 0644);
        }
        if (fd_ < 0) {
            return false;
        }
        path_ = path;
    }
    ssize_t n;
    do {
        n = write(fd_, line.data(), line.size());
    } while (n < 0 && errno == EINTR);
    return n == static_cast<ssize_t>(line.size());
}

void AppendFile::Close()
{
    if (fd_ >= 0) {
        close(fd_);
        fd_ = -1;
    }
    path_.clear();
}

bool JournalEnabled()
{
    const ChassisEnv &env = GetChassisEnv();
    return env.inChassis && env.journal;
}

void JournalRecord(const char *call, const nlohmann::json &args, const nlohmann::json &result)
{
    if (!JournalEnabled()) {
        return;
    }
    const ChassisEnv &env = GetChassisEnv();
    nlohmann::json line = nlohmann::json::object();
    line["time"] = IsoTimeNow();
    line["board"] = env.board;
    line["pid"] = static_cast<int64_t>(getpid());
    line["call"] = call != nullptr ? call : "";
    line["args"] = args;
    line["result"] = result;
    std::string text = line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    text.push_back('\n');
    (void)JournalFile().Append(JournalPathOf(env.dir, env.board), text);
}

std::string HexOf(const void *data, size_t len)
{
    static const char kDigits[] = "0123456789abcdef";
    std::string out;
    if (data == nullptr) {
        return out;
    }
    const auto *p = static_cast<const unsigned char *>(data);
    out.reserve(len * 2);
    for (size_t i = 0; i < len; ++i) {
        out.push_back(kDigits[p[i] >> 4]);
        out.push_back(kDigits[p[i] & 0x0f]);
    }
    return out;
}

std::string PtrOf(const void *ptr)
{
    char buf[32];
    std::snprintf(buf, sizeof(buf), "0x%jx", static_cast<uintmax_t>(reinterpret_cast<uintptr_t>(ptr)));
    return buf;
}

std::string IsoTimeNow()
{
    struct timespec ts {};
    clock_gettime(CLOCK_REALTIME, &ts);
    struct tm tm {};
    gmtime_r(&ts.tv_sec, &tm);
    char buf[96];
    std::snprintf(buf, sizeof(buf), "%04d-%02d-%02dT%02d:%02d:%02d.%06ldZ", tm.tm_year + 1900, tm.tm_mon + 1,
                  tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, ts.tv_nsec / 1000);
    return buf;
}

void JournalReset()
{
    JournalFile().Close();
}

} // namespace tbdl::plat
