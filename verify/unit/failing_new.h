// SPDX-License-Identifier: Apache-2.0
// operator new with a mind of its own. Linking it replaces the usual one.
#ifndef VERIFY_UNIT_FAILING_NEW_H_
#define VERIFY_UNIT_FAILING_NEW_H_

namespace zell::test {

/// While it lives, the allocations with the numbers @p first to @p first + @p times - 1, counted
/// from 1, throw std::bad_alloc.
class FailingNew {
 public:
  FailingNew(long first, long times);
  ~FailingNew();
  FailingNew(const FailingNew&) = delete;
  FailingNew& operator=(const FailingNew&) = delete;
};

/// How many allocations were asked for since the newest FailingNew was made.
long allocationsAsked();

/// How many of all allocations are alive.
long allocationsAlive();

}  // namespace zell::test

#endif  // VERIFY_UNIT_FAILING_NEW_H_
