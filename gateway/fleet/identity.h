// SPDX-License-Identifier: Apache-2.0
// Which connection is which device: lists, pins, and connections that claim the same identity.
#ifndef RUNELGW_FLEET_IDENTITY_H_
#define RUNELGW_FLEET_IDENTITY_H_

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <runel/result.h>

#include "gateway/store/records.h"

namespace runelgw {

/// What a connection is known by. Devices choose the hostid, so it proves nothing by itself.
struct Claimant {
  std::string hostid;  ///< raw bytes; may be empty
  std::string address;
  std::string certificate;  ///< the name in a verified client certificate, or empty
};

/// The identity that a claimant claims, as a key: its hostid. Without a hostid it is the name in
/// its certificate, and without that its address.
[[nodiscard]] std::string identityOf(const Claimant& claimant);

/// The list of allowed and denied host identifiers, addresses, networks and certificates.
class AccessList {
 public:
  enum class Match {
    none,
    allowed,
    denied,  ///< stronger than `allowed`
  };

  /// Adds or replaces an entry. Fails with a sentence for an unknown kind, an empty value, and an
  /// address that is not ADDRESS or ADDRESS/BITS. The host bits of a network are cleared.
  runel::Result<void> set(AccessRecord entry);
  /// False if there is no such entry.
  bool remove(const std::string& kind, const std::string& value);

  /// All entries, by kind and value.
  [[nodiscard]] std::vector<AccessRecord> entries() const;

  /// Whether @p claimant is on the list by any of its properties. An empty property is on no list.
  [[nodiscard]] Match find(const Claimant& claimant) const;
  /// @p value as the list keeps it: without the host bits of a network. Fails as `set` does.
  [[nodiscard]] static runel::Result<std::string> normalValue(const std::string& kind,
                                                              const std::string& value);

  /// "address" for ADDRESS and ADDRESS/BITS, "hostid" for any other text.
  [[nodiscard]] static const char* kindOf(const std::string& text);

 private:
  using Key = std::pair<std::string, std::string>;
  [[nodiscard]] static runel::Result<Key> keyOf(const std::string& kind, const std::string& value);
  [[nodiscard]] Match findValue(const char* kind, const std::string& value) const;
  [[nodiscard]] Match findAddress(const std::string& text) const;

  std::map<Key, AccessRecord> entries_;
  std::map<unsigned, std::map<std::uint32_t, bool>> networks_;  // allowed, by bits and network
};

/// What happens to a device that is on no list.
enum class NewDevices {
  welcome,  ///< it is worked on
  wait,     ///< until a person has approved it
  refused,  ///< only devices of the list are worked on
};

/// What a new device is pinned to.
enum class PinTo {
  best,         ///< the name in its certificate, else its address
  certificate,  ///< the name in its certificate, else nothing
  nothing,
};

/// What was decided about an identity.
struct Standing {
  NewDevices mode = NewDevices::welcome;
  Decision decision = Decision::waiting;
  std::string pinAddress;
  std::string pinCertificate;
};

/// A living connection that claims the identity.
struct Claim {
  std::string address;
  std::string certificate;
  AccessList::Match listed = AccessList::Match::none;
};

/// Whether @p claim comes from where the device is pinned to. True without a pin.
[[nodiscard]] bool matchesPin(const Standing& standing, const Claim& claim);

/// What becomes of a connection.
enum class Verdict {
  work,         ///< requests are written to it
  denied,       ///< nothing is written to it
  waiting,      ///< nothing until the device is approved
  quarantined,  ///< nothing while this lasts
};

/// Decides about all living connections that claim one identity, oldest first. The result is in the
/// same order. At most one gets `Verdict::work`. Decide again when a connection comes or goes and
/// when a person or a list changes something.
///
/// The first row that applies, for each connection:
///
///     1  the device is denied by a person                                     denied
///     2  the connection is on the deny list                                   denied
///     3  only devices of the allow list, and it is not on it                  denied
///     4  the device has a pin, and the connection does not match it           quarantined
///     5  devices wait for approval, this one has none and is not allowed      waiting
///     6  the device has a pin, and an older connection reaches this row       quarantined
///     7  the device has no pin, and another connection reaches this row       quarantined
///     8  otherwise                                                            work
///
/// Row 6: both match the pin, as when a device lost its power and came back before its old
/// connection was found dead. The older one is used until it ends; then the next one is.
/// Row 7: nothing tells which one is the device, so none is used.
/// A pin matches if the certificate and the address each equal those of the pin that are set.
[[nodiscard]] std::vector<Verdict> judge(const Standing& standing,
                                         const std::vector<Claim>& claims);

/// "work", "denied", "waiting" or "quarantined".
[[nodiscard]] const char* nameOf(Verdict verdict);

}  // namespace runelgw

#endif  // RUNELGW_FLEET_IDENTITY_H_
