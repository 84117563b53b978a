#include "tovana/engines/http/post_json.h"

#include <cmath>
#include <limits>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "tests/support/failure_text.h"
#include "tests/support/log_recorder.h"
#include "tests/support/manual_clock.h"
#include "tovana/base/text.h"

namespace tovana::http {
namespace {

using namespace std::string_literals;
using namespace ::testing;
using namespace tovana::testing;

constexpr double kInfinity = std::numeric_limits<double>::infinity();
const std::string kKey = "sk-very/secret";

/// What a transport without a network does with one request. A status of 0: no response.
struct Step {
  int status = 200;
  Ending ending = Ending::complete;
  std::string body = "[]";
  ResponseHeaders headers = {};
  double seconds = 0;  ///< That the attempt takes, unless its total timeout is shorter.
};

/// Plays steps, the last one again and again.
class FakeTransport final : public Transport {
 public:
  explicit FakeTransport(std::vector<Step> steps, FakeClock* clock = nullptr)
      : _steps(std::move(steps)), _clock(clock) {}

  Outcome send(const Request& request, ResponseSink& sink) override {
    const Step& step = _steps[std::min(requests.size(), _steps.size() - 1)];
    requests.push_back(request);
    bodies.emplace_back(request.body);
    if (_clock != nullptr) _clock->advance(std::min(step.seconds, request.total_timeout_s));
    Outcome outcome{.ending = step.ending,
                    .head = {step.status, step.headers},
                    .problem = step.ending == Ending::complete ? "" : "the wire broke at " + kKey};
    if (step.status != 0 && !(sink.head(outcome.head) && sink.body(step.body))) {
      outcome.ending = Ending::aborted;
    }
    return outcome;
  }

  std::vector<Request> requests;
  std::vector<std::string> bodies;

 private:
  std::vector<Step> _steps;
  FakeClock* _clock;
};

const Step kOk{};
const Step kDrop{.status = 0, .ending = Ending::dropped};
const Step kStall{.status = 200, .ending = Ending::timed_out, .body = "["};

/// What a call fails with; "none" when it ends with a reply.
std::string call(FakeTransport& transport, const RetryFields& fields) {
  return failure_of([&] {
    post_json("http://[::1]/x", {{"texts", {"a"}}},
              {.policy = RetryPolicy(fields),
               .label = "Test call",
               .headers = {{"authorization", "Bearer " + kKey}, {"X-Trace", "7"}},
               .transport = &transport});
  });
}

TEST(PostJson, KeepsToAttemptsWaitsDeadlineAndStopTest) {
  const Step busy{.status = 503, .seconds = 1};
  struct Case {
    std::vector<Step> script;  ///< The last step again and again.
    std::string ending;
    std::size_t requests;
    std::vector<double> waits;
    RetryFields fields = {};
    int stop_at = 0;  ///< Which asking of the stop test says stop.
    double idle_s = 30;
    double total_s = 300;  ///< Both of the last request.
  };
  const Case cases[] = {
      {{kDrop, kStall, kOk}, "none", 3, {0.5, 1}},
      {{busy}, "HttpFailure", 5, {0.5, 1, 2, 4}, {.attempts = 5}},
      {{busy}, "HttpFailure", 1, {}, {.attempts = -1}},
      {{kDrop, {.status = 404}}, "HttpFailure", 2, {0.5}},
      // A wait would end at the deadline; a stop wins over that, and over a deadline that has passed.
      {{busy}, "HttpFailure", 2, {0.5}, {.deadline = 3.5}, 0, 2, 2},
      {{busy}, "Stopped", 2, {0.5}, {.deadline = 3.5}, 4, 2, 2},
      {{busy}, "Stopped", 0, {}, {.deadline = 0}, 1},
      {{busy}, "Stopped", 1, {0.5}, {}, 2},  // in a backoff, which asks at once
      {{busy}, "HttpFailure", 3, {0.5, 1}, {}, 90},
      {{kOk}, "HttpFailure", 0, {}, {.deadline = 0}},
      {{kOk}, "HttpFailure", 0, {}, {.deadline = std::nan("")}},
      {{kOk}, "none", 1, {}, {.deadline = kInfinity}},
      {{kOk}, "none", 1, {}, {.deadline = 100}, 0, 30, 100},
      {{kOk}, "none", 1, {}, {.timeout_s = 1, .deadline = 60}, 0, 1, 10},
  };
  for (const Case& given : cases) {
    SCOPED_TRACE(&given - cases);
    FakeClock clock(0);
    FakeTransport transport(given.script, &clock);
    int asks = 0;
    std::vector<double> waits;
    RetryFields fields = given.fields;
    fields.clock = &clock;
    fields.should_stop = [&] { return ++asks == given.stop_at; };
    fields.wait = [&](double seconds, const StopTest& should_stop, Clock&) {
      waits.push_back(seconds);
      clock.advance(seconds);
      return should_stop() ? WaitEnding::stopped : WaitEnding::elapsed;
    };
    EXPECT_THAT(call(transport, fields), StartsWith(given.ending));
    EXPECT_EQ(waits, given.waits);
    ASSERT_THAT(transport.requests, SizeIs(given.requests));
    if (given.requests == 0) continue;
    EXPECT_EQ(transport.requests.back().idle_timeout_s, given.idle_s);
    EXPECT_EQ(transport.requests.back().total_timeout_s, given.total_s);
  }
}

TEST(PostJson, TriesAgainAfterTheStatusesOfThePolicyOnly) {
  for (int status = 201; status <= 610; ++status) {
    SCOPED_TRACE(status);
    FakeClock clock;
    FakeTransport transport({{.status = status, .headers = {{"Retry-After", "3600"}}}});
    const std::string failure = call(transport, {.wait = nullptr, .clock = &clock});
    const bool is_retried = status == 429 || (status >= 500 && status <= 599);
    EXPECT_EQ(transport.requests.size(), is_retried ? 3U : 1U);
    EXPECT_THAT(failure, StartsWith(status < 300 ? "none" : "HttpFailure"));
    EXPECT_EQ(clock.now(), is_retried ? 1001.5 : 1000);  // 0.5 and 1 s, whatever Retry-After says
  }
}

TEST(PostJson, AStopTestEndsABackoffAndItsErrorReachesTheCaller) {
  FakeClock clock;
  FakeTransport transport({kDrop});
  EXPECT_EQ(
      call(transport, {.should_stop = [&] { return clock.now() >= 1000.8; }, .clock = &clock}),
      "Stopped: stopped before attempt 3 of 3");
  EXPECT_THAT(clock.now(), DoubleNear(1000.85, 0.051));
  EXPECT_EQ(call(transport, {.should_stop = []() -> bool { throw std::domain_error("no"); }}),
            "std::domain_error: no");
}

TEST(PostJson, TellsAPersonWhatHappenedAndNeverTheKey) {
  const std::string page = "<html>" + std::string(5000, 'x');
  struct Case {
    Step step;
    std::vector<std::string> said;
  };
  const Case cases[] = {
      {kDrop, {"Test call to http://[::1]/x failed after 3 attempts: the wire broke"}},
      {{.status = 401, .body = "bad key '" + kKey + "'\n\x1B[31m"},
       {"failed: HTTP 401, check the API key; the server says 'bad key '***'\\n\\x1b[31m'"}},
      {{.status = 413, .ending = Ending::dropped, .body = std::string(198, 'x') + kKey},
       {"failed: HTTP 413, the request is too large", "x**…'"}},
      {{.status = 308, .headers = {{"LOCATION", "https://u:p@Other.example/?t=" + kKey}}},
       {"failed: HTTP 308, redirects are not followed", "https://other.example:443:"}},
      {{.status = 307, .headers = {{"Location", "https://" + kKey + ".example/"}}},
       {"no usable URL"}},
      {{.body = page, .headers = {{"Content-Type", "text/html; " + kKey}}},
       {"not usable JSON (HTTP 200, content type 'text/html; ***')"}},
      {{.body = " \r\n"}, {"failed: the reply is empty (HTTP 200)"}},
      {{.headers = {{"content-length", "268435457"}}}, {"larger than 256 MiB"}},
      {{.status = 0, .ending = Ending::refused}, {"was not sent: the wire broke"}},
  };
  const LogRecorder log;
  for (const Case& given : cases) {
    FakeClock clock;
    FakeTransport transport({given.step});
    const std::string failure = call(transport, {.clock = &clock});
    for (const std::string& words : given.said) EXPECT_THAT(failure, HasSubstr(words));
    EXPECT_THAT(failure, AllOf(Not(HasSubstr("<html>")), Not(HasSubstr(kKey))));
  }
  EXPECT_THAT(log.records(), IsEmpty());
}

TEST(PostJson, SendsRepairedUtf8AndTheCallersHeadersOverItsOwn) {
  FakeTransport transport({kOk});
  const std::string text = "\xFF\0\"\\\x1F \xF0\x9F\x98\x80 \xED\xA0\x80"s;
  post_json("https://h/", {{"texts", {text}}},
            {.headers = {{"accept", "text/x"}}, .transport = &transport});
  ASSERT_THAT(transport.bodies, SizeIs(1));
  EXPECT_EQ(nlohmann::json::parse(transport.bodies[0])["texts"][0], repair_utf8(text));
  EXPECT_THAT(
      transport.requests[0].headers,
      ElementsAre(std::pair("accept", "text/x"), std::pair("Content-Type", "application/json")));
  EXPECT_THROW(post_json("https://h/", nlohmann::ordered_json::array(), {.transport = &transport}),
               ValueError);
}

}  // namespace
}  // namespace tovana::http
