// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <cstdlib>
#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "gateway/http/http.h"
#include "support/temp_dir.h"
#include "unit/gateway/http/http_case.h"

namespace runelgw::test {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

// Certificates that openssl(1) makes, once for all tests.
class Certificates {
 public:
  Certificates() {
    authority("ca");
    authority("other");
    sign("server", "ca", "/CN=localhost");
    sign("second", "ca", "/CN=second.example");
    sign("client", "ca", "/O=Fleet/CN=alice");
    sign("two", "ca", "/CN=alice/CN=bob");
    sign("foreign", "other", "/CN=mallory");
  }
  [[nodiscard]] std::string file(const std::string& name) const { return directory_.file(name); }

 private:
  void run(const std::string& command) {
    const int status = std::system(("(" + command + ") >>" + file("log") + " 2>&1").c_str());
    EXPECT_EQ(0, status) << command << zell::test::contentOf(file("log"));
  }
  void key(const std::string& name) {
    run("openssl ecparam -genkey -noout -name prime256v1 -out " + file(name + ".key"));
  }
  void authority(const std::string& name) {
    key(name);
    run("openssl req -new -x509 -days 30 -key " + file(name + ".key") + " -subj /CN=" + name +
        " -out " + file(name + ".pem"));
  }
  void sign(const std::string& name, const std::string& by, const std::string& subject) {
    key(name);
    run("openssl req -new -key " + file(name + ".key") + " -subj " + subject +
        " | openssl x509 -req -days 30 -CA " + file(by + ".pem") + " -CAkey " + file(by + ".key") +
        " -CAcreateserial -out " + file(name + ".pem"));
  }

  zell::test::TempDir directory_;
};

class TlsTest : public HttpCase {
 protected:
  static Certificates& certificates() {
    static auto* const made = new Certificates;
    return *made;
  }
  static void TearDownTestSuite() { delete &certificates(); }

  static HttpSettings secure(ClientCertificates clients = ClientCertificates::none) {
    HttpSettings settings;
    settings.listeners = {{"127.0.0.1", 0, true}};
    settings.certificateFile = certificates().file("server.pem");
    settings.keyFile = certificates().file("server.key");
    settings.clientCertificates = clients;
    settings.clientAuthorityFile = certificates().file("ca.pem");
    return settings;
  }
};

// A client of TLS in the same thread.
class TlsClient {
 public:
  TlsClient(RawClient& raw, Pump pump, const std::string& certificate = "", int version = 0)
      : pump_(std::move(pump)), context_(SSL_CTX_new(TLS_client_method()), &SSL_CTX_free) {
    SSL_CTX_set_security_level(context_.get(), 0);  // for version 1.1
    if (version != 0) {
      SSL_CTX_set_min_proto_version(context_.get(), version);
      SSL_CTX_set_max_proto_version(context_.get(), version);
    }
    if (!certificate.empty()) {
      EXPECT_EQ(1, SSL_CTX_use_certificate_file(context_.get(), (certificate + ".pem").c_str(),
                                                SSL_FILETYPE_PEM));
      EXPECT_EQ(1, SSL_CTX_use_PrivateKey_file(context_.get(), (certificate + ".key").c_str(),
                                               SSL_FILETYPE_PEM));
    }
    ssl_.reset(SSL_new(context_.get()));
    fcntl(raw.fd(), F_SETFL, O_NONBLOCK);
    SSL_set_fd(ssl_.get(), raw.fd());
  }

  bool connect() {
    return repeat([this] { return SSL_connect(ssl_.get()); }) == 1;
  }
  void send(const std::string& bytes) {
    EXPECT_LT(0, repeat([&] {
                return SSL_write(ssl_.get(), bytes.data(), static_cast<int>(bytes.size()));
              }));
  }
  // Everything until the end of the connection.
  std::string untilEnd() {
    std::string all;
    char buffer[4096];
    int count = 0;
    while ((count = repeat([&] { return SSL_read(ssl_.get(), buffer, sizeof buffer); })) > 0) {
      all.append(buffer, static_cast<std::size_t>(count));
    }
    closedCleanly = SSL_get_error(ssl_.get(), count) == SSL_ERROR_ZERO_RETURN;
    return all;
  }
  [[nodiscard]] std::string peerName() const {
    const std::unique_ptr<X509, decltype(&X509_free)> peer(SSL_get1_peer_certificate(ssl_.get()),
                                                           &X509_free);
    char name[100] = {};
    X509_NAME_get_text_by_NID(X509_get_subject_name(peer.get()), NID_commonName, name, sizeof name);
    return name;
  }
  [[nodiscard]] std::string version() const { return SSL_get_version(ssl_.get()); }

  bool closedCleanly = false;

 private:
  int repeat(const std::function<int()>& call) {
    int result = 0;
    pump_([&] {
      ERR_clear_error();
      result = call();
      const int error = SSL_get_error(ssl_.get(), result);
      return error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE;
    });
    return result;
  }

  Pump pump_;
  std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context_;
  struct FreeSsl {
    void operator()(SSL* ssl) const { SSL_free(ssl); }
  };
  std::unique_ptr<SSL, FreeSsl> ssl_;
};

const char kCloseAfterThis[] = "GET /a HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n";

#define PUMP [this](const std::function<bool()>& pending) { return pump(pending); }

TEST_F(TlsTest, AnswersOverTls) {
  start(secure());
  RawClient raw = client();
  TlsClient one(raw, PUMP);
  ASSERT_TRUE(one.connect());
  EXPECT_EQ("TLSv1.3", one.version());
  EXPECT_EQ("localhost", one.peerName());
  one.send(kCloseAfterThis);
  const std::string answer = one.untilEnd();
  EXPECT_EQ("GET /a", bodyOf(answer));
  EXPECT_EQ("max-age=31536000", headerOf(answer, "Strict-Transport-Security"));
  EXPECT_TRUE(one.closedCleanly);
}

TEST_F(TlsTest, SpeaksVersion12ButNotVersion11) {
  start(secure());
  RawClient first = client();
  TlsClient one(first, PUMP, "", TLS1_2_VERSION);
  EXPECT_TRUE(one.connect());
  RawClient second = client();
  TlsClient two(second, PUMP, "", TLS1_1_VERSION);
  EXPECT_FALSE(two.connect());
}

TEST_F(TlsTest, LargeAnswersAndBodiesArriveWhole) {
  HttpSettings settings = secure();
  settings.defaultBodyBytes = 10000000;
  start(settings, [](const std::shared_ptr<HttpExchange>& exchange) {
    exchange->respond(textResponse(200, exchange->request().body + exchange->request().body));
  });
  RawClient raw = client();
  TlsClient one(raw, PUMP);
  ASSERT_TRUE(one.connect());
  std::string body;
  for (int i = 0; body.size() < 3000000; ++i) {
    body += std::to_string(i) + ' ';
  }
  one.send("POST / HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\n\r\n");
  one.send(body);
  EXPECT_TRUE(bodyOf(one.untilEnd()) == body + body);
}

TEST_F(TlsTest, NamesAVerifiedClient) {
  start(secure(ClientCertificates::optional), keep());
  RawClient raw = client();
  TlsClient one(raw, PUMP, certificates().file("client"));
  ASSERT_TRUE(one.connect());
  one.send(kCloseAfterThis);
  ASSERT_TRUE(pump([&] { return exchanges.empty(); }));
  EXPECT_EQ("alice", exchanges[0]->request().clientCertificate);
  EXPECT_TRUE(exchanges[0]->request().tls);
}

TEST_F(TlsTest, AClientWithTwoNamesHasNone) {
  start(secure(ClientCertificates::optional), keep());
  RawClient raw = client();
  TlsClient one(raw, PUMP, certificates().file("two"));
  ASSERT_TRUE(one.connect());
  one.send(kCloseAfterThis);
  ASSERT_TRUE(pump([&] { return exchanges.empty(); }));
  EXPECT_EQ("", exchanges[0]->request().clientCertificate);
}

TEST_F(TlsTest, ClientCertificatesAreOptionalOrRequired) {
  start(secure(ClientCertificates::optional), keep());
  RawClient raw = client();
  TlsClient one(raw, PUMP);
  ASSERT_TRUE(one.connect());
  one.send(kCloseAfterThis);
  ASSERT_TRUE(pump([&] { return exchanges.empty(); }));
  EXPECT_EQ("", exchanges[0]->request().clientCertificate);
  exchanges.clear();

  start(secure(ClientCertificates::required), keep());
  RawClient again = client();
  TlsClient two(again, PUMP);
  if (two.connect()) {  // in version 1.3 a client learns of the refusal later
    two.send(kCloseAfterThis);
  }
  EXPECT_EQ("", two.untilEnd());
  EXPECT_TRUE(exchanges.empty());
}

TEST_F(TlsTest, RefusesClientsOfAnotherAuthority) {
  start(secure(ClientCertificates::optional), keep());
  RawClient raw = client();
  TlsClient one(raw, PUMP, certificates().file("foreign"));
  if (one.connect()) {
    one.send(kCloseAfterThis);
  }
  EXPECT_EQ("", one.untilEnd());
  EXPECT_TRUE(exchanges.empty());
}

TEST_F(TlsTest, ReloadsCertificatesAndKeepsTheOldOnesAfterAnError) {
  const HttpSettings settings = secure();
  zell::test::TempDir directory;
  HttpSettings copied = settings;
  copied.certificateFile = directory.write("c", zell::test::contentOf(settings.certificateFile));
  copied.keyFile = directory.write("k", zell::test::contentOf(settings.keyFile));
  start(copied);
  const auto nameNow = [&] {
    RawClient raw = client();
    TlsClient one(raw, PUMP);
    EXPECT_TRUE(one.connect());
    return one.peerName();
  };
  RawClient raw = client();
  TlsClient old(raw, PUMP);
  ASSERT_TRUE(old.connect());
  EXPECT_EQ("localhost", nameNow());
  directory.write("c", zell::test::contentOf(certificates().file("second.pem")));
  const auto mismatch = server().reloadCertificates();
  ASSERT_FALSE(mismatch.ok());
  EXPECT_THAT(mismatch.error().text(),
              StartsWith("the private key " + copied.keyFile + " cannot be used: "));
  EXPECT_EQ("localhost", nameNow());
  directory.write("k", zell::test::contentOf(certificates().file("second.key")));
  EXPECT_TRUE(server().reloadCertificates().ok());
  EXPECT_EQ("second.example", nameNow());
  old.send(kCloseAfterThis);
  EXPECT_EQ("GET /a", bodyOf(old.untilEnd()));
}

TEST_F(TlsTest, ErrorsOfFilesNameThem) {
  const auto errorOf = [&](const HttpSettings& settings) {
    HttpServer refused(context(), settings, keep());
    const auto opened = refused.open();
    return opened.ok() ? std::string() : opened.error().text();
  };
  HttpSettings settings = secure();
  settings.certificateFile = "/nonexistent";
  EXPECT_THAT(errorOf(settings), StartsWith("the certificate /nonexistent cannot be used: "));
  settings = secure();
  settings.keyFile = certificates().file("ca.pem");
  EXPECT_THAT(errorOf(settings), StartsWith("the private key "));
  settings = secure(ClientCertificates::required);
  settings.clientAuthorityFile = "/nonexistent";
  EXPECT_THAT(
      errorOf(settings),
      StartsWith("the certificate of the clients' authority /nonexistent cannot be used: "));
}

TEST_F(TlsTest, AClientWithoutTlsIsDropped) {
  start(secure());
  EXPECT_THAT(answerTo("GET / HTTP/1.1\r\nHost: localhost\r\n\r\n"),
              testing::Not(HasSubstr("HTTP")));
  EXPECT_EQ(0U, server().state().requests);
}

TEST_F(TlsTest, TheTimeForTheHandshakeIsLimited) {
  HttpSettings settings = secure();
  settings.headerTimeout = std::chrono::milliseconds(100);
  start(settings);
  RawClient silent = client();
  EXPECT_EQ("", silent.untilEnd());
}

TEST_F(TlsTest, StopsAndIsDestroyedWithOpenConnections) {
  start(secure());
  RawClient raw = client();
  TlsClient one(raw, PUMP);
  ASSERT_TRUE(one.connect());
  settle();  // the server has the end of the handshake
  bool stopped = false;
  stopServer([&] { stopped = true; });
  EXPECT_EQ("", one.untilEnd());
  EXPECT_TRUE(one.closedCleanly);
  raw.close();
  EXPECT_TRUE(pump([&] { return !stopped; }));
  start(secure());
  RawClient second = client();
  TlsClient two(second, PUMP);
  ASSERT_TRUE(two.connect());
  destroyServer();
  EXPECT_EQ("", two.untilEnd());
}

TEST_F(TlsTest, EncryptsWebSocketsAndNamesTheirOrigin) {
  struct Echo : public WebSocketHandler {
    void opened(std::shared_ptr<WebSocket> one) override { socket = std::move(one); }
    void message(std::string bytes, bool) override {
      socket->sendText(bytes + bytes);
      socket->close(kCloseNormal, "");
    }
    void sent() override {}
    void closed(const std::string&) override {}
    std::shared_ptr<WebSocket> socket;
  };
  start(secure(), [](const std::shared_ptr<HttpExchange>& exchange) {
    exchange->upgrade(std::make_shared<Echo>(), "");
  });
  RawClient raw = client();
  TlsClient one(raw, PUMP);
  ASSERT_TRUE(one.connect());
  one.send(
      "GET / HTTP/1.1\r\nHost: localhost\r\nConnection: Upgrade\r\nUpgrade: websocket\r\n"
      "Origin: https://localhost\r\nSec-WebSocket-Version: 13\r\n"
      "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n");
  one.send(std::string("\x81\x82\0\0\0\0ab", 8));
  one.send(std::string("\x88\x82\0\0\0\0\x03\xe8", 8));
  const std::string all = one.untilEnd();
  EXPECT_THAT(all, StartsWith("HTTP/1.1 101 Switching Protocols\r\n"));
  EXPECT_THAT(all, HasSubstr("Strict-Transport-Security: max-age=31536000\r\n"));
  EXPECT_THAT(all, HasSubstr("\r\n\r\n\x81\x04"
                             "abab"));
}

}  // namespace
}  // namespace runelgw::test
