#include <algorithm>
#include <csignal>
#include <cstdio>
#include <exception>
#include <new>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fcntl.h>
#include <unistd.h>

#include "command.h"
#include "failure.h"
#include "fetch_display.h"
#include "interrupts.h"
#include "output.h"
#include "run_limits.h"

namespace tovana::tool {
namespace {

/// The process may have been started without one of the standard streams. Its number would go to
/// the next file that is opened, which would then receive, say, the error messages. The stand-in
/// refuses the direction that the stream is used in.
void occupy_standard_descriptors() {
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(descriptor, F_GETFD) >= 0) continue;
    // The lowest free number is the one just tested.
    if (::open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY) < 0) return;
  }
}

[[noreturn]] void end_process(ExitStatus status) {
  static_cast<void>(std::fflush(nullptr));
  // No destructors of statics: threads that use them may still be at work.
  _exit(static_cast<int>(status));
}

[[noreturn]] void end_by_closed_pipe() {
  sigset_t pipe_signal;
  sigemptyset(&pipe_signal);
  sigaddset(&pipe_signal, SIGPIPE);
  static_cast<void>(std::signal(SIGPIPE, SIG_DFL));
  pthread_sigmask(SIG_UNBLOCK, &pipe_signal, nullptr);
  static_cast<void>(std::raise(SIGPIPE));
  _exit(128 + SIGPIPE);
}

void print(const std::string& text, const Interrupts& interrupts) {
  const RunLimits limits(interrupts);
  Output output("-", limits);
  output.write(text);
  output.finish();
}

/// The parser takes "++" for the end of a command's arguments, and would drop it without a word.
void check_no_terminator(const std::vector<std::string>& arguments) {
  const auto end = std::ranges::find(arguments, "--");
  if (std::find(arguments.begin(), end, "++") != end) {
    throw Failure(ExitStatus::usage, "an argument ++ has to come behind --, as in: embed -- ++");
  }
}

void describe(CLI::App& tool) {
  tool.set_help_flag("-h,--help", "Print this help");
  tool.set_version_flag("--version", std::string("tovana-embed ") + TOVANA_VERSION,
                        "Print the version");
  tool.require_subcommand(1);
  tool.get_formatter()->column_width(22);
  tool.get_formatter()->label("SUBCOMMAND", "COMMAND");
  tool.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  tool.footer(
      "Results go to standard output, everything else to stderr.\n"
      "tovana-embed COMMAND --help tells more.\n\n"
      "Exit status:\n"
      "  0    done\n"
      "  1    migrate-check: the vectors have to be embedded again\n"
      "  64   the command line is wrong\n"
      "  65   the input, the settings, a variable of the environment or the\n"
      "       database are malformed, or the model is damaged, incomplete\n"
      "       or of a kind that does not load\n"
      "  66   the input, the settings or the database cannot be read\n"
      "  69   a call failed, the deadline passed (during the load too), or\n"
      "       what was asked for cannot be had\n"
      "  70   the tool itself failed\n"
      "  74   the output or the model cache cannot be written\n"
      "  75   not ready, and a later try may succeed: the model is still\n"
      "       loading, its hub cannot be reached, the database is locked\n"
      "  130  interrupted\n"
      "  141  the reader of the output went away (as a signal, SIGPIPE)");
}

ExitStatus run(std::vector<std::string> arguments, const Interrupts& interrupts) {
  CLI::App tool("Turns texts into vectors, and finds texts by them.", "tovana-embed");
  describe(tool);
  const std::vector<Command> commands = {add_embed_command(tool),         add_index_command(tool),
                                         add_search_command(tool),        add_status_command(tool),
                                         add_migrate_check_command(tool), add_pull_command(tool)};
  for (const Command& command : commands) command.arguments->group("Commands");
  const auto first =
      std::ranges::find_if_not(arguments, [](const auto& word) { return word.starts_with("-"); });
  const std::string word = first == arguments.end() ? "" : *first;
  try {
    check_no_terminator(arguments);
    std::ranges::reverse(arguments);  // the parser takes them from the back
    tool.parse(std::move(arguments));
  } catch (const CLI::CallForHelp&) {
    print(tool.help(), interrupts);
    return ExitStatus::success;
  } catch (const CLI::CallForVersion& version) {
    print(std::string(version.what()) + "\n", interrupts);
    return ExitStatus::success;
  } catch (const CLI::ParseError& error) {
    const auto chosen = tool.get_subcommands();
    if (chosen.empty()) {
      const std::string problem =
          word.empty() ? "there is no command in these arguments" : "no command is called " + word;
      throw Failure(ExitStatus::usage, problem + "; give one, as embed, see tovana-embed --help");
    }
    throw Failure(ExitStatus::usage, std::string(error.what()) + "; see tovana-embed " +
                                         chosen.front()->get_name() + " --help");
  }
  const auto parsed = std::ranges::find_if(
      commands, [](const Command& command) { return command.arguments->parsed(); });
  return parsed->run(interrupts);
}

ExitStatus run_reporting(std::vector<std::string> arguments) {
  try {
    show_fetches();
    // Never deleted: its thread lives until the process ends.
    const auto* const interrupts = new Interrupts(discard_unfinished_output);
    return run(std::move(arguments), *interrupts);
  } catch (const Interrupted&) {
    return ExitStatus::interrupted;
  } catch (const ClosedPipe&) {
    end_by_closed_pipe();
  } catch (const Failure& failure) {
    report(failure.what());
    return failure.status();
  } catch (const std::bad_alloc&) {
    report("not enough memory; give less input at a time");
  } catch (const std::exception& error) {
    report(std::string("unexpected failure: ") + error.what());
  }
  return ExitStatus::internal;
}

}  // namespace
}  // namespace tovana::tool

int main(int argc, char** argv) {
  using namespace tovana::tool;
  occupy_standard_descriptors();
  // A write then says that the reader has gone.
  static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
  end_process(run_reporting({argv + std::min(argc, 1), argv + argc}));
}
