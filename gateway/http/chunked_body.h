// SPDX-License-Identifier: Apache-2.0
// A body in chunks.
#ifndef RUNELGW_HTTP_CHUNKED_BODY_H_
#define RUNELGW_HTTP_CHUNKED_BODY_H_

#include <cstddef>
#include <string>
#include <string_view>

namespace runelgw {

/// Reads the chunks of one body and their end. Stricter than the standard where other programs
/// differ: each line ends with CR LF, and a size has only digits. Extensions and trailers are
/// ignored.
class ChunkedBody {
 public:
  enum class State { reading, complete, malformed, tooLong };

  /// A body of more than @p limit bytes is too long, as soon as a chunk announces it.
  explicit ChunkedBody(std::size_t limit) : left_(limit) {}

  /// Reads from the front of @p input and appends to @p body. Returns how it ended.
  State read(std::string_view& input, std::string& body);

 private:
  enum class Part { size, data, dataEnd, trailers };

  bool step(std::string_view& input, std::string& body);
  bool readLine(std::string_view& input);
  void takeLine();
  void takeSize();
  void takeTrailer();
  bool readData(std::string_view& input, std::string& body);
  void fail(State state) { state_ = state; }

  State state_ = State::reading;
  Part part_ = Part::size;
  std::size_t left_;         // what the body may still have
  std::size_t missing_ = 0;  // of the current chunk
  std::string line_;         // the beginning of a line
  std::size_t trailerBytes_ = 0;
};

}  // namespace runelgw

#endif  // RUNELGW_HTTP_CHUNKED_BODY_H_
