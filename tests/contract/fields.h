// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_CONTRACT_FIELDS_H_
#define TESTS_CONTRACT_FIELDS_H_

#include <string>

#include <zell/slave_proxy.h>

namespace zell::test {

/// The result status of @p proxy as a reply carries it: "STATUS STATE RESULT ERRNO SIGNAL".
inline std::string fields(const SlaveProxy& proxy) {
  const ResultStatus& s = proxy.resultStatus();
  return std::to_string(s.status) + " " + std::to_string(static_cast<int>(s.state)) + " " +
         std::to_string(s.result) + " " + std::to_string(s.error) + " " + std::to_string(s.signal);
}

}  // namespace zell::test

#endif  // TESTS_CONTRACT_FIELDS_H_
