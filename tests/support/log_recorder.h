#pragma once

#include <array>
#include <memory>
#include <string>
#include <vector>

#include "tovana/base/logging.h"
#include "tovana/base/mutex.h"

namespace tovana::testing {

/// Receives every log record of the process, down to debug, for the length of a scope.
class LogRecorder {
 public:
  LogRecorder() {
    set_log_level(LogLevel::debug);
    set_log_sink([state = _state](const LogRecord& record) {
      const LockGuard lock(state->mutex);
      state->records.push_back(record);
    });
  }
  ~LogRecorder() {
    set_log_sink({});
    set_log_level(LogLevel::info);
  }
  LogRecorder(const LogRecorder&) = delete;
  LogRecorder& operator=(const LogRecorder&) = delete;

  std::vector<LogRecord> records() const {
    const LockGuard lock(_state->mutex);
    return _state->records;
  }

  /// What was logged since the last call, one "LEVEL MESSAGE" a record.
  std::vector<std::string> take_lines() {
    const LockGuard lock(_state->mutex);
    std::vector<std::string> lines;
    for (const LogRecord& record : _state->records) {
      constexpr std::array kLevels = {"debug ", "info ", "warning "};
      lines.push_back(kLevels.at(static_cast<std::size_t>(record.level)) + record.message());
    }
    _state->records.clear();
    return lines;
  }

 private:
  /// A record that is on its way may come when the scope is over.
  struct State {
    Mutex mutex;
    std::vector<LogRecord> records TOVANA_GUARDED_BY(mutex);
  };
  const std::shared_ptr<State> _state = std::make_shared<State>();
};

}  // namespace tovana::testing
