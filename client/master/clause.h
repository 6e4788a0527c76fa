// SPDX-License-Identifier: Apache-2.0
// Checks a clause before it is sent.
#ifndef RUNEL_MASTER_CLAUSE_H_
#define RUNEL_MASTER_CLAUSE_H_

#include <string>

#include <runel/result.h>

namespace runel {

/// @p text without surrounding white space, and with the line end that the relay uses. Fails with
/// `Kind::local` unless it is exactly one clause: other bytes would stop or block the daemon.
[[nodiscard]] Result<std::string> clauseLine(const std::string& text);

}  // namespace runel

#endif  // RUNEL_MASTER_CLAUSE_H_
