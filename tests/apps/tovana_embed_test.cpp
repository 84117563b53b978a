#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iterator>
#include <numeric>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

#include "subprocess.h"
#include "tests/support/temp_folder.h"
#include "tovana/engines/embedding/backends/tfidf.h"

namespace tovana::testing {
namespace {

using embedding::Vector;
using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

/// The tool with the backend that needs nothing.
std::vector<std::string> tfidf_tool(std::vector<std::string> arguments) {
  if (!arguments.empty() && (arguments[0] == "embed" || arguments[0] == "search")) {
    arguments.insert(arguments.begin() + 1, {"--backend", "tfidf"});
  }
  return tool({}, arguments);
}

std::vector<std::string> lines_of(const std::string& text) { return split(text, '\n'); }

std::vector<Vector> vectors_of(const std::vector<std::string>& texts,
                               std::int64_t dimension = 256) {
  return embedding::TFIDFEmbeddingBackend(dimension).embed(texts);
}

/// What every error has to be: nothing among the results, one line, and that line of ours.
void expect_error(const ProcessResult& result, int status, const std::string& text) {
  EXPECT_EQ(result.status, status);
  EXPECT_EQ(result.output, "");
  EXPECT_THAT(result.errors, AllOf(StartsWith("tovana-embed: "), EndsWith("\n"), HasSubstr(text)));
  EXPECT_EQ(lines_of(result.errors).size(), 1U) << result.errors;
}

class TovanaEmbed : public ::testing::Test {
 protected:
  std::string path(const std::string& name) const { return _folder.path() / name; }
  std::string contents(const std::string& name) const {
    std::ifstream file(path(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  auto count_files() const {
    return std::distance(std::filesystem::directory_iterator(_folder.path()), {});
  }

 private:
  TempFolder _folder;
};

// Texts that a careless reader or writer changes, and more of them than a batch: a second batch
// would have other weights.
TEST_F(TovanaEmbed, EmbedPrintsEveryTextAndItsExactVectorInOrder) {
  using namespace std::string_literals;
  std::vector<std::string> texts = {"\xEF\xBB\xBFplain",     "", "line \"quoted\" \\ back",
                                    "nul \0 bell \a tab\t"s, "", "ÄÖ 漢字 𝒳",
                                    "\r carriage \r return", ""};
  texts.back().append(10'000'000, 'x');
  for (int i = 0; i < 600; ++i) texts.push_back("text number_" + std::to_string(i % 50));
  texts.emplace_back("last without line end");

  std::string input;
  for (std::size_t i = 0; i < texts.size(); ++i) {
    if (i > 0) input += i % 2 == 0 ? "\n" : "\r\n";
    input += texts[i];
  }
  texts[0] = "plain";
  const ProcessResult result = run(tfidf_tool({"embed"}), input);

  ASSERT_EQ(result.status, 0) << result.errors;
  EXPECT_EQ(result.errors, "");
  const std::vector<std::string> lines = lines_of(result.output);
  ASSERT_EQ(lines.size(), texts.size());
  const std::vector<Vector> vectors = vectors_of(texts);
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const auto object = nlohmann::json::parse(lines[i]);
    ASSERT_EQ(object.size(), 2U);
    ASSERT_EQ(object.at("text"), texts[i]) << i;
    ASSERT_EQ(object.at("vector").get<Vector>(), vectors[i]) << i;
  }
}

// The command line's parser splits lists, drops "{}" and "++", and knows commands and options.
TEST_F(TovanaEmbed, EmbedTakesArgumentsAsTheyAre) {
  const std::vector<std::string> texts = {"[a,b]", "{}", "", "search", "-5", "two\nlines"};
  std::vector<std::string> arguments = split("embed --dimension 2");
  arguments.insert(arguments.end(), texts.begin(), texts.end());
  arguments.insert(arguments.end(), {"--", "--x", "++"});
  const ProcessResult result = run(tfidf_tool(arguments));
  ASSERT_EQ(result.status, 0) << result.errors;
  std::vector<std::string> printed;
  for (const std::string& line : lines_of(result.output)) {
    printed.push_back(nlohmann::json::parse(line).at("text"));
  }
  arguments.erase(arguments.end() - 3);  // the "--"
  EXPECT_EQ(printed, std::vector(arguments.begin() + 3, arguments.end()));
}

// A conversion of the other members would round numbers, sort names or drop what comes twice.
TEST_F(TovanaEmbed, JsonLinesKeepTheirOtherMembers) {
  const ProcessResult result =
      run(tfidf_tool({"embed", "--jsonl", "--dimension", "1"}),
          R"({"z":1.10,"text":"a\u0000\"b\ud834\udcb3","vector":[9], "a":12345678901234567890123})"
          "\r\n  \n"
          R"( {"te\u0078t" : "", "k":{"text":7,"q":["}]\"",{}]},"k":[],"":null} )");
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(result.output,
            R"({"z":1.10,"text":"a\u0000\"b\ud834\udcb3","a":12345678901234567890123,"vector":[1]})"
            "\n"
            R"({"te\u0078t" : "","k":{"text":7,"q":["}]\"",{}]},"k":[],"":null,"vector":[0]})"
            "\n");
}

TEST_F(TovanaEmbed, BrokenJsonLinesAreNamed) {
  for (const std::string& line :
       split(R"({"text":"a"|{"text":"a"} x|[1]|7|{"txt":"a"}|{"text":7}|{"text":null}|)"
             R"({"text":{"text":"a"}}|{"text":["a"]}|{"a":{"text":"a"}}|{"text":")" +
                 std::string(1'000'000, 'x'),
             '|')) {
    const ProcessResult result = run(tfidf_tool({"embed", "--jsonl"}),
                                     "{\"text\":\"fine\"}\n\n" + line + "\n{\"text\":\"fine\"}");
    expect_error(result, 65, "standard input, line 3: ");
    EXPECT_LT(result.errors.size(), 500U) << "quotes the line at length";
  }
}

TEST_F(TovanaEmbed, IllFormedUtf8IsRepairedWithOneWarning) {
  const ProcessResult result =
      run(tfidf_tool({"embed", "--dimension", "1"}), "a\nb \xFF\xC3 c\n\xED\xA0\x80\nd");
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.errors, HasSubstr("2 lines (the first is line 2) are not UTF-8"));
  EXPECT_EQ(lines_of(result.errors).size(), 1U);
  EXPECT_THAT(lines_of(result.output)[1], StartsWith("{\"text\":\"b \uFFFD\uFFFD c\","));
}

TEST_F(TovanaEmbed, NpyHoldsTheArrayInNumPysLayout) {
  for (const std::vector<std::string>& texts :
       {std::vector<std::string>{}, {"one text", "", "another text"}}) {
    std::string input, expected;
    for (const std::string& text : texts) input += text + "\n";
    for (const Vector& vector : vectors_of(texts, 5)) {
      expected.append(reinterpret_cast<const char*>(vector.data()), vector.size() * sizeof(double));
    }
    const std::string array =
        run(tfidf_tool({"embed", "--format", "npy", "--dimension", "5"}), input).output;
    ASSERT_THAT(array, StartsWith(std::string("\x93NUMPY\x01\0", 8)));
    const std::size_t start =
        10 + static_cast<unsigned char>(array[8]) + 256U * static_cast<unsigned char>(array[9]);
    EXPECT_EQ(start % 64, 0U);
    EXPECT_THAT(array.substr(0, start),
                AllOf(HasSubstr("{'descr': '<f8', 'fortran_order': False, 'shape': (" +
                                std::to_string(texts.size()) + ", 5), }"),
                      EndsWith(" \n")));
    EXPECT_EQ(array.substr(start), expected);
  }
}

TEST_F(TovanaEmbed, OutputFileIsReplacedWholeOrNotAtAll) {
  write_file(path("real"), "before");
  std::filesystem::create_symlink("real", path("link"));
  const std::vector<std::string> command =
      tfidf_tool({"embed", "--jsonl", "--dimension", "1", "--output", path("link")});

  expect_error(run(command, "{\"text\":\"\"}\n{"), 65, "line 2");
  EXPECT_EQ(contents("real"), "before");
  EXPECT_EQ(run(command, "{\"text\":\"\"}\n").status, 0);
  EXPECT_EQ(contents("real"), "{\"text\":\"\",\"vector\":[0]}\n");
  EXPECT_TRUE(std::filesystem::is_symlink(path("link")));
  EXPECT_EQ(count_files(), 2) << "an unfinished file is left";

  const mode_t mask = umask(0);
  umask(mask);
  struct stat status {};
  ASSERT_EQ(stat(path("real").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0666U & ~mask);
}

// The input stays open: a tool that reads it before it looks at the output does not end.
TEST_F(TovanaEmbed, UnwritableOutputEndsTheRunBeforeItsInputIsRead) {
  for (const std::string& output : {path("none/file"), path(""), std::string()}) {
    Subprocess process(tfidf_tool({"embed", "--output", output}));
    expect_error(process.finish(), 74, "cannot write " + output);
  }
}

TEST_F(TovanaEmbed, FullDiskIsAnError) {
  const std::string full = "/dev/full";
  EXPECT_EQ(run(tfidf_tool({"embed", "a"}), "", {.output_path = full.c_str()}).status, 74);
  EXPECT_EQ(run(tfidf_tool({"search", "word"}), "word", {.output_path = full.c_str()}).status, 74);
  EXPECT_EQ(run(tfidf_tool({"--help"}), "", {.output_path = full.c_str()}).status, 74);
  expect_error(run(tfidf_tool({"embed", "a", "--output", full})), 74, "make room");
  EXPECT_TRUE(std::filesystem::is_character_file(full)) << "replaced by a file";
}

// The input is read (more than a pipe holds has gone), and its end never comes.
TEST_F(TovanaEmbed, InterruptWhileReadingLeavesNothingBehind) {
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    Subprocess process(tfidf_tool({"embed", "--output", path("out")}));
    ASSERT_TRUE(process.feed(std::string(2 * kPipeCapacity, 'x')));
    ASSERT_EQ(count_files(), 1) << "the unfinished file";
    process.signal(number);
    const ProcessResult result = process.finish();
    EXPECT_EQ(result.status, 130);
    EXPECT_EQ(result.errors, "");
    EXPECT_EQ(count_files(), 0);
  }
}

// A writer that nobody reads from cannot look at the flag: it is ended by the second signal, or
// else after a second. Where the reader has gone, it ends by itself, quietly.
TEST_F(TovanaEmbed, AWriterThatNobodyReadsFromEnds) {
  const auto let_it_write = [](Subprocess& process) {
    for (int i = 0; i < 5000; ++i) ASSERT_TRUE(process.feed("text\n"));
    process.close_input();
    process.read_output(1);
  };
  for (const bool twice : {true, false}) {
    Subprocess process(tfidf_tool({"embed"}));
    let_it_write(process);
    process.signal(SIGINT);
    if (twice) process.signal(SIGTERM);
    EXPECT_EQ(process.wait(), 130);
  }
  Subprocess process(tfidf_tool({"embed"}));
  let_it_write(process);
  process.close_output();
  const ProcessResult result = process.finish();
  EXPECT_EQ(result.status, -SIGPIPE);
  EXPECT_EQ(result.errors, "");
}

TEST_F(TovanaEmbed, IgnoredInterruptStaysIgnored) {
  Subprocess process(tfidf_tool({"embed", "--dimension", "1"}), {.ignore_sigint = true});
  ASSERT_TRUE(process.feed(std::string(2 * kPipeCapacity, 'x')));
  process.signal(SIGINT);
  process.close_input();
  EXPECT_EQ(process.finish().status, 0);
}

TEST_F(TovanaEmbed, SearchPrintsTheTextsLikeTheQueryBestFirst) {
  const std::vector<std::string> texts = {
      "read the configuration file", "open a socket", "",
      "read\tfile \x1b[31m",         "write file",    "read file"};
  std::string input;
  for (const std::string& text : texts) input += text + "\n";
  const Vector query = vectors_of({"readFile"})[0];
  std::string expected;
  for (const std::size_t index : {5U, 3U, 0U}) {
    const Vector vector = vectors_of(texts)[index];
    std::ostringstream score;
    score << std::fixed << std::setprecision(4)
          << std::inner_product(query.begin(), query.end(), vector.begin(), 0.0);
    expected += score.str() + "\t" + (index == 3 ? "read\tfile \\x1b[31m" : texts[index]) + "\n";
  }
  EXPECT_EQ(run(tfidf_tool({"search", "readFile", "--top", "3"}), input).output, expected);

  const ProcessResult json =
      run(tfidf_tool({"search", "socket", "--jsonl", "--json"}),
          "{\"text\":\"file\"}\n\n{\"text\":\"socket\\n\\u0000\",\"vector\":[]}\n");
  EXPECT_EQ(json.output, "{\"score\":1,\"line\":3,\"text\":\"socket\\n\\u0000\"}\n");
  EXPECT_EQ(json.errors, "");

  for (const char* unlike : {"", " ,; ", "zebra"}) {
    const ProcessResult nothing = run(tfidf_tool({"search", unlike}), input);
    EXPECT_EQ(nothing.status, 0);
    EXPECT_EQ(nothing.output, "");
    EXPECT_EQ(lines_of(nothing.errors).size(), 1U) << nothing.errors;
  }
  EXPECT_EQ(run(tfidf_tool({"search", "word"}), "").status, 0) << "empty input";
}

TEST_F(TovanaEmbed, TellsInOneLineWhatIsWrong) {
  const std::string wrong =
      "|imbed|embed --no-such-option|embed a --input file|embed a --jsonl|embed a --dimension 0|"
      "embed a --dimension 99999999999999999999|embed a --batch-size 0|"
      "embed a --format csv|embed a --deadline -1|embed a --deadline nan|"
      "embed a --log-level loud|search|search a b|search a --top 0";
  for (const std::string& arguments : split(wrong, '|')) {
    expect_error(run(tfidf_tool(split(arguments))), 64, "--help");
  }
  expect_error(run(tfidf_tool({"embed", "a", "--dimension", "12 "})), 64, "--help");
  expect_error(run(tfidf_tool({"embed", "a", "++", "b"})), 64, "embed -- ++");
  expect_error(run(tfidf_tool({"embed", "a", "--backend", "none"})), 64,
               "takes auto, local, api, openai or tfidf");

  expect_error(run(tfidf_tool({"embed", "--input", path("none")})), 66, path("none"));
  expect_error(run(tfidf_tool({"search", "a", "--input", path("")})), 66, "directory");
  expect_error(run(tfidf_tool({"embed", "--input", path("a\nb")})), 66, "a\\nb");

  expect_error(run(tfidf_tool({"embed", "a", "--deadline", "0"})), 69, "deadline of 0 s");
  Subprocess waits_for_input(tfidf_tool({"embed", "--deadline", "0.05"}));
  expect_error(waits_for_input.finish(), 69, "deadline of 0.05 s");
}

}  // namespace
}  // namespace tovana::testing
