// SPDX-License-Identifier: Apache-2.0
// The version of the library.
#ifndef RUNEL_VERSION_H_
#define RUNEL_VERSION_H_

#include <runel/export.h>

namespace runel {
inline namespace v1 {

/// The version of the library that the program runs with, such as "1.0.0".
[[nodiscard]] RUNEL_API const char* version();

}  // namespace v1
}  // namespace runel

#endif  // RUNEL_VERSION_H_
