// SPDX-License-Identifier: Apache-2.0
// Devices within a libuv loop: runs one program on several devices at once, and prints a dot every
// 100 ms meanwhile.
//
//   uv_loop PROGRAM HOST...
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <runel/adapters/uv.h>
#include <runel/runel.h>

namespace {

class Program {
 public:
  Program(uv_loop_t* uv, runel::Loop& loop) : adapter_(uv, loop), loop_(loop) {
    uv_timer_init(uv, &dots_);
    uv_timer_start(
        &dots_, [](uv_timer_t*) { std::cerr << "." << std::flush; }, 100, 100);
  }

  void start(const std::string& program, const std::string& host) {
    devices_.push_back(std::make_unique<runel::AsyncDevice>(loop_, runel::Address(host)));
    devices_.back()->ask(runel::Request::exec({"sh", "-c", program}, 60),
                         [this, host](const runel::Reply& reply) { show(host, reply); });
    ++running_;
  }

 private:
  void show(const std::string& name, const runel::Reply& reply) {
    std::cout << name << ": " << (reply.ok() ? reply.output() : reply.error().text() + "\n");
    if (--running_ == 0) {  // uv_run returns when no handle is left
      adapter_.close();
      uv_close(reinterpret_cast<uv_handle_t*>(&dots_), nullptr);
    }
  }

  runel::UvAdapter adapter_;
  runel::Loop& loop_;
  std::vector<std::unique_ptr<runel::AsyncDevice>> devices_;
  uv_timer_t dots_{};
  std::size_t running_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::cerr << "usage: uv_loop PROGRAM HOST...\n";
    return 2;
  }
  uv_loop_t uv;
  uv_loop_init(&uv);
  runel::Loop loop;
  Program program(&uv, loop);
  for (int i = 2; i < argc; ++i) {
    program.start(argv[1], argv[i]);
  }
  uv_run(&uv, UV_RUN_DEFAULT);
  return uv_loop_close(&uv) == 0 ? 0 : 1;
}
