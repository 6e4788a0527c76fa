// SPDX-License-Identifier: Apache-2.0
// An operator new that fails on request. Linking it replaces the standard one.
#ifndef VERIFY_UNIT_FAILING_NEW_H_
#define VERIFY_UNIT_FAILING_NEW_H_

namespace zell::test {

/// During its lifetime, the allocations number @p first to @p first + @p times - 1, counted from 1,
/// throw std::bad_alloc.
class FailingNew {
 public:
  FailingNew(long first, long times);
  ~FailingNew();
  FailingNew(const FailingNew&) = delete;
  FailingNew& operator=(const FailingNew&) = delete;
};

/// The number of allocations requested since the newest FailingNew was constructed.
long allocationsAsked();

/// The number of live allocations.
long allocationsAlive();

}  // namespace zell::test

#endif  // VERIFY_UNIT_FAILING_NEW_H_
