// SPDX-License-Identifier: Apache-2.0
#include "gateway/gateway_client.h"

#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <functional>
#include <future>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "gateway/multiplexer.h"

namespace runelctl {
namespace {

// A look-up of a name cannot be interrupted. The process does not wait for it longer.
constexpr runel::Milliseconds kEndTime{1000};

// A part of the I/O timeout, so that the gateway's answer arrives first.
runel::Milliseconds deadlineFor(runel::Milliseconds ioTimeout) {
  return ioTimeout / 10 * 9;
}

// Signals are for the main thread. OpenSSL writes to sockets without MSG_NOSIGNAL.
void blockSignals() {
  sigset_t all;
  sigfillset(&all);
  (void)pthread_sigmask(SIG_BLOCK, &all, nullptr);  // cannot fail
}

}  // namespace

struct GatewayClient::Service : std::enable_shared_from_this<Service> {
  using Call = std::function<void(Multiplexer&)>;

  explicit Service(GatewaySettings itsSettings)
      : settings(std::move(itsSettings)), wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

  bool start();
  bool post(Call call);
  void run();
  void takeCalls(runel::Loop& loop, Multiplexer& multiplexer);
  void stop();

  const GatewaySettings settings;
  const zell::UniqueFd wake;
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<Call> calls;
  bool started = false;
  bool stopped = false;
  bool ended = false;
};

// Returns false with errno.
bool GatewayClient::Service::start() {
  if (started) {
    return true;
  }
  if (!wake.valid()) {
    errno = EMFILE;
    return false;
  }
  try {
    std::thread([service = shared_from_this()] { service->run(); }).detach();
  } catch (const std::system_error& error) {
    errno = error.code().value();
    return false;
  }
  started = true;
  return true;
}

bool GatewayClient::Service::post(Call call) {
  const std::lock_guard<std::mutex> lock(mutex);
  if (!start()) {
    return false;
  }
  calls.push_back(std::move(call));
  (void)eventfd_write(wake.get(), 1);  // fails only for a full counter, which wakes too
  return true;
}

void GatewayClient::Service::run() {
  blockSignals();
  {
    runel::Loop loop;
    MultiplexerOptions options;
    options.connectTimeout = settings.connectTimeout;
    options.deadline = deadlineFor(settings.ioTimeout);
    Multiplexer multiplexer(loop, options, [&](WebSocket::Handlers handlers) {
      return openWebSocket(loop, settings, std::move(handlers));
    });
    if (loop.watch(wake.get(), EPOLLIN, [&](std::uint32_t) { takeCalls(loop, multiplexer); })) {
      loop.run();
    }
  }
  const std::lock_guard<std::mutex> lock(mutex);
  calls.clear();
  ended = true;
  changed.notify_all();
}

void GatewayClient::Service::takeCalls(runel::Loop& loop, Multiplexer& multiplexer) {
  eventfd_t count = 0;
  (void)eventfd_read(wake.get(), &count);
  std::vector<Call> due;
  bool ends = false;
  {
    const std::lock_guard<std::mutex> lock(mutex);
    due.swap(calls);
    ends = stopped;
  }
  if (ends) {
    loop.stop();
    return;
  }
  for (const Call& call : due) {
    call(multiplexer);
  }
}

void GatewayClient::Service::stop() {
  std::unique_lock<std::mutex> lock(mutex);
  if (!started) {
    return;
  }
  stopped = true;
  (void)eventfd_write(wake.get(), 1);  // see post
  (void)changed.wait_for(lock, kEndTime, [this] { return ended; });
}

runel::Result<std::shared_ptr<GatewayClient>> GatewayClient::create(
    const GatewayOptions& options, runel::Milliseconds connectTimeout,
    runel::Milliseconds ioTimeout) {
  if (!hasWebSockets()) {
    return runel::Error(runel::Kind::local, runel::Cause::other,
                        "--gateway: this runelctl was built without support for gateways");
  }
  runel::Result<GatewaySettings> settings = gatewaySettings(options);
  if (!settings) {
    return settings.error();
  }
  settings->connectTimeout = connectTimeout;
  settings->ioTimeout = ioTimeout;
  return std::shared_ptr<GatewayClient>(new GatewayClient(options, *settings));
}

GatewayClient::GatewayClient(GatewayOptions options, const GatewaySettings& settings)
    : options_(std::move(options)), service_(std::make_shared<Service>(settings)) {}

GatewayClient::~GatewayClient() {
  service_->stop();
}

std::string GatewayClient::url() const {
  return service_->settings.url.text();
}

runel::Dialer::Dialed GatewayClient::dial() {
  int sockets[2] = {-1, -1};
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, sockets) != 0) {
    return {};
  }
  Dialed dialed{zell::UniqueFd(sockets[0]), std::make_shared<runel::DialedLine>()};
  const auto other = std::make_shared<zell::UniqueFd>(sockets[1]);
  const bool posted = service_->post([other, line = dialed.line](Multiplexer& multiplexer) {
    multiplexer.take(std::move(*other), line);
  });
  return posted ? std::move(dialed) : Dialed{};
}

runel::Result<std::vector<ListedDevice>> GatewayClient::list(const std::string& query,
                                                             runel::Milliseconds limit) {
  const auto promise = std::make_shared<std::promise<Multiplexer::Listed>>();
  std::future<Multiplexer::Listed> listed = promise->get_future();
  const bool posted = service_->post([promise, query](Multiplexer& multiplexer) {
    multiplexer.list(query,
                     [promise](const Multiplexer::Listed& result) { promise->set_value(result); });
  });
  if (!posted) {
    return runel::Error::local("thread", errno);
  }
  if (listed.wait_for(limit) != std::future_status::ready) {
    return runel::Error(runel::Kind::timeout, runel::Cause::other,
                        "no answer from the gateway " + url(), ETIMEDOUT);
  }
  return listed.get();
}

}  // namespace runelctl
