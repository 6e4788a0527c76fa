// SPDX-License-Identifier: Apache-2.0
#include "gateway/gateway_settings.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string_view>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/unique_fd.h"
#include "client/core/host_text.h"

namespace runelctl {
namespace {

constexpr std::uint16_t kHttpsPort = 443;
constexpr std::uint16_t kHttpPort = 80;
constexpr std::size_t kLongestToken = 4096;

runel::Error invalid(const std::string& why) {
  return {runel::Kind::local, runel::Cause::other, why};
}

runel::Error invalidUrl(const std::string& text) {
  return invalid("--gateway: invalid address '" + text + "': expected https://HOST[:PORT]");
}

bool isIpv6(const std::string& host) {
  in6_addr address{};
  return inet_pton(AF_INET6, host.c_str(), &address) == 1;
}

bool isLoopback(const std::string& host) {
  in_addr address{};
  if (inet_pton(AF_INET, host.c_str(), &address) == 1) {
    return ntohl(address.s_addr) >> 24U == 127;
  }
  return host == "localhost" || host == "::1";
}

bool takePrefix(std::string_view& text, std::string_view prefix) {
  const bool there = text.substr(0, prefix.size()) == prefix;
  text.remove_prefix(there ? prefix.size() : 0);
  return there;
}

// Removes the host from @p text. Empty without a valid host.
std::string takeHost(std::string_view& text) {
  if (takePrefix(text, "[")) {
    const std::size_t end = text.find(']');
    std::string host(text.substr(0, end));
    text.remove_prefix(std::min(host.size() + 1, text.size()));
    return end != std::string_view::npos && isIpv6(host) ? host : "";
  }
  std::string host(text.substr(0, text.find_first_of(":/")));
  text.remove_prefix(host.size());
  return runel::isHostText(host) ? host : "";
}

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

std::string usualTokenFile() {
  std::string directory = environment("XDG_CONFIG_HOME");
  if (directory.empty() || directory.front() != '/') {
    const std::string home = environment("HOME");
    directory = home.empty() || home.front() != '/' ? "" : home + "/.config";
  }
  return directory.empty() ? "" : directory + "/runelctl/token";
}

// A header field could not carry other characters, or would end there.
bool isToken(const std::string& text) {
  return !text.empty() && text.size() <= kLongestToken &&
         std::all_of(text.begin(), text.end(), [](char byte) { return byte > ' ' && byte < 127; });
}

runel::Result<std::string> findToken(const std::string& given) {
  if (!given.empty()) {
    return readToken(given);
  }
  std::string token = environment("RUNELCTL_TOKEN");
  if (!token.empty()) {
    return isToken(token) ? runel::Result<std::string>(token)
                          : invalid("RUNELCTL_TOKEN: not a token");
  }
  const std::string usual = usualTokenFile();
  if (usual.empty() || access(usual.c_str(), F_OK) != 0) {
    return std::string();
  }
  return readToken(usual);
}

}  // namespace

std::string GatewayUrl::authority() const {
  const std::string name = host.find(':') == std::string::npos ? host : "[" + host + "]";
  return port == (tls ? kHttpsPort : kHttpPort) ? name : name + ":" + std::to_string(port);
}

std::string GatewayUrl::text() const {
  return (tls ? "https://" : "http://") + authority();
}

runel::Result<GatewayUrl> GatewayUrl::parse(const std::string& text) {
  GatewayUrl url;
  std::string_view rest = text;
  url.tls = takePrefix(rest, "https://");
  if (!url.tls && !takePrefix(rest, "http://")) {
    return invalidUrl(text);
  }
  url.port = url.tls ? kHttpsPort : kHttpPort;
  url.host = takeHost(rest);
  if (takePrefix(rest, ":")) {
    const std::string port(rest.substr(0, rest.find('/')));
    rest.remove_prefix(port.size());
    if (!runel::parsePort(port, url.port)) {
      return invalidUrl(text);
    }
  }
  if (url.host.empty() || (!rest.empty() && rest != "/")) {
    return invalidUrl(text);
  }
  if (!url.tls && !isLoopback(url.host)) {
    return invalid("--gateway: '" + text + "' needs https: without TLS others can read the token");
  }
  return url;
}

runel::Result<std::string> readToken(const std::string& path) {
  const zell::UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  struct stat about {};
  if (!file.valid() || fstat(file.get(), &about) != 0) {
    return runel::Error::local(path, errno);
  }
  if (!S_ISREG(about.st_mode) || (about.st_uid != geteuid() && about.st_uid != 0)) {
    return invalid(path + ": not a file of this user");
  }
  if ((about.st_mode & 077U) != 0) {
    return invalid(path + ": accessible to other users: use chmod 600");
  }
  std::string text(kLongestToken + 2, '\0');
  const ssize_t got = read(file.get(), text.data(), text.size());
  if (got < 0) {
    return runel::Error::local(path, errno);
  }
  text.resize(static_cast<std::size_t>(got));
  text.erase(text.find_last_not_of(" \t\r\n") + 1);
  return isToken(text) ? runel::Result<std::string>(text) : invalid(path + ": not a token");
}

runel::Result<GatewaySettings> gatewaySettings(const GatewayOptions& options) {
  const runel::Result<GatewayUrl> url = GatewayUrl::parse(options.url);
  if (!url) {
    return url.error();
  }
  runel::Result<std::string> token = findToken(options.tokenFile);
  if (!token) {
    return token.error();
  }
  if (token->empty() && options.certificateFile.empty()) {
    return invalid("no token for the gateway: set RUNELCTL_TOKEN, or see --token-file");
  }
  for (const std::string& file : {options.caFile, options.certificateFile, options.keyFile}) {
    if (!file.empty() && access(file.c_str(), R_OK) != 0) {
      return runel::Error::local(file, errno);
    }
  }
  GatewaySettings settings;
  settings.url = *url;
  settings.token = *std::move(token);
  settings.caFile = options.caFile;
  settings.certificateFile = options.certificateFile;
  settings.keyFile = options.keyFile.empty() ? options.certificateFile : options.keyFile;
  return settings;
}

}  // namespace runelctl
