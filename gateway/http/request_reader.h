// SPDX-License-Identifier: Apache-2.0
// The bytes of a connection become requests. No I/O.
#ifndef RUNELGW_HTTP_REQUEST_READER_H_
#define RUNELGW_HTTP_REQUEST_READER_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "gateway/http/chunked_body.h"
#include "gateway/http/http.h"
#include "gateway/http/refusal.h"

namespace runelgw {

/// Reads one request after the other. After a refusal it reads no more: where the next request
/// begins is unknown.
class RequestReader {
 public:
  enum class State {
    head,      ///< the header is not complete
    headRead,  ///< the header is complete: call readBody()
    body,      ///< the body is not complete
    complete,  ///< the request is complete: call next()
    refused,
  };

  explicit RequestReader(std::size_t maxHeaderBytes);
  RequestReader(const RequestReader&) = delete;
  RequestReader& operator=(const RequestReader&) = delete;

  [[nodiscard]] State state() const { return state_; }
  /// Takes the bytes of the current request from the front of @p input, until its state is
  /// headRead, complete or refused, or until @p input has no more of it.
  State read(std::string& input);
  /// In the state headRead: reads a body of at most @p limit bytes.
  State readBody(std::size_t limit);
  /// In the state complete: begins the next request.
  void next();

  /// The request. Its body is complete in the state complete; the caller fills in what it knows of
  /// the connection.
  [[nodiscard]] HttpRequest& request() { return request_; }
  [[nodiscard]] const HttpRefusal& refusal() const { return refusal_; }
  /// Whether the connection may be used for another request.
  [[nodiscard]] bool keepAlive() const { return keepAlive_; }
  [[nodiscard]] bool http11() const { return http11_; }
  /// Whether the client waits for the interim answer 100 before it sends the body.
  [[nodiscard]] bool expectsContinue() const { return expectsContinue_; }
  /// The received bytes of the body.
  [[nodiscard]] std::size_t bodyBytes() const { return request_.body.size(); }

 private:
  State refuse(HttpRefusal refusal);
  State readHead(std::string& input);
  State takeHead(std::string& input, std::size_t size);
  State readExpectation();
  State takeBody(std::string& input);

  const std::size_t maxHeaderBytes_;
  State state_ = State::head;
  std::size_t searched_ = 0;  // bytes of the input without the end of a header
  bool hasBody_ = false;
  std::size_t missing_ = 0;             // of a body with a length
  std::optional<ChunkedBody> chunked_;  // a body in chunks
  HttpRequest request_;
  HttpRefusal refusal_;
  bool http11_ = true;
  bool keepAlive_ = false;
  bool expectsContinue_ = false;
};

}  // namespace runelgw

#endif  // RUNELGW_HTTP_REQUEST_READER_H_
