// SPDX-License-Identifier: Apache-2.0
// Sends files and directory trees to a device.
#ifndef RUNELCTL_COMMANDS_PUSH_JOB_H_
#define RUNELCTL_COMMANDS_PUSH_JOB_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "commands/local_tree.h"
#include "commands/transfer_job.h"

namespace runelctl {

/// The sources and options of a push, shared by all devices.
struct PushPlan {
  std::vector<LocalSource> sources;
  std::vector<std::string> left;  ///< skipped entries
  std::string remote;             ///< as given on the command line
  bool resume = true;
  bool checksum = false;
  bool sync = false;    ///< send only differences, into the directory itself
  bool remove = false;  ///< with sync: remove remote files that are missing here
};

/// Runs its stages one after the other, each as a pipeline of requests. A failed file is reported,
/// keeps its old content on the device and does not stop the others. A lost connection ends the
/// job.
class PushJob : public TransferJob {
 public:
  PushJob(JobContext context, std::shared_ptr<const PushPlan> plan);
  ~PushJob() override;
  void start() override;
  [[nodiscard]] std::optional<runel::Request> cleanUp() const override;
  [[nodiscard]] std::string sentLater() const override;

 private:
  /// One file, directory or link to create on the device.
  struct Item {
    const LocalEntry* entry;
    std::string target;
    bool failed = false;
    bool complete = false;             ///< mode and time are already set
    std::optional<runel::Stat> there;  ///< the existing target
  };
  struct Batch;
  struct BigFile;
  using Items = std::vector<Item>;

  // push_job.cc: the stages in order.
  void place(const runel::Reply& reply);
  void plan(const std::string& base, const LocalSource& source);
  void lookAtDirectories();
  void makeDirectories();
  void lookAtTargets();
  void sendSmallFiles();
  std::optional<Pipeline::Item> nextSmallFile();
  std::optional<Error> readSmallFile(const Item& item, std::string& content) const;
  void makeLinks();

  // push_end.cc: the last stages.
  void setModes();
  void setTimes(bool fractions);
  void compareChecksums();
  bool compareRun(const ProgramRun& done, std::vector<Item*>& left);
  void end();
  std::vector<Item*> sentItems();

  // push_sync.cc: finds the differences.
  void lookAtTree();
  void compareTree(const runel::Reply& reply);
  void removeOthers();

  // push_archive.cc: small files in archives.
  void sendArchives();
  void sendArchive();
  std::string packArchive();
  void unpack(std::string&& archive, const std::vector<std::string>& options,
              std::function<void(bool done)> next);
  void synchronise();
  void renameUnpacked();
  void leaveStage(std::function<void()> next);
  void setDirectories();
  std::string packDirectories(const std::string& base);

  // push_big_file.cc: large files in pieces, with resuming.
  void sendBigFiles();
  void bigFileDone();
  void lookBehindLink(const std::string& target);
  void beginBigFile();
  void checkPart(const runel::Reply& reply);
  void sendPieces();
  std::optional<Pipeline::Item> nextPiece();
  void endPieces();
  void finishPart(const runel::Reply& reply);
  void renamePart();
  void dropPart(const Error& error);

  void itemFailed(Item& item, const Error& error);

  const std::shared_ptr<const PushPlan> plan_;
  std::string root_;
  std::set<std::string> newDirectories_;
  Items directories_, links_, small_, big_;
  Items modeOnly_;                   // only the mode differs
  std::vector<std::string> others_;  // on the device, but missing here
  std::size_t next_ = 0;
  bool directoriesChanged_ = true;
  std::unique_ptr<Batch> batch_;
  std::unique_ptr<BigFile> bigFile_;
};

/// Parses the output of sha256sum for @p count names. Empty for other output.
[[nodiscard]] std::optional<std::vector<std::string>> parseChecksums(std::string_view text,
                                                                     std::size_t count);

}  // namespace runelctl

#endif  // RUNELCTL_COMMANDS_PUSH_JOB_H_
