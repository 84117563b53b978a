#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

namespace tovana::testing {

/// A file descriptor that is closed in the end.
class Descriptor {
 public:
  explicit Descriptor(int number = -1) : _number(number) {}
  ~Descriptor() { reset(); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int get() const { return _number; }
  void reset(int number = -1);

 private:
  int _number;
};

/// How a process ended.
struct ProcessResult {
  int status;  ///< The exit status; for a signal, its number negated.
  std::string output;
  std::string errors;
};

/// A process with pipes at its three standard streams. It starts with the default signal handling,
/// whatever the test runs under. A process that outlives this object is killed.
class Subprocess {
 public:
  struct Options {
    const char* output_path = nullptr;  ///< Standard output is this file, opened for writing.
    bool ignore_sigint = false;
  };

  explicit Subprocess(const std::vector<std::string>& command) : Subprocess(command, Options{}) {}
  Subprocess(const std::vector<std::string>& command, Options options);
  ~Subprocess();
  Subprocess(const Subprocess&) = delete;
  Subprocess& operator=(const Subprocess&) = delete;

  /// Writes to its standard input: returns when all but a pipe's capacity has been read. False when
  /// it stopped reading.
  bool feed(std::string_view bytes);
  void close_input() { _input.reset(); }

  /// The next bytes of its standard output, `count` of them.
  std::string read_output(std::size_t count);
  void close_output() { _output.reset(); }

  void signal(int number) const;

  /// Reads what it prints until it ends. Its input stays as it is. Throws when it has not ended
  /// after a minute.
  ProcessResult finish();

  /// Waits for its end without reading what it prints. The status as in ProcessResult.
  int wait();

 private:
  pid_t _id = -1;
  Descriptor _input, _output, _errors;
};

/// The parts of a text that single characters separate: the words of a command line, or lines.
std::vector<std::string> split(const std::string& text, char separator = ' ');

/// The tool in an environment of nothing but the given variables, "NAME=VALUE".
std::vector<std::string> tool(const std::vector<std::string>& environment,
                              const std::vector<std::string>& arguments,
                              const std::string& executable = TOVANA_EMBED_PATH);

/// How much a pipe holds at most before a write to it blocks.
inline constexpr std::size_t kPipeCapacity = 65536;

/// Runs a command with `input` as its standard input.
ProcessResult run(const std::vector<std::string>& command, std::string_view input = "",
                  Subprocess::Options options = {});

}  // namespace tovana::testing
