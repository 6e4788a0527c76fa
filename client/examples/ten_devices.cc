// SPDX-License-Identifier: Apache-2.0
// A master: asks each device for its kernel version when it connects, and answers the clauses of
// the local agents. Runs until a signal ends it.
//
//   ten_devices [DEVICES]    DEVICES: how many to wait for before the summary (default: 10)
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>

#include <runel/runel.h>

namespace {

class Kernels {
 public:
  Kernels(runel::Loop& loop, std::size_t devices)
      : devices_(devices),
        master_(loop, runel::MasterOptions(), [this](const auto& event) { handle(event); }) {}

  runel::Result<void> open() { return master_.open(); }

 private:
  void handle(const runel::MasterEvent& event) {
    if (event.type() == runel::MasterEvent::Type::connected) {
      master_.ask(event.device(), runel::Request({"read", "/proc/sys/kernel/osrelease"}),
                  [this, name = event.device()](const runel::Reply& reply) { show(name, reply); });
    } else if (event.type() == runel::MasterEvent::Type::clause) {
      std::cout << event.device() << " says " << event.text() << std::endl;
      if (const auto sent = master_.sendClause(event.device(), "<heard/>"); !sent) {
        std::cerr << event.device() << ": " << sent.error().text() << "\n";
      }
    }
  }
  void show(const std::string& name, const runel::Reply& reply) {
    const std::string text = reply.ok() ? reply.output() : reply.error().text();
    std::cout << name << ": " << text.substr(0, text.find('\n')) << std::endl;
    if (++answers_ == devices_) {
      std::cout << devices_ << " devices have answered" << std::endl;
    }
  }

  std::size_t devices_;
  std::size_t answers_ = 0;
  runel::AsyncMaster master_;
};

}  // namespace

int main(int argc, char** argv) {
  runel::Loop loop;
  Kernels kernels(loop, argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 10);
  if (const auto opened = kernels.open(); !opened) {
    std::cerr << opened.error().text() << "\n";
    return 1;
  }
  std::cout << "listening" << std::endl;
  loop.run();
}
