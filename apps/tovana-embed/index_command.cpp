#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "batching_arguments.h"
#include "command.h"
#include "embedding_call.h"
#include "engine_arguments.h"
#include "engine_session.h"
#include "index_update.h"
#include "index_writer.h"
#include "option_values.h"
#include "output.h"
#include "progress.h"
#include "text_input.h"
#include "tovana/engines/embedding/backends/local/local.h"

namespace tovana::tool {
namespace {

using embedding::EmbeddingBackend;
using embedding::Vector;

struct IndexArguments {
  EngineArguments engine;
  InputArguments input;
  CLI::Option* file = nullptr;
  BatchingArguments batching;
  bool keep_gone = false;
  bool rebuild = false;
};

/// What stands before each text; nothing where the backend has no prompts.
std::string prompt_of(EmbeddingBackend& backend, const std::optional<std::string>& name) {
  auto* const local = dynamic_cast<embedding::LocalEmbeddingBackend*>(&backend);
  if (local == nullptr) return "";
  const embedding::ModelPrompts prompts = local->prompts();
  const std::optional<std::string>& used = name ? name : prompts.default_name;
  return used ? prompts.texts.at(*used) : "";
}

/// Throws Failure (bad_data) when the vectors of `before` do not compare with those to come.
void check_origin(const std::string& path, const IndexOrigin& before, const IndexOrigin& now) {
  constexpr const char* kRemedy = "; --rebuild makes all of them anew";
  if (before.backend != now.backend) {
    throw Failure(ExitStatus::bad_data, path + ": holds vectors of " + before.backend +
                                            ", not of " + now.backend + kRemedy);
  }
  if (before.prompt != now.prompt) {
    const auto quoted = [](const std::string& prompt) {
      return prompt.empty() ? "without a prompt" : "with the prompt \"" + prompt + "\"";
    };
    throw Failure(ExitStatus::bad_data, path + ": holds vectors of texts " + quoted(before.prompt) +
                                            ", not " + quoted(now.prompt) +
                                            "; give the --prompt that it was made with, or " +
                                            "--rebuild, which makes all of them anew");
  }
  if (now.dimension != 0 && before.dimension != 0 && before.dimension != now.dimension) {
    throw Failure(ExitStatus::bad_data, path + ": holds vectors of " +
                                            std::to_string(before.dimension) + " numbers, not of " +
                                            std::to_string(now.dimension) + kRemedy);
  }
}

std::string summary(const IndexUpdate& update, std::size_t embedded) {
  const IndexUpdate::Counts& counts = update.counts();
  return std::to_string(counts.records) + " records: " + std::to_string(counts.added) + " new, " +
         std::to_string(counts.changed) + " changed, " + std::to_string(counts.removed) +
         " gone; " + std::to_string(embedded) + " texts embedded\n";
}

ExitStatus index(const IndexArguments& arguments, const Interrupts& interrupts) {
  const RunLimits limits(interrupts);
  Output output("-", limits);
  const std::string path = arguments.file->results().front();
  // First of all: a place that cannot be written to must not cost the work.
  IndexWriter file(path);
  const std::optional<IndexOrigin> before = file.origin();
  EngineArguments engine_arguments = arguments.engine;
  if (before && before->dimension > 0 && !arguments.rebuild) {
    engine_arguments.usual_dimension = static_cast<std::int64_t>(before->dimension);
  }
  EngineSession session(engine_arguments, interrupts);
  const InputTexts input = TextReader(arguments.input, {}, limits).read();
  EmbeddingBackend& backend = *session.wait_ready(limits);
  IndexUpdate::Options options = {.origin = {.backend = backend.name(),
                                             .prompt = prompt_of(backend, arguments.engine.prompt),
                                             .dimension = 0},
                                  .keeps_gone = arguments.keep_gone,
                                  .starts_anew = arguments.rebuild,
                                  .weighs_by_batch = is_tfidf(backend)};
  // What an endpoint's is shows with the first vector.
  if (is_tfidf(backend)) {
    options.origin.dimension = static_cast<std::size_t>(backend.dimension());
  }
  if (before && !arguments.rebuild) check_origin(path, *before, options.origin);
  IndexUpdate update(file, input, options);
  const InputTexts& texts = update.texts_to_embed();
  update.begin();
  {
    Progress progress(texts.texts.size(), false);
    std::size_t done = 0;
    const auto put = [&](const InputTexts&, std::size_t, const std::vector<Vector>& vectors) {
      update.put(done, vectors);
      done += vectors.size();
      progress.advance(vectors.size());
    };
    embed_in_batches(session, texts, batching_of(arguments.batching, arguments.engine.prompt),
                     limits, {put});
  }
  update.finish();
  output.write(summary(update, texts.texts.size()));
  output.finish();
  return ExitStatus::success;
}

}  // namespace

Command add_index_command(CLI::App& tool) {
  const auto arguments = std::make_shared<IndexArguments>();
  CLI::App& command =
      *tool.add_subcommand("index", "Bring an index of texts up to date, for search --index");
  arguments->file = command.add_option("FILE", "The index; made when it is not there")->required();
  add_input_options(command, arguments->input);
  const auto read_whole_lines = [arguments] {
    if (arguments->input.jsonl && arguments->input.members.id.empty()) {
      arguments->input.members.id = {"id"};
    }
  };
  command.final_callback(read_whole_lines);
  add_names(command, "--id-member", arguments->input.members.id,
            "With --jsonl: NAME tells one record from another, in\n"
            "place of \"id\". Given again, all of them do")
      ->needs("--jsonl");
  CLI::Option* const keep_gone = command.add_flag(
      "--keep-gone", arguments->keep_gone, "Keep records that the input does not hold any more");
  command
      .add_flag("--rebuild", arguments->rebuild,
                "Make the index anew, whatever made the vectors in it")
      ->excludes(keep_gone);
  add_batching_options(command, arguments->batching);
  add_prompt_option(command, arguments->engine, "each text");
  add_engine_options(command, arguments->engine);
  command.footer(
      R"(Afterwards the index holds the records of the input: texts that are new or have
changed are embedded, equal ones once, and the others keep their vectors. With
--jsonl a record is an object, which is kept whole and known by its --id-member;
otherwise it is a line, known by its text. Tags of universal-ctags may be given
as they come. Ended before it is done, by whatever, it keeps what is done, and
the next run goes on. It can be searched meanwhile.

Vectors compare only with those of the same backend, and are to have had the
same --prompt before their texts: with another one a run is refused, unless it
is to --rebuild the index.

tfidf weighs words by how rare they are in the whole, so it embeds all texts
again when there is any change.

Examples:
  git ls-files | tovana-embed index files.index
  tovana-embed index names.index --jsonl --id-member path --id-member line \
    --text-member name --text-member signature < tags.jsonl)");
  return {&command,
          [arguments](const Interrupts& interrupts) { return index(*arguments, interrupts); }};
}

}  // namespace tovana::tool
