// SPDX-License-Identifier: Apache-2.0
// Parses the fields of a task record one after the other.
#ifndef ZELL_PROTOCOL_RECORD_READER_H_
#define ZELL_PROTOCOL_RECORD_READER_H_

#include <cstdint>
#include <string_view>

namespace zell {

/// The first word of every record. isA() searches for it with the space that follows.
constexpr std::string_view kRecordName = "SlaveTask";

/// Parses fields from the front of a borrowed text. Each value has exactly one valid form; any
/// other is refused. Do not read any more after a refusal.
class RecordReader {
 public:
  explicit RecordReader(std::string_view text) : rest_(text) {}

  /// The name of the record, without a leading space.
  [[nodiscard]] bool readName();
  /// A space and a number from 0 to INT32_MAX.
  [[nodiscard]] bool readNumber(std::int32_t& value);
  /// A space and a number from INT32_MIN to INT32_MAX.
  [[nodiscard]] bool readSigned(std::int32_t& value);
  /// A space, a length, `:` and that number of bytes. @p bytes points into the text.
  [[nodiscard]] bool readString(std::string_view& bytes);
  [[nodiscard]] bool atEnd() const { return rest_.empty(); }

 private:
  bool skip(char expected);
  bool takeNumber(std::int32_t& value);

  std::string_view rest_;
};

}  // namespace zell

#endif  // ZELL_PROTOCOL_RECORD_READER_H_
