// SPDX-License-Identifier: Apache-2.0
#include "fakes/gateway/fake_store.h"

#include <algorithm>
#include <cerrno>
#include <type_traits>

namespace runelgw {
namespace {

std::uint64_t keyOf(const OperationResultRecord& record) {
  return record.device;
}
template <typename Record>
std::uint64_t keyOf(const Record& record) {
  return record.id;
}

bool isWithin(const TimeRange& range, std::int64_t time) {
  return time >= range.since && (range.until == 0 || time < range.until);
}

template <typename Value>
bool fits(const Value& wanted, const Value& value) {
  return wanted == Value() || wanted == value;
}

}  // namespace

void FakeStore::run() {
  while (!later_.empty()) {
    runOne();
  }
}

void FakeStore::runOne() {
  const std::function<void()> call = std::move(later_.front());
  later_.pop_front();
  call();
}

void FakeStore::write(std::vector<Change> changes, Done done) {
  if (!failure.empty()) {
    later_.emplace_back([done = std::move(done), text = failure] { done(text); });
    return;
  }
  for (const Change& change : changes) {
    apply(change);
  }
  writes.push_back(std::move(changes));
  later_.emplace_back([done = std::move(done)] { done(std::nullopt); });
}

void FakeStore::apply(const Change& change) {
  std::visit(
      [this](const auto& item) {
        using Item = std::decay_t<decltype(item)>;
        if constexpr (std::is_same_v<Item, Save<TokenRecord>>) {
          tokens[item.record.id] = item.record;
        } else if constexpr (std::is_same_v<Item, RemoveToken>) {
          tokens.erase(item.id);
        } else if constexpr (std::is_same_v<Item, Save<OperationRecord>>) {
          operations[item.record.id] = item.record;
        } else if constexpr (std::is_same_v<Item, Save<OperationResultRecord>>) {
          results[{item.record.operation, item.record.device}] = item.record;
        } else if constexpr (std::is_same_v<Item, RemoveOperation>) {
          operations.erase(item.id);
        } else if constexpr (std::is_same_v<Item, Save<SettingRecord>>) {
          settings[item.record.name] = item.record.value;
        } else if constexpr (std::is_same_v<Item, RemoveSetting>) {
          settings.erase(item.name);
        } else if constexpr (std::is_same_v<Item, Append<AuditRecord>>) {
          audit.push_back(item.record);
          audit.back().id = audit.size();
        } else if constexpr (std::is_same_v<Item, Append<HistoryRecord>>) {
          history.push_back(item.record);
          history.back().id = history.size();
        } else if constexpr (std::is_same_v<Item, Append<ClauseRecord>>) {
          clauses.push_back(item.record);
          clauses.back().id = clauses.size();
        }
      },
      change);
}

template <typename Record, typename Wanted>
void FakeStore::read(const std::vector<Record>& all, const PageRequest& page, Wanted wanted,
                     Got<Page<Record>> got) {
  if (!failure.empty()) {
    later_.emplace_back([got = std::move(got), text = failure] {
      got(runel::Error(runel::Kind::local, runel::Cause::other, text, EIO));
    });
    return;
  }
  std::vector<Record> matching;
  std::copy_if(all.begin(), all.end(), std::back_inserter(matching), wanted);
  const bool ascending = page.oldestFirst || std::is_same_v<Record, OperationResultRecord>;
  std::sort(matching.begin(), matching.end(), [&](const Record& left, const Record& right) {
    return ascending ? keyOf(left) < keyOf(right) : keyOf(left) > keyOf(right);
  });
  Page<Record> result;
  const std::size_t limit = std::clamp<std::size_t>(page.limit, 1, kMaxPage);
  for (Record& record : matching) {
    const std::uint64_t key = keyOf(record);
    const bool skipped = page.cursor != 0 && (ascending ? key <= page.cursor : key >= page.cursor);
    if (skipped) {
      continue;
    }
    if (result.items.size() == limit) {
      result.next = keyOf(result.items.back());
      break;
    }
    result.items.push_back(std::move(record));
  }
  later_.emplace_back([got = std::move(got), result = std::move(result)] { got(result); });
}

void FakeStore::readAudit(AuditQuery query, Got<Page<AuditRecord>> got) {
  read(
      audit, query.page,
      [&](const AuditRecord& record) {
        return isWithin(query.time, record.time) && fits(query.who, record.who) &&
               fits(query.what, record.what) && fits(query.outcome, record.outcome);
      },
      std::move(got));
}

void FakeStore::readHistory(HistoryQuery query, Got<Page<HistoryRecord>> got) {
  read(
      history, query.page,
      [&](const HistoryRecord& record) {
        return isWithin(query.time, record.time) && fits(query.device, record.device) &&
               fits(query.event, record.event);
      },
      std::move(got));
}

void FakeStore::readClauses(ClauseQuery query, Got<Page<ClauseRecord>> got) {
  read(
      clauses, query.page,
      [&](const ClauseRecord& record) {
        return isWithin(query.time, record.time) && fits(query.device, record.device);
      },
      std::move(got));
}

void FakeStore::readOperations(OperationQuery query, Got<Page<OperationRecord>> got) {
  std::vector<OperationRecord> all;
  for (const auto& [id, record] : operations) {
    all.push_back(record);
  }
  read(
      all, query.page,
      [&](const OperationRecord& record) {
        return isWithin(query.time, record.time) && fits(query.id, record.id) &&
               fits(query.who, record.who) && fits(query.state, record.state);
      },
      std::move(got));
}

void FakeStore::readResults(ResultQuery query, Got<Page<OperationResultRecord>> got) {
  std::vector<OperationResultRecord> all;
  for (const auto& [key, record] : results) {
    all.push_back(record);
  }
  read(
      all, query.page,
      [&](const OperationResultRecord& record) {
        return record.operation == query.operation && fits(query.device, record.device) &&
               fits(query.outcome, record.outcome);
      },
      std::move(got));
}

}  // namespace runelgw
