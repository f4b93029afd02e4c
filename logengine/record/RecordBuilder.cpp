#include "record/RecordBuilder.h"

#include <algorithm>

#include "record/AttributeValue.h"
#include "tail/LineAssembler.h"

namespace xrvlog {
namespace {

// Appends what fits of `text` below `limit` bytes, not ending inside a character;
// returns whether all of it fitted.
bool appendBounded(std::string& to, std::string_view text, std::size_t limit) {
  const std::size_t room = to.size() < limit ? limit - to.size() : 0;
  const std::string_view kept = utf8Prefix(text, room);
  to += kept;
  return kept.size() == text.size();
}

std::string_view withoutLineEnd(std::string_view text) {
  if (!text.empty() && text.back() == '\n') {
    text.remove_suffix(1);
  }
  return text;
}

}  // namespace

RecordBuilder::RecordBuilder(std::shared_ptr<const RecordRules> rules) : rules_(std::move(rules)) {
  const RecordRules& r = *rules_;
  if (r.boundary_) {
    boundary_ = std::make_unique<Matcher>(r.boundary_);
  }
  std::size_t fields = r.fieldCount_;
  if (r.fieldSet_) {
    fieldMatcher_ = std::make_unique<Matcher>(r.fieldSet_);
    fields = r.fieldSet_->filter(0).fields.size();
  }
  fields_.reserve(fields);
  runMatchers_.resize(r.runCount_);
  for (const RecordRules::Attribute& attribute : r.attributes_) {
    for (const RecordRules::Filter& filter : attribute.filters) {
      for (const RecordRules::TermRun& run : filter.runs) {
        runMatchers_[run.index] = std::make_unique<Matcher>(run.set);
      }
    }
    pairs_.push_back({attribute.name.c_str(), ""});
  }
  replaced_.resize(r.attributes_.size());
  hasReplaced_.resize(r.attributes_.size());
  offsets_.resize(r.attributes_.size());
}

RecordBuilder::~RecordBuilder() = default;

// Record assembly ---------------------------------------------------------------

void RecordBuilder::addLine(std::string_view line, unsigned flags, const RecordHandler& onRecord) {
  if (lineOpen_ && (flags & kLineContinued) == 0) {
    // The rest of the cut line never came (the file was replaced): what came is a line.
    finishCutLine(onRecord);
  }
  const std::size_t limit = rules_->maxRecordBytes_;
  if (lineOpen_ || (flags & kLineCut) != 0) {
    if (!lineOpen_) {
      line_.clear();
      lineOpen_ = true;
      lineTruncated_ = false;
    }
    if (!appendBounded(line_, line, limit)) {
      lineTruncated_ = true;
    }
    if ((flags & kLineCut) == 0) {
      finishCutLine(onRecord);
    }
    return;
  }
  const std::string_view kept = utf8Prefix(line, limit);
  completeLine(kept, kept.size() != line.size(), onRecord);
}

void RecordBuilder::finishCutLine(const RecordHandler& onRecord) {
  lineOpen_ = false;
  completeLine(line_, lineTruncated_, onRecord);
}

void RecordBuilder::completeLine(std::string_view line, bool truncated,
                                 const RecordHandler& onRecord) {
  ++lines_;
  if (!boundary_) {
    handOut(line, truncated, lines_, onRecord);
  } else if (rules_->document_.recordSet->boundary == MdlRecordSet::Boundary::Start) {
    addStartLine(line, truncated, onRecord);
  } else {
    addEndLine(line, truncated, onRecord);
  }
}

void RecordBuilder::addStartLine(std::string_view line, bool truncated,
                                 const RecordHandler& onRecord) {
  const bool starts = boundary_->match(line).matched();
  if (!starts && !recordOpen_) {
    handOut(line, truncated, lines_, onRecord);
    return;
  }
  if (starts) {
    handOutOpen(onRecord);
    record_.assign(line);
    recordOpen_ = true;
    recordTruncated_ = truncated;
    openLine_ = lines_;
    return;
  }
  const std::size_t limit = rules_->maxRecordBytes_;
  if (truncated || record_.size() + 1 + line.size() > limit) {
    recordTruncated_ = true;
  }
  if (record_.size() < limit) {
    record_ += '\n';
    appendBounded(record_, line, limit);
  }
}

void RecordBuilder::addEndLine(std::string_view line, bool truncated,
                               const RecordHandler& onRecord) {
  if (record_.empty() && !overflow_) {
    openLine_ = lines_;
    recordTruncated_ = false;
  }
  recordTruncated_ = recordTruncated_ || truncated;
  const std::size_t limit = rules_->maxRecordBytes_;
  if (!overflow_ && record_.size() + line.size() + 1 <= limit) {
    record_ += line;
    record_ += '\n';
    cutAtEnds(onRecord);
    return;
  }
  // The record outgrows the bound: what does not fit is dropped, and its end is looked
  // for in each further line on its own.
  overflow_ = true;
  recordTruncated_ = true;
  scratch_.assign(line);
  scratch_ += '\n';
  const std::size_t end = findEnd(scratch_);
  appendBounded(record_, std::string_view(scratch_).substr(0, end == 0 ? scratch_.size() : end),
                limit);
  if (end == 0) {
    return;
  }
  handOut(withoutLineEnd(record_), true, openLine_, onRecord);
  overflow_ = false;
  recordTruncated_ = false;
  openLine_ = lines_;
  record_.clear();
  appendBounded(record_, std::string_view(scratch_).substr(end), limit);
  cutAtEnds(onRecord);
}

void RecordBuilder::cutAtEnds(const RecordHandler& onRecord) {
  while (!record_.empty()) {
    const std::size_t end = findEnd(record_);
    if (end == 0) {
      return;
    }
    const std::string_view done(record_.data(), end);
    handOut(withoutLineEnd(done), recordTruncated_, openLine_, onRecord);
    openLine_ += static_cast<std::uint64_t>(std::count(done.begin(), done.end(), '\n'));
    recordTruncated_ = false;
    record_.erase(0, end);
  }
}

// Where the //RECORDSET END pattern ends the text, 0 when it does not. A match that
// ends where a line's text ends takes the line end along.
std::size_t RecordBuilder::findEnd(std::string_view text) {
  const MatchResult& match = boundary_->match(text);
  if (!match.matched() || match.fields[0].data() == nullptr) {
    return 0;
  }
  std::size_t end =
      static_cast<std::size_t>(match.fields[0].data() - text.data()) + match.fields[0].size();
  if (end < text.size() && text[end] == '\n') {
    ++end;
  }
  return end;
}

void RecordBuilder::handOut(std::string_view record, bool truncated, std::uint64_t line,
                            const RecordHandler& onRecord) {
  if (truncated) {
    ++oversized_;
  }
  recordLine_ = line;
  onRecord(record);
}

void RecordBuilder::handOutOpen(const RecordHandler& onRecord) {
  if (recordOpen_) {
    recordOpen_ = false;
    handOut(record_, recordTruncated_, openLine_, onRecord);
    record_.clear();
  }
}

void RecordBuilder::flushPending(const RecordHandler& onRecord) {
  if (lineOpen_) {
    finishCutLine(onRecord);
  }
  handOutOpen(onRecord);
  if (!record_.empty()) {  // END: the text collected since the last end
    handOut(withoutLineEnd(record_), recordTruncated_, openLine_, onRecord);
    record_.clear();
    overflow_ = false;
    recordTruncated_ = false;
  }
}

bool RecordBuilder::hasPending() const { return lineOpen_ || recordOpen_ || !record_.empty(); }

std::uint64_t RecordBuilder::oversizedRecords() const { return oversized_; }

// Filters and values ------------------------------------------------------------

void RecordBuilder::splitFields(std::string_view record) {
  const std::string& delimiter = rules_->document_.delimiter;
  std::size_t start = 0;
  while (fields_.size() < rules_->fieldCount_) {
    const std::size_t at = record.find(delimiter, start);
    if (at == std::string_view::npos) {
      fields_.push_back(record.substr(start));
      return;
    }
    fields_.push_back(record.substr(start, at - start));
    start = at + delimiter.size();
  }
}

std::string_view RecordBuilder::text(const RecordRules::Input& input, std::string_view record,
                                     std::string_view remoteHost) const {
  switch (input.source) {
    case Source::Record:
      return record;
    case Source::Host:
      return remoteHost;
    case Source::Field:
      return input.field < fields_.size() ? fields_[input.field] : std::string_view();
    case Source::Empty:
      break;
  }
  return {};
}

bool RecordBuilder::build(std::string_view record, std::string_view remoteHost) {
  const RecordRules& rules = *rules_;
  fields_.clear();
  if (fieldMatcher_) {
    const MatchResult& match = fieldMatcher_->match(record);
    if (!match.matched()) {
      return false;
    }
    fields_.assign(match.fields.begin(), match.fields.end());
  } else if (rules.document_.split == FieldSplit::Delimiter) {
    splitFields(record);
  }

  // Every filter before any value: most records of a log are not kept.
  for (std::size_t index = 0; index < rules.attributes_.size(); ++index) {
    hasReplaced_[index] = false;
    for (const RecordRules::Filter& filter : rules.attributes_[index].filters) {
      const MatchResult* hit = nullptr;
      const Matcher* by = nullptr;
      for (const RecordRules::TermRun& run : filter.runs) {
        Matcher& matcher = *runMatchers_[run.index];
        const MatchResult& result = matcher.match(text(run.input, record, remoteHost));
        if (result.matched()) {
          hit = &result;
          by = &matcher;
          break;
        }
      }
      if (filter.drop != (hit == nullptr)) {
        return false;
      }
      // The view stays valid: each run's matcher runs at most once per record.
      if (hit != nullptr && !hasReplaced_[index] &&
          by->patterns().filter(static_cast<std::size_t>(hit->pattern)).replacement) {
        replaced_[index] = hit->text;
        hasReplaced_[index] = true;
      }
    }
  }

  values_.clear();
  for (std::size_t index = 0; index < rules.attributes_.size(); ++index) {
    const RecordRules::Attribute& attribute = rules.attributes_[index];
    offsets_[index] = values_.size();
    appendValue(values_, attribute.type, attribute.size,
                hasReplaced_[index] ? replaced_[index] : text(attribute.value, record, remoteHost));
    values_ += '\0';
  }
  for (std::size_t index = 0; index < pairs_.size(); ++index) {
    pairs_[index].value = values_.data() + offsets_[index];
  }
  return true;
}

std::span<const NameValue> RecordBuilder::pairs() const { return pairs_; }

void RecordBuilder::addStats(std::vector<PatternStats>& into) const {
  const RecordRules& rules = *rules_;
  if (into.size() < rules.patterns_.size()) {
    into.resize(rules.patterns_.size());
  }
  auto add = [&into](const Matcher& matcher, std::size_t first) {
    for (std::size_t i = 0; i < matcher.stats().size(); ++i) {
      into[first + i] += matcher.stats()[i];
    }
  };
  std::size_t next = 0;
  if (boundary_) {
    add(*boundary_, next++);
  }
  if (fieldMatcher_) {
    add(*fieldMatcher_, next);
  }
  for (const RecordRules::Attribute& attribute : rules.attributes_) {
    for (const RecordRules::Filter& filter : attribute.filters) {
      for (const RecordRules::TermRun& run : filter.runs) {
        add(*runMatchers_[run.index], run.firstPattern);
      }
    }
  }
}

}  // namespace xrvlog
