#pragma once

#include <functional>

#include <CLI/CLI.hpp>

#include "failure.h"
#include "interrupts.h"

namespace tovana::tool {

/// A command of the tool: how its arguments are parsed, and what it does once they are. `run`
/// blocks until the work is done and says how the process ends; it throws Failure, Interrupted or
/// ClosedPipe when the work cannot be done.
struct Command {
  CLI::App* arguments;
  std::function<ExitStatus(const Interrupts&)> run;
};

Command add_embed_command(CLI::App& tool);
Command add_index_command(CLI::App& tool);
Command add_search_command(CLI::App& tool);
Command add_pull_command(CLI::App& tool);
Command add_status_command(CLI::App& tool);
Command add_migrate_check_command(CLI::App& tool);

}  // namespace tovana::tool
