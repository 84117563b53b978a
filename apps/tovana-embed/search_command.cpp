#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>

#include "command.h"
#include "embedding_call.h"
#include "engine_arguments.h"
#include "engine_session.h"
#include "failure.h"
#include "json_writer.h"
#include "option_values.h"
#include "output.h"
#include "progress.h"
#include "text_input.h"
#include "tovana/base/text.h"
#include "tovana/engines/embedding/backends/tfidf/tfidf.h"
#include "tovana/storage/vector_index.h"

namespace tovana::tool {
namespace {

using embedding::Vector;
using Hit = storage::EmbeddingIndex::Neighbour;

struct SearchArguments {
  EngineArguments engine;
  InputArguments input;
  CLI::Option* query = nullptr;
  std::int64_t top = 10;
  bool json = false;
};

Vector embed_query(EngineSession& session, const InputTexts& query,
                   const std::optional<std::string>& prompt, const RunLimits& limits) {
  Vector vector;
  std::size_t dimension = 0;
  embed_in_batches(session, query, {.prompt = prompt}, limits,
                   {[&](const InputTexts& texts, std::size_t, const std::vector<Vector>& vectors) {
                     check_vector(session, texts, 0, vectors[0], dimension);
                     vector = vectors[0];
                   }});
  return vector;
}

std::string why_nothing_is_like_zero(const embedding::EmbeddingBackend& backend) {
  if (dynamic_cast<const embedding::TFIDFEmbeddingBackend*>(&backend) != nullptr) {
    return "the query holds no searchable word, so nothing is like it; give words of two letters "
           "or more";
  }
  return "the backend " + backend.name() +
         " returned only zeros for the query, which nothing is like; give another query, or "
         "another --model";
}

/// The texts that have anything in common with the query, best first, at most `top`.
std::vector<Hit> rank(EngineSession& session, const InputTexts& input, const Vector& query,
                      const SearchArguments& arguments, const RunLimits& limits) {
  storage::EmbeddingIndex index(query.size());
  Progress progress(input.texts.size(), false);
  std::size_t dimension = query.size();
  std::int64_t id = 0;
  const auto add = [&](const InputTexts& texts, std::size_t first,
                       const std::vector<Vector>& vectors) {
    for (const Vector& vector : vectors) {
      limits.check_interrupted();
      check_vector(session, texts, first++, vector, dimension);
      index.add(id++, vector);
    }
    progress.advance(vectors.size());
  };
  embed_in_batches(session, input, {.prompt = arguments.engine.text_prompt}, limits, {add});
  std::vector<Hit> hits = index.nearest(query, static_cast<std::size_t>(arguments.top));
  std::erase_if(hits, [](const Hit& hit) { return hit.similarity <= 0; });
  return hits;
}

/// On one line and harmless to a terminal; a tab stays a tab.
std::string printable(std::string_view text) {
  std::string result;
  for (;;) {
    const std::size_t tab = text.find('\t');
    result += escape_control_characters(text.substr(0, tab));
    if (tab == std::string_view::npos) return result;
    result += '\t';
    text.remove_prefix(tab + 1);
  }
}

void write_hit(Output& output, double score, const std::string& text) {
  output.write(with_decimals(score, 4));
  output.write("\t");
  output.write(printable(text));
  output.write("\n");
}

/// A record keeps all that it was, and has its own idea of a line.
void write_json_hit(Output& output, double score, const InputTexts& input, std::size_t index) {
  output.write("{\"score\":");
  write_json_number(output, score);
  if (input.members.empty()) {
    output.write(",\"line\":" + std::to_string(input.lines[index]) + ",\"text\":");
    write_json_string(output, input.texts[index]);
  } else {
    output.write("," + input.members[index]);
  }
  output.write("}\n");
}

ExitStatus search(const SearchArguments& arguments, const Interrupts& interrupts) {
  const RunLimits limits(interrupts);
  Output output("-", limits);
  EngineSession session(arguments.engine, interrupts);
  const InputTexts input = TextReader(arguments.input, {"score"}, limits).read();
  const InputTexts query = texts_of_arguments(arguments.query->results());
  const Vector query_vector = embed_query(session, query, arguments.engine.prompt, limits);
  if (std::ranges::all_of(query_vector, [](double value) { return value == 0; })) {
    report(why_nothing_is_like_zero(*session.wait_ready(limits)));
    return ExitStatus::success;
  }
  const std::vector<Hit> hits = rank(session, input, query_vector, arguments, limits);
  if (hits.empty()) report("no text is like the query");
  for (const Hit& hit : hits) {
    const auto index = static_cast<std::size_t>(hit.id);
    if (arguments.json) {
      write_json_hit(output, hit.similarity, input, index);
    } else {
      write_hit(output, hit.similarity, input.texts[index]);
    }
  }
  output.finish();
  return ExitStatus::success;
}

}  // namespace

Command add_search_command(CLI::App& tool) {
  const auto arguments = std::make_shared<SearchArguments>();
  CLI::App& command = *tool.add_subcommand("search", "Print the texts that are most like a query");
  arguments->query = command.add_option("QUERY", "What to look for")->required();
  add_input_options(command, arguments->input);
  add_count(command, "--top", arguments->top, "Print at most N texts (10)");
  command.add_flag("--json", arguments->json,
                   "Print an object a text, {\"score\":…,\"line\":…,\"text\":…},\n"
                   "with all digits of the score and the text as it is;\n"
                   "with --jsonl \"score\" and the members of its object");
  add_prompt_option(command, arguments->engine, "the query");
  command
      .add_option("--text-prompt", arguments->engine.text_prompt,
                  "local: the same before each text of the input:\n"
                  "\"document\"")
      ->option_text("NAME");
  add_engine_options(command, arguments->engine);
  command.footer(
      R"(Prints the cosine similarity, a tab and the text, best first. Texts with a
similarity of 0 or below have nothing in common with the query and are left out.
Control characters of a text are printed as escapes. That nothing was found is
said on stderr; the exit status is 0 all the same.

Examples:
  tovana-embed search 'read a file' --input names.txt --top 3
  git ls-files | tovana-embed search 'http client'
  tovana-embed search timeout --jsonl --json < records.jsonl)");
  return {&command,
          [arguments](const Interrupts& interrupts) { return search(*arguments, interrupts); }};
}

}  // namespace tovana::tool
