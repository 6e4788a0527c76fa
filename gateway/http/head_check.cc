// SPDX-License-Identifier: Apache-2.0
#include "gateway/http/head_check.h"

#include <algorithm>
#include <cstddef>
#include <string>

namespace runelgw {
namespace {

constexpr std::string_view kLineEnd = "\r\n";
constexpr std::size_t kMostHeaders = 100;
constexpr std::size_t kLongestMethod = 16;
constexpr std::size_t kMostLengthDigits = 18;  // fits into 64 bits

bool isDigit(char byte) {
  return byte >= '0' && byte <= '9';
}
bool isUpper(char byte) {
  return byte >= 'A' && byte <= 'Z';
}

char lower(char byte) {
  return isUpper(byte) ? static_cast<char>(byte - 'A' + 'a') : byte;
}

HttpRefusal malformed(std::string text) {
  return {400, std::move(text)};
}

// What occurs at most once.
struct Seen {
  std::size_t headers = 0;
  bool host = false;
  bool length = false;
  bool encoding = false;
};

std::optional<HttpRefusal> refusalOfTarget(std::string_view method, std::string_view target) {
  if (target == "*" && method == "OPTIONS") {
    return std::nullopt;
  }
  if (target.empty() || target[0] != '/') {
    return malformed("The target of a request must be a path.");
  }
  const bool plain = std::all_of(target.begin(), target.end(), [](char byte) {
    return byte > 0x20 && byte < 0x7f && byte != '#';
  });
  return plain ? std::nullopt
               : std::optional(malformed("The target has bytes that must be encoded."));
}

std::optional<HttpRefusal> refusalOfRequestLine(std::string_view line, bool& http11) {
  const std::size_t first = line.find(' ');
  const std::size_t last = line.rfind(' ');
  if (first == std::string_view::npos || first == last) {
    return malformed("The request line needs a method, a target and a version.");
  }
  const std::string_view method = line.substr(0, first);
  if (method.empty() || method.size() > kLongestMethod ||
      !std::all_of(method.begin(), method.end(), isUpper)) {
    return malformed("The method is malformed.");
  }
  const std::string_view version = line.substr(last + 1);
  http11 = version == "HTTP/1.1";
  if (!http11 && version != "HTTP/1.0") {
    return version.substr(0, 5) == "HTTP/" ? HttpRefusal{505, "Only HTTP/1.1 is spoken here."}
                                           : malformed("The version is malformed.");
  }
  return refusalOfTarget(method, line.substr(first + 1, last - first - 1));
}

std::optional<HttpRefusal> refusalOfLength(std::string_view value, Seen& seen) {
  if (seen.length) {
    return malformed("Content-Length may occur once.");
  }
  seen.length = true;
  if (value.empty() || value.size() > kMostLengthDigits ||
      !std::all_of(value.begin(), value.end(), isDigit)) {
    return malformed("Content-Length must be a number.");
  }
  return std::nullopt;
}

std::optional<HttpRefusal> refusalOfEncoding(std::string_view value, bool http11, Seen& seen) {
  if (seen.encoding || !http11 || !equalIgnoringCase(value, "chunked")) {
    return malformed("The only Transfer-Encoding that is understood is one \"chunked\".");
  }
  seen.encoding = true;
  return std::nullopt;
}

std::optional<HttpRefusal> refusalOfField(std::string_view line, bool http11, Seen& seen) {
  const std::size_t colon = line.find(':');
  const std::string_view name = line.substr(0, colon);
  if (colon == std::string_view::npos || name.empty() ||
      !std::all_of(name.begin(), name.end(), isTokenByte)) {
    return malformed("A header needs a name and a colon, and must not be folded.");
  }
  const std::string_view value = withoutBlanks(line.substr(colon + 1));
  if (!std::all_of(value.begin(), value.end(), isValueByte)) {
    return malformed("A header has control characters.");
  }
  if (++seen.headers > kMostHeaders) {
    return HttpRefusal{431, "The request has too many headers."};
  }
  if (equalIgnoringCase(name, "host")) {
    const bool again = seen.host;
    seen.host = true;
    return again ? std::optional(malformed("Host may occur once.")) : std::nullopt;
  }
  if (equalIgnoringCase(name, "content-length")) {
    return refusalOfLength(value, seen);
  }
  if (equalIgnoringCase(name, "transfer-encoding")) {
    return refusalOfEncoding(value, http11, seen);
  }
  return std::nullopt;
}

}  // namespace

bool isTokenByte(char byte) {
  constexpr std::string_view kMarks = "!#$%&'*+-.^_`|~";
  return isDigit(byte) || isUpper(byte) || (byte >= 'a' && byte <= 'z') ||
         kMarks.find(byte) != std::string_view::npos;
}

bool isValueByte(char byte) {
  const auto code = static_cast<unsigned char>(byte);
  return code == '\t' || (code >= 0x20 && code != 0x7f);
}

bool equalIgnoringCase(std::string_view one, std::string_view other) {
  return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                    [](char a, char b) { return lower(a) == lower(b); });
}

std::string_view withoutBlanks(std::string_view text) {
  constexpr std::string_view kBlank = " \t";
  const std::size_t begin = text.find_first_not_of(kBlank);
  return begin == std::string_view::npos
             ? std::string_view()
             : text.substr(begin, text.find_last_not_of(kBlank) + 1 - begin);
}

bool mayBeginRequest(std::string_view bytes) {
  const std::size_t most = std::min(bytes.size(), kLongestMethod + 1);
  for (std::size_t i = 0; i < most; ++i) {
    if (bytes[i] == ' ') {
      return i > 0;
    }
    if (!isUpper(bytes[i])) {
      return false;
    }
  }
  return bytes.size() <= kLongestMethod;
}

std::optional<HttpRefusal> refusalOfHead(std::string_view head) {
  bool http11 = false;
  bool first = true;
  Seen seen;
  while (true) {
    const std::size_t end = head.find(kLineEnd);
    if (end == std::string_view::npos) {
      return malformed("A line of the header has no end.");
    }
    const std::string_view line = head.substr(0, end);
    head.remove_prefix(end + kLineEnd.size());
    if (line.empty() && !first) {
      break;
    }
    auto refusal = first ? refusalOfRequestLine(line, http11) : refusalOfField(line, http11, seen);
    if (refusal) {
      return refusal;
    }
    first = false;
  }
  if (seen.length && seen.encoding) {
    return malformed("A request must not have both Content-Length and Transfer-Encoding.");
  }
  if (!seen.host) {
    return malformed("A request needs a Host.");
  }
  return head.empty() ? std::nullopt : std::optional(malformed("Bytes follow the header."));
}

}  // namespace runelgw
