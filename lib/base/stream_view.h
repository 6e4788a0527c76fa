// SPDX-License-Identifier: Apache-2.0
// The contents of string streams without the copy that str() makes. Files of up to 256 MiB pass
// through such streams.
#ifndef ZELL_BASE_STREAM_VIEW_H_
#define ZELL_BASE_STREAM_VIEW_H_

#include <sstream>
#include <string_view>

namespace zell {

/// The bytes written to @p stream so far. Valid until the stream is written to, moved or destroyed.
[[nodiscard]] std::string_view viewOf(const std::ostringstream& stream);

/// The whole string of @p stream, including the part already read. Valid until the stream gets
/// another string, is moved or destroyed.
[[nodiscard]] std::string_view viewOf(const std::istringstream& stream);

}  // namespace zell

#endif  // ZELL_BASE_STREAM_VIEW_H_
