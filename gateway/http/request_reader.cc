// SPDX-License-Identifier: Apache-2.0
#include "gateway/http/request_reader.h"

#include <limits>
#include <utility>

#include <boost/asio/buffer.hpp>
#include <boost/beast/http/basic_parser.hpp>
#include <boost/beast/http/error.hpp>

#include "gateway/http/head_check.h"
#include "gateway/http/target.h"

namespace runelgw {
namespace http = boost::beast::http;
using boost::beast::string_view;
using boost::system::error_code;
namespace {

constexpr std::string_view kHeadEnd = "\r\n\r\n";
// The size of a chunk with its extensions, or all trailers: they count against no other limit.
constexpr std::size_t kLongestChunkHead = 8192;

std::string inLowerCase(string_view text) {
  std::string lower(text.data(), text.size());
  for (char& byte : lower) {
    if (byte >= 'A' && byte <= 'Z') {
      byte = static_cast<char>(byte - 'A' + 'a');
    }
  }
  return lower;
}

}  // namespace

// Fills a request. What it gets as a header has passed refusalOfHead().
class RequestReader::Parser : public http::basic_parser<true> {
 public:
  Parser(HttpRequest& request, std::size_t maxHeaderBytes) : request_(request) {
    header_limit(static_cast<std::uint32_t>(maxHeaderBytes));
    body_limit(std::numeric_limits<std::uint64_t>::max());  // readBody() sets it
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
    if (!is_header_done()) {  // trailers come too late to be checked
      request_.headers.emplace_back(inLowerCase(name), std::string(value.data(), value.size()));
    }
  }
  void on_header_impl(error_code&) override {}
  void on_body_init_impl(const boost::optional<std::uint64_t>&, error_code&) override {}
  std::size_t on_body_impl(string_view bytes, error_code&) override {
    request_.body.append(bytes.data(), bytes.size());
    return bytes.size();
  }
  void on_chunk_header_impl(std::uint64_t, string_view, error_code&) override {}
  std::size_t on_chunk_body_impl(std::uint64_t, string_view bytes, error_code&) override {
    request_.body.append(bytes.data(), bytes.size());
    return bytes.size();
  }
  void on_finish_impl(error_code&) override {}

  HttpRequest& request_;
  bool http11_ = true;
};

RequestReader::RequestReader(std::size_t maxHeaderBytes) : maxHeaderBytes_(maxHeaderBytes) {}

RequestReader::~RequestReader() = default;

RequestReader::State RequestReader::refuse(HttpRefusal refusal) {
  refusal_ = std::move(refusal);
  keepAlive_ = false;
  return state_ = State::refused;
}

RequestReader::State RequestReader::read(std::string& input) {
  if (state_ == State::head) {
    return readHead(input);
  }
  return state_ == State::body ? parseBody(input) : state_;
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
  parser_ = std::make_unique<Parser>(request_, maxHeaderBytes_);
  error_code error;
  const std::size_t used = parser_->put(boost::asio::buffer(head.data(), head.size()), error);
  if (error || used != size || !parser_->is_header_done()) {
    return refuse({400, "The header is malformed."});
  }
  input.erase(0, size);
  searched_ = 0;
  request_.host = *request_.header("host");
  http11_ = parser_->http11();
  keepAlive_ = parser_->keep_alive();
  if (request_.target != "*") {
    if (auto refusal = decodeTarget(request_)) {
      return refuse(*std::move(refusal));
    }
  }
  state_ = State::headRead;
  return readExpectation();
}

RequestReader::State RequestReader::readExpectation() {
  const std::string* expectation = request_.header("expect");
  if (expectation && !equalIgnoringCase(*expectation, "100-continue")) {
    return refuse({417, "The only expectation that is understood is \"100-continue\"."});
  }
  expectsContinue_ = expectation && !parser_->is_done();
  return state_;
}

RequestReader::State RequestReader::readBody(std::size_t limit) {
  const auto announced = parser_->content_length();
  if (announced && *announced > limit) {
    return refuse({413, "The body is too long."});
  }
  parser_->body_limit(limit);
  parser_->eager(true);
  return state_ = parser_->is_done() ? State::complete : State::body;
}

RequestReader::State RequestReader::parseBody(std::string& input) {
  error_code error;
  std::size_t used = 0;
  while (!error && !parser_->is_done() && used < input.size()) {
    used += parser_->put(boost::asio::buffer(input.data() + used, input.size() - used), error);
  }
  input.erase(0, used);
  if (error == http::error::body_limit) {
    return refuse({413, "The body is too long."});
  }
  if ((error && error != http::error::need_more) || (error && input.size() > kLongestChunkHead)) {
    return refuse({400, "The body is malformed."});
  }
  return state_ = parser_->is_done() ? State::complete : State::body;
}

void RequestReader::next() {
  parser_.reset();
  request_ = HttpRequest();
  state_ = State::head;
  expectsContinue_ = false;
}

}  // namespace runelgw
