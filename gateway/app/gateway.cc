// SPDX-License-Identifier: Apache-2.0
#include "gateway/app/gateway.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>

#include "gateway/app/control_server.h"
#include "gateway/app/figures.h"
#include "gateway/app/local_commands.h"
#include "gateway/app/loop_bridge.h"
#include "gateway/app/part_settings.h"
#include "gateway/app/state_router.h"
#include "gateway/app/supervisor.h"
#include "gateway/attach/attach.h"
#include "gateway/attach/fleet_directory.h"
#include "gateway/config/endpoint.h"
#include "gateway/config/write_settings.h"
#include "gateway/fleet/start_record.h"
#include "gateway/metrics/metered_router.h"

namespace runelgw {
namespace {

namespace asio = boost::asio;

// What is under way gets 5 s from the HTTP server. Then the process ends.
constexpr runel::Milliseconds kLongestEnd = std::chrono::seconds(8);
constexpr runel::Milliseconds kSecond = std::chrono::seconds(1);
constexpr runel::Milliseconds kInventoryTick = std::chrono::milliseconds(200);
constexpr runel::Milliseconds kCleaning = std::chrono::minutes(10);

std::string startRecordPath(const Settings& settings) {
  return settings.service.stateDirectory + "/orderly-end";
}

std::string restoredPath(const Settings& settings) {
  return settings.service.stateDirectory + "/restored.db";
}

void tellSupervisor(const std::string& state) {
  if (const char* address = std::getenv("NOTIFY_SOCKET")) {
    // Without an answer the supervisor ends the gateway after its own limit, and says why.
    (void)notifySupervisor(address, state);
  }
}

runel::Result<void> makeDirectory(const std::string& path) {
  if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
    return runel::Error::local(path, errno);
  }
  return {};
}

std::string listOf(const std::vector<Endpoint>& endpoints) {
  std::string list;
  for (const Endpoint& endpoint : endpoints) {
    list += (list.empty() ? "" : ", ") + textOf(endpoint);
  }
  return list;
}

}  // namespace

class Gateway::Data {
 public:
  Data(Settings settings, const Log& log)
      : settings_(std::move(settings)),
        log_(log),
        context_(1),
        bridge_(context_, loop_),
        signals_(context_, SIGTERM, SIGINT, SIGHUP) {}
  ~Data() {
    if (registry_) {
      registry_->use(nullptr);
    }
  }

  runel::Result<void> open();
  GatewayEnd run();

 private:
  runel::Result<void> openStore();
  runel::Result<void> openFleet();
  runel::Result<void> openHttp();
  runel::Result<void> openControl();
  void tellLimits() const;
  void waitForSignal();
  void signalled(int number);
  void reload();
  void stop(GatewayEnd end);
  void ended();
  void tick();
  void tickInventory();
  void clean();
  void tellEvent(const Event& event) const;
  [[nodiscard]] std::optional<std::string> notReady() const;
  runel::Result<void> prepareRestore(const std::string& path);

  const Settings settings_;
  const Log& log_;
  asio::io_context context_;
  runel::Loop loop_;
  LoopBridge bridge_;
  asio::signal_set signals_;
  Snapshot snapshot_;
  std::unique_ptr<SqlStore> store_;
  std::unique_ptr<Auth> auth_;
  Metrics metrics_;
  std::unique_ptr<Registry> registry_;
  Events::Subscription events_;
  std::shared_ptr<PayloadSpool> spool_;
  std::unique_ptr<DeviceLink> link_;
  std::unique_ptr<StateRouter> router_;
  std::unique_ptr<Inventory> inventory_;
  std::unique_ptr<MeteredRouter> attachRouter_;
  std::unique_ptr<FleetDirectory> directory_;
  std::unique_ptr<Api> api_;
  std::unique_ptr<HttpServer> http_;
  std::unique_ptr<LocalCommands> commands_;
  std::unique_ptr<ControlServer> control_;
  bool stopping_ = false;
  int toEnd_ = 0;  // what an orderly end waits for
  GatewayEnd end_ = GatewayEnd::stopped;
};

runel::Result<void> Gateway::Data::open() {
  using Step = runel::Result<void> (Data::*)();
  for (const Step step :
       {&Data::openStore, &Data::openFleet, &Data::openHttp, &Data::openControl}) {
    if (runel::Result<void> opened = (this->*step)(); !opened) {
      return opened;
    }
  }
  tellLimits();
  waitForSignal();
  tick();
  tickInventory();
  loop_.after(kCleaning, [this] { clean(); });
  tellSupervisor("READY=1");
  return {};
}

runel::Result<void> Gateway::Data::openStore() {
  if (runel::Result<void> made = makeDirectory(settings_.queue.spoolDirectory); !made) {
    return made;
  }
  store_ = std::make_unique<SqlStore>(storeSettings(settings_), [this](std::function<void()> call) {
    asio::post(context_, std::move(call));
  });
  runel::Result<Snapshot> opened = store_->open();
  if (!opened) {
    return opened.error();
  }
  snapshot_ = *std::move(opened);
  auth_ = std::make_unique<Auth>(authSettings(settings_), *store_);
  auth_->load(snapshot_.tokens, snapshot_.nextToken);
  return {};
}

runel::Result<void> Gateway::Data::openFleet() {
  const runel::Result<RegistrySettings> rules = registrySettings(settings_);
  if (!rules) {
    return rules.error();
  }
  const bool orderly = StartRecord(startRecordPath(settings_)).takeOrderlyEnd();
  if (!orderly && !snapshot_.devices.empty()) {
    log_.warning("the last end was not orderly: nothing is written to known devices for " +
                 std::to_string(settings_.devices.caution.count() / 1000) + " s");
  }
  registry_ = std::make_unique<Registry>(*rules, *store_, Clocks::system(), snapshot_, orderly);
  events_ = registry_->events().subscribe([this](const Event& event) { tellEvent(event); });
  spool_ =
      std::make_shared<PayloadSpool>(settings_.queue.spoolDirectory, settings_.queue.spoolBytes);
  link_ = std::make_unique<DeviceLink>(loop_, linkSettings(settings_), spool_, *registry_);
  registry_->use(link_.get());
  router_ = std::make_unique<StateRouter>(loop_, *link_, [this](DeviceId id) {
    const Device* const device = registry_->find(id);
    return device == nullptr ? std::nullopt : std::optional<DeviceState>(device->state);
  });
  inventory_ =
      std::make_unique<Inventory>(*registry_, *link_, inventoryRules(settings_), Clocks::system());
  return link_->open();
}

runel::Result<void> Gateway::Data::openHttp() {
  ApiHooks hooks;
  hooks.figures = [this] {
    return figuresOf(*registry_, *link_, *inventory_, *http_, *store_, *auth_, *api_);
  };
  hooks.notReady = [this] { return notReady(); };
  attachRouter_ = std::make_unique<MeteredRouter>(*router_, metrics_);
  directory_ = std::make_unique<FleetDirectory>(*registry_);
  hooks.attach = [this](const std::shared_ptr<HttpExchange>& exchange,
                        std::shared_ptr<Permit> permit) {
    attachClient(exchange, std::move(permit), {loop_, *attachRouter_, *directory_, spool_});
  };
  hooks.log = [this](bool warning, const std::string& line) {
    log_.line(warning ? LogLevel::warning : LogLevel::info, line);
  };
  api_ = std::make_unique<Api>(ApiParts{*registry_, *router_, *store_, *auth_, metrics_},
                               apiSettings(settings_), std::move(hooks));
  api_->load(snapshot_);
  snapshot_ = {};
  HttpSettings http = httpSettings(settings_);
  http.bodyLimit = [this](const HttpRequest& request) { return api_->bodyLimit(request); };
  http.problem = [this](const std::string& text) { log_.warning("HTTP: " + text); };
  http_ = std::make_unique<HttpServer>(
      context_, std::move(http),
      [this](std::shared_ptr<HttpExchange> exchange) { api_->handle(std::move(exchange)); });
  return http_->open();
}

runel::Result<void> Gateway::Data::openControl() {
  LocalCommands::Surroundings surroundings;
  surroundings.stateDirectory = settings_.service.stateDirectory;
  surroundings.log = [this](const std::string& text) { log_.info(text); };
  if (usesFile(settings_)) {
    surroundings.replaceDatabase = [this](const std::string& path) { return prepareRestore(path); };
  }
  commands_ = std::make_unique<LocalCommands>(*auth_, *store_, std::move(surroundings));
  control_ = std::make_unique<ControlServer>(
      loop_, [this](const std::string& line, unsigned uid, const ControlServer::Answer& answer) {
        commands_->run(line, uid, answer);
      });
  return control_->open(settings_.service.controlSocket);
}

void Gateway::Data::tellLimits() const {
  const std::uint64_t descriptors = raiseDescriptorLimit();
  const std::uint64_t devices = devicesFor(descriptors, settings_.http.maxConnections);
  log_.info("runelgw " RUNELGW_VERSION ": devices on " + listOf(settings_.devices.listen) +
            ", HTTP" + (usesTls(settings_) ? " with TLS" : "") + " on " +
            listOf(settings_.http.listen) + ", " + std::to_string(registry_->size()) +
            " devices in " + withoutPassword(settings_.database.url));
  log_.info(std::to_string(descriptors) + " descriptors allow " + std::to_string(devices) +
            " connections of devices");
}

void Gateway::Data::waitForSignal() {
  signals_.async_wait([this](const boost::system::error_code& error, int number) {
    if (!error) {
      signalled(number);
      waitForSignal();
    }
  });
}

void Gateway::Data::signalled(int number) {
  if (number == SIGHUP) {
    reload();
  } else if (stopping_) {
    bridge_.stop();
  } else {
    stop(GatewayEnd::stopped);
  }
}

void Gateway::Data::reload() {
  if (!usesTls(settings_)) {
    return;
  }
  const runel::Result<void> reloaded = http_->reloadCertificates();
  if (reloaded) {
    log_.info("the certificates were read again");
  } else {
    log_.error("the old certificates remain: " + reloaded.error().text());
  }
}

void Gateway::Data::stop(GatewayEnd end) {
  stopping_ = true;
  end_ = end;
  tellSupervisor("STOPPING=1");
  log_.info(end == GatewayEnd::restart ? "restarting with the restored database" : "ending");
  toEnd_ = 1;
  api_->stop();
  link_->stop();
  // The answers to the requests that link_ has just ended are under way.
  http_->stop([this] {
    registry_->flush([this](const std::optional<std::string>& error) {
      if (error) {
        log_.error("the last changes were not stored: " + *error);
      }
      ended();
    });
  });
  loop_.after(kLongestEnd, [this] {
    log_.warning("the end took too long: what was under way is dropped");
    bridge_.stop();
  });
}

void Gateway::Data::ended() {
  if (--toEnd_ == 0) {
    bridge_.stop();
  }
}

void Gateway::Data::tick() {
  registry_->tick();
  api_->tick();
  loop_.after(kSecond, [this] { tick(); });
}

void Gateway::Data::tickInventory() {
  if (!stopping_) {
    inventory_->tick();
    loop_.after(kInventoryTick, [this] { tickInventory(); });
  }
}

void Gateway::Data::clean() {
  const Retention old = retention(settings_, registry_->timeline());
  auth_->forgetOlder(old.auditBefore);
  store_->removeOlder(old, [this](const std::optional<std::string>& error) {
    if (error) {
      log_.warning("old records were not removed: " + *error);
    }
    loop_.after(kCleaning, [this] { clean(); });
  });
}

void Gateway::Data::tellEvent(const Event& event) const {
  const std::string device = event.name.empty() ? "" : "device " + event.name + ": ";
  switch (event.type) {
    case EventType::problem:
      log_.error(event.text);
      break;
    case EventType::waiting:
    case EventType::denied:
    case EventType::quarantined:
    case EventType::refused:
      log_.warning(device + nameOf(event.type) + (event.text.empty() ? "" : ": " + event.text));
      break;
    case EventType::clause:
    case EventType::operation:
    case EventType::changed:
      break;
    default:
      log_.debug(device + nameOf(event.type) + (event.text.empty() ? "" : ": " + event.text));
  }
}

std::optional<std::string> Gateway::Data::notReady() const {
  if (stopping_) {
    return "the gateway is ending";
  }
  const StoreState state = store_->state();
  if (!state.connected) {
    return "the database cannot be reached: " + state.lastError;
  }
  return std::nullopt;
}

// The copy is checked now, while its caller waits. It replaces the database when that is closed.
runel::Result<void> Gateway::Data::prepareRestore(const std::string& path) {
  StoreSettings target = storeSettings(settings_);
  target.database = restoredPath(settings_);
  runel::Result<void> checked = restoreDatabase(target, path);
  if (checked) {
    loop_.next([this] { stop(GatewayEnd::restart); });
  }
  return checked;
}

GatewayEnd Gateway::Data::run() {
  bridge_.run();
  control_.reset();
  store_->close();
  return end_;
}

Gateway::Gateway(Settings settings, const Log& log)
    : data_(std::make_unique<Data>(std::move(settings), log)) {}

Gateway::~Gateway() = default;

runel::Result<void> Gateway::open() {
  return data_->open();
}

GatewayEnd Gateway::run() {
  return data_->run();
}

runel::Result<void> finishRestore(const Settings& settings) {
  runel::Result<void> replaced = restoreDatabase(storeSettings(settings), restoredPath(settings));
  for (const char* suffix : {"", ".lock", "-wal", "-shm"}) {
    (void)::unlink((restoredPath(settings) + suffix).c_str());
  }
  // The connections are closed in any case.
  const runel::Result<void> noted = noteOrderlyEnd(settings);
  return replaced ? noted : replaced;
}

runel::Result<void> noteOrderlyEnd(const Settings& settings) {
  return StartRecord(startRecordPath(settings)).noteOrderlyEnd();
}

}  // namespace runelgw
