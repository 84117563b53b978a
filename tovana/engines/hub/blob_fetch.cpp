#include "tovana/engines/hub/blob_fetch.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <string_view>
#include <system_error>

#include "tovana/base/text.h"
#include "tovana/engines/http/failure.h"
#include "tovana/engines/hub/blob_lock.h"
#include "tovana/engines/hub/fetch_errors.h"
#include "tovana/engines/hub/partial_blob.h"

namespace tovana::hub {
namespace {

/// A content whose hash is wrong is fetched once more from its beginning: what an earlier fetch
/// left behind may have been damaged, and so may the way here.
constexpr int kMostWrongHashes = 2;

std::optional<std::uint64_t> whole_number(std::string_view text) {
  std::uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::string_view field(const http::ResponseHead& head, std::string_view name) {
  const auto found = head.headers.find(name);
  return found == head.headers.end() ? std::string_view() : std::string_view(found->second);
}

/// Puts the response to one request for the rest of a content behind what there is of it.
class BlobSink final : public http::ResponseSink {
 public:
  BlobSink(PartialBlob& blob, const BlobFetch& fetch) : _blob(blob), _fetch(fetch) {}

  bool head(const http::ResponseHead& head) override {
    if (head.status == 206) {
      // "bytes FIRST-LAST/SIZE". Another part than the one asked for is as good as none.
      const std::string expected = "bytes " + std::to_string(_blob.size()) + "-";
      _is_other_part = !field(head, "Content-Range").starts_with(expected);
      return !_is_other_part;
    }
    _blob.restart();
    const std::optional<std::uint64_t> size = whole_number(field(head, "Content-Length"));
    if (size && *size != _blob.missing()) {
      _wrong_size = std::to_string(*size) + " bytes";
    }
    return _wrong_size.empty();
  }

  bool body(std::string_view bytes) override {
    if (bytes.size() > _blob.missing()) {
      _wrong_size = "more than that";
      return false;
    }
    _blob.append(bytes);
    _fetch.on_progress(_blob.size());
    return true;
  }

  bool is_other_part() const noexcept { return _is_other_part; }
  /// What was announced, or came, in place of the right number of bytes; empty if that was right.
  const std::string& wrong_size() const noexcept { return _wrong_size; }

 private:
  PartialBlob& _blob;
  const BlobFetch& _fetch;
  bool _is_other_part = false;
  std::string _wrong_size;
};

[[noreturn]] void throw_other_content(const BlobFetch& fetch, const WantedFile& file,
                                      const HubAnswer& answer, const std::string& difference) {
  throw ModelFetchError(
      ModelFetchError::Cause::bad_answer,
      "the file " + escape_control_characters(file.name) + " of the model " +
          fetch.client.repo_id() + " comes from " + http::masked_url(answer.url) +
          " with another content than the hub lists: " + difference +
          "; if a proxy or mirror is in between (HF_ENDPOINT), it may be at fault");
}

}  // namespace

void fetch_blob(const BlobFetch& fetch, const WantedFile& file) {
  const ListedFile& listed = file.listed;
  const std::filesystem::path path = fetch.cache.blob(listed.id);
  const BlobLock lock(fetch.cache.lock_file(listed.id), fetch.should_stop, fetch.clock,
                      fetch.on_wait);
  if (holds_content(path, listed)) return fetch.on_progress(listed.size);  // another was faster

  PartialBlob blob(path, listed);
  fetch.on_progress(blob.size());
  Patience patience(fetch.client);
  std::uint64_t furthest = blob.size();
  int wrong_hashes = 0;
  HubAnswer answer;
  for (;;) {
    if (blob.is_whole()) {
      if (blob.finish()) return;
      fetch.on_progress(0);
      if (++wrong_hashes == kMostWrongHashes) {
        throw_other_content(fetch, file, answer, "its hash is not " + listed.id);
      }
    }
    const bool is_rest = blob.size() > 0;
    BlobSink sink(blob, fetch);
    answer = fetch.client.get_file(fetch.commit, file.name, blob.size(), sink);
    if (!sink.wrong_size().empty()) {
      throw_other_content(fetch, file, answer,
                          sink.wrong_size() + " instead of " + std::to_string(listed.size));
    }
    if (blob.is_whole()) continue;
    if (is_rest && (answer.outcome.head.status == 416 || sink.is_other_part())) {
      blob.restart();
      continue;
    }
    if (answer.is_good()) {  // it ended early, and nobody was told how long it would be
      answer.outcome.ending = http::Ending::dropped;
      answer.outcome.problem = "the response ended after " + std::to_string(blob.size()) + " of " +
                               std::to_string(listed.size) + " bytes";
    } else if (sink.is_other_part()) {
      answer.outcome.problem = "the response is a part that was not asked for";
    }
    // Only what was never got before counts as getting on: a server that begins anew each time
    // must not keep us for ever.
    if (blob.size() > furthest) patience.reset();
    furthest = std::max(furthest, blob.size());
    if (!patience.wait_after(answer)) {
      throw fetch.client.fetch_error(answer);
    }
  }
}

}  // namespace tovana::hub
