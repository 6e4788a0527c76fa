// SPDX-License-Identifier: Apache-2.0
// The interface to the system log. Every line of the daemon goes through here.
#ifndef ZELL_BASE_LOG_H_
#define ZELL_BASE_LOG_H_

namespace zell {

/// Logs one line at @p priority (LOG_ERR...): "(PID) " and the formatted text. %m gives the text of
/// errno at the call. A line longer than 128 KiB (131,072 bytes, "(PID) " included) is truncated to
/// its first 131,069 bytes and "...", because the system log would drop it. Leaves errno unchanged.
void logLine(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));

/// The same without "(PID) " in front: for the few lines without a prefix, and for those that show
/// another process's number.
void logPlain(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace zell

#endif  // ZELL_BASE_LOG_H_
