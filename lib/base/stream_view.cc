// SPDX-License-Identifier: Apache-2.0
#include "base/stream_view.h"

namespace zell {
namespace {

// The pointers of a stream buffer are protected. A derived class may name them and apply them to
// any string buffer. C++20 has view() for this.
struct Pointers : std::stringbuf {
  using std::stringbuf::eback;
  using std::stringbuf::egptr;
  using std::stringbuf::pbase;
  using std::stringbuf::pptr;
};

std::string_view between(const char* begin, const char* end) {
  return begin == nullptr ? std::string_view()
                          : std::string_view(begin, static_cast<std::size_t>(end - begin));
}

}  // namespace

std::string_view viewOf(const std::ostringstream& stream) {
  const std::stringbuf& buffer = *stream.rdbuf();
  return between((buffer.*&Pointers::pbase)(), (buffer.*&Pointers::pptr)());
}

std::string_view viewOf(const std::istringstream& stream) {
  const std::stringbuf& buffer = *stream.rdbuf();
  return between((buffer.*&Pointers::eback)(), (buffer.*&Pointers::egptr)());
}

}  // namespace zell
