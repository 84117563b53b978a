#include "tests/support/log_recorder.h"

#include <array>

#include "tovana/base/mutex.h"

namespace tovana::testing {

struct LogRecorder::State {
  Mutex mutex;
  std::vector<LogRecord> records TOVANA_GUARDED_BY(mutex);
};

LogRecorder::LogRecorder() : _state(std::make_shared<State>()) {
  set_log_level(LogLevel::debug);
  set_log_sink([state = _state](const LogRecord& record) {
    const LockGuard lock(state->mutex);
    state->records.push_back(record);
  });
}

LogRecorder::~LogRecorder() {
  set_log_sink({});
  set_log_level(LogLevel::info);
}

std::vector<std::string> LogRecorder::take_lines() {
  std::vector<LogRecord> records;
  {
    const LockGuard lock(_state->mutex);
    records.swap(_state->records);
  }
  std::vector<std::string> lines;
  for (const LogRecord& record : records) {
    constexpr std::array kLevels = {"debug ", "info ", "warning "};
    lines.push_back(kLevels.at(static_cast<std::size_t>(record.level)) + record.message());
  }
  return lines;
}

std::vector<LogRecord> LogRecorder::records() const {
  const LockGuard lock(_state->mutex);
  return _state->records;
}

}  // namespace tovana::testing
