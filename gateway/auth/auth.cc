// SPDX-License-Identifier: Apache-2.0
#include "gateway/auth/auth.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>

#include <strings.h>

namespace runelgw {
namespace {

// The last use of a token is only a hint. Do not write more often.
constexpr std::int64_t kUseInterval = 600LL * 1000;

runel::Error conflict(std::string text) {
  return {runel::Kind::local, runel::Cause::other, std::move(text), EEXIST};
}

// The token of "Bearer TOKEN"; empty for anything else.
std::string bearerOf(const std::string& authorization) {
  constexpr std::size_t kScheme = 7;
  if (authorization.size() <= kScheme ||
      strncasecmp(authorization.c_str(), "Bearer ", kScheme) != 0) {
    return "";
  }
  const std::size_t begin = authorization.find_first_not_of(' ', kScheme);
  return begin == std::string::npos ? "" : authorization.substr(begin);
}

Identity identityOf(const TokenRecord& record, Way way, std::string sessionHash) {
  Identity identity;
  identity.token = record.id;
  identity.name = record.name;
  identity.role = roleOf(record);
  identity.groups = record.groups;
  identity.kinds = kindsOf(record);
  identity.kindsLimited = !(identity.kinds == KindSet::of(identity.role));
  identity.way = way;
  identity.sessionHash = std::move(sessionHash);
  return identity;
}

}  // namespace

AuthClocks systemClocks() {
  return {[] {
            return std::chrono::duration_cast<std::chrono::milliseconds>(
                       std::chrono::system_clock::now().time_since_epoch())
                .count();
          },
          [] { return runel::Clock::now(); }};
}

std::string Identity::label() const {
  return (way == Way::certificate ? "certificate " : "token ") + name;
}

const char* sessionCookieName(bool tls) {
  return tls ? "__Host-runelgw" : "runelgw";
}

std::string sessionCookie(const std::string& secret, bool tls) {
  std::string value = std::string(sessionCookieName(tls)) + "=" + secret;
  value += "; Path=/; HttpOnly; SameSite=Strict";
  if (secret.empty()) {
    value += "; Max-Age=0";
  }
  return tls ? value + "; Secure" : value;
}

Auth::Auth(AuthSettings settings, Store& store, AuthClocks clocks)
    : settings_(settings),
      store_(store),
      clocks_(std::move(clocks)),
      failures_(settings.failureRate),
      alive_(std::make_shared<bool>(true)) {}

void Auth::load(std::vector<TokenRecord> tokens, std::uint64_t nextToken) {
  next_ = nextToken;
  for (TokenRecord& token : tokens) {
    next_ = std::max(next_, token.id + 1);
    insert(std::move(token));
  }
}

void Auth::insert(TokenRecord record) {
  byHash_[record.hash] = record.id;
  Entry& entry = entries_[record.id];
  entry.savedUse = record.lastUsed;
  entry.record = std::move(record);
}

const Auth::Entry* Auth::entryOf(const std::string& hash) const {
  const auto found = byHash_.find(hash);
  if (found == byHash_.end()) {
    return nullptr;
  }
  const auto entry = entries_.find(found->second);
  return entry == entries_.end() ? nullptr : &entry->second;
}

Auth::Entry* Auth::entryOf(const std::string& hash) {
  return const_cast<Entry*>(std::as_const(*this).entryOf(hash));
}

Auth::Answer Auth::authenticate(const Credentials& credentials) {
  if (!credentials.authorization.empty()) {
    return byHeader(credentials);
  }
  if (!credentials.session.empty()) {
    return bySession(credentials);
  }
  if (!credentials.certificate.empty()) {
    return byCertificate(credentials);
  }
  return fail(credentials.peer, "the request has no token");
}

Auth::Answer Auth::byHeader(const Credentials& credentials) {
  const std::string secret = bearerOf(credentials.authorization);
  Entry* const entry = looksLikeToken(secret) ? entryOf(hashOf(secret)) : nullptr;
  if (entry == nullptr) {
    return fail(credentials.peer, "the token is not valid");
  }
  if (!isUsable(entry->record, clocks_.wall())) {
    return fail(credentials.peer, "the token was revoked or has expired");
  }
  return admit(*entry, Way::token, "");
}

Auth::Answer Auth::bySession(const Credentials& credentials) {
  const std::string hash = hashOf(credentials.session);
  const auto found = sessions_.find(hash);
  if (found == sessions_.end()) {
    return fail(credentials.peer, "the session has ended");
  }
  const auto entry = entries_.find(found->second.token);
  if (entry == entries_.end() || !isUsable(entry->second.record, clocks_.wall()) ||
      !isAlive(found->second)) {
    sessions_.erase(found);
    return fail(credentials.peer, "the session has ended");
  }
  found->second.used = clocks_.steady();
  return admit(entry->second, Way::session, hash);
}

Auth::Answer Auth::byCertificate(const Credentials& credentials) {
  Entry* const entry = entryOf(certificateHash(credentials.certificate));
  if (entry == nullptr || !isUsable(entry->record, clocks_.wall())) {
    return fail(credentials.peer, "there is no token for the name in the certificate");
  }
  return admit(*entry, Way::certificate, "");
}

Auth::Answer Auth::admit(Entry& entry, Way way, std::string sessionHash) {
  if (!entry.bucket.take(settings_.tokenRate, clocks_.steady())) {
    AuthRefusal refusal;
    refusal.status = 429;
    refusal.text = "too many requests with this token";
    refusal.retryAfter = entry.bucket.secondsLeft(settings_.tokenRate);
    refusal.name = entry.record.name;
    return refusal;
  }
  noteUse(entry);
  return identityOf(entry.record, way, std::move(sessionHash));
}

// A valid token is accepted from any address: the clients behind one proxy share its address, and
// 256 bits cannot be guessed. The limit bounds the work and the log entries for failures.
AuthRefusal Auth::fail(const std::string& peer, std::string text) {
  AuthRefusal refusal;
  refusal.text = std::move(text);
  if (!failures_.take(peer, clocks_.steady())) {
    refusal.status = 429;
    refusal.text = "too many failed attempts from this address";
    refusal.retryAfter = failures_.secondsLeft(peer);
  }
  return refusal;
}

void Auth::noteUse(Entry& entry) {
  const std::int64_t now = clocks_.wall();
  entry.record.lastUsed = now;
  if (now - entry.savedUse < kUseInterval && now >= entry.savedUse) {
    return;
  }
  entry.savedUse = now;
  store_.write({Save<TokenRecord>{entry.record}}, [](const std::optional<std::string>&) {});
}

std::variant<std::string, AuthRefusal> Auth::login(const std::string& secret,
                                                   const std::string& peer) {
  Entry* const entry = looksLikeToken(secret) ? entryOf(hashOf(secret)) : nullptr;
  if (entry == nullptr || !isUsable(entry->record, clocks_.wall())) {
    return fail(peer, "the token is not valid");
  }
  Answer answer = admit(*entry, Way::token, "");
  if (const auto* const refusal = std::get_if<AuthRefusal>(&answer)) {
    return *refusal;
  }
  runel::Result<std::string> session = randomSecret();
  if (!session) {
    return AuthRefusal{503, session.error().text(), 1, entry->record.name};
  }
  makeRoom(entry->record.id);
  const runel::Clock::time_point now = clocks_.steady();
  sessions_[hashOf(*session)] = Session{entry->record.id, now, now};
  return *session;
}

void Auth::logout(const Identity& identity) {
  sessions_.erase(identity.sessionHash);
}

bool Auth::isAlive(const Session& session) const {
  const runel::Clock::time_point now = clocks_.steady();
  return now - session.started < settings_.sessionLife &&
         now - session.used < settings_.sessionIdle;
}

// A token at its limit loses the session that was unused for the longest time, and so does the
// whole.
void Auth::makeRoom(std::uint64_t token) {
  std::size_t own = 0;
  auto oldest = sessions_.end();
  auto oldestOwn = sessions_.end();
  for (auto session = sessions_.begin(); session != sessions_.end();) {
    if (!isAlive(session->second)) {
      session = sessions_.erase(session);
      continue;
    }
    if (oldest == sessions_.end() || session->second.used < oldest->second.used) {
      oldest = session;
    }
    if (session->second.token == token) {
      ++own;
      if (oldestOwn == sessions_.end() || session->second.used < oldestOwn->second.used) {
        oldestOwn = session;
      }
    }
    ++session;
  }
  if (own >= settings_.maxSessionsOfToken) {
    sessions_.erase(oldestOwn);
  } else if (sessions_.size() >= settings_.maxSessions) {
    sessions_.erase(oldest);
  }
}

void Auth::endSessionsOf(std::uint64_t token) {
  for (auto session = sessions_.begin(); session != sessions_.end();) {
    session = session->second.token == token ? sessions_.erase(session) : std::next(session);
  }
}

bool Auth::knows(const Credentials& credentials) const {
  if (!credentials.authorization.empty()) {
    const std::string secret = bearerOf(credentials.authorization);
    const Entry* const entry = looksLikeToken(secret) ? entryOf(hashOf(secret)) : nullptr;
    return entry != nullptr && isUsable(entry->record, clocks_.wall());
  }
  if (!credentials.session.empty()) {
    return peek(credentials.session).has_value();
  }
  const Entry* const entry =
      credentials.certificate.empty() ? nullptr : entryOf(certificateHash(credentials.certificate));
  return entry != nullptr && isUsable(entry->record, clocks_.wall());
}

std::optional<Identity> Auth::peek(const std::string& secret) const {
  const std::string hash = hashOf(secret);
  const auto session = sessions_.find(hash);
  if (session == sessions_.end() || !isAlive(session->second)) {
    return std::nullopt;
  }
  const auto entry = entries_.find(session->second.token);
  if (entry == entries_.end() || !isUsable(entry->second.record, clocks_.wall())) {
    return std::nullopt;
  }
  return identityOf(entry->second.record, Way::session, hash);
}

bool Auth::isValid(const Identity& identity) const {
  return refresh(identity).has_value();
}

std::optional<Identity> Auth::refresh(const Identity& identity) const {
  const auto entry = entries_.find(identity.token);
  if (entry == entries_.end() || !isUsable(entry->second.record, clocks_.wall())) {
    return std::nullopt;
  }
  if (identity.way == Way::session) {
    const auto session = sessions_.find(identity.sessionHash);
    // Continuous work keeps a session alive up to its absolute limit.
    if (session == sessions_.end() ||
        clocks_.steady() - session->second.started >= settings_.sessionLife) {
      return std::nullopt;
    }
  }
  return identityOf(entry->second.record, identity.way, identity.sessionHash);
}

std::optional<std::string> Auth::conflictOf(const TokenWish& wish) const {
  if (entries_.size() >= settings_.maxTokens) {
    return "there are too many tokens; revoked ones are removed after a while";
  }
  const std::int64_t now = clocks_.wall();
  for (const auto& [id, entry] : entries_) {
    if (!isUsable(entry.record, now)) {
      continue;
    }
    if (entry.record.name == wish.name) {
      return "a token with this name exists";
    }
    if (!wish.certificate.empty() && certificateOf(entry.record) == wish.certificate) {
      return "a token for this certificate exists";
    }
  }
  return std::nullopt;
}

void Auth::create(const TokenWish& wish, Created created) {
  runel::Result<NewToken> token = makeToken(wish, next_, clocks_.wall());
  if (!token) {
    created(token.error());
    return;
  }
  if (std::optional<std::string> problem = conflictOf(wish)) {
    created(conflict(std::move(*problem)));
    return;
  }
  ++next_;
  // It counts before it is stored, so that a second request for the same name finds it. Its secret
  // is not known to any client before that.
  insert(token->record);
  std::vector<Change> changes = {Save<TokenRecord>{token->record}};
  store_.write(std::move(changes),
               [this, alive = std::weak_ptr<bool>(alive_), token = std::move(*token),
                created = std::move(created)](const std::optional<std::string>& error) {
                 if (!error) {
                   created(token);
                   return;
                 }
                 if (!alive.expired()) {
                   byHash_.erase(token.record.hash);
                   entries_.erase(token.record.id);
                 }
                 created(runel::Error(runel::Kind::local, runel::Cause::other, *error, EIO));
               });
}

bool Auth::revoke(std::uint64_t id, Store::Done done) {
  const auto found = entries_.find(id);
  if (found == entries_.end()) {
    return false;
  }
  if (found->second.record.revoked == 0) {
    found->second.record.revoked = std::max<std::int64_t>(clocks_.wall(), 1);
  }
  endSessionsOf(id);
  store_.write({Save<TokenRecord>{found->second.record}}, std::move(done));
  return true;
}

const TokenRecord* Auth::find(std::uint64_t id) const {
  const auto found = entries_.find(id);
  return found == entries_.end() ? nullptr : &found->second.record;
}

std::vector<const TokenRecord*> Auth::tokens() const {
  std::vector<const TokenRecord*> tokens;
  tokens.reserve(entries_.size());
  for (const auto& [id, entry] : entries_) {
    tokens.push_back(&entry.record);
  }
  return tokens;
}

void Auth::forgetOlder(std::int64_t time) {
  std::vector<Change> changes;
  for (auto entry = entries_.begin(); entry != entries_.end();) {
    const TokenRecord& record = entry->second.record;
    const bool old = record.expires < time || (record.revoked != 0 && record.revoked < time);
    if (!old) {
      ++entry;
      continue;
    }
    changes.emplace_back(RemoveToken{record.id});
    const auto hash = byHash_.find(record.hash);
    if (hash != byHash_.end() && hash->second == record.id) {
      byHash_.erase(hash);
    }
    endSessionsOf(record.id);
    entry = entries_.erase(entry);
  }
  if (!changes.empty()) {
    store_.write(std::move(changes), [](const std::optional<std::string>&) {});
  }
}

}  // namespace runelgw
