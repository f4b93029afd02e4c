#pragma once
// From lines to the name/value pairs of one table's records.
//
// RecordRules holds what one MDL load compiles: the //RECORDSET pattern, the
// //ATTRIBUTES split (delimiter or expression) and every +FILTER / -FILTER term, each
// compiled once and shared read-only by all file threads of the table.
//
// A RecordBuilder belongs to one file thread. It joins lines into records (by the
// //RECORDSET pattern; without one every line is a record), decides whether a record
// is kept, and fills the attribute values, reusing its buffers so that a record costs
// no allocation once they have grown.

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "match/Matcher.h"
#include "mdl/MdlDocument.h"

namespace xrvlog {

// A pattern of the MDL that PCRE2 does not accept, named by its MDL line and column.
class RecordRuleError : public std::runtime_error {
 public:
  RecordRuleError(int line, int column, const std::string& message);
  int line() const { return line_; }
  int column() const { return column_; }

 private:
  int line_;
  int column_;
};

struct NameValue {
  const char* name;
  const char* value;
};

class RecordRules {
 public:
  static constexpr std::size_t kDefaultMaxRecordBytes = 1024 * 1024;

  // Throws RecordRuleError. Records are bounded by kDefaultMaxRecordBytes, or by
  // maxRecordBytes (at least 1).
  static std::shared_ptr<const RecordRules> compile(const MdlDocument& document,
                                                    const MatchLimits& limits = {});
  static std::shared_ptr<const RecordRules> compile(const MdlDocument& document,
                                                    const MatchLimits& limits,
                                                    std::size_t maxRecordBytes);

  // One entry per compiled pattern, in a fixed order: what the per-pattern statistics
  // are reported under. attribute is "" for the //RECORDSET and //ATTRIBUTES REGEX ones,
  // which come first (when the MDL has them), followed by every filter term in MDL
  // order.
  struct PatternInfo {
    std::string attribute;
    std::string pattern;
  };
  const std::vector<PatternInfo>& patterns() const;
  const MdlDocument& document() const;
  // Longest record the builder joins; what goes beyond is dropped and counted.
  std::size_t maxRecordBytes() const;

 private:
  friend class RecordBuilder;
  RecordRules() = default;

  // Where a text comes from: an attribute's value before its filters and type apply,
  // or a filter term's input.
  enum class Source { Record, Field, Host, Empty };
  struct Input {
    Source source = Source::Empty;
    std::size_t field = 0;  // Field: index into the record's fields
  };
  // Consecutive terms of one filter that read the same input: one pattern set, whose
  // first matching pattern is the first matching term.
  struct TermRun {
    std::shared_ptr<const PatternSet> set;
    Input input;
    std::size_t firstPattern = 0;  // index of its first term in patterns()
    std::size_t index = 0;         // among all runs, in MDL order
  };
  struct Filter {
    bool drop = false;
    std::vector<TermRun> runs;
  };
  struct Attribute {
    std::string name;
    AttributeType type = AttributeType::Text;
    std::size_t size = 0;
    Input value;
    std::vector<Filter> filters;
  };

  void compileRecordSet(const MatchLimits& limits);
  void compileFields(const MatchLimits& limits);
  void compileFilters(const MatchLimits& limits);
  Input inputFor(int input) const;

  MdlDocument document_;
  std::vector<PatternInfo> patterns_;
  std::size_t maxRecordBytes_ = kDefaultMaxRecordBytes;
  std::shared_ptr<const PatternSet> boundary_;  // //RECORDSET; null without one
  std::shared_ptr<const PatternSet> fieldSet_;  // //ATTRIBUTES REGEX
  std::vector<std::size_t> groupFields_;        // REGEX: group N -> index of its field
  std::size_t fieldCount_ = 0;                  // delimiter split: the fields anything reads
  std::vector<Attribute> attributes_;
  std::size_t runCount_ = 0;
};

// The record's text is valid only during the call.
using RecordHandler = std::function<void(std::string_view record)>;

class RecordBuilder {
 public:
  explicit RecordBuilder(std::shared_ptr<const RecordRules> rules);
  ~RecordBuilder();

  // Feeds one line as the follower hands it out (flags: LineFlags of
  // tail/LineAssembler.h; cut pieces are joined up to maxRecordBytes). onRecord is
  // called, inside this call, for every record the line completes.
  void addLine(std::string_view line, unsigned flags, const RecordHandler& onRecord);
  // Hands out the record still being collected, if any (its end was not seen yet: the
  // file went quiet, or stops being read).
  void flushPending(const RecordHandler& onRecord);
  bool hasPending() const;

  // Decides whether the record is kept and fills the values. False: a +FILTER none
  // of whose terms matched, a -FILTER term matched, or an //ATTRIBUTES REGEX that did
  // not match. remoteHost is the value of H attributes.
  bool build(std::string_view record, std::string_view remoteHost);
  // Every attribute of the table in MDL order, after build() returned true; valid
  // until the next call to build().
  std::span<const NameValue> pairs() const;

  // Adds this builder's counts to `into`, indexed like RecordRules::patterns() (the
  // vector is grown as needed).
  void addStats(std::vector<PatternStats>& into) const;
  // Records dropped in part because they grew beyond maxRecordBytes.
  std::uint64_t oversizedRecords() const;
  // Inside onRecord: the number of the line the record starts on, counting from 1 the
  // lines fed since this builder was made (a line handed out in pieces counts once).
  std::uint64_t recordLine() const { return recordLine_; }

 private:
  using Source = RecordRules::Source;
  // END: the lines of a record being broken up, and where each starts.
  struct BrokenRecord {
    std::string lines;
    std::vector<std::size_t> starts;
  };

  void completeLine(std::string_view line, bool truncated, const RecordHandler& onRecord);
  void finishCutLine(const RecordHandler& onRecord);
  void addStartLine(std::string_view line, bool truncated, const RecordHandler& onRecord);
  void addEndLine(std::string_view line, bool truncated, std::uint64_t number,
                  const RecordHandler& onRecord);
  bool startsRecord(std::string_view line);
  Matcher::Fit joinedFit(std::string_view text);
  void breakUpRecord(std::string_view line, bool truncated, std::uint64_t number,
                     const RecordHandler& onRecord);
  // Takes the open record's lines out of record_ into a buffer of broken_ and closes it.
  BrokenRecord& takeOpenRecord();
  void handOut(std::string_view record, bool truncated, std::uint64_t line,
               const RecordHandler& onRecord);
  void handOutOpen(const RecordHandler& onRecord);
  void splitFields(std::string_view record);
  std::string_view text(const RecordRules::Input& input, std::string_view record,
                        std::string_view remoteHost) const;

  std::shared_ptr<const RecordRules> rules_;
  std::unique_ptr<Matcher> boundary_;
  std::unique_ptr<Matcher> fieldMatcher_;
  std::vector<std::unique_ptr<Matcher>> runMatchers_;  // one per TermRun, in rule order
  // END: the keep filters on the whole record, asked how far a record goes (their own
  // matchers, so that the statistics count records, not attempts).
  std::vector<std::unique_ptr<Matcher>> joinMatchers_;

  // Record assembly.
  std::string line_;  // the pieces of a cut line joined so far
  bool lineOpen_ = false;
  bool lineTruncated_ = false;
  std::string record_;  // the open record: its lines joined by line feeds
  bool recordOpen_ = false;
  bool recordTruncated_ = false;
  std::vector<std::size_t> lineStarts_;  // END: where each line of the open record starts
  std::size_t completeLines_ = 0;  // END: lines of its longest part a keep filter matches
  // END: the lines of records being broken up, one entry per nesting level (a line fed
  // again may open and break up a record of its own). Buffers swap with record_ and
  // lineStarts_, so that their storage is reused.
  std::deque<BrokenRecord> broken_;
  std::size_t brokenDepth_ = 0;
  std::string scratch_;
  std::uint64_t lines_ = 0;
  std::uint64_t openLine_ = 0;  // the line the record being collected starts on
  std::uint64_t recordLine_ = 0;
  std::uint64_t oversized_ = 0;

  // Values of the last record built.
  std::vector<std::string_view> fields_;
  std::vector<std::string_view> replaced_;  // per attribute: its REPLACEFIRST value
  std::vector<bool> hasReplaced_;
  std::string values_;
  std::vector<std::size_t> offsets_;
  std::vector<NameValue> pairs_;
};

}  // namespace xrvlog
