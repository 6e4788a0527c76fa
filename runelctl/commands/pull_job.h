// SPDX-License-Identifier: Apache-2.0
// Fetches files and directory trees from a device.
#ifndef RUNELCTL_COMMANDS_PULL_JOB_H_
#define RUNELCTL_COMMANDS_PULL_JOB_H_

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include <runel/records.h>

#include "client/core/paths.h"
#include "commands/local_tree.h"
#include "commands/transfer_job.h"

namespace runelctl {

/// The sources and options of a pull.
struct PullPlan {
  std::vector<std::string> remotes;
  std::string local;
  bool recursive = false;
  bool resume = true;
  bool checksum = false;
  /// Each device has a separate directory below `local`.
  bool apart = false;
};

/// Gets the attributes of all sources, then fetches small files in a pipeline and large files in
/// pieces. Skips names from the device that lead out of the requested directory.
class PullJob : public TransferJob {
 public:
  PullJob(JobContext context, PullPlan plan);
  ~PullJob() override;
  void start() override;
  [[nodiscard]] std::string sentLater() const override;

 private:
  struct Item {
    std::string source;  ///< remote path
    std::string path;    ///< local path
    runel::Stat st;
    bool known = false;  ///< `st` comes from "stat"; that of walktree is not exact
    bool failed = false;
    std::string target;  ///< target of a symbolic link
  };
  struct BigFile;

  // pull_job.cc
  void lookAtNext();
  void lookAt(const std::string& remote, const runel::Reply& reply);
  void takeTree(const std::string& remote, const runel::Reply& reply);
  void takeEntry(const std::string& remote, const std::string& base, const runel::TreeEntry& entry);
  [[nodiscard]] std::string placeOf(const std::string& remote) const;
  void makeDirectories();
  void fetchSmallFiles();
  std::optional<Pipeline::Item> nextSmallFile();
  bool statTaken(Item& item, const runel::Reply& reply);
  bool contentTaken(Item& item, const runel::Reply& reply);
  void makeLinks();
  void compareChecksums();
  bool compareRun(const ProgramRun& done, std::vector<Item*>& left);
  void finishDirectories();
  void itemFailed(Item& item, const Error& error);

  // pull_big_file.cc
  void fetchBigFiles();
  void bigFileDone();
  void beginBigFile(const runel::Reply& reply);
  void checkPart();
  void fetchPieces();
  std::optional<Pipeline::Item> nextPiece();
  bool pieceTaken(std::uint64_t offset, std::size_t size, const runel::Reply& reply);
  void endPieces();
  void finishBigFile(const runel::Reply& reply);
  void dropBigFile(const Error& error);

  const PullPlan plan_;
  std::string base_;
  bool into_ = false;
  std::size_t next_ = 0;
  bool statNext_ = true;
  std::vector<Item> directories_, links_, small_, big_;
  std::unique_ptr<BigFile> bigFile_;
};

}  // namespace runelctl

#endif  // RUNELCTL_COMMANDS_PULL_JOB_H_
