// SPDX-License-Identifier: Apache-2.0
// What the peer's system acknowledges on a TCP connection, while the peer's program may be busy.
#ifndef RUNEL_IO_ACKNOWLEDGEMENTS_H_
#define RUNEL_IO_ACKNOWLEDGEMENTS_H_

namespace runel {

/// Whether the peer's system acknowledges what is sent on @p socket. True also for a socket that is
/// no TCP connection.
[[nodiscard]] bool acknowledges(int socket);

/// Sets the time without an acknowledgement after which the system ends the connection: a minute.
/// The system also applies it to a peer that acknowledges every probe, but does not take more data,
/// so there is no limit while this is so. Call it again every few seconds while data is on the way.
/// Returns false for a socket that is no TCP connection.
bool limitAcknowledgements(int socket);

/// Whether all that was written to @p socket is acknowledged.
[[nodiscard]] bool isAcknowledged(int socket);

}  // namespace runel

#endif  // RUNEL_IO_ACKNOWLEDGEMENTS_H_
