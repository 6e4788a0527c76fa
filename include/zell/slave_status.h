// SPDX-License-Identifier: Apache-2.0
// The outcome of a task, as every reply carries it.
#ifndef ZELL_SLAVE_STATUS_H_
#define ZELL_SLAVE_STATUS_H_

namespace zell {

/// The outcome of a task in one value. The numbers are part of the wire format.
struct SlaveStatus {
  enum Type : int {
    success = 0,
    failure = 1,
    running = 2,  ///< a program was started in the background
    timeout = 3,  ///< a program ran into its time limit
    error = 4,    ///< the request itself was refused; nothing ran
  };
};

/// The state of the program that the task was about. The numbers are part of the wire format.
enum class WatchProcessState_t {
  none = 0,  ///< the task ran no program, or the program could not be started
  running = 1,
  exited = 2,
  signalled = 3,
  timedOut = 4,
};

/// The five status fields of a reply, in wire order. All zeros mean success of a task that runs no
/// program.
struct ResultStatus {
  SlaveStatus::Type status = SlaveStatus::success;
  WatchProcessState_t state = WatchProcessState_t::none;
  int result = 0;  ///< exit status of a program; 1 for another failure; -1 when a signal ended it
  int error = 0;   ///< errno value, 0 for none
  int signal = 0;  ///< number of the signal that ended the program, 0 for none
};

}  // namespace zell

#endif  // ZELL_SLAVE_STATUS_H_
