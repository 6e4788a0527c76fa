// SPDX-License-Identifier: Apache-2.0
// Why the server answers a request itself.
#ifndef RUNELGW_HTTP_REFUSAL_H_
#define RUNELGW_HTTP_REFUSAL_H_

#include <string>

namespace runelgw {

/// The status of the answer, and one sentence for it.
struct HttpRefusal {
  unsigned status = 400;
  std::string text;
};

}  // namespace runelgw

#endif  // RUNELGW_HTTP_REFUSAL_H_
