// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <utility>
#include <vector>

#include <arpa/inet.h>

#include <runel/async_master.h>
#include <runel/request.h>

#include "ways.h"
#include "wire.h"

namespace runel::bench {
namespace {

constexpr Milliseconds kLook{20};

class DirectWay : public Way {
 public:
  DirectWay(Loop& loop, const Target& target)
      : loop_(loop),
        devices_(target.devices),
        master_(loop, optionsFor(target), [](const MasterEvent&) {}) {}

  void open(std::function<void()> ready, Answered answered) override {
    ready_ = std::move(ready);
    answered_ = std::move(answered);
    if (const Result<void> opened = master_.open(); !opened) {
      fail(opened.error().text());
    }
    look();
  }

  void ask(std::size_t device) override {
    ++underWay_;
    users_[device]->forward(record_, [this, device](const std::string& payload) {
      --underWay_;
      const std::optional<Reply> reply = Reply::decode(payload);
      answered_(device, reply && reply->ok());
    });
  }

 private:
  static MasterOptions optionsFor(const Target& target) {
    char host[INET_ADDRSTRLEN];
    (void)inet_ntop(AF_INET, &target.address.sin_addr, host, sizeof host);
    MasterOptions options;
    options.setListen(host, ntohs(target.address.sin_port));
    return options;
  }

  void look() {
    const std::vector<DeviceInfo> found = master_.devices();
    if (found.size() < devices_) {
      loop_.after(kLook, [this] { look(); });
      return;
    }
    for (const std::string& name : namesOf(found)) {
      const auto lost = [this](const Error& error) {
        if (underWay_ > 0) {
          fail(error.text());
        }
      };
      auto user = master_.attach(name, {lost, nullptr});
      if (!user) {
        fail(user.error().text());
      }
      users_.push_back(*std::move(user));
    }
    ready_();
  }

  // Sorted, so that the first ones are the slow ones.
  static std::vector<std::string> namesOf(const std::vector<DeviceInfo>& devices) {
    std::vector<std::string> names;
    names.reserve(devices.size());
    for (const DeviceInfo& device : devices) {
      names.push_back(device.name());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  Loop& loop_;
  const std::size_t devices_;
  const std::string record_ = requestRecord();
  AsyncMaster master_;
  std::vector<std::unique_ptr<MasterUser>> users_;
  std::size_t underWay_ = 0;
  std::function<void()> ready_;
  Answered answered_;
};

}  // namespace

std::unique_ptr<Way> directWay(Loop& loop, const Target& target) {
  return std::make_unique<DirectWay>(loop, target);
}

}  // namespace runel::bench
