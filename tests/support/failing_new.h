#pragma once

namespace tovana::testing {

/// Makes this thread's allocations by `new` fail, once `successes` more of them have succeeded, for
/// the length of the scope. Linking it replaces the global operator new.
class FailingNew {
 public:
  explicit FailingNew(int successes);
  ~FailingNew();
  FailingNew(const FailingNew&) = delete;
  FailingNew& operator=(const FailingNew&) = delete;

  /// Whether an allocation has failed so far.
  bool has_struck() const;
};

}  // namespace tovana::testing
