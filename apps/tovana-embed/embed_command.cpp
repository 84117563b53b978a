#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "command.h"
#include "embedding_call.h"
#include "engine_arguments.h"
#include "engine_session.h"
#include "json_writer.h"
#include "npy_writer.h"
#include "option_values.h"
#include "output.h"
#include "progress.h"
#include "text_input.h"

namespace tovana::tool {
namespace {

using embedding::Vector;

struct EmbedArguments {
  EngineArguments engine;
  InputArguments input;
  CLI::Option* texts = nullptr;
  std::string output = "-";
  bool npy = false;
  std::int64_t batch_size = kDefaultBatchSize;
  std::optional<double> deadline;
};

void write_json_line(Output& output, const InputTexts& input, std::size_t index,
                     const Vector& vector) {
  output.write("{");
  if (input.members.empty()) {
    output.write("\"text\":");
    write_json_string(output, input.texts[index]);
  } else {
    output.write(input.members[index]);
  }
  output.write(",\"vector\":");
  write_json_vector(output, vector);
  output.write("}\n");
}

ExitStatus embed(const EmbedArguments& arguments, const Interrupts& interrupts) {
  const RunLimits limits(interrupts, arguments.deadline.value_or(RunLimits::kNoDeadline));
  // First of all: a place that cannot be written to must not cost the work.
  Output output(arguments.output, limits);
  EngineSession session(arguments.engine, interrupts);
  // The raw results: a conversion would take a text "{}" for an empty list.
  const InputTexts input = arguments.texts->count() > 0
                               ? texts_of_arguments(arguments.texts->results())
                               : read_texts(arguments.input, "vector", limits);
  const std::size_t count = input.texts.size();
  if (arguments.npy && count == 0) {
    write_npy_header(output, 0, static_cast<std::size_t>(session.wait_ready(limits).dimension()));
  }
  {
    Progress progress(count, arguments.output == "-");
    std::size_t dimension = 0;  // an endpoint's is known only when its first vectors have come
    const auto write_batch = [&](std::size_t first, const std::vector<Vector>& vectors) {
      if (first == 0) {
        dimension = vectors.front().size();
        if (arguments.npy) write_npy_header(output, count, dimension);
      }
      for (std::size_t i = 0; i < vectors.size(); ++i) {
        limits.check_interrupted();
        check_dimension(input, first + i, vectors[i], dimension);
        if (arguments.npy) {
          write_npy_row(output, vectors[i]);
        } else {
          write_json_line(output, input, first + i, vectors[i]);
        }
        progress.advance(1);
      }
    };
    embed_in_batches(session, input, static_cast<std::size_t>(arguments.batch_size), limits,
                     write_batch);
  }
  output.finish();
  return ExitStatus::success;
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
          "default); npy: the vectors alone, a NumPy array of\n"
          "float64 [texts x dimension]")
      ->type_name("FORMAT");
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
  add_count(command, "--batch-size", arguments->batch_size,
            "Most texts in one call of the backend (" + std::to_string(kDefaultBatchSize) +
                "); local takes\n"
                "as many as it embeds in a fifth of a second. tfidf takes\n"
                "the whole input as one batch, since its weights depend\n"
                "on the other texts of the batch");
  add_seconds(command, "--deadline", arguments->deadline,
              "Give up (status 69) when S seconds have passed. tfidf\n"
              "looks at it only until it starts to embed");
  add_engine_options(command, arguments->engine);
  command.footer(
      R"(The whole input is read and checked first. A text is a line without its line
end (LF or CR LF). An empty line is a text, and its vector is zero. With --jsonl
an object keeps its other members as they are, "vector" comes last (in place of
one that was there), and blank lines are passed over. What is not UTF-8 becomes
U+FFFD, with a warning.

Examples:
  tovana-embed embed 'parse the config file' 'open a socket'
  tovana-embed embed --input names.txt --format npy --output names.npy
  tovana-embed embed --jsonl < records.jsonl > with_vectors.jsonl
  tovana-embed embed -- --a-text-that-begins-with-a-hyphen)");
  return {&command,
          [arguments](const Interrupts& interrupts) { return embed(*arguments, interrupts); }};
}

}  // namespace tovana::tool
