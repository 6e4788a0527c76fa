// SPDX-License-Identifier: Apache-2.0
// Brings what the devices had to say to standard output and standard error.
#ifndef ZELL_RUNELCTL_FLEET_PRINTER_H_
#define ZELL_RUNELCTL_FLEET_PRINTER_H_

#include <string>
#include <vector>

#include "commands/job.h"
#include "commands/settings.h"
#include "output/report.h"
#include "output/status_line.h"

namespace zell::ctl {

/// One device's end of a run.
struct Finished {
  std::string device;
  Outcome outcome;
};

class Printer {
 public:
  /// @p many: there is more than one device, so its name goes with all that is shown.
  Printer(const Style& style, Arrange arrange, std::string task, bool many);

  /// Output that cannot wait for the end, of the only device.
  void stream(std::string_view bytes);
  /// What a device said, with its end.
  void finished(const Finished& end, const Report& report);
  /// Shows outputs that were held back to be grouped, in the order of @p devices.
  void flush(const std::vector<std::string>& devices);
  /// The line after all of it, when there are several devices.
  void summary(const std::vector<Finished>& ends, std::size_t skipped);
  /// The same for a run in which nothing was sent.
  void unsent(std::size_t devices);
  /// One line about the run itself.
  void note(const std::string& text);

  StatusLine& statusLine() { return statusLine_; }

 private:
  struct Group {
    std::string text;
    std::vector<std::string> devices;
  };

  void printJson(const Finished& end, const Report& report);
  void printText(const std::string& device, const std::string& text);
  void printPrefixed(const std::string& device, const std::string& text);
  void hold(const std::string& device, const std::string& text);
  void show(const Group& group);
  void printError(const std::string& device, const Error& error);
  void printWarning(const std::string& device, const std::string& text);
  void out(std::string_view bytes);
  void err(const std::string& line);

  const Style& style_;
  const Arrange arrange_;
  const std::string task_;
  const bool many_;
  StatusLine statusLine_;
  std::vector<Group> groups_;
};

/// The object that closes a device's part of a run in JSON.
[[nodiscard]] Json closingObject(const std::string& device, const std::string& task,
                                 const Outcome& outcome, const Report& report);

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_FLEET_PRINTER_H_
