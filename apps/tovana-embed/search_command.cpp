#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include "command.h"
#include "cosine.h"
#include "embedding_call.h"
#include "engine_arguments.h"
#include "engine_session.h"
#include "failure.h"
#include "index_reader.h"
#include "input_file.h"
#include "json_record.h"
#include "json_writer.h"
#include "option_values.h"
#include "output.h"
#include "progress.h"
#include "ranking.h"
#include "text_input.h"
#include "tovana/base/text.h"
#include "tovana/engines/embedding/settings.h"
#include "unique_call.h"

namespace tovana::tool {
namespace {

using embedding::Vector;

struct SearchArguments {
  EngineArguments engine;
  InputArguments input;
  CLI::Option* query = nullptr;
  std::optional<std::string> queries;
  std::optional<std::string> index;
  std::int64_t top = 10;
  std::optional<double> min_score;
  bool json = false;
};

Wanted wanted(const SearchArguments& arguments) {
  Wanted wanted;
  wanted.top = static_cast<std::size_t>(arguments.top);
  if (arguments.min_score) wanted.min_score = *arguments.min_score;
  return wanted;
}

/// What is searched for: the queries that anything can be like, with their vectors.
struct Queries {
  std::vector<std::string> texts;
  std::vector<Vector> vectors;
};

std::string why_nothing_is_like_zero(const embedding::EmbeddingBackend& backend) {
  if (is_tfidf(backend)) {
    return "the query holds no searchable word, so nothing is like it; give words of two letters "
           "or more";
  }
  return "the backend " + backend.name() +
         " returned only zeros for the query, which nothing is like; give another query, or "
         "another --model";
}

/// The weights of tfidf are those of a batch, so each query is one by itself.
std::vector<Vector> embed_queries(EngineSession& session, const InputTexts& queries,
                                  const std::optional<std::string>& prompt,
                                  const RunLimits& limits) {
  std::vector<Vector> vectors;
  const ResultSink sink = {
      [&vectors](const InputTexts&, std::size_t, const std::vector<Vector>& batch) {
        vectors.insert(vectors.end(), batch.begin(), batch.end());
      }};
  if (!is_tfidf(*session.wait_ready(limits))) {
    embed_in_batches(session, queries, {.prompt = prompt}, limits, sink);
    return vectors;
  }
  for (const std::string& text : queries.texts) {
    embed_in_batches(session, texts_of_arguments({text}), {}, limits, sink);
  }
  return vectors;
}

Queries read_queries(const SearchArguments& arguments, EngineSession& session,
                     const RunLimits& limits) {
  InputArguments file;
  file.file = arguments.queries.value_or("");
  const InputTexts given = arguments.queries ? TextReader(file, {}, limits).read()
                                             : texts_of_arguments(arguments.query->results());
  std::vector<Vector> vectors = embed_queries(session, given, arguments.engine.prompt, limits);
  std::size_t dimension = 0;
  Queries queries;
  for (std::size_t i = 0; i < vectors.size(); ++i) {
    check_vector(session, given, i, vectors[i], dimension);
    if (std::ranges::all_of(vectors[i], [](double value) { return value == 0; })) {
      report((arguments.queries ? "\"" + given.texts[i] + "\": " : "") +
             why_nothing_is_like_zero(*session.wait_ready(limits)));
      continue;
    }
    queries.texts.push_back(given.texts[i]);
    queries.vectors.push_back(std::move(vectors[i]));
  }
  return queries;
}

/// Of each query the wanted texts of the input, best first. The vectors are looked at as they come,
/// and not kept.
std::vector<std::vector<Hit>> rank(EngineSession& session, const InputTexts& input,
                                   const std::vector<Vector>& queries,
                                   const SearchArguments& arguments, const RunLimits& limits) {
  std::vector<Ranking> rankings(queries.size(), Ranking(wanted(arguments)));
  Progress progress(input.texts.size(), false);
  std::size_t dimension = queries.front().size();
  std::int64_t number = 0;
  const auto offer = [&](const InputTexts& texts, std::size_t first,
                         const std::vector<Vector>& vectors) {
    for (const Vector& vector : vectors) {
      limits.check_interrupted();
      check_vector(session, texts, first++, vector, dimension);
      for (std::size_t query = 0; query < queries.size(); ++query) {
        const double score = cosine<double>(vector, queries[query]);
        if (std::isnan(score)) {
          throw Failure(ExitStatus::call_failed,
                        "the backend returned a number that is not finite; leave that text out or "
                        "use another backend");
        }
        rankings[query].offer({number, score});
      }
      ++number;
    }
    progress.advance(vectors.size());
  };
  embed_each_once(session, input, {.prompt = arguments.engine.text_prompt}, limits, {offer});
  std::vector<std::vector<Hit>> hits;
  for (Ranking& ranking : rankings) hits.push_back(ranking.take_best());
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

/// A text that was found, as it is printed.
struct Found {
  std::string_view text;
  std::optional<std::string_view> members;  ///< Of its object; null for a line.
  std::optional<std::size_t> line;
};

class HitWriter {
 public:
  /// With several queries each hit says to which it belongs.
  HitWriter(Output& output, bool json, bool names_query)
      : _output(output), _json(json), _names_query(names_query) {}

  void write(const std::string& query, double score, const Found& found) {
    if (_json) return _write_json(query, score, found);
    if (_names_query) _output.write(printable(query) + "\t");
    _output.write(with_decimals(score, 4) + "\t" + printable(found.text) + "\n");
  }

 private:
  /// A record keeps all that it was, and has its own idea of a line.
  void _write_json(const std::string& query, double score, const Found& found) {
    _output.write("{");
    if (_names_query) {
      _output.write("\"query\":");
      write_json_string(_output, query);
      _output.write(",");
    }
    _output.write("\"score\":");
    write_json_number(_output, score);
    if (found.members) {
      if (!found.members->empty()) _output.write(",");
      _output.write(*found.members);
    } else {
      if (found.line) _output.write(",\"line\":" + std::to_string(*found.line));
      _output.write(",\"text\":");
      write_json_string(_output, found.text);
    }
    _output.write("}\n");
  }

  Output& _output;
  const bool _json;
  const bool _names_query;
};

/// The members of an object that the tool does not write itself.
std::vector<std::string> replaced_members(const SearchArguments& arguments) {
  return arguments.queries ? std::vector<std::string>{"query", "score"}
                           : std::vector<std::string>{"score"};
}

void report_if_none(const Queries& queries, const std::vector<std::vector<Hit>>& hits) {
  const bool none = std::ranges::all_of(hits, [](const auto& each) { return each.empty(); });
  if (none && !queries.texts.empty()) report("no text is like the query");
}

/// Throws Failure (bad_data) for an index whose vectors do not compare with those of the session.
void check_origin(const std::string& path, const IndexOrigin& origin, const std::string& backend,
                  const std::vector<Vector>& queries) {
  const std::string holds = path + ": holds vectors of ";
  if (origin.backend != backend) {
    throw Failure(ExitStatus::bad_data,
                  holds + origin.backend + ", not of " + backend +
                      "; search with the --backend and --model that made it, or make it anew with "
                      "index --rebuild");
  }
  if (queries.empty() || origin.dimension == 0 || queries.front().size() == origin.dimension)
    return;
  throw Failure(ExitStatus::bad_data,
                holds + std::to_string(origin.dimension) + " numbers, and the query's has " +
                    std::to_string(queries.front().size()) + "; make it anew with index --rebuild");
}

void search_index(const SearchArguments& arguments, const Interrupts& interrupts,
                  const RunLimits& limits, HitWriter& writer) {
  IndexReader index(*arguments.index);
  EngineArguments engine_arguments = arguments.engine;
  engine_arguments.usual_dimension = static_cast<std::int64_t>(index.origin().dimension);
  EngineSession session(engine_arguments, interrupts);
  const Queries queries = read_queries(arguments, session, limits);
  check_origin(*arguments.index, index.origin(), session.engine().backend_name(), queries.vectors);
  const auto hits = index.nearest(queries.vectors, wanted(arguments), limits);
  report_if_none(queries, hits);
  for (std::size_t query = 0; query < hits.size(); ++query) {
    for (const Hit& hit : hits[query]) {
      IndexReader::Record record = index.record(hit.number);
      if (record.members && arguments.json) {
        record.members = without_members(*record.members, replaced_members(arguments));
      }
      writer.write(queries.texts[query], hit.score,
                   {.text = record.text, .members = record.members, .line = std::nullopt});
    }
  }
}

/// Vectors that are not stored may be long, but all of them are there at once.
std::int64_t dimension_for(std::size_t texts) {
  constexpr std::size_t kMost = 4096;
  constexpr std::size_t kNumbersAtOnce = std::size_t{1} << 26U;  // half a gibibyte
  return static_cast<std::int64_t>(std::clamp(kNumbersAtOnce / std::max(texts, std::size_t{1}),
                                              std::size_t{embedding::DEFAULT_TFIDF_DIMENSION},
                                              kMost));
}

void search_input(const SearchArguments& arguments, const Interrupts& interrupts,
                  const RunLimits& limits, HitWriter& writer) {
  EngineArguments engine_arguments = arguments.engine;
  auto session = std::make_unique<EngineSession>(engine_arguments, interrupts);
  const InputTexts input = TextReader(arguments.input, replaced_members(arguments), limits).read();
  if (is_tfidf(*session->wait_ready(limits)) && !arguments.engine.dimension) {
    engine_arguments = {};
    engine_arguments.backend = "tfidf";
    engine_arguments.dimension = dimension_for(input.texts.size());
    session = std::make_unique<EngineSession>(engine_arguments, interrupts);
  }
  const Queries queries = read_queries(arguments, *session, limits);
  if (queries.vectors.empty()) return;
  const auto hits = rank(*session, input, queries.vectors, arguments, limits);
  report_if_none(queries, hits);
  for (std::size_t query = 0; query < hits.size(); ++query) {
    for (const Hit& hit : hits[query]) {
      const auto place = static_cast<std::size_t>(hit.number);
      Found found = {
          .text = input.texts[place], .members = std::nullopt, .line = input.lines[place]};
      if (!input.members.empty()) found.members = input.members[place];
      writer.write(queries.texts[query], hit.score, found);
    }
  }
}

ExitStatus search(const SearchArguments& arguments, const Interrupts& interrupts) {
  if (arguments.queries.has_value() == (arguments.query->count() > 0)) {
    throw Failure(ExitStatus::usage,
                  "search takes a QUERY or --queries; see tovana-embed search --help");
  }
  if (arguments.queries == kStandardStream && !arguments.index &&
      arguments.input.file == kStandardStream) {
    throw Failure(ExitStatus::usage, "--queries and --input cannot both be standard input");
  }
  const RunLimits limits(interrupts);
  Output output("-", limits);
  HitWriter writer(output, arguments.json, arguments.queries.has_value());
  if (arguments.index) {
    search_index(arguments, interrupts, limits, writer);
  } else {
    search_input(arguments, interrupts, limits, writer);
  }
  output.finish();
  return ExitStatus::success;
}

}  // namespace

Command add_search_command(CLI::App& tool) {
  const auto arguments = std::make_shared<SearchArguments>();
  CLI::App& command = *tool.add_subcommand("search", "Print the texts that are most like a query");
  arguments->query = command.add_option("QUERY", "What to look for");
  command
      .add_option("--queries", arguments->queries,
                  "Look for each line of FILE, and print it in front of\n"
                  "what is like it")
      ->option_text("FILE");
  CLI::Option* const index =
      command
          .add_option("--index", arguments->index,
                      "Search an index that tovana-embed index has made, in\n"
                      "place of texts that are embedded now")
          ->option_text("FILE");
  add_input_options(command, arguments->input);
  index->excludes("--input")->excludes("--jsonl");
  add_count(command, "--top", arguments->top, "Print at most N texts (10)");
  add_number(command, "--min-score", arguments->min_score,
             "Leave out texts with a similarity below S (those of 0\n"
             "and below)");
  command.add_flag("--json", arguments->json,
                   "Print an object a text, {\"score\":…,\"line\":…,\"text\":…},\n"
                   "with all digits of the score and the text as it is;\n"
                   "with --jsonl \"score\" and the members of its object.\n"
                   "With --queries \"query\" comes first");
  add_prompt_option(command, arguments->engine, "the query");
  CLI::Option* const text_prompt =
      command
          .add_option("--text-prompt", arguments->engine.text_prompt,
                      "local: the same before each text of the input:\n"
                      "\"document\". An index has its own")
          ->option_text("NAME");
  index->excludes(text_prompt);
  add_engine_options(command, arguments->engine);
  command.footer(
      R"(Prints the cosine similarity, a tab and the text, best first. Texts with a
similarity of 0 or below have nothing in common with the query and are left out.
Every text is looked at: nothing that is nearer is missed. An index is searched
by the backend that made it, whatever --prompt put before its texts: here that
is for the query alone. tfidf takes vectors of up to 4,096 numbers for texts
that are embedded now, unless --dimension says otherwise.
Control characters of a text are printed as escapes. That nothing was found is
said on stderr; the exit status is 0 all the same.

Examples:
  tovana-embed search 'read a file' --input names.txt --top 3
  git ls-files | tovana-embed search 'http client'
  tovana-embed search 'http client' --index files.index --json
  tovana-embed search timeout --jsonl --json < records.jsonl)");
  return {&command,
          [arguments](const Interrupts& interrupts) { return search(*arguments, interrupts); }};
}

}  // namespace tovana::tool
