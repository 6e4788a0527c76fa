// SPDX-License-Identifier: Apache-2.0
#include "client/core/peer_guess.h"

#include "base/blank.h"
#include "protocol/protocol.h"

namespace runel {
namespace {

struct Known {
  std::string_view begins;
  const char* is;
};

constexpr Known kKnown[] = {
    {"SSH-", "it looks like an SSH server"},
    {"HTTP/", "it looks like a web server"},
    {"<!DOCTYPE", "it looks like a web server"},
    {"<html", "it looks like a web server"},
    {"@RSYNCD:", "it looks like an rsync daemon"},
    {"RFB ", "it looks like a VNC server"},
    {"+OK", "it looks like a mail server"},
    {"* OK", "it looks like a mail server"},
    {"220", "it looks like a mail or FTP server"},
    {"\x15\x03", "it uses TLS"},
    {"\x16\x03", "it uses TLS"},
    {"\xff\xfb", "it looks like a telnet server"},
    {"\xff\xfd", "it looks like a telnet server"},
    {"<", "it sends XML, like an agent"},
};

}  // namespace

std::string guessPeer(std::string_view first) {
  const std::size_t begin = first.find_first_not_of(zell::kBlanks);
  if (begin == std::string_view::npos || first[begin] == zell::kFrameStart) {
    return "";
  }
  first.remove_prefix(begin);
  for (const Known& known : kKnown) {
    if (first.substr(0, known.begins.size()) == known.begins) {
      return std::string("the peer is not runeld: ") + known.is;
    }
  }
  return "the peer is not runeld: it uses an unknown protocol";
}

}  // namespace runel
