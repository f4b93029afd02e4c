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

// Lines `first` to `first + count - 1` of `lines`, whose lines start at `starts` (and
// are joined by line feeds), with the line feeds between them.
std::string_view linesAt(std::string_view lines, const std::vector<std::size_t>& starts,
                         std::size_t first, std::size_t count) {
  const std::size_t last = first + count;
  const std::size_t end = last < starts.size() ? starts[last] - 1 : lines.size();
  return lines.substr(starts[first], end - starts[first]);
}

std::string_view lineAt(std::string_view lines, const std::vector<std::size_t>& starts,
                        std::size_t i) {
  return linesAt(lines, starts, i, 1);
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
  if (r.boundary_ && r.document_.recordSet->boundary == MdlRecordSet::Boundary::End) {
    for (const RecordRules::Attribute& attribute : r.attributes_) {
      for (const RecordRules::Filter& filter : attribute.filters) {
        for (const RecordRules::TermRun& run : filter.runs) {
          if (!filter.drop && run.input.source == Source::Record) {
            joinMatchers_.push_back(std::make_unique<Matcher>(run.set));
          }
        }
      }
    }
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
    addEndLine(line, truncated, lines_, onRecord);
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

// END: a line on which the pattern matches (with its line feed, as the format
// language writes it) may begin a record of several lines. Lines are joined to it
// while a keep filter on the record matches the joined text or could once more lines
// come, unless a line stands on its own: one the pattern names, or one a keep filter
// takes by itself. The record ends before the first line that it cannot take along:
// its longest part a filter matched is one record, and the lines after that part are
// looked at again (without such a part, its first line goes out alone). Every other
// line is a record of its own.
void RecordBuilder::addEndLine(std::string_view line, bool truncated, std::uint64_t number,
                               const RecordHandler& onRecord) {
  if (recordOpen_) {
    const bool alone =
        truncated || startsRecord(line) || joinedFit(line) == Matcher::Fit::Complete;
    const std::size_t before = record_.size();
    if (!alone && before + 1 + line.size() <= rules_->maxRecordBytes_) {
      record_ += '\n';
      record_ += line;
      const Matcher::Fit fit = joinedFit(record_);
      if (fit != Matcher::Fit::None) {
        lineStarts_.push_back(before + 1);
        if (fit == Matcher::Fit::Complete) {
          completeLines_ = lineStarts_.size();
        }
        return;
      }
      record_.resize(before);
    }
    breakUpRecord(line, truncated, number, onRecord);
    return;
  }
  if (truncated || !startsRecord(line)) {
    handOut(line, truncated, number, onRecord);
    return;
  }
  record_.assign(line);
  lineStarts_.assign(1, 0);
  recordOpen_ = true;
  recordTruncated_ = false;
  openLine_ = number;
  completeLines_ = joinedFit(record_) == Matcher::Fit::Complete ? 1 : 0;
}

bool RecordBuilder::startsRecord(std::string_view line) {
  if (joinMatchers_.empty()) {
    return false;  // nothing could join lines
  }
  scratch_.assign(line);
  scratch_ += '\n';
  return boundary_->match(scratch_).matched();
}

Matcher::Fit RecordBuilder::joinedFit(std::string_view text) {
  Matcher::Fit best = Matcher::Fit::None;
  for (const std::unique_ptr<Matcher>& matcher : joinMatchers_) {
    const Matcher::Fit fit = matcher->fit(text);
    if (fit == Matcher::Fit::Complete) {
      return fit;
    }
    if (fit == Matcher::Fit::Partial) {
      best = fit;
    }
  }
  return best;
}

RecordBuilder::BrokenRecord& RecordBuilder::takeOpenRecord() {
  if (brokenDepth_ == broken_.size()) {
    broken_.emplace_back();
  }
  BrokenRecord& held = broken_[brokenDepth_];
  held.lines.swap(record_);
  held.starts.swap(lineStarts_);
  record_.clear();
  lineStarts_.clear();
  recordOpen_ = false;
  completeLines_ = 0;
  return held;
}

// The open record ends before `line`: its longest matched part (at least its first
// line) is a record, and its lines after that part and `line` are fed again, in
// order.
void RecordBuilder::breakUpRecord(std::string_view line, bool truncated, std::uint64_t number,
                                  const RecordHandler& onRecord) {
  const std::size_t kept = std::max<std::size_t>(completeLines_, 1);
  const BrokenRecord& held = takeOpenRecord();
  struct Level {
    std::size_t& depth;
    explicit Level(std::size_t& d) : depth(++d) {}
    ~Level() { --depth; }
  } level(brokenDepth_);
  const std::uint64_t first = openLine_;
  handOut(linesAt(held.lines, held.starts, 0, kept), false, first, onRecord);
  for (std::size_t i = kept; i < held.starts.size(); ++i) {
    addEndLine(lineAt(held.lines, held.starts, i), false, first + i, onRecord);
  }
  addEndLine(line, truncated, number, onRecord);
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
  if (!recordOpen_ || rules_->document_.recordSet->boundary == MdlRecordSet::Boundary::Start) {
    handOutOpen(onRecord);
    return;
  }
  // END: the matched part of a record still open is a record, the lines after it go
  // out one by one.
  const std::size_t kept = completeLines_;
  const BrokenRecord& held = takeOpenRecord();
  if (kept > 0) {
    handOut(linesAt(held.lines, held.starts, 0, kept), false, openLine_, onRecord);
  }
  for (std::size_t i = kept; i < held.starts.size(); ++i) {
    handOut(lineAt(held.lines, held.starts, i), false, openLine_ + i, onRecord);
  }
}

bool RecordBuilder::hasPending() const { return lineOpen_ || recordOpen_; }

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
