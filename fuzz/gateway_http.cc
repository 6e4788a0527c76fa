// SPDX-License-Identifier: Apache-2.0
// The bytes of an HTTP client. How they are divided must not matter. What is accepted has exactly
// one meaning: written again from its parts, it is read as the same request. The first byte chooses
// the sizes of the pieces.
#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz.h"
#include "gateway/http/head_check.h"
#include "gateway/http/policy.h"
#include "gateway/http/request_reader.h"
#include "gateway/http/response.h"
#include "gateway/http/target.h"

namespace {

using runelgw::HttpRequest;
using runelgw::RequestReader;
using State = RequestReader::State;
using zell::fuzz::require;

constexpr std::size_t kHeaderLimit = 2000;
constexpr std::size_t kBodyLimit = 500;
constexpr std::size_t kMostRequests = 20;

struct Read {
  std::vector<HttpRequest> requests;
  unsigned refused = 0;  // the status of the refusal at the end, or 0
  std::string rest;
};

Read readAll(const std::string& input, std::size_t pieces) {
  Read result;
  RequestReader reader(kHeaderLimit);
  std::string waiting;
  std::size_t place = 0;
  while (result.requests.size() < kMostRequests) {
    if (reader.read(waiting) == State::headRead && reader.readBody(kBodyLimit) == State::body) {
      (void)reader.read(waiting);
    }
    const State state = reader.state();
    if (state == State::refused) {
      result.refused = reader.refusal().status;
      require(!reader.refusal().text.empty() && !reader.keepAlive());
      break;
    }
    if (state == State::complete) {
      result.requests.push_back(reader.request());
      reader.next();
    } else {
      require(waiting.size() <= std::max<std::size_t>(kHeaderLimit, 8192) + pieces);
      if (place == input.size()) {
        break;
      }
      waiting += input.substr(place, pieces);
      place = std::min(place + pieces, input.size());
    }
  }
  result.rest = waiting + input.substr(place);
  return result;
}

bool isPlain(std::string_view text) {
  return std::none_of(text.begin(), text.end(), [](char byte) {
    const auto code = static_cast<unsigned char>(byte);
    return code < 0x20 || code == 0x7f;
  });
}

void checkRequest(const HttpRequest& request) {
  require(!request.method.empty() && request.body.size() <= kBodyLimit);
  require(request.target == "*" || request.path[0] == '/');
  require(isPlain(request.path) && ("/" + request.path + "/").find("/../") == std::string::npos);
  require(std::count_if(request.headers.begin(), request.headers.end(),
                        [](const auto& field) { return field.first == "host"; }) == 1);
  for (const auto& [name, value] : request.headers) {
    require(std::all_of(name.begin(), name.end(), runelgw::isTokenByte));
    require(std::all_of(value.begin(), value.end(), runelgw::isValueByte));
  }
}

// The same request, with a length instead of chunks.
void readAgain(const HttpRequest& request) {
  std::string text = request.method + ' ' + request.target + " HTTP/1.1\r\n";
  for (const auto& [name, value] : request.headers) {
    if (name != "content-length" && name != "transfer-encoding") {
      text += name + ": " + value + "\r\n";
    }
  }
  text += "Content-Length: " + std::to_string(request.body.size()) + "\r\n\r\n" + request.body;
  RequestReader reader(kHeaderLimit + 1000);
  require(reader.read(text) == State::headRead);
  if (reader.readBody(kBodyLimit) == State::body) {
    require(reader.read(text) == State::complete);
  }
  const HttpRequest& again = reader.request();
  require(reader.state() == State::complete && text.empty());
  require(again.path == request.path && again.query == request.query && again.body == request.body);
  require(again.host == request.host && again.headers.size() + 2 > request.headers.size());
}

// The server's own answers and those with any header are one message each.
void checkAnswers(const HttpRequest& request) {
  runelgw::HttpSettings settings;
  settings.sessionCookie = "s";
  const auto refusal = runelgw::HttpPolicy(settings).refusal(request, "127.0.0.1");
  if (!refusal) {
    require(request.host.compare(0, 9, "localhost") == 0 ||
            request.host.compare(0, 9, "127.0.0.1") == 0 ||
            runelgw::HostAndPort::parse(request.host)->host == "localhost");
  }
  runelgw::HttpResponse response = runelgw::emptyResponse(200);
  for (const auto& [name, value] : request.query) {
    response.with(name, value);
  }
  const auto head = runelgw::headOf(response, {});
  require(!head ||
          (head->find("\r\n\r\n") == head->size() - 4 && head->find('\0') == std::string::npos));
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto [choice, input] = zell::fuzz::firstByteChooses(data, size);
  const Read whole = readAll(input, input.size() + 1);
  const Read divided = readAll(input, choice % 16 + 1);
  require(whole.refused == divided.refused && whole.requests.size() == divided.requests.size());
  for (std::size_t i = 0; i < whole.requests.size(); ++i) {
    require(whole.requests[i].body == divided.requests[i].body &&
            whole.requests[i].headers == divided.requests[i].headers);
    checkRequest(whole.requests[i]);
    readAgain(whole.requests[i]);
    checkAnswers(whole.requests[i]);
  }
  require(whole.refused != 0 || whole.rest == divided.rest);
  return 0;
}
