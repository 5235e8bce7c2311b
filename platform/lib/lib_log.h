/* The platform library's own diagnostics: one line in the board log (or on
 * stderr outside a chassis), in the same form as the daemon's lines, with
 * the identity "platform". */
#ifndef TBDL_PLAT_LIB_LOG_H
#define TBDL_PLAT_LIB_LOG_H

#include <string>

namespace tbdl::plat {

/* Writes "<time> board<N> <ident> <type> <text>\n" to the board log. */
void WriteLogLine(const char *ident, const char *type, const std::string &text);

/* A line of identity "platform" and type "ERROR". */
void LibLogError(const char *format, ...) __attribute__((format(printf, 1, 2)));

} // namespace tbdl::plat

#endif
