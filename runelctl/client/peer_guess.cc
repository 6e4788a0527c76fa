// SPDX-License-Identifier: Apache-2.0
#include "client/peer_guess.h"

namespace zell::ctl {
namespace {

struct Known {
  std::string_view begins;
  const char* is;
};

constexpr Known kKnown[] = {
    {"SSH-", "it speaks like an SSH server"},
    {"HTTP/", "it speaks like a web server"},
    {"<!DOCTYPE", "it speaks like a web server"},
    {"<html", "it speaks like a web server"},
    {"@RSYNCD:", "it speaks like an rsync daemon"},
    {"RFB ", "it speaks like a VNC server"},
    {"+OK", "it speaks like a mail server"},
    {"* OK", "it speaks like a mail server"},
    {"220", "it speaks like a mail or FTP server"},
    {"\x15\x03", "it speaks TLS"},
    {"\x16\x03", "it speaks TLS"},
    {"\xff\xfb", "it speaks like a telnet server"},
    {"\xff\xfd", "it speaks like a telnet server"},
    {"<", "it sends XML, as agents do"},
};

}  // namespace

std::string guessPeer(std::string_view first) {
  const std::size_t begin = first.find_first_not_of(" \t\r\n");
  if (begin == std::string_view::npos || first[begin] == '\x01') {
    return "";
  }
  first.remove_prefix(begin);
  for (const Known& known : kKnown) {
    if (first.substr(0, known.begins.size()) == known.begins) {
      return std::string("this is no runeld: ") + known.is;
    }
  }
  return "this is no runeld: it speaks another protocol";
}

}  // namespace zell::ctl
