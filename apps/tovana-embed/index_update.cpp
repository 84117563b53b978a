#include "index_update.h"

#include <string>

#include "failure.h"

namespace tovana::tool {

using embedding::Vector;

IndexUpdate::IndexUpdate(IndexWriter& index, const InputTexts& input, const Options& options)
    : _index(index),
      _input(input),
      _options(options),
      _must_empty(options.starts_anew || !index.origin()) {
  const std::vector<StoredRecord> stored =
      _must_empty ? std::vector<StoredRecord>() : index.records();
  for (const StoredRecord& record : stored) {
    ++_uses[record.vector];
    _vectors.emplace(record.text_digest, record.vector);
  }
  std::vector<Change> all = _compare(stored, options.weighs_by_batch);
  const bool has_changed = _counts.added + _counts.changed + _counts.removed > 0;
  if (options.weighs_by_batch && has_changed) _take_everything(std::move(all));
  _to_embed.unit = input.unit;
  _to_embed.is_whole = _to_embed.texts.size() == input.texts.size();
}

std::vector<IndexUpdate::Change> IndexUpdate::_compare(const std::vector<StoredRecord>& stored,
                                                       bool wants_all) {
  std::unordered_map<Digest, std::size_t, DigestHash> places;  // of ids, in `stored`
  places.reserve(stored.size());
  for (std::size_t i = 0; i < stored.size(); ++i) places.emplace(stored[i].id, i);
  std::vector<bool> is_there(stored.size());
  std::unordered_map<Digest, std::size_t, DigestHash> seen;  // ids, and where in the input
  seen.reserve(_input.texts.size());
  std::vector<Change> all;
  Digester digester;
  for (std::size_t place = 0; place < _input.texts.size(); ++place) {
    Change change = {.id = {},
                     .content = {},
                     .text_digest = digester.of(_input.texts[place]),
                     .place = place,
                     .before = std::nullopt};
    change.content =
        _input.members.empty() ? change.text_digest : digester.of(_input.members[place]);
    change.id = _input.ids.empty() ? change.text_digest : digester.of(_input.ids[place]);
    const auto [earlier, is_new] = seen.emplace(change.id, place);
    if (!is_new) {
      const bool is_same =
          _input.members.empty() || _input.members[earlier->second] == _input.members[place];
      if (!is_same) throw_contradiction(place, earlier->second);
      continue;
    }
    if (wants_all) all.push_back(change);
    const auto found = places.find(change.id);
    if (found == places.end()) {
      ++_counts.added;
      _add_change(change);
      continue;
    }
    const StoredRecord& before = stored[found->second];
    is_there[found->second] = true;
    if (before.content == change.content && before.text_digest == change.text_digest) continue;
    ++_counts.changed;
    change.before = before;
    _add_change(change);
  }
  _counts.records = seen.size();
  for (std::size_t i = 0; i < stored.size(); ++i) {
    if (is_there[i]) continue;
    if (!_options.keeps_gone) {
      ++_counts.removed;
      _gone.push_back(stored[i]);
      continue;
    }
    ++_counts.records;
    if (!wants_all) continue;
    all.push_back({.id = stored[i].id,
                   .content = stored[i].content,
                   .text_digest = stored[i].text_digest,
                   .place = _input.texts.size() + _kept.size(),
                   .before = std::nullopt});
    _kept.push_back(_index.content(stored[i].number));
  }
  return all;
}

void IndexUpdate::_add_change(const Change& change) {
  const auto vector = _vectors.find(change.text_digest);
  if (vector != _vectors.end()) {
    _known.emplace_back(change, vector->second);
    return;
  }
  const auto [text, is_new] = _numbers.emplace(change.text_digest, _waiting.size());
  if (is_new) {
    _waiting.emplace_back();
    _to_embed.texts.push_back(_input.texts[change.place]);
    _to_embed.lines.push_back(_input.lines[change.place]);
  }
  _waiting[text->second].push_back(change);
}

void IndexUpdate::_take_everything(std::vector<Change> all) {
  _must_empty = true;
  _known.clear();
  _gone.clear();
  _uses.clear();
  _vectors.clear();
  _waiting.clear();
  _to_embed = {};
  for (Change& change : all) {
    const bool is_kept = change.place >= _input.texts.size();
    _to_embed.texts.push_back(is_kept ? _kept[change.place - _input.texts.size()].text
                                      : _input.texts[change.place]);
    _to_embed.lines.push_back(is_kept ? 0 : _input.lines[change.place]);
    change.before.reset();
    _waiting.push_back({change});
  }
}

void IndexUpdate::begin() {
  if (_must_empty) return;
  // All uses before any release: a vector that one record gives up may be what another one takes.
  for (const auto& [change, vector] : _known) ++_uses[vector];
  for (const auto& [change, vector] : _known) _put(change, vector);
  for (const StoredRecord& record : _gone) {
    _index.remove_record(record.number);
    _release(record.vector);
  }
  _index.commit();
}

void IndexUpdate::_start() {
  if (_must_empty) _index.empty(_options.origin);
  _must_empty = false;
}

void IndexUpdate::put(std::size_t first, const std::vector<Vector>& vectors) {
  _start();
  for (std::size_t i = 0; i < vectors.size(); ++i) {
    const std::vector<Change>& records = _waiting[first + i];
    // Of texts that are weighed by batch, equal ones come more than once.
    auto place = _vectors.find(records.front().text_digest);
    if (place == _vectors.end()) {
      place = _vectors.emplace(records.front().text_digest, _index.add_vector(vectors[i])).first;
    }
    for (const Change& change : records) {
      ++_uses[place->second];
      _put(change, place->second);
    }
  }
  _index.commit();
}

void IndexUpdate::finish() {
  _start();
  _index.commit();
  if (_counts.removed + _counts.changed > 0) _index.give_back_room();
}

void IndexUpdate::_put(const Change& change, std::int64_t vector) {
  IndexRecord record = {.id = change.id,
                        .content = change.content,
                        .text_digest = change.text_digest,
                        .text = {},
                        .members = std::nullopt};
  if (change.place < _input.texts.size()) {
    record.text = _input.texts[change.place];
    if (!_input.members.empty()) record.members = _input.members[change.place];
  } else {
    const IndexWriter::Content& kept = _kept[change.place - _input.texts.size()];
    record.text = kept.text;
    record.members = kept.members;
  }
  std::optional<std::int64_t> number;
  if (change.before) number = change.before->number;
  _index.put_record(record, vector, number);
  if (change.before) _release(change.before->vector);
}

void IndexUpdate::_release(std::int64_t vector) {
  if (--_uses[vector] == 0) _index.remove_vector(vector);
}

void IndexUpdate::throw_contradiction(std::size_t place, std::size_t earlier) const {
  throw Failure(ExitStatus::bad_data,
                "line " + std::to_string(_input.lines[place]) + ": has the id of line " +
                    std::to_string(_input.lines[earlier]) + ", \"" +
                    _input.ids[place].substr(0, 100) +
                    "\", and is another record; take more members into the id with --id-member");
}

}  // namespace tovana::tool
