// SPDX-License-Identifier: Apache-2.0
// Where an XML clause ends: the bytes a relay has received, and the cutting of clauses from them.
#ifndef ZELL_CONNECTIONS_CLAUSE_BUFFER_H_
#define ZELL_CONNECTIONS_CLAUSE_BUFFER_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace zell {

/// Bytes received and not yet relayed. Pure: nothing is sent, nothing logged.
///
/// A clause is a tag that ends in "/>", or everything from a tag to the first repetition of that
/// tag with a slash in front: no nesting of equal names, no attributes in a tag with content. What
/// fits neither stays at the head, and keeps back all that follows.
///
/// It remembers how far each search has come, and leaves the bytes of a cut clause where they are
/// until it pays to move the rest. So the work grows with the bytes that came, however they were
/// cut into packets and however often `next` is asked.
class ClauseBuffer {
 public:
  /// What `next` found at the head.
  enum class Next {
    cut,         ///< a clause, which is no longer in the buffer
    empty,       ///< nothing but blanks, which are gone now
    sentinel,    ///< a byte that opens a byte-count frame, here or further on
    notOpening,  ///< a byte other than '<'
    noGt,        ///< a tag whose '>' has not come
    noClosing,   ///< a tag whose closing tag has not come
  };

  /// Storage above this size is given back as soon as it is not needed.
  static constexpr std::size_t kKeptCapacity = 65536;

  /// Adds received bytes, any of them.
  void append(std::string_view bytes);

  /// Cuts the next clause into @p clause, which is left alone when there is none.
  [[nodiscard]] Next next(std::string& clause);

  [[nodiscard]] bool empty() const { return size() == 0; }
  [[nodiscard]] std::size_t size() const { return blanks_.size() + rest().size(); }
  /// Where the first byte that is not blank stands, after a `next` that found one and cut nothing.
  [[nodiscard]] std::size_t position() const { return blanks_.size() + search_.start; }
  /// The first @p count bytes; all of them when there are no more.
  [[nodiscard]] std::string first(std::size_t count) const;
  /// The last @p count bytes; all of them when there are no more.
  [[nodiscard]] std::string last(std::size_t count) const;
  /// Whether the buffer ends with @p text, which begins with a byte that is not blank.
  [[nodiscard]] bool endsWith(std::string_view text) const;

  /// Bytes searched, compared and moved so far, and bytes of memory held: for those who watch over
  /// the cost.
  [[nodiscard]] std::uint64_t work() const { return work_; }
  [[nodiscard]] std::size_t capacity() const { return blanks_.capacity() + data_.capacity(); }

 private:
  static constexpr std::size_t kUnknown = std::string_view::npos;

  /// How far the search for the clause at the head has come, counted from the head. It starts anew
  /// when something is cut, and only then.
  struct Search {
    std::size_t start = kUnknown;   // the first byte that is not blank
    std::size_t gt = kUnknown;      // the end of the tag there
    std::size_t lastGt = kUnknown;  // the last '>' seen
    std::size_t resume = 0;         // where to look for the next '>'
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

  // A clause that is one tag leaves the blanks before it behind. They are collected here, in front
  // of the rest, instead of moving them up to it for each clause.
  std::string blanks_;
  std::string data_;
  std::size_t head_ = 0;   // what lies before is cut
  std::size_t clean_ = 0;  // so many bytes from the head have been searched for sentinels
  bool sentinel_ = false;  // one was found; nothing is cut any more, so it stays
  Search search_;
  std::uint64_t work_ = 0;
};

}  // namespace zell

#endif  // ZELL_CONNECTIONS_CLAUSE_BUFFER_H_
