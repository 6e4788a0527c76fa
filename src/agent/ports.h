// SPDX-License-Identifier: Apache-2.0
#ifndef ZELL_AGENT_PORTS_H_
#define ZELL_AGENT_PORTS_H_

namespace zell {

constexpr int kListenPort = 5111;  ///< TCP, on all addresses of the device
constexpr int kMasterPort = 5112;  ///< TCP, on the master

}  // namespace zell

#endif  // ZELL_AGENT_PORTS_H_
