// SPDX-License-Identifier: Apache-2.0
// The visibility of the library's symbols.
#ifndef RUNEL_EXPORT_H_
#define RUNEL_EXPORT_H_

/// Marks what the shared library exports. All other symbols are hidden.
#define RUNEL_API __attribute__((visibility("default")))

/// Marks what belongs to an exported class and is hidden all the same: its members are not part of
/// the binary interface.
#define RUNEL_LOCAL __attribute__((visibility("hidden")))

#endif  // RUNEL_EXPORT_H_
