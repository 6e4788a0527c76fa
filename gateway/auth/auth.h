// SPDX-License-Identifier: Apache-2.0
// Who a client is: tokens, sessions of browsers, certificates, and limits of rates.
//
// Secrets are compared by their hashes, and only hashes are kept. No text that this part returns
// contains a secret, apart from the ones that make one.
#ifndef RUNELGW_AUTH_AUTH_H_
#define RUNELGW_AUTH_AUTH_H_

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <variant>
#include <vector>

#include <runel/loop.h>

#include "gateway/auth/rate_limit.h"
#include "gateway/auth/role.h"
#include "gateway/auth/token.h"
#include "gateway/store/store.h"

namespace runelgw {

/// The two clocks. Expiry is wall time; idle times and rates use the clock that never jumps.
struct AuthClocks {
  std::function<std::int64_t()> wall;  ///< milliseconds since 1970
  std::function<runel::Clock::time_point()> steady;
};

/// The clocks of the system.
[[nodiscard]] AuthClocks systemClocks();

struct AuthSettings {
  Rate tokenRate{50, 200};    ///< of the requests of one token
  Rate failureRate{0.2, 10};  ///< of the failed attempts of one address
  runel::Milliseconds sessionIdle = std::chrono::hours(1);
  runel::Milliseconds sessionLife = std::chrono::hours(12);
  std::size_t maxSessions = 1000;
  std::size_t maxSessionsOfToken = 20;
  std::size_t maxTokens = 10000;
};

/// What a client shows of itself.
struct Credentials {
  std::string authorization;  ///< the Authorization header, or empty
  std::string session;        ///< the value of the session cookie, or empty
  std::string certificate;    ///< the name in a verified certificate, or empty
  std::string peer;           ///< the numeric address
};

/// How a client has shown who it is.
enum class Way { token, session, certificate };

/// A client that is known. A copy of its rights at one moment.
struct Identity {
  std::uint64_t token = 0;
  std::string name;  ///< of the token
  Role role = Role::viewer;
  std::vector<std::string> groups;  ///< empty: all devices
  KindSet kinds;
  bool kindsLimited = false;  ///< to fewer than the role has
  Way way = Way::token;
  std::string sessionHash;  ///< of a session; not secret

  /// Whether neither groups nor kinds limit it: it may change what limits others.
  [[nodiscard]] bool unlimited() const { return groups.empty() && !kindsLimited; }
  /// "token ci", or "certificate ci". Without a character that a log would have to escape.
  [[nodiscard]] std::string label() const;
};

/// Why a client is refused: 401 or 429.
struct AuthRefusal {
  unsigned status = 401;
  std::string text;     ///< one sentence, without anything that the client sent
  long retryAfter = 0;  ///< seconds, for 429
  std::string name;     ///< of the token, if it is known
};

/// The name of the session cookie. Browsers accept the name of the first only with Secure, for all
/// paths and from this host alone.
[[nodiscard]] const char* sessionCookieName(bool tls);
/// The Set-Cookie value for the session @p secret; an empty one removes the cookie.
[[nodiscard]] std::string sessionCookie(const std::string& secret, bool tls);

/// The tokens and sessions of a gateway. Lives on the I/O thread.
class Auth {
 public:
  using Answer = std::variant<Identity, AuthRefusal>;
  /// The new token, or one sentence why it was not made.
  using Created = std::function<void(runel::Result<NewToken>)>;

  /// @p store must outlive it.
  Auth(AuthSettings settings, Store& store, AuthClocks clocks = systemClocks());
  ~Auth() = default;
  Auth(const Auth&) = delete;
  Auth& operator=(const Auth&) = delete;

  /// Takes the tokens of the database, and the first identifier that no token ever had.
  void load(std::vector<TokenRecord> tokens, std::uint64_t nextToken);

  /// Who the client is. Counts the request against the rate of its token. A refused header is never
  /// outweighed by a cookie or a certificate.
  [[nodiscard]] Answer authenticate(const Credentials& credentials);

  /// The secret of a new session for a client that shows the token @p secret.
  [[nodiscard]] std::variant<std::string, AuthRefusal> login(const std::string& secret,
                                                             const std::string& peer);
  /// Ends the session of @p identity, if it came by one.
  void logout(const Identity& identity);

  /// Whether @p credentials would be accepted now, apart from rates. Counts nothing.
  [[nodiscard]] bool knows(const Credentials& credentials) const;
  /// Who has the session @p secret. Counts nothing.
  [[nodiscard]] std::optional<Identity> peek(const std::string& secret) const;

  /// Whether @p identity would still be accepted. Does not count as a request.
  [[nodiscard]] bool isValid(const Identity& identity) const;
  /// The same client with its rights as they are now.
  [[nodiscard]] std::optional<Identity> refresh(const Identity& identity) const;

  /// Makes and saves a token. @p created is called later, when it is safely stored.
  void create(const TokenWish& wish, Created created);
  /// Revokes the token @p id: at once here, and its sessions end. @p done is called later, with an
  /// error if the database does not know it yet. Returns false if there is no such token.
  [[nodiscard]] bool revoke(std::uint64_t id, Store::Done done);

  /// The token @p id; null without it.
  [[nodiscard]] const TokenRecord* find(std::uint64_t id) const;
  /// All tokens, revoked and expired ones too, by their identifiers.
  [[nodiscard]] std::vector<const TokenRecord*> tokens() const;
  /// Removes tokens that were revoked or have expired before @p time.
  void forgetOlder(std::int64_t time);
  [[nodiscard]] std::size_t sessions() const { return sessions_.size(); }

 private:
  struct Entry {
    TokenRecord record;
    TokenBucket bucket;
    std::int64_t savedUse = 0;
  };
  struct Session {
    std::uint64_t token = 0;
    runel::Clock::time_point started;
    runel::Clock::time_point used;
  };

  Answer admit(Entry& entry, Way way, std::string sessionHash);
  Answer byHeader(const Credentials& credentials);
  Answer bySession(const Credentials& credentials);
  Answer byCertificate(const Credentials& credentials);
  AuthRefusal fail(const std::string& peer, std::string text);
  [[nodiscard]] const Entry* entryOf(const std::string& hash) const;
  Entry* entryOf(const std::string& hash);
  void noteUse(Entry& entry);
  void insert(TokenRecord record);
  [[nodiscard]] bool isAlive(const Session& session) const;
  void endSessionsOf(std::uint64_t token);
  void makeRoom(std::uint64_t token);
  [[nodiscard]] std::optional<std::string> conflictOf(const TokenWish& wish) const;

  AuthSettings settings_;
  Store& store_;
  AuthClocks clocks_;
  std::uint64_t next_ = 1;
  std::map<std::uint64_t, Entry> entries_;
  std::unordered_map<std::string, std::uint64_t> byHash_;
  std::unordered_map<std::string, Session> sessions_;  // by the hash of their secret
  AddressLimit failures_;
  std::shared_ptr<bool> alive_;
};

}  // namespace runelgw

#endif  // RUNELGW_AUTH_AUTH_H_
