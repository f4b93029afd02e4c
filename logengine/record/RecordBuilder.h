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
  // Throws RecordRuleError.
  static std::shared_ptr<const RecordRules> compile(const MdlDocument& document,
                                                    const MatchLimits& limits = {});

  // One entry per compiled pattern, in a fixed order: what the per-pattern statistics
  // are reported under. attribute is "" for the //RECORDSET and //ATTRIBUTES REGEX ones.
  struct PatternInfo {
    std::string attribute;
    std::string pattern;
  };
  const std::vector<PatternInfo>& patterns() const;
  const MdlDocument& document() const;
  // Longest record the builder joins; what goes beyond is dropped and counted.
  std::size_t maxRecordBytes() const;

  // Implementation-defined members follow (compiled sets per filter, field layout).
};

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
};

}  // namespace xrvlog
