/* Small system helpers of the platform's libsystem. */
#include "plat_sys.h"

#include <cstdarg>
#include <cstdio>

#include "emulated_call.h"

using namespace tbdl::plat;

extern "C" int scnprintf(char *pcBuf, size_t ulSize, const char *pcFormat, ...)
{
    va_list args;
    va_start(args, pcFormat);
    int iWritten = Journaled(
        "scnprintf",
        [&] {
            if (pcBuf == nullptr || ulSize == 0 || pcFormat == nullptr) {
                return 0;
            }
            int iWanted = std::vsnprintf(pcBuf, ulSize, pcFormat, args);
            /* vsnprintf reports what it wanted to write; keep what it did. */
            if (iWanted <= 0) {
                return 0;
            }
            return static_cast<size_t>(iWanted) >= ulSize ? static_cast<int>(ulSize - 1) : iWanted;
        },
        [&](int iRet) {
            return Json{{"size", ulSize},
                        {"format", TextOf(pcFormat)},
                        {"text", iRet > 0 ? std::string(pcBuf, static_cast<size_t>(iRet)) : ""}};
        });
    va_end(args);
    return iWritten;
}
