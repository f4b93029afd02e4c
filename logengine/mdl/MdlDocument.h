// The model of one MDL text: which files one table watches, how their lines are
// cut into records, and which attributes each record yields. The reader fills it;
// the tailer and the matcher only read it. Regular expressions stay text here:
// compiling them belongs to the matcher.

#pragma once

#include <optional>
#include <string>
#include <vector>

namespace xrvlog {

// Upper bounds the reader enforces, so that no MDL text can make it, or the engine
// behind it, allocate without limit.
struct MdlLimits {
  static constexpr size_t kTextBytes = 16 * 1024 * 1024;
  static constexpr size_t kLineBytes = 1024 * 1024;
  static constexpr size_t kQuotedBytes = 4096;
  static constexpr size_t kNameBytes = 256;
  static constexpr size_t kSources = 1024;
  static constexpr size_t kAttributes = 1024;
  static constexpr size_t kFiltersPerAttribute = 16;
  static constexpr size_t kAlternatives = 4096;
  static constexpr int kGroupNesting = 250;
  static constexpr int kMaxAttributeSize = 100000;
};

// How a table's records reach the agent: E sends every record as an event at once;
// S collects the records of each pass over a file into one sample.
enum class TableKind { Event, Sampled };

// Which file a source names: one path, or every file whose path matches a pattern
// (REGEX: each path component that holds pattern characters is matched on its own;
// REGEXSTRICT: the whole path is one pattern).
enum class SourceNaming { Path, Regex, RegexStrict };

// Where reading resumes when a file is replaced or truncated.
enum class RestartPosition { Unset, FromTop, FromEnd };

// Which of several files that match one pattern is the one followed.
enum class CompareMode { AllMatches, LastUpdate, Size, CreationTime };

struct MdlSource {
  int line = 0;
  SourceNaming naming = SourceNaming::Path;
  std::string name;  // the path, or the pattern
  std::string description;
  bool tail = false;
  RestartPosition restart = RestartPosition::Unset;
  bool eraseRestart = false;
  std::string unmatchLog;  // empty: unmatched records are not written anywhere
  CompareMode compare = CompareMode::AllMatches;
  std::string codepage;                 // empty: UTF-8, nothing is converted
  std::optional<int> monitorFrequency;  // seconds between polls
  std::optional<int> existTimeToWait;   // seconds between looks for a missing file
  bool remote = false;
  std::string sshHost;
  std::optional<int> sshPort;
  std::string sshUser;
  std::string sshPassword;
  std::string sshAuthType;
  std::string sshPublicKeyFile;
  std::string sshPrivateKeyFile;
};

// Multi-line records. START: a line on which the pattern matches begins a new
// record. END: a record ends where a match of the pattern ends.
struct MdlRecordSet {
  enum class Boundary { Start, End };
  int line = 0;
  int column = 0;  // where the pattern starts
  Boundary boundary = Boundary::End;
  int input = 0;
  std::string pattern;
};

// One ScanRegEx (match anywhere) or MatchRegEx (match the whole input) term. `input`
// is 0 for the whole record, N for field or capture group N.
struct MdlPattern {
  enum class Kind { Scan, Match };
  int line = 0;
  int column = 0;
  Kind kind = Kind::Scan;
  int input = 0;
  std::string regex;
  std::optional<std::string> replaceFirst;  // template of the attribute's value
};

// +FILTER={a OR b}: the record is kept only when a term matches, and the first
// matching term's REPLACEFIRST template (if any) gives the attribute's value.
// -FILTER={...}: the record is dropped when a term matches.
struct MdlFilter {
  bool drop = false;
  std::vector<MdlPattern> alternatives;
};

// How a record is cut into fields.
enum class FieldSplit {
  Whole,      // NEWLINE: every text attribute sees the whole record
  Delimiter,  // ';': field N is the text between the (N-1)th and Nth delimiter
  Regex,      // REGEX='...': fields are the capture groups of one expression
};

enum class AttributeType : char {
  Text = 'Z',
  Integer = 'I',
  Decimal = 'D',
  RemoteHost = 'H',
};

struct MdlAttribute {
  int line = 0;
  std::string name;
  AttributeType type = AttributeType::Text;
  int size = 0;
  std::string group;  // REGEX split: group name or number; empty means the attribute's name
  std::vector<MdlFilter> filters;
  std::string description;
};

struct MdlDocument {
  std::string application;
  std::optional<int> processMax;  // CPU percentage the engine may use
  std::string table;
  TableKind kind = TableKind::Event;
  int maximumAttributeSize = 16384;
  std::vector<MdlSource> sources;
  std::optional<MdlRecordSet> recordSet;
  FieldSplit split = FieldSplit::Whole;
  std::string delimiter;   // Delimiter split
  std::string fieldRegex;  // Regex split
  int fieldRegexLine = 0;  // where the expression starts
  int fieldRegexColumn = 0;
  std::vector<MdlAttribute> attributes;
};

}  // namespace xrvlog
