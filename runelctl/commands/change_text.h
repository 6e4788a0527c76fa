// SPDX-License-Identifier: Apache-2.0
// How the changes of a transfer are listed.
#ifndef RUNELCTL_COMMANDS_CHANGE_TEXT_H_
#define RUNELCTL_COMMANDS_CHANGE_TEXT_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include <runel/transfer.h>

#include "output/style.h"
#include "output/text.h"

namespace runelctl {

/// One line without its end, such as "replace     /etc/app.conf  1.2 KiB (old: 3.4 KiB)".
[[nodiscard]] std::string changeLine(const runel::TransferChange& change, const Style& style);
/// The same as an object.
[[nodiscard]] Json changeObject(const runel::TransferChange& change);

}  // namespace runelctl

#endif  // RUNELCTL_COMMANDS_CHANGE_TEXT_H_
