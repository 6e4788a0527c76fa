// SPDX-License-Identifier: Apache-2.0
#include "gateway/http/request_reader.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <utility>

#include <boost/asio/buffer.hpp>
#include <boost/beast/http/basic_parser.hpp>

#include "gateway/http/head_check.h"
#include "gateway/http/target.h"

namespace runelgw {
namespace http = boost::beast::http;
using boost::beast::string_view;
using boost::system::error_code;
namespace {

constexpr std::string_view kHeadEnd = "\r\n\r\n";

std::string inLowerCase(string_view text) {
  std::string lower(text.data(), text.size());
  for (char& byte : lower) {
    if (byte >= 'A' && byte <= 'Z') {
      byte = static_cast<char>(byte - 'A' + 'a');
    }
  }
  return lower;
}

// Fills a request with a header that has passed refusalOfHead(). The parser is given no body: it
// trusts the sizes of chunks too much.
class HeadParser : public http::basic_parser<true> {
 public:
  HeadParser(HttpRequest& request, std::size_t maxHeaderBytes) : request_(request) {
    header_limit(static_cast<std::uint32_t>(maxHeaderBytes));
    body_limit(std::numeric_limits<std::uint64_t>::max());
  }

  [[nodiscard]] bool http11() const { return http11_; }

 private:
  void on_request_impl(http::verb, string_view method, string_view target, int version,
                       error_code&) override {
    http11_ = version == 11;
    request_.method.assign(method.data(), method.size());
    request_.target.assign(target.data(), target.size());
  }
  void on_response_impl(int, string_view, int, error_code&) override {}
  void on_field_impl(http::field, string_view name, string_view value, error_code&) override {
    request_.headers.emplace_back(inLowerCase(name), std::string(value.data(), value.size()));
  }
  void on_header_impl(error_code&) override {}
  void on_body_init_impl(const boost::optional<std::uint64_t>&, error_code&) override {}
  std::size_t on_body_impl(string_view, error_code&) override { return 0; }
  void on_chunk_header_impl(std::uint64_t, string_view, error_code&) override {}
  std::size_t on_chunk_body_impl(std::uint64_t, string_view, error_code&) override { return 0; }
  void on_finish_impl(error_code&) override {}

  HttpRequest& request_;
  bool http11_ = true;
};

}  // namespace

RequestReader::RequestReader(std::size_t maxHeaderBytes) : maxHeaderBytes_(maxHeaderBytes) {}

RequestReader::State RequestReader::refuse(HttpRefusal refusal) {
  refusal_ = std::move(refusal);
  keepAlive_ = false;
  return state_ = State::refused;
}

RequestReader::State RequestReader::read(std::string& input) {
  if (state_ == State::head) {
    return readHead(input);
  }
  return state_ == State::body ? takeBody(input) : state_;
}

RequestReader::State RequestReader::readHead(std::string& input) {
  if (!mayBeginRequest(input)) {
    return refuse({400, "This is not a request of HTTP/1.1."});
  }
  const std::size_t from = searched_ < kHeadEnd.size() ? 0 : searched_ - kHeadEnd.size() + 1;
  const std::size_t end = input.find(kHeadEnd, from);
  const std::size_t size = end == std::string::npos ? input.size() : end + kHeadEnd.size();
  if (size > maxHeaderBytes_) {
    return refuse({431, "The header is too long."});
  }
  searched_ = size;
  return end == std::string::npos ? state_ : takeHead(input, size);
}

RequestReader::State RequestReader::takeHead(std::string& input, std::size_t size) {
  const auto head = std::string_view(input).substr(0, size);
  if (auto refusal = refusalOfHead(head)) {
    return refuse(*std::move(refusal));
  }
  HeadParser parser(request_, maxHeaderBytes_);
  error_code error;
  const std::size_t used = parser.put(boost::asio::buffer(head.data(), head.size()), error);
  if (error || used != size || !parser.is_header_done()) {
    return refuse({400, "The header is malformed."});
  }
  input.erase(0, size);
  searched_ = 0;
  request_.host = *request_.header("host");
  http11_ = parser.http11();
  keepAlive_ = parser.keep_alive();
  if (request_.target != "*") {
    if (auto refusal = decodeTarget(request_)) {
      return refuse(*std::move(refusal));
    }
  }
  state_ = State::headRead;
  hasBody_ = !parser.is_done();
  return readExpectation();
}

RequestReader::State RequestReader::readExpectation() {
  const std::string* expectation = request_.header("expect");
  if (expectation && !equalIgnoringCase(*expectation, "100-continue")) {
    return refuse({417, "The only expectation that is understood is \"100-continue\"."});
  }
  expectsContinue_ = expectation && hasBody_;
  return state_;
}

RequestReader::State RequestReader::readBody(std::size_t limit) {
  if (!hasBody_) {
    return state_ = State::complete;
  }
  if (const std::string* length = request_.header("content-length")) {
    std::uint64_t bytes = 0;  // refusalOfHead() has checked that it fits
    std::from_chars(length->data(), length->data() + length->size(), bytes);
    if (bytes > limit) {
      return refuse({413, "The body is too long."});
    }
    missing_ = static_cast<std::size_t>(bytes);
  } else {
    chunked_.emplace(limit);
  }
  return state_ = State::body;
}

RequestReader::State RequestReader::takeBody(std::string& input) {
  if (!chunked_) {
    const std::size_t count = std::min(missing_, input.size());
    request_.body.append(input, 0, count);
    input.erase(0, count);
    missing_ -= count;
    return state_ = missing_ == 0 ? State::complete : State::body;
  }
  std::string_view rest = input;
  const ChunkedBody::State state = chunked_->read(rest, request_.body);
  input.erase(0, input.size() - rest.size());
  switch (state) {
    case ChunkedBody::State::complete:
      return state_ = State::complete;
    case ChunkedBody::State::tooLong:
      return refuse({413, "The body is too long."});
    case ChunkedBody::State::malformed:
      return refuse({400, "The body is malformed."});
    case ChunkedBody::State::reading:
      break;
  }
  return state_;
}

void RequestReader::next() {
  chunked_.reset();
  request_ = HttpRequest();
  state_ = State::head;
  expectsContinue_ = false;
}

}  // namespace runelgw
