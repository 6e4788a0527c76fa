// SPDX-License-Identifier: Apache-2.0
// Reads the fields of a task record one after the other.
#ifndef ZELL_WIRE_RECORD_READER_H_
#define ZELL_WIRE_RECORD_READER_H_

#include <cstdint>
#include <string_view>

namespace zell {

/// How every record begins; isA() looks for it with the blank that follows.
constexpr std::string_view kRecordName = "SlaveTask";

/// Takes fields off the front of a text that it borrows. There is one way to write each value, and
/// anything else is refused. After a refusal nothing more may be read.
class RecordReader {
 public:
  explicit RecordReader(std::string_view text) : rest_(text) {}

  /// The name of the record, without a blank in front.
  [[nodiscard]] bool readName();
  /// A blank and a number from 0 to INT32_MAX.
  [[nodiscard]] bool readNumber(std::int32_t& value);
  /// A blank and a number from INT32_MIN to INT32_MAX.
  [[nodiscard]] bool readSigned(std::int32_t& value);
  /// A blank, a length, `:` and so many bytes. @p bytes points into the text.
  [[nodiscard]] bool readString(std::string_view& bytes);
  [[nodiscard]] bool atEnd() const { return rest_.empty(); }

 private:
  bool skip(char expected);
  bool takeNumber(std::int32_t& value);

  std::string_view rest_;
};

}  // namespace zell

#endif  // ZELL_WIRE_RECORD_READER_H_
