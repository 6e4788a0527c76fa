// SPDX-License-Identifier: Apache-2.0
// Buffers the bytes that a relay receives and splits them into XML clauses.
#ifndef ZELL_PROTOCOL_CLAUSE_BUFFER_H_
#define ZELL_PROTOCOL_CLAUSE_BUFFER_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace zell {

/// The bytes that are received and not yet relayed. Pure: sends nothing and logs nothing.
///
/// A clause is a tag that ends in "/>", or everything from a tag to the first repetition of that
/// tag with a slash in front: no nesting of equal names, no attributes in a tag with content. Other
/// input stays at the head and blocks everything behind it.
///
/// The buffer remembers the progress of each search, and moves the rest only when enough bytes
/// before it are removed. So the work grows linearly with the bytes received, independent of the
/// packet borders and of the number of calls of `next`.
class ClauseBuffer {
 public:
  /// The result of `next` at the head of the buffer.
  enum class Next {
    cut,         ///< a clause, which is removed from the buffer
    empty,       ///< nothing but whitespace, which is removed
    sentinel,    ///< a byte that begins a byte-count frame, at the head or behind it
    notOpening,  ///< a byte other than '<'
    noGt,        ///< a tag whose '>' is missing so far
    noClosing,   ///< a tag whose closing tag is missing so far
  };

  /// Storage above this size is released as soon as it is unused.
  static constexpr std::size_t kKeptCapacity = 65536;

  /// Appends received bytes of any value.
  void append(std::string_view bytes);

  /// Removes the next clause and stores it in @p clause. Leaves @p clause unchanged when no clause
  /// is complete.
  [[nodiscard]] Next next(std::string& clause);

  [[nodiscard]] bool empty() const { return size() == 0; }
  [[nodiscard]] std::size_t size() const { return blanks_.size() + rest().size(); }
  /// The position of the first byte that is not whitespace. Valid after a `next` that found such a
  /// byte and removed nothing.
  [[nodiscard]] std::size_t position() const { return blanks_.size() + search_.start; }
  /// The first @p count bytes, or all when there are fewer.
  [[nodiscard]] std::string first(std::size_t count) const;
  /// The last @p count bytes, or all when there are fewer.
  [[nodiscard]] std::string last(std::size_t count) const;
  /// Whether the buffer ends with @p text, which begins with a byte that is not whitespace.
  [[nodiscard]] bool endsWith(std::string_view text) const;

  /// Bytes searched, compared and moved so far, and bytes of memory in use: for tests and
  /// benchmarks of the cost.
  [[nodiscard]] std::uint64_t work() const { return work_; }
  [[nodiscard]] std::size_t capacity() const { return blanks_.capacity() + data_.capacity(); }

 private:
  static constexpr std::size_t kUnknown = std::string_view::npos;

  /// The progress of the search for the clause at the head, as offsets from the head. Only removing
  /// a clause resets it.
  struct Search {
    std::size_t start = kUnknown;   // the first byte that is not whitespace
    std::size_t gt = kUnknown;      // the end of the tag at `start`
    std::size_t lastGt = kUnknown;  // the last '>' found
    std::size_t resume = 0;         // where the search for the next '>' continues
  };

  [[nodiscard]] std::string_view rest() const { return std::string_view(data_).substr(head_); }
  bool findStart();
  bool findSentinel();
  bool findGt();
  bool findClosing(std::size_t& end);
  std::size_t nextGt();
  void take(std::size_t end, std::string& clause);
  void takeStorage(std::size_t start, std::size_t end, std::string& clause);
  void compact();
  void clear();

  // The whitespace before clauses of a single tag. It belongs in front of the rest; collecting it
  // here avoids moving it for each clause.
  std::string blanks_;
  std::string data_;
  std::size_t head_ = 0;   // the bytes before it are removed
  std::size_t clean_ = 0;  // bytes from the head that are searched for sentinels
  bool sentinel_ = false;  // a sentinel was found; stays set, because no clause is removed any more
  Search search_;
  std::uint64_t work_ = 0;
};

}  // namespace zell

#endif  // ZELL_PROTOCOL_CLAUSE_BUFFER_H_
