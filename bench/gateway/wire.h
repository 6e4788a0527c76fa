// SPDX-License-Identifier: Apache-2.0
// A connection to the gateway, with or without TLS.
#ifndef BENCH_GATEWAY_WIRE_H_
#define BENCH_GATEWAY_WIRE_H_

#include <memory>
#include <string>
#include <string_view>

#include <netinet/in.h>

namespace runel::bench {

/// Ends the program with a message: a load that fails measures nothing.
[[noreturn]] void fail(const std::string& text);

/// Reading never waits. Writing waits until the gateway takes the bytes: requests are short.
class Wire {
 public:
  Wire(const sockaddr_in& address, bool tls);
  ~Wire();
  Wire(const Wire&) = delete;
  Wire& operator=(const Wire&) = delete;

  void send(std::string_view bytes);
  /// Appends all bytes that have arrived. Ends the program when the gateway has closed.
  void receive(std::string& bytes);
  /// Waits for bytes, and appends them.
  void await(std::string& bytes);
  [[nodiscard]] int descriptor() const;

 private:
  struct Data;
  std::unique_ptr<Data> data_;
};

}  // namespace runel::bench

#endif  // BENCH_GATEWAY_WIRE_H_
