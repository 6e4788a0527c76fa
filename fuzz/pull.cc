// SPDX-License-Identifier: Apache-2.0
// Complete pulls into one directory, and syncs of it, with a device that answers anything. After
// each of them, nothing beside that directory has changed, and nothing from there was sent.
//
// The input is a byte with the options, then steps with a separator in between. Most steps are the
// answer to the next request:
//   o TEXT    success                            e BYTE    failure with this errno value
//   s NUMBERS "stat": mode, size, time           r BYTES   bytes on the wire, before the answer
//   x NUMBER  success with as many "x"           h NUMBER  their SHA-256
//   n OPTIONS the connection ends, and the next transfer begins with these options
// The other steps act on the directory, as a user or another program may do at any time:
//   l NAME    a link to a directory outside      d NAME    a directory
//   k NAME    a link to a file outside           p NAME    a pipe
//   f NAME    a file
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>

#include <runel/transfer.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/unique_fd.h"
#include "client/core/sha256.h"
#include "fuzz.h"
#include "support/task_wire.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using runel::AsyncTransfer;
using zell::fuzz::require;

constexpr char kSeparator = '\x1e';
constexpr std::size_t kLongestAnswer = 200000;
constexpr int kMostTransfers = 4;
constexpr int kMostTurns = 20000;  // against a hang
constexpr int kIdleTurns = 8;      // then the device has nothing more to say
const std::string kSecret = "what.only.the.files.outside.have";

// Bits of the options.
constexpr unsigned kRecursive = 1, kResume = 2, kChecksum = 4, kNewTarget = 8, kSync = 16,
                   kSubdirectory = 32, kDelete = 64, kPlan = 128;

// The directory of the transfers, with what lies beside it.
class Place {
 public:
  Place() {
    fs::create_directories(dir_.file("outside/sub"));
    for (const char* name : {"outside/keys", "outside/b", "outside/sub/f", "beside"}) {
      dir_.write(name, kSecret);
    }
    fs::create_symlink("keys", dir_.file("outside/link"));
    renew();
    before_ = outsiders();
  }

  void renew() {
    fs::remove_all(here());
    fs::create_directories(here() + "/d");
    dir_.write("here/a", "a");
    dir_.write("here/d/b", std::string(70000, 'b'));
  }
  [[nodiscard]] std::string here() const { return dir_.file("here"); }
  void check() const { require(outsiders() == before_); }

  // Puts something at @p name. What is there moves aside.
  void plant(char what, std::string name) const {
    std::replace(name.begin(), name.end(), '/', '_');
    const std::string path = here() + "/" + name.substr(0, name.find('\0'));
    if (path.back() == '/' || name == "." || name == "..") {
      return;
    }
    (void)rename(path.c_str(), (here() + "/aside").c_str());
    if (what == 'l') {
      (void)symlink("../outside", path.c_str());
    } else if (what == 'k') {
      (void)symlink("../outside/keys", path.c_str());
    } else if (what == 'd') {
      (void)mkdir(path.c_str(), 0700);
    } else if (what == 'p') {
      (void)mkfifo(path.c_str(), 0600);
    } else if (fs::symlink_status(path).type() == fs::file_type::not_found) {
      std::ofstream(path) << "planted";
    }
  }

 private:
  // All that is not below `here`.
  [[nodiscard]] std::string outsiders() const {
    std::ostringstream seen;
    const auto options = fs::directory_options::none;
    for (auto at = fs::recursive_directory_iterator(dir_.path(), options); at != end(at); ++at) {
      if (at->path() == here()) {
        at.disable_recursion_pending();
      } else {
        describe(at->path(), seen);
      }
    }
    return seen.str();
  }

  static void describe(const fs::path& path, std::ostringstream& seen) {
    struct stat st {};
    require(lstat(path.c_str(), &st) == 0);
    seen << path << ' ' << st.st_ino << ' ' << st.st_mode << ' ' << st.st_nlink << ' ' << st.st_uid
         << ' ' << st.st_size << ' ' << st.st_mtim.tv_sec << '.' << st.st_mtim.tv_nsec << ' '
         << st.st_ctim.tv_sec << '.' << st.st_ctim.tv_nsec << '\n';
    if (S_ISREG(st.st_mode)) {
      seen << std::ifstream(path).rdbuf() << '\n';
    }
  }

  zell::test::TempDir dir_;
  std::string before_;
};

// The steps of the input.
class Script {
 public:
  Script(std::string_view input, const Place& place) : rest_(input), place_(place) {}

  // The answer to the next request. Empty at the end of a transfer.
  std::string answer() {
    std::string raw;
    while (!rest_.empty()) {
      const std::string step = next();
      const std::string text = step.empty() ? "" : step.substr(1);
      switch (step.empty() ? 'o' : step[0]) {
        case 'n':
          options_ = text.empty() ? 0 : static_cast<unsigned char>(text[0]);
          again_ = true;
          return "";
        case 'r':
          raw += text;
          break;
        case 'l':
        case 'k':
        case 'd':
        case 'f':
        case 'p':
          place_.plant(step[0], text);
          break;
        default:
          return raw + answerOf(step.empty() ? 'o' : step[0], text);
      }
    }
    return raw;
  }
  // Whether another transfer follows, with these options. Skips what is left for the last one.
  bool again(unsigned& options) {
    while (!again_ && !rest_.empty()) {
      const std::string step = next();
      again_ = !step.empty() && step[0] == 'n';
      options_ = step.size() > 1 ? static_cast<unsigned char>(step[1]) : 0;
    }
    options = options_;
    return std::exchange(again_, false);
  }

 private:
  std::string next() {
    const std::size_t end = rest_.find(kSeparator);
    const std::string step(rest_.substr(0, end));
    rest_.remove_prefix(end == std::string_view::npos ? rest_.size() : end + 1);
    return step;
  }

  static std::string answerOf(char kind, const std::string& text) {
    const std::size_t count =
        std::min<std::size_t>(std::strtoul(text.c_str(), nullptr, 10), kLongestAnswer);
    switch (kind) {
      case 'e':
        return zell::test::reply(
            "", "1 0 1 " + std::to_string(text.empty() ? EIO : text[0] & 127) + " 0");
      case 's':
        return zell::test::reply(statOf(text));
      case 'x':
        return zell::test::reply(std::string(count, 'x'));
      case 'h': {
        runel::Sha256 hash;
        hash.add(std::string(count, 'x'));
        return zell::test::reply(hash.finish() + "  name\n");
      }
      default:
        return zell::test::reply(text);
    }
  }

  static std::string statOf(const std::string& numbers) {
    unsigned mode = 0;
    unsigned long long size = 0;
    long long time = 0;
    (void)std::sscanf(numbers.c_str(), "%o %llu %lld", &mode, &size, &time);
    char text[256];
    std::snprintf(
        text, sizeof text,
        "dev=1 ino=1 mode=%07o nlink=1 uid=0 gid=0 rdev=0 size=%llu blksize=4096 blocks=0 "
        "atime=0.0 mtime=%lld.000000000 ctime=0.0\n",
        mode, size, time);
    return text;
  }

  std::string_view rest_;
  const Place& place_;
  unsigned options_ = 0;
  bool again_ = false;
};

// The device's end of a connection. Never blocks.
class Device {
 public:
  explicit Device(Script& script) : script_(script) {
    int ends[2] = {-1, -1};
    require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) == 0);
    socket_.reset(ends[0]);
    client_ = ends[1];
  }

  // The other end, for one owner.
  [[nodiscard]] int client() const { return client_; }
  void hangUp() { socket_.reset(); }

  // Receives, answers and sends what it can. Returns false if there was nothing to do.
  bool serve() {
    if (!socket_.valid()) {
      return false;
    }
    char part[65536];
    const ssize_t got = recv(socket_.get(), part, sizeof part, 0);
    if (got > 0) {
      received_.append(part, static_cast<std::size_t>(got));
    }
    while (!ending_ && takeRequest()) {
      const std::string answer = script_.answer();
      out_ += answer;
      ending_ = answer.empty();
    }
    const ssize_t sent = send(socket_.get(), out_.data(), out_.size(), MSG_NOSIGNAL);
    out_.erase(0, sent > 0 ? static_cast<std::size_t>(sent) : 0);
    if (got == 0 || (ending_ && out_.empty())) {
      hangUp();
    }
    return got > 0 || sent > 0;
  }

 private:
  bool takeRequest() {
    const std::size_t mark = received_.find('\x02');
    if (mark == std::string::npos) {
      return false;
    }
    const std::size_t end = mark + 1 + std::stoul(received_.substr(1, mark - 1));
    if (received_.size() < end) {
      return false;
    }
    require(received_.find(kSecret) >= end);
    received_.erase(0, end);
    return true;
  }

  Script& script_;
  zell::UniqueFd socket_;
  int client_ = -1;
  std::string received_;
  std::string out_;
  bool ending_ = false;
};

runel::TransferOptions optionsOf(unsigned bits) {
  runel::TransferOptions options;
  options.setMemory(2 * 65536).setRecursive((bits & kRecursive) != 0);
  options.setResume((bits & kResume) != 0).setChecksum((bits & kChecksum) != 0);
  options.setDelete((bits & kDelete) != 0);
  options.setSubdirectory((bits & kSubdirectory) != 0 ? "sub" : "");
  options.setPlanOnly((bits & kPlan) != 0);
  return options;
}

std::unique_ptr<AsyncTransfer> start(unsigned bits, runel::AsyncDevice& device,
                                     const std::string& here, AsyncTransfer::Done done) {
  if ((bits & kSync) != 0) {
    const auto sources = runel::PushSources::scan({here}, true);
    require(sources.ok());
    return AsyncTransfer::sync(device, *sources, "/x", optionsOf(bits), std::move(done));
  }
  const std::string target = (bits & kNewTarget) != 0 ? here + "/new" : here;
  return AsyncTransfer::pull(device, {(bits & kRecursive) != 0 ? "/x/." : "/x/a"}, target,
                             optionsOf(bits), std::move(done));
}

void transfer(unsigned bits, Script& script, const std::string& here) {
  runel::Loop loop;
  Device device(script);
  runel::AsyncDevice client(loop, device.client(), "device");
  bool done = false;
  const auto running =
      start(bits, client, here, [&](const runel::TransferReport&) { done = true; });
  int idle = 0;
  int turns = 0;
  while (!done) {
    require(turns++ < kMostTurns);
    idle = device.serve() ? 0 : idle + 1;
    if (idle == kIdleTurns) {
      device.hangUp();
    }
    loop.turn(runel::Milliseconds(0));
  }
}

std::size_t openDescriptors() {
  return static_cast<std::size_t>(std::distance(fs::directory_iterator("/proc/self/fd"), {}));
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Place place;
  const zell::fuzz::Choice input = zell::fuzz::firstByteChooses(data, size);
  if (input.rest.find(kSecret) != std::string::npos) {
    return 0;  // a device may send what it knows
  }
  place.renew();
  const std::size_t descriptors = openDescriptors();
  Script script(input.rest, place);
  unsigned options = input.choice;
  int transfers = 0;
  do {
    transfer(options, script, place.here());
    place.check();
  } while (++transfers < kMostTransfers && script.again(options));
  require(openDescriptors() == descriptors);
  return 0;
}
