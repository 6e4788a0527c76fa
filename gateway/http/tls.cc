// SPDX-License-Identifier: Apache-2.0
#include "gateway/http/tls.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <algorithm>
#include <utility>

#include "text/utf8.h"

namespace runelgw {
namespace {

namespace ssl = boost::asio::ssl;

runel::Error problemWith(const std::string& what, const std::string& file, const std::string& why) {
  return {runel::Kind::local, runel::Cause::other,
          what + (file.empty() ? "" : " " + file) + " cannot be used: " + why};
}

std::optional<runel::Error> useKeyPair(TlsContext& context, const HttpSettings& settings) {
  ErrorCode error;
  context.use_certificate_chain_file(settings.certificateFile, error);
  if (error) {
    return problemWith("the certificate", settings.certificateFile, error.message());
  }
  context.use_private_key_file(settings.keyFile, ssl::context::pem, error);
  if (error) {
    return problemWith("the private key", settings.keyFile, error.message());
  }
  if (SSL_CTX_check_private_key(context.native_handle()) != 1) {
    ERR_clear_error();
    return problemWith("the private key", settings.keyFile, "it does not fit the certificate");
  }
  return std::nullopt;
}

std::optional<runel::Error> checkClients(TlsContext& context, const HttpSettings& settings) {
  if (settings.clientCertificates == ClientCertificates::none) {
    return std::nullopt;
  }
  ErrorCode error;
  context.load_verify_file(settings.clientAuthorityFile, error);
  STACK_OF(X509_NAME)* names =
      error ? nullptr : SSL_load_client_CA_file(settings.clientAuthorityFile.c_str());
  if (!names) {
    ERR_clear_error();
    return problemWith("the certificate of the clients' authority", settings.clientAuthorityFile,
                       error ? error.message() : "it has no name");
  }
  SSL_CTX_set_client_CA_list(context.native_handle(), names);  // takes it
  const bool required = settings.clientCertificates == ClientCertificates::required;
  context.set_verify_mode(
      required ? ssl::verify_peer | ssl::verify_fail_if_no_peer_cert : ssl::verify_peer, error);
  return std::nullopt;
}

}  // namespace

runel::Result<std::shared_ptr<TlsContext>> readCertificates(const HttpSettings& settings) {
  auto context = std::make_shared<TlsContext>(TlsContext::tls_server);
  SSL_CTX* native = context->native_handle();
  SSL_CTX_set_min_proto_version(native, TLS1_2_VERSION);
  SSL_CTX_set_options(native, SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION);
  SSL_CTX_set_mode(native, SSL_MODE_RELEASE_BUFFERS);  // less memory of an idle connection
  constexpr unsigned char kSessions[] =
      "runelgw";  // resumption needs a name with client certificates
  SSL_CTX_set_session_id_context(native, kSessions, sizeof kSessions - 1);
  if (auto error = useKeyPair(*context, settings)) {
    return *error;
  }
  if (auto error = checkClients(*context, settings)) {
    return *error;
  }
  return context;
}

std::string verifiedNameOf(const Transport::TlsStream& stream) {
  SSL* native = const_cast<Transport::TlsStream&>(stream).native_handle();
  const std::unique_ptr<X509, decltype(&X509_free)> certificate(SSL_get1_peer_certificate(native),
                                                                &X509_free);
  if (!certificate || SSL_get_verify_result(native) != X509_V_OK) {
    return {};
  }
  X509_NAME* subject = X509_get_subject_name(certificate.get());
  const int place = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
  if (place < 0 || X509_NAME_get_index_by_NID(subject, NID_commonName, place) >= 0) {
    return {};
  }
  unsigned char* bytes = nullptr;
  const int size =
      ASN1_STRING_to_UTF8(&bytes, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, place)));
  if (size < 0) {
    ERR_clear_error();
    return {};
  }
  std::string name(bytes, bytes + size);
  OPENSSL_free(bytes);
  const bool plain = std::none_of(name.begin(), name.end(), [](char byte) {
    const auto code = static_cast<unsigned char>(byte);
    return code < 0x20 || code == 0x7f;
  });
  return plain && zell::isUtf8(name) ? name : std::string();
}

}  // namespace runelgw
