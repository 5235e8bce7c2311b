/* Small system helpers of the platform's libsystem. */
#include "plat_sys.h"

#include <cstdarg>
#include <cstdio>

#include "journal.h"

extern "C" int scnprintf(char *pcBuf, size_t ulSize, const char *pcFormat, ...)
{
    int iWritten = 0;
    if (pcBuf != nullptr && ulSize != 0 && pcFormat != nullptr) {
        va_list args;
        va_start(args, pcFormat);
        int iWanted = std::vsnprintf(pcBuf, ulSize, pcFormat, args);
        va_end(args);
        if (iWanted > 0) {
            /* vsnprintf reports what it wanted to write; keep what it did. */
            iWritten = static_cast<size_t>(iWanted) >= ulSize ? static_cast<int>(ulSize - 1) : iWanted;
        }
    }
    if (tbdl::plat::JournalEnabled()) {
        tbdl::plat::JournalRecord("scnprintf",
                                  {{"size", ulSize},
                                   {"format", pcFormat != nullptr ? pcFormat : ""},
                                   {"text", iWritten > 0 ? std::string(pcBuf, static_cast<size_t>(iWritten)) : ""}},
                                  iWritten);
    }
    return iWritten;
}
