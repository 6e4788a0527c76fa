// SPDX-License-Identifier: Apache-2.0
#include "gateway/byte_stream.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

namespace runelctl {
namespace {

bool wouldBlock(int number) {
  return number == EAGAIN || number == EWOULDBLOCK || number == EINTR;
}

std::string lastTlsText() {
  const unsigned long code = ERR_get_error();
  ERR_clear_error();
  const char* const reason = ERR_reason_error_string(code);
  return reason == nullptr ? "TLS failed" : reason;
}

bool isNumeric(const std::string& host) {
  in6_addr address{};
  return inet_pton(AF_INET, host.c_str(), &address) == 1 ||
         inet_pton(AF_INET6, host.c_str(), &address) == 1;
}

// The macro of the library has an old cast.
bool setServerName(SSL* tls, const std::string& host) {
  return SSL_ctrl(tls, SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
                  const_cast<char*>(host.c_str())) == 1;
}

socklen_t sizeOf(const sockaddr_storage& address) {
  return address.ss_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
}

// In the reverse order. Returns the error of the look-up, empty for none.
std::string lookUp(const GatewayUrl& url, std::vector<sockaddr_storage>& addresses) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int wrong = getaddrinfo(url.host.c_str(), std::to_string(url.port).c_str(), &hints, &found);
  if (wrong != 0) {
    return gai_strerror(wrong);
  }
  for (const addrinfo* one = found; one != nullptr; one = one->ai_next) {
    sockaddr_storage address{};
    std::copy_n(reinterpret_cast<const char*>(one->ai_addr), one->ai_addrlen,
                reinterpret_cast<char*>(&address));
    addresses.insert(addresses.begin(), address);
  }
  freeaddrinfo(found);
  return "";
}

}  // namespace

void ByteStream::Free::operator()(ssl_st* tls) const {
  SSL_free(tls);
}

void ByteStream::Free::operator()(ssl_ctx_st* context) const {
  SSL_CTX_free(context);
}

ByteStream::~ByteStream() {
  if (watched_ != 0) {
    loop_.forget(socket_.get());
  }
}

void ByteStream::open(Opened opened) {
  opened_ = std::move(opened);
  std::string wrong = settings_.url.tls ? prepareTls() : "";
  if (!wrong.empty()) {
    fail(runel::Cause::other, wrong, EKEYREJECTED);
    return;
  }
  wrong = lookUp(settings_.url, addresses_);
  if (!wrong.empty()) {
    fail(runel::Cause::noMaster, wrong, 0);
    return;
  }
  connectNext();
}

// Returns the error, empty for none.
std::string ByteStream::prepareTls() {
  ERR_clear_error();
  context_.reset(SSL_CTX_new(TLS_client_method()));
  SSL_CTX* const context = context_.get();
  if (context == nullptr || SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION) != 1) {
    return lastTlsText();
  }
  const char* const authority = settings_.caFile.empty() ? nullptr : settings_.caFile.c_str();
  if ((authority == nullptr ? SSL_CTX_set_default_verify_paths(context)
                            : SSL_CTX_load_verify_file(context, authority)) != 1) {
    return settings_.caFile + ": " + lastTlsText();
  }
  if (!settings_.certificateFile.empty() &&
      (SSL_CTX_use_certificate_chain_file(context, settings_.certificateFile.c_str()) != 1 ||
       SSL_CTX_use_PrivateKey_file(context, settings_.keyFile.c_str(), SSL_FILETYPE_PEM) != 1)) {
    return settings_.certificateFile + ": " + lastTlsText();
  }
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
  SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  tls_.reset(SSL_new(context));
  if (!tls_) {
    return lastTlsText();
  }
  const std::string& host = settings_.url.host;
  X509_VERIFY_PARAM* const checks = SSL_get0_param(tls_.get());
  X509_VERIFY_PARAM_set_hostflags(checks, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
  const bool set = isNumeric(host) ? X509_VERIFY_PARAM_set1_ip_asc(checks, host.c_str()) == 1
                                   : SSL_set1_host(tls_.get(), host.c_str()) == 1 &&
                                         setServerName(tls_.get(), host);
  return set ? "" : lastTlsText();
}

void ByteStream::connectNext() {
  while (!addresses_.empty()) {
    const sockaddr_storage address = addresses_.back();
    addresses_.pop_back();
    socket_ =
        zell::UniqueFd(::socket(address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    // The generic address type of the socket calls.
    if (socket_.valid() && (connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address),
                                    sizeOf(address)) == 0 ||
                            errno == EINPROGRESS)) {
      if (loop_.watch(socket_.get(), EPOLLOUT, [this](std::uint32_t) { checkConnected(); })) {
        watched_ = EPOLLOUT;
        return;
      }
    }
    lastError_ = errno;
  }
  fail(runel::Cause::noMaster, runel::systemText(lastError_), lastError_);
}

void ByteStream::checkConnected() {
  int number = 0;
  socklen_t size = sizeof number;
  if (getsockopt(socket_.get(), SOL_SOCKET, SO_ERROR, &number, &size) != 0) {
    number = errno;
  }
  loop_.forget(socket_.get());
  watched_ = 0;
  if (number != 0) {
    lastError_ = number;
    connectNext();
    return;
  }
  const int one = 1;
  (void)setsockopt(socket_.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);  // cannot fail
  if (tls_ && SSL_set_fd(tls_.get(), socket_.get()) != 1) {
    fail(runel::Cause::noMaster, lastTlsText(), ENOMEM);
    return;
  }
  handshake();
}

void ByteStream::handshake() {
  if (watched_ != 0) {
    loop_.forget(socket_.get());
    watched_ = 0;
  }
  ERR_clear_error();
  const int result = tls_ ? SSL_connect(tls_.get()) : 1;
  if (result == 1) {
    const Opened opened = std::move(opened_);
    opened(nullptr);
    return;
  }
  const int what = SSL_get_error(tls_.get(), result);
  if (what == SSL_ERROR_WANT_READ || what == SSL_ERROR_WANT_WRITE) {
    watched_ = what == SSL_ERROR_WANT_READ ? EPOLLIN : EPOLLOUT;
    if (loop_.watch(socket_.get(), watched_, [this](std::uint32_t) { handshake(); })) {
      return;
    }
    watched_ = 0;
  }
  const long verified = SSL_get_verify_result(tls_.get());
  if (verified != X509_V_OK) {
    fail(runel::Cause::noMaster,
         std::string("its certificate is refused: ") + X509_verify_cert_error_string(verified),
         EKEYREJECTED);
  } else {
    fail(runel::Cause::noMaster,
         what == SSL_ERROR_SSL ? "TLS: " + lastTlsText() : "it closed the connection",
         what == SSL_ERROR_SSL ? EPROTO : ECONNRESET);
  }
}

void ByteStream::fail(runel::Cause cause, const std::string& why, int number) {
  const runel::Kind kind = cause == runel::Cause::noMaster ? runel::Kind::link : runel::Kind::local;
  const runel::Error error(
      kind, cause,
      kind == runel::Kind::local ? why : "no gateway at " + settings_.url.text() + ": " + why,
      number);
  const Opened opened = std::move(opened_);
  opened(&error);
}

void ByteStream::read(void* bytes, std::size_t size, Moved moved) {
  reading_ = {bytes, size, std::move(moved), 0};
  tryRead();
  watch();
}

// The bytes are only read.
void ByteStream::write(const void* bytes, std::size_t size, Moved moved) {
  writing_ = {const_cast<void*>(bytes), size, std::move(moved), 0};
  tryWrite();
  watch();
}

void ByteStream::tryRead() {
  ERR_clear_error();
  const auto most = static_cast<int>(std::min<std::size_t>(reading_.size, 1048576));
  const ssize_t got = tls_ ? SSL_read(tls_.get(), reading_.bytes, most)
                           : recv(socket_.get(), reading_.bytes, reading_.size, MSG_DONTWAIT);
  heard_ = heard_ || got > 0;
  handle(got, reading_, EPOLLIN);
}

void ByteStream::tryWrite() {
  ERR_clear_error();
  const auto most = static_cast<int>(std::min<std::size_t>(writing_.size, 1048576));
  const ssize_t taken =
      tls_ ? SSL_write(tls_.get(), writing_.bytes, most)
           : ::send(socket_.get(), writing_.bytes, writing_.size, MSG_NOSIGNAL | MSG_DONTWAIT);
  handle(taken, writing_, EPOLLOUT);
}

void ByteStream::handle(ssize_t result, Operation& operation, std::uint32_t plainWait) {
  operation.awaited = 0;
  if (result > 0) {
    finish(operation, 0, static_cast<std::size_t>(result));
  } else if (!tls_) {
    if (result < 0 && wouldBlock(errno)) {
      operation.awaited = plainWait;
    } else {
      finish(operation, result < 0 ? errno : 0, 0);
    }
  } else {
    const int number = errno;
    switch (SSL_get_error(tls_.get(), static_cast<int>(result))) {
      case SSL_ERROR_WANT_READ:
        operation.awaited = EPOLLIN;
        break;
      case SSL_ERROR_WANT_WRITE:
        operation.awaited = EPOLLOUT;
        break;
      case SSL_ERROR_ZERO_RETURN:
        finish(operation, 0, 0);
        break;
      case SSL_ERROR_SYSCALL:
        finish(operation, number, 0);
        break;
      default:
        finish(operation, tlsFailure(), 0);
    }
  }
}

int ByteStream::tlsFailure() {
  const bool cut = ERR_GET_REASON(ERR_peek_error()) == SSL_R_UNEXPECTED_EOF_WHILE_READING;
  detail_ = cut ? "" : "TLS: " + lastTlsText();
  ERR_clear_error();
  return cut ? ECONNRESET : EPROTO;
}

void ByteStream::finish(Operation& operation, int number, std::size_t bytes) {
  loop_.next([number, bytes, moved = std::exchange(operation.moved, nullptr),
              alive = std::weak_ptr<bool>(alive_)] {
    if (!alive.expired()) {
      moved(number, bytes);
    }
  });
}

void ByteStream::watch() {
  const std::uint32_t wanted =
      (reading_.moved ? reading_.awaited : 0U) | (writing_.moved ? writing_.awaited : 0U);
  if (wanted == watched_ || !socket_.valid()) {
    return;
  }
  if (watched_ != 0) {
    loop_.forget(socket_.get());
  }
  watched_ = wanted;
  const auto ready = [this](std::uint32_t) {
    if (reading_.moved) {
      tryRead();
    }
    if (writing_.moved) {
      tryWrite();
    }
    watch();
  };
  if (wanted != 0 && !loop_.watch(socket_.get(), wanted, ready)) {
    close();
  }
}

void ByteStream::close() {
  if (watched_ != 0) {
    loop_.forget(socket_.get());
    watched_ = 0;
  }
  tls_.reset();
  socket_.reset();
  for (Operation* operation : {&reading_, &writing_}) {
    if (operation->moved) {
      finish(*operation, ECANCELED, 0);
    }
  }
}

bool ByteStream::heard() {
  return std::exchange(heard_, false);
}

}  // namespace runelctl
