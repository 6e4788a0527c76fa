// SPDX-License-Identifier: Apache-2.0
// Files and trees to a device.
#ifndef ZELL_RUNELCTL_COMMANDS_PUSH_JOB_H_
#define ZELL_RUNELCTL_COMMANDS_PUSH_JOB_H_

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

namespace zell::ctl {

/// What is to be sent, the same for all devices.
struct PushPlan {
  std::vector<LocalSource> sources;
  std::vector<std::string> left;  ///< what cannot be sent
  std::string remote;             ///< as typed
  bool resume = true;
  bool checksum = false;
  bool sync = false;    ///< only what differs, into the folder itself
  bool remove = false;  ///< with sync: what is not here goes from there
};

/// Goes through its stages one after the other, each a pipeline of requests. A file that fails is
/// told and stays as it was on the device, and the others go on; a lost connection ends the job.
class PushJob : public TransferJob {
 public:
  PushJob(JobContext context, std::shared_ptr<const PushPlan> plan);
  ~PushJob() override;
  void start() override;
  [[nodiscard]] std::optional<Request> cleanUp() const override;
  [[nodiscard]] std::string sentLater() const override;

 private:
  /// One thing to be done on the device.
  struct Item {
    const LocalEntry* entry;
    std::string target;
    bool failed = false;
    bool complete = false;            ///< mode and time are right already
    std::optional<StatRecord> there;  ///< what it replaces
  };
  struct Batch;
  struct BigFile;
  using Items = std::vector<Item>;

  // push_job.cc: the stages in their order.
  void place(const Reply& reply);
  void plan(const std::string& base, const LocalSource& source);
  void lookAtFolders();
  void makeFolders();
  void lookAtTargets();
  void sendSmallFiles();
  std::optional<Pipeline::Item> nextSmallFile();
  std::optional<Error> readSmallFile(const Item& item, std::string& content) const;
  void makeLinks();

  // push_end.cc: what makes the copy complete.
  void setModes();
  void setTimes(bool fractions);
  void compareChecksums();
  bool compareRun(const ProgramRun& done, std::vector<Item*>& left);
  void end();
  std::vector<Item*> sentItems();

  // push_sync.cc: what of it is needed.
  void lookAtTree();
  void compareTree(const Reply& reply);
  void removeOthers();

  // push_archive.cc: many small files at once.
  void sendArchives();
  void sendArchive();
  std::string packArchive();
  void unpack(std::string&& archive, const std::vector<std::string>& options,
              std::function<void(bool done)> next);
  void synchronise();
  void renameUnpacked();
  void leaveStage(std::function<void()> next);
  void setFolders();
  std::string packFolders(const std::string& base);

  // push_big_file.cc: in pieces, to be taken up again.
  void sendBigFiles();
  void bigFileDone();
  void lookBehindLink(const std::string& target);
  void beginBigFile();
  void checkPart(const Reply& reply);
  void sendPieces();
  std::optional<Pipeline::Item> nextPiece();
  void endPieces();
  void finishPart(const Reply& reply);
  void renamePart();
  void dropPart(const Error& error);

  void itemFailed(Item& item, const Error& error);

  const std::shared_ptr<const PushPlan> plan_;
  std::string root_;
  std::set<std::string> newFolders_;
  Items folders_, links_, small_, big_;
  Items modeOnly_;                   // their content is right
  std::vector<std::string> others_;  // there, but not here
  std::size_t next_ = 0;
  bool foldersChanged_ = true;
  std::unique_ptr<Batch> batch_;
  std::unique_ptr<BigFile> bigFile_;
};

/// The checksums that sha256sum wrote, one for each of @p count names. Nothing when it wrote
/// something else.
[[nodiscard]] std::optional<std::vector<std::string>> parseChecksums(std::string_view text,
                                                                     std::size_t count);

}  // namespace zell::ctl

#endif  // ZELL_RUNELCTL_COMMANDS_PUSH_JOB_H_
