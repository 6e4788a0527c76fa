// SPDX-License-Identifier: Apache-2.0
// Copies of a SQLite file.
#ifndef RUNELGW_STORE_BACKUP_H_
#define RUNELGW_STORE_BACKUP_H_

#include <string>

#include "gateway/store/connect.h"

namespace runelgw {

/// Writes a checked copy of the file that @p database has open to @p path, while others write to
/// it. The copy has a name with the suffix ".partial" until it is complete and on the disk.
[[nodiscard]] Sentence writeBackup(Database& database, const std::string& path);

/// The copy of a server's database is the work of the server's own program.
[[nodiscard]] std::string serverBackupHint(const std::string& program);

}  // namespace runelgw

#endif  // RUNELGW_STORE_BACKUP_H_
