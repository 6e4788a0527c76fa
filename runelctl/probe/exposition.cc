// SPDX-License-Identifier: Apache-2.0
#include "probe/exposition.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <optional>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/durable_rename.h"
#include "base/unique_fd.h"
#include "client/core/paths.h"
#include "output/style.h"
#include "probe/number_text.h"
#include "text/utf8.h"

namespace runelctl {
namespace {

constexpr mode_t kFileMode = 0644;

std::string label(const char* name, std::string_view value) {
  return std::string(name) + "=\"" + labelText(value) + "\"";
}

// One line of a metric of @p facts. @p more are further labels.
std::string sample(const char* metric, const Facts& facts, const std::string& value,
                   const std::string& more = "") {
  return std::string(metric) + "{" + label("device", facts.device) +
         (more.empty() ? "" : "," + more) + "} " + value + "\n";
}

std::string head(const char* metric, const char* help) {
  return std::string("# HELP ") + metric + " " + help + "\n# TYPE " + metric + " gauge\n";
}

// A metric and the lines of one device, none if the fact is missing.
struct Metric {
  const char* name;
  const char* help;
  std::string (*lines)(const char* name, const Facts& facts);
};

std::string secondsLine(const char* name, const Facts& facts, std::optional<double> value,
                        int digits) {
  return value ? sample(name, facts, decimalText(*value, digits)) : "";
}

std::string freeLines(const char* name, const Facts& facts) {
  std::string lines;
  for (const FreeSpace& free : facts.free) {
    lines += free.bytes ? sample(name, facts, std::to_string(*free.bytes), label("path", free.path))
                        : "";
  }
  return lines;
}

constexpr Metric kMetrics[] = {
    {"runel_up", "Whether the daemon of the device answered the probe: 1 or 0.",
     [](const char* name, const Facts& facts) {
       return sample(name, facts, facts.up() ? "1" : "0");
     }},
    {"runel_round_trip_seconds", "Time between a request and its answer on an open connection.",
     [](const char* name, const Facts& facts) {
       return secondsLine(name, facts, facts.roundTrip, 6);
     }},
    {"runel_uptime_seconds", "Time since the device was booted.",
     [](const char* name, const Facts& facts) {
       return secondsLine(name, facts, facts.uptime, 2);
     }},
    {"runel_restart_age_seconds", "Time since the daemon was started.",
     [](const char* name, const Facts& facts) {
       return secondsLine(name, facts, facts.restartAge, 2);
     }},
    {"runel_free_bytes", "Free space of the file system of a path, for unprivileged users.",
     freeLines},
    {"runel_version_info", "The version that is installed on the device. The value is 1.",
     [](const char* name, const Facts& facts) {
       return facts.version ? sample(name, facts, "1", label("version", *facts.version)) : "";
     }},
    {"runel_probe_timestamp_seconds", "When the device was probed, in seconds since 1970.",
     [](const char* name, const Facts& facts) {
       return sample(name, facts, decimalText(facts.time, 3));
     }},
};

}  // namespace

std::string metricsText(const std::vector<Facts>& facts) {
  std::string text;
  for (const Metric& metric : kMetrics) {
    std::string lines;
    for (const Facts& one : facts) {
      lines += metric.lines(metric.name, one);
    }
    text += lines.empty() ? "" : head(metric.name, metric.help) + lines;
  }
  return text;
}

std::string labelText(std::string_view value) {
  std::string text;
  while (!value.empty()) {
    std::uint32_t code = 0;
    const std::size_t length = zell::utf8Sequence(value, code);
    const std::string_view character = value.substr(0, length == 0 ? 1 : length);
    value.remove_prefix(character.size());
    if (length == 0) {
      text += "\xef\xbf\xbd";  // the replacement character
    } else if (character == "\n") {
      text += "\\n";
    } else {
      text += character == "\\" || character == "\"" ? "\\" : "";
      text += character;
    }
  }
  return text;
}

int replaceMetricsFile(const std::string& path, const std::string& text) {
  const std::string directoryPath = runel::directoryOf(path);
  const zell::UniqueFd directory(open(directoryPath.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory.valid()) {
    return errno;
  }
  // The collector reads only names that end with ".prom".
  std::string fresh = directoryPath + "/." + runel::baseName(path) + ".XXXXXX";
  zell::UniqueFd file(mkostemp(fresh.data(), O_CLOEXEC));
  if (!file.valid()) {
    return errno;
  }
  int error = fchmod(file.get(), kFileMode) == 0 && writeAll(file.get(), text) ? 0 : errno;
  if (error == 0) {
    const zell::RenameResult renamed =
        zell::renameDurably(file, directory.get(), runel::baseName(fresh), runel::baseName(path));
    if (renamed.renamed()) {
      return renamed.error;
    }
    error = renamed.error;
  }
  (void)unlink(fresh.c_str());
  return error;
}

}  // namespace runelctl
