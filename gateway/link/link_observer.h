// SPDX-License-Identifier: Apache-2.0
// What the connections of devices report, and what the registry decides about them.
#ifndef RUNELGW_LINK_LINK_OBSERVER_H_
#define RUNELGW_LINK_LINK_OBSERVER_H_

#include <cstdint>
#include <optional>
#include <string>

#include <runel/request.h>

#include "gateway/core/outcome.h"

namespace runelgw {

/// One connection of a device: the address and the port of its other end. Behind a proxy these are
/// the source address and port that the proxy reports.
struct Place {
  std::string host;
  std::uint16_t port = 0;
  std::string certificate;  ///< the name in the verified client certificate, or empty

  bool operator<(const Place& other) const {
    return host != other.host ? host < other.host : port < other.port;
  }
  bool operator==(const Place& other) const { return host == other.host && port == other.port; }
};

/// What the connections report, and what they ask. Implemented by the registry. Never called within
/// a call of DeviceLink, except `silenceFor`, which must not call DeviceLink.
class LinkObserver {
 public:
  LinkObserver() = default;
  virtual ~LinkObserver() = default;
  LinkObserver(const LinkObserver&) = delete;
  LinkObserver& operator=(const LinkObserver&) = delete;

  /// Asked before anything is written to a new connection that may carry tasks. 0: it is used at
  /// once. A time: it is used after it was silent for so long; a connection that speaks or ends
  /// before that was a bridge. Without a value nothing is ever written to it, and it is kept open.
  [[nodiscard]] virtual std::optional<runel::Milliseconds> silenceFor(const Place& place) = 0;

  /// A device has told its identity. It gets requests after `DeviceLink::bind`. @p hostid is any
  /// bytes; empty if the device did not answer with one.
  virtual void connected(const Place& place, const std::string& hostid,
                         const std::string& deviceType) = 0;
  /// The connection of a device that was reported as connected has ended.
  virtual void lost(const Place& place, const std::string& why) = 0;

  ///@{
  /// The bridge to an agent, by the place of the bridge's own connection. @p device is the device
  /// at its address, 0 while that is not known or if it is not unique.
  virtual void agentConnected(const Place& bridge, DeviceId device) = 0;
  virtual void agentLost(const Place& bridge, DeviceId device) = 0;
  virtual void clause(const Place& bridge, DeviceId device, const std::string& text) = 0;
  ///@}

  /// A connection was refused. It is held open and silent.
  virtual void refusedConnection(const Place& place, const std::string& why) = 0;
  /// The gateway itself has a problem, such as no descriptor for a connection.
  virtual void problem(const std::string& text) = 0;
};

/// The decisions of the registry about connected places. Implemented by DeviceLink.
class LinkControl {
 public:
  LinkControl() = default;
  virtual ~LinkControl() = default;
  LinkControl(const LinkControl&) = delete;
  LinkControl& operator=(const LinkControl&) = delete;

  /// @p device is at @p place, which is connected; an unknown place is ignored. An earlier place of
  /// the device gets no further requests. Requests that wait for the device are sent. A silent
  /// place is used again; if requests were on the way when it became silent, it is closed instead:
  /// the device then connects again.
  virtual void bind(const Place& place, DeviceId device) = 0;
  /// Nothing is written to @p place from now on: neither requests nor liveness checks. The
  /// connection is kept open, and its end is still reported. Its calls end with @p reason.
  virtual void silence(const Place& place, Reason reason) = 0;
};

}  // namespace runelgw

#endif  // RUNELGW_LINK_LINK_OBSERVER_H_
