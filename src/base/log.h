// SPDX-License-Identifier: Apache-2.0
// The one way to the system log. Every line of the daemon goes through here.
#ifndef ZELL_BASE_LOG_H_
#define ZELL_BASE_LOG_H_

namespace zell {

/// Logs one line at @p priority (LOG_ERR...), as "(PID) " and the formatted text. %m gives the text
/// of errno as it was at the call. A line of more than 128 KiB (131,072 bytes), "(PID) " included,
/// is logged as its first 131,069 bytes and "...": the system log would lose a longer one. No other
/// line is cut. errno is left as it was.
void logLine(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));

/// The same, with the same limit, without the "(PID) " in front: for the few lines that have none,
/// or that show another process's number.
void logPlain(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace zell

#endif  // ZELL_BASE_LOG_H_
