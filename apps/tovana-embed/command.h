#pragma once

#include <functional>

#include <CLI/CLI.hpp>

#include "interrupts.h"

namespace tovana::tool {

/// A command of the tool: how its arguments are parsed, and what it does once they are. `run`
/// blocks until the work is done, and throws Failure, Interrupted or ClosedPipe when it cannot be.
struct Command {
  CLI::App* arguments;
  std::function<void(const Interrupts&)> run;
};

Command add_embed_command(CLI::App& tool);
Command add_search_command(CLI::App& tool);

}  // namespace tovana::tool
