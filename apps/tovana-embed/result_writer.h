#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "embedding_call.h"
#include "engine_session.h"
#include "failure.h"
#include "npy_writer.h"
#include "output.h"
#include "progress.h"
#include "run_limits.h"
#include "text_input.h"
#include "tovana/engines/embedding/backends/backend.h"

namespace tovana::tool {

/// How the results of `embed` are written.
struct ResultFormat {
  bool npy = false;
  NpyType dtype = NpyType::float64;  ///< The numbers of npy.
  /// Writes an object with "error" for a text that has no vector, which NumPy's format cannot say;
  /// else such a text ends the run.
  bool keeps_going = false;
};

/// Writes the results of a run in the order in which they are given to it. Used by one thread; what
/// it is constructed with lives until the last result is written.
class ResultWriter {
 public:
  /// `total` is how many texts there are, where that is known; NumPy's format wants it.
  ResultWriter(Output& output, const ResultFormat& format, std::optional<std::size_t> total,
               const EngineSession& session, const RunLimits& limits, Progress& progress);

  /// Takes the results of the calls. Its operations throw as Output does, and Failure (call_failed)
  /// for a vector that cannot be used.
  ResultSink sink();

  /// Throws Failure (no_input) when there were not as many texts as had been counted.
  void check_complete() const;

  /// Whether any text has an error in place of a vector; how many is said in one line on stderr.
  bool report_failed() const;

 private:
  void _write(const InputTexts& texts, std::size_t index, const embedding::Vector& vector);
  void _begin_json_line(const InputTexts& texts, std::size_t index);
  void _write_error(const InputTexts& texts, std::size_t index, const std::string& reason);

  Output& _output;
  const ResultFormat _format;
  const std::optional<std::size_t> _total;
  const EngineSession& _session;
  const RunLimits& _limits;
  Progress& _progress;
  std::size_t _dimension = 0;  ///< 0 before the first vector: only that tells an endpoint's.
  std::size_t _written = 0;    ///< Texts, failed ones included.
  std::size_t _failed = 0;
  std::string _first_failure;
};

}  // namespace tovana::tool
