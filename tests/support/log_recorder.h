#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tovana/base/logging.h"

namespace tovana::testing {

/// Receives every log record of the process, down to debug, for the length of a scope.
class LogRecorder {
 public:
  LogRecorder();
  ~LogRecorder();
  LogRecorder(const LogRecorder&) = delete;
  LogRecorder& operator=(const LogRecorder&) = delete;

  std::vector<LogRecord> records() const;

  /// What was logged since the last call, one "LEVEL MESSAGE" a record.
  std::vector<std::string> take_lines();

 private:
  struct State;
  std::shared_ptr<State> _state;
};

}  // namespace tovana::testing
