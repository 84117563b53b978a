#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>
#include <unistd.h>

#include "batching_arguments.h"
#include "command.h"
#include "embedding_call.h"
#include "engine_arguments.h"
#include "engine_session.h"
#include "failure.h"
#include "input_file.h"
#include "npy_writer.h"
#include "option_values.h"
#include "output.h"
#include "progress.h"
#include "result_writer.h"
#include "text_input.h"
#include "unique_call.h"

namespace tovana::tool {
namespace {

struct EmbedArguments {
  EngineArguments engine;
  InputArguments input;
  CLI::Option* texts = nullptr;
  std::string output = "-";
  bool npy = false;
  std::optional<NpyType> dtype;
  BatchingArguments batching;
  bool keep_going = false;
  std::optional<double> deadline;
};

/// The texts of a run: in memory, or still to be read.
struct Input {
  std::unique_ptr<TextReader> reader;
  InputTexts texts;                      ///< Without a reader: all of them.
  std::optional<std::size_t> total = 0;  ///< Null: nobody knows yet.
};

/// With an endpoint the input is read as it is needed, and where that can be done twice, it is
/// checked first. For any other backend it is read whole while that loads.
Input open_input(const EmbedArguments& arguments, EngineSession& session, const RunLimits& limits) {
  Input input;
  if (arguments.texts->count() > 0) {
    // The raw results: a conversion would take a text "{}" for an empty list.
    input.texts = texts_of_arguments(arguments.texts->results());
  } else {
    std::vector<std::string> replaced = {"vector"};
    if (arguments.keep_going) replaced.emplace_back("error");
    input.reader = std::make_unique<TextReader>(arguments.input, std::move(replaced), limits);
    if (session.may_be_endpoint()) {
      input.total = input.reader->count();
      const bool is_needed_first = arguments.npy && !input.total;
      if (!is_needed_first && is_endpoint(*session.wait_ready(limits))) return input;
    }
    input.texts = input.reader->read();
    input.reader.reset();
  }
  input.total = input.texts.texts.size();
  return input;
}

ExitStatus embed(const EmbedArguments& arguments, const Interrupts& interrupts) {
  if (arguments.keep_going && arguments.npy) {
    throw Failure(ExitStatus::usage,
                  "--keep-going cannot go with --format npy, whose rows are numbers only; see "
                  "tovana-embed embed --help");
  }
  if (arguments.dtype && !arguments.npy) {
    throw Failure(ExitStatus::usage, "--dtype is for --format npy; see tovana-embed embed --help");
  }
  if (arguments.npy && arguments.output == kStandardStream && isatty(STDOUT_FILENO) != 0) {
    throw Failure(ExitStatus::usage,
                  "npy is not for a terminal; give --output a file, or redirect it");
  }
  const NpyType dtype = arguments.dtype.value_or(NpyType::float64);
  const RunLimits limits(interrupts, arguments.deadline.value_or(RunLimits::kNoDeadline));
  // First of all: a place that cannot be written to must not cost the work.
  Output output(arguments.output, limits);
  EngineSession session(arguments.engine, interrupts);
  const Input input = open_input(arguments, session, limits);
  if (arguments.npy && input.total == 0) {
    write_npy_header(output, 0, static_cast<std::size_t>(session.wait_ready(limits)->dimension()),
                     dtype);
  }
  auto progress = std::make_unique<Progress>(input.total, arguments.output == "-");
  ResultWriter writer(output,
                      {.npy = arguments.npy, .dtype = dtype, .keeps_going = arguments.keep_going},
                      input.total, session, limits, *progress);
  const Batching batching = batching_of(arguments.batching, arguments.engine.prompt);
  if (input.reader) {
    embed_from([&](std::size_t most) { return input.reader->read(most); }, session, batching,
               limits, writer.sink());
  } else {
    embed_each_once(session, input.texts, batching, limits, writer.sink());
  }
  progress.reset();  // its line would be in the way of others
  writer.check_complete();
  output.finish();
  return writer.report_failed() ? ExitStatus::call_failed : ExitStatus::success;
}

void add_format_option(CLI::App& command, EmbedArguments& arguments) {
  const auto set_format = [&arguments](const std::string& name) {
    if (name != "jsonl" && name != "npy") {
      throw CLI::ValidationError("--format", "takes jsonl or npy, not \"" + name + "\"");
    }
    arguments.npy = name == "npy";
  };
  command
      .add_option_function<std::string>(
          "--format", set_format,
          "jsonl: an object a text, {\"text\":…,\"vector\":[…]} (the\n"
          "default); npy: the vectors alone, a NumPy array\n"
          "[texts x dimension]")
      ->type_name("FORMAT");
  const auto set_dtype = [&arguments](const std::string& name) {
    if (name != "float64" && name != "float32") {
      throw CLI::ValidationError("--dtype", "takes float64 or float32, not \"" + name + "\"");
    }
    arguments.dtype = name == "float64" ? NpyType::float64 : NpyType::float32;
  };
  command
      .add_option_function<std::string>("--dtype", set_dtype,
                                        "The numbers of npy: float64 (the default) or float32")
      ->type_name("TYPE");
}

}  // namespace

Command add_embed_command(CLI::App& tool) {
  const auto arguments = std::make_shared<EmbedArguments>();
  CLI::App& command = *tool.add_subcommand("embed", "Turn texts into vectors");
  // The parser splits "[a,b]" into two for an option that takes extra values; one that still
  // expects values gets them as they are.
  constexpr int kAnyNumber = CLI::detail::expected_max_vector_size;
  arguments->texts = command.add_option("TEXT", "The texts to embed; without any, --input is read")
                         ->option_text("...")
                         ->expected(kAnyNumber, kAnyNumber)
                         ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
                         ->allow_extra_args(false);
  add_input_options(command, arguments->input);
  arguments->texts->excludes("--input")->excludes("--jsonl");
  command
      .add_option("--output", arguments->output,
                  "Write to FILE: the whole result or, on any failure,\n"
                  "nothing; - is standard output (the default)")
      ->option_text("FILE");
  add_format_option(command, *arguments);
  add_batching_options(command, arguments->batching);
  command.add_flag("--keep-going", arguments->keep_going,
                   "Write texts whose call failed with \"error\" in place of\n"
                   "\"vector\", go on with the others, and end with status 69.\n"
                   "Without it such a call ends the run. Not with npy");
  add_seconds(command, "--deadline", arguments->deadline,
              "Give up (status 69) when S seconds have passed. tfidf\n"
              "looks at it only until it starts to embed");
  add_prompt_option(command, arguments->engine, "each text");
  add_engine_options(command, arguments->engine);
  command.footer(
      R"(The whole input is read and checked first; only for an endpoint is a pipe read
as it is needed. A text is a line without its line end (LF or CR LF). An empty
line is a text, whose vector is zero with tfidf. With --jsonl an object keeps
its other members as they are, "vector" comes last (in place of one that was
there, with --keep-going of an "error", too), and blank lines are passed over.
What is not UTF-8 becomes U+FFFD, with a warning. Equal texts are embedded once,
by an endpoint those of a batch (by tfidf each time, since its weights count them).

Examples:
  tovana-embed embed 'parse the config file' 'open a socket'
  tovana-embed embed --input names.txt --format npy --output names.npy
  tovana-embed embed --jsonl < records.jsonl > with_vectors.jsonl
  tovana-embed embed --api-url URL --backend api --concurrency 8 --input names.txt
  tovana-embed embed -- --a-text-that-begins-with-a-hyphen)");
  return {&command,
          [arguments](const Interrupts& interrupts) { return embed(*arguments, interrupts); }};
}

}  // namespace tovana::tool
