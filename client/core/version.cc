// SPDX-License-Identifier: Apache-2.0
#include <runel/version.h>

namespace runel {
inline namespace v1 {

const char* version() {
  return RUNEL_VERSION;
}

}  // namespace v1
}  // namespace runel
