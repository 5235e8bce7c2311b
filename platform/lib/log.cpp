/* Platform log: one line per call in DIR/board<N>/tbdld.log,
 *   "<time> board<N> <ident> <type name> <text>\n",
 * written with one write() on an O_APPEND descriptor so that lines of
 * different processes never mix. Outside a chassis the lines go to stderr.
 * openlog stays the C library's; the identity of each line is the one the
 * caller passes to vsyslog2. */
#include "plat_log.h"

#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include "chassis_env.h"
#include "emulated_call.h"
#include "journal.h"
#include "lib_log.h"

namespace tbdl::plat {

namespace {

/* The board log of this process; never destroyed (see JournalFile). */
AppendFile &BoardLogFile()
{
    static AppendFile *file = new AppendFile();
    return *file;
}

std::string FormatV(const char *format, va_list args)
{
    if (format == nullptr) {
        return {};
    }
    char small[256];
    va_list copy;
    va_copy(copy, args);
    int n = std::vsnprintf(small, sizeof(small), format, copy);
    va_end(copy);
    if (n < 0) {
        return {};
    }
    if (static_cast<size_t>(n) < sizeof(small)) {
        return std::string(small, static_cast<size_t>(n));
    }
    std::string text(static_cast<size_t>(n) + 1, '\0');
    std::vsnprintf(text.data(), text.size(), format, args);
    text.resize(static_cast<size_t>(n));
    return text;
}

void WriteStderr(const std::string &line)
{
    ssize_t n;
    do {
        n = write(STDERR_FILENO, line.data(), line.size());
    } while (n < 0 && errno == EINTR);
}

} // namespace

void WriteLogLine(const char *ident, const char *type, const std::string &text)
{
    const ChassisEnv &env = GetChassisEnv();
    std::string line = IsoTimeNow();
    line += " board" + std::to_string(env.board) + " ";
    line += ident != nullptr && *ident != '\0' ? ident : "-";
    line += ' ';
    line += type != nullptr && *type != '\0' ? type : "-";
    line += ' ';
    line += text;
    /* The caller's line end ("\r\n" or "\n") becomes exactly one "\n". */
    if (!line.empty() && line.back() == '\n') {
        line.pop_back();
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
    }
    line.push_back('\n');
    if (!env.inChassis || !BoardLogFile().Append(BoardLogPathOf(env.dir, env.board), line)) {
        WriteStderr(line);
    }
}

void LibLogError(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    std::string text = FormatV(format, args);
    va_end(args);
    /* Reasons from other libraries may span lines; keep the entry on one. */
    for (char &c : text) {
        if (c == '\n' || c == '\r') {
            c = ' ';
        }
    }
    WriteLogLine("platform", "ERROR", text);
}

} // namespace tbdl::plat

extern "C" void vsyslog2(int iPriority, const char *pcIdent, const char *pcTypeName, const char *pcFormat,
                         va_list args)
{
    using namespace tbdl::plat;
    std::string text;
    Journaled(
        "vsyslog2",
        [&] {
            text = FormatV(pcFormat, args);
            WriteLogLine(pcIdent, pcTypeName, text);
        },
        [&] {
            return Json{
                {"priority", iPriority}, {"ident", TextOf(pcIdent)}, {"type", TextOf(pcTypeName)}, {"text", text}};
        });
}

extern "C" void closelog2(const char *pcIdent)
{
    using namespace tbdl::plat;
    Journaled(
        "closelog2",
        [] {
            closelog();
            /* The next line opens the board log again. */
            BoardLogFile().Close();
        },
        [&] { return Json{{"ident", TextOf(pcIdent)}}; });
}
