#include "subprocess.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tovana::testing {
namespace {

constexpr std::chrono::seconds kPatience(60);

void require(bool succeeded, const char* call) {
  if (!succeeded) throw std::system_error(errno, std::generic_category(), call);
}

struct Pipe {
  Descriptor read_end, write_end;

  Pipe() {
    std::array<int, 2> ends{};
    require(pipe2(ends.data(), O_CLOEXEC) == 0, "pipe2");
    read_end.reset(ends[0]);
    write_end.reset(ends[1]);
  }
};

/// Hands the number over to another owner.
void move_to(Descriptor& to, const Descriptor& from) {
  to.reset(fcntl(from.get(), F_DUPFD_CLOEXEC, 3));
}

}  // namespace

void Descriptor::reset(int number) {
  if (_number >= 0) ::close(_number);
  _number = number;
}

Subprocess::Subprocess(const std::vector<std::string>& command, Options options) {
  static_cast<void>(std::signal(SIGPIPE, SIG_IGN));  // `feed` reports that nobody reads
  Pipe input, output, errors;
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_adddup2(&files, input.read_end.get(), STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&files, errors.write_end.get(), STDERR_FILENO);
  if (options.output_path != nullptr) {
    posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, options.output_path, O_WRONLY, 0);
  } else {
    posix_spawn_file_actions_adddup2(&files, output.write_end.get(), STDOUT_FILENO);
  }

  sigset_t blocked, defaults;
  sigemptyset(&blocked);
  sigemptyset(&defaults);
  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) sigaddset(&defaults, number);
  const auto old_handler = std::signal(SIGINT, options.ignore_sigint ? SIG_IGN : SIG_DFL);
  if (options.ignore_sigint) sigdelset(&defaults, SIGINT);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setsigmask(&attributes, &blocked);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

  std::vector<char*> arguments;
  for (const std::string& argument : command)
    arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  errno = posix_spawn(&_id, arguments[0], &files, &attributes, arguments.data(), environ);
  static_cast<void>(std::signal(SIGINT, old_handler));
  posix_spawn_file_actions_destroy(&files);
  posix_spawnattr_destroy(&attributes);
  require(errno == 0, "posix_spawn");
  move_to(_input, input.write_end);
  move_to(_output, output.read_end);
  move_to(_errors, errors.read_end);
}

Subprocess::~Subprocess() {
  if (_id < 0) return;
  signal(SIGKILL);
  wait();
}

bool Subprocess::feed(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(_input.get(), bytes.data(), bytes.size());
    if (written < 0 && errno == EPIPE) return false;
    require(written >= 0, "write");
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

std::string Subprocess::read_output(std::size_t count) {
  std::string bytes(count, '\0');
  for (std::size_t have = 0; have < count;) {
    const ssize_t size = ::read(_output.get(), bytes.data() + have, count - have);
    require(size >= 0, "read");
    if (size == 0) throw std::runtime_error("the process printed less than expected");
    have += static_cast<std::size_t>(size);
  }
  return bytes;
}

void Subprocess::signal(int number) const { require(::kill(_id, number) == 0, "kill"); }

ProcessResult Subprocess::finish() {
  ProcessResult result{};
  std::vector<char> chunk(kPipeCapacity);
  const auto end = std::chrono::steady_clock::now() + kPatience;
  const std::array<std::pair<Descriptor*, std::string*>, 2> streams = {
      {{&_output, &result.output}, {&_errors, &result.errors}}};
  while (_output.get() >= 0 || _errors.get() >= 0) {
    std::array<pollfd, 2> watched = {{{_output.get(), POLLIN, 0}, {_errors.get(), POLLIN, 0}}};
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        end - std::chrono::steady_clock::now());
    if (left.count() <= 0 || poll(watched.data(), 2, static_cast<int>(left.count())) == 0) {
      throw std::runtime_error("the process has not ended after a minute");
    }
    for (std::size_t i = 0; i < streams.size(); ++i) {
      if (watched[i].revents == 0) continue;
      const auto& [stream, bytes] = streams[i];
      const ssize_t size = ::read(stream->get(), chunk.data(), chunk.size());
      if (size <= 0) {
        stream->reset();
      } else {
        bytes->append(chunk.data(), static_cast<std::size_t>(size));
      }
    }
  }
  result.status = wait();
  return result;
}

int Subprocess::wait() {
  int status = 0;
  require(waitpid(std::exchange(_id, -1), &status, 0) >= 0, "waitpid");
  return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::istringstream stream(text);
  for (std::string part; std::getline(stream, part, separator);) parts.push_back(part);
  return parts;
}

std::vector<std::string> tool(const std::vector<std::string>& environment,
                              const std::vector<std::string>& arguments,
                              const std::string& executable) {
  std::vector<std::string> command = {"/usr/bin/env", "-i"};
  command.insert(command.end(), environment.begin(), environment.end());
  command.push_back(executable);
  command.insert(command.end(), arguments.begin(), arguments.end());
  return command;
}

ProcessResult run(const std::vector<std::string>& command, std::string_view input,
                  Subprocess::Options options) {
  Subprocess process(command, options);
  process.feed(input);
  process.close_input();
  return process.finish();
}

}  // namespace tovana::testing
