#include "result_writer.h"

#include "json_writer.h"

namespace tovana::tool {

using embedding::Vector;

ResultWriter::ResultWriter(Output& output, const ResultFormat& format,
                           std::optional<std::size_t> total, const EngineSession& session,
                           const RunLimits& limits, Progress& progress)
    : _output(output),
      _format(format),
      _total(total),
      _session(session),
      _limits(limits),
      _progress(progress) {}

ResultSink ResultWriter::sink() {
  ResultSink sink;
  sink.vectors = [this](const InputTexts& texts, std::size_t first,
                        const std::vector<Vector>& vectors) {
    for (std::size_t i = 0; i < vectors.size(); ++i) _write(texts, first + i, vectors[i]);
  };
  if (!_format.keeps_going) return sink;
  sink.failed = [this](const InputTexts& texts, std::size_t first, std::size_t count,
                       const Failure& failure) {
    for (std::size_t i = 0; i < count; ++i) _write_error(texts, first + i, failure.what());
  };
  return sink;
}

void ResultWriter::check_complete() const {
  if (!_total || _written == _total) return;
  throw Failure(ExitStatus::no_input,
                "the input changed while it was read; give --input a file that stays as it is");
}

bool ResultWriter::report_failed() const {
  if (_failed == 0) return false;
  report(std::to_string(_failed) + " of " + std::to_string(_written) +
         " texts have no vector but an \"error\", the first is " + _first_failure);
  return true;
}

void ResultWriter::_write(const InputTexts& texts, std::size_t index, const Vector& vector) {
  _limits.check_interrupted();
  const bool is_first = _dimension == 0;
  try {
    check_vector(_session, texts, index, vector, _dimension);
  } catch (const Failure& failure) {
    if (!_format.keeps_going) throw;
    return _write_error(texts, index, failure.what());
  }
  if (_format.npy) {
    if (is_first) write_npy_header(_output, _total.value(), _dimension, _format.dtype);
    write_npy_row(_output, vector, _format.dtype);
  } else {
    _begin_json_line(texts, index);
    _output.write(",\"vector\":");
    write_json_vector(_output, vector);
    _output.write("}\n");
    _output.end_line();
  }
  ++_written;
  _progress.advance(1);
}

void ResultWriter::_begin_json_line(const InputTexts& texts, std::size_t index) {
  _output.write("{");
  if (!texts.members.empty()) return _output.write(texts.members[index]);
  _output.write("\"text\":");
  write_json_string(_output, texts.texts[index]);
}

void ResultWriter::_write_error(const InputTexts& texts, std::size_t index,
                                const std::string& reason) {
  _limits.check_interrupted();
  _begin_json_line(texts, index);
  _output.write(",\"error\":");
  write_json_string(_output, reason);
  _output.write("}\n");
  _output.end_line();
  if (_failed++ == 0) {
    _first_failure = texts.unit + " " + std::to_string(texts.lines[index]) + ": " + reason;
  }
  ++_written;
  _progress.advance(1);
}

}  // namespace tovana::tool
