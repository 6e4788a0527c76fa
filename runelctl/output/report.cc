// SPDX-License-Identifier: Apache-2.0
#include "output/report.h"

#include <utility>

namespace zell::ctl {

void Report::bytes(std::string_view bytes) {
  if (style_.json) {
    return;
  }
  if (stream) {
    stream(bytes);
  } else {
    text_.append(bytes);
  }
}

void Report::entry(Json object) {
  if (style_.json) {
    entries_.push_back(std::move(object));
  }
}

}  // namespace zell::ctl
