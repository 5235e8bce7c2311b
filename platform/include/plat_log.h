/* Platform log: the process opens the log with its identity, then writes
 * typed lines through vsyslog2. Each line carries time, board, identity,
 * the type name and the formatted text. */
#ifndef PLAT_LOG_H
#define PLAT_LOG_H

#include <stdarg.h>
#include <syslog.h> /* openlog(ident, option, facility) */

#include "plat_types.h"

PLAT_EXTERN_C_BEGIN

/* Writes one line of type pcTypeName for identity pcIdent. iPriority is the
 * syslog priority (facility | severity), bit 24 set for typed lines. */
void vsyslog2(int iPriority, const char *pcIdent, const char *pcTypeName,
              const char *pcFormat, va_list args);

/* Closes the log opened by openlog for identity pcIdent. */
void closelog2(const char *pcIdent);

PLAT_EXTERN_C_END

#endif
