// SPDX-License-Identifier: Apache-2.0
// The certificates of the server and of its clients.
#ifndef RUNELGW_HTTP_TLS_H_
#define RUNELGW_HTTP_TLS_H_

#include <memory>
#include <string>

#include <runel/result.h>

#include "gateway/http/http.h"
#include "gateway/http/transport.h"

namespace runelgw {

/// Reads the files of @p settings.
[[nodiscard]] runel::Result<std::shared_ptr<TlsContext>> readCertificates(
    const HttpSettings& settings);

/// The common name in the client's certificate, if it has presented one that was verified and that
/// has exactly one common name of printable characters. Else empty.
[[nodiscard]] std::string verifiedNameOf(const Transport::TlsStream& stream);

}  // namespace runelgw

#endif  // RUNELGW_HTTP_TLS_H_
