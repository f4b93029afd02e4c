#include "mdl/MdlReader.h"

#include <map>
#include <set>

#include "mdl/MdlCursor.h"
#include "mdl/MdlPatterns.h"

namespace xrvlog {

std::string MdlError::toString() const {
  return "line " + std::to_string(line) + ", column " + std::to_string(column) + ": " + message;
}

namespace {

std::string lowered(std::string_view text) {
  std::string result(text);
  for (char& c : result) {
    if (c >= 'A' && c <= 'Z') {
      c = static_cast<char>(c - 'A' + 'a');
    }
  }
  return result;
}

bool yesNo(MdlCursor& cursor, std::string_view option) {
  return cursor.oneOf({"Y", "YES", "N", "NO"}, "Y or N after " + std::string(option) + "=") < 2;
}

// A header value such as the application or table name: any run of non-blanks.
std::string headerName(MdlCursor& cursor, std::string_view what) {
  size_t start = cursor.position();
  std::string_view name = cursor.token();
  if (name.empty()) {
    cursor.fail(what);
  }
  if (name.size() > MdlLimits::kNameBytes) {
    cursor.failAt(start, std::string(what) + " is longer than " +
                             std::to_string(MdlLimits::kNameBytes) + " bytes");
  }
  return std::string(name);
}

// Whether a regular expression names a group `name`: (?<name>, (?P<name> or (?'name'.
bool namesGroup(const std::string& regex, const std::string& name) {
  for (const std::string& opening : {"(?<" + name + ">", "(?P<" + name + ">", "(?'" + name + "'"}) {
    if (regex.find(opening) != std::string::npos) {
      return true;
    }
  }
  return false;
}

class Reader {
 public:
  explicit Reader(std::string_view text) : text_(text) {}

  MdlDocument run() {
    if (!text_.empty() && text_.back() == '\0') {
      text_.remove_suffix(1);
    }
    if (text_.size() > MdlLimits::kTextBytes) {
      throw MdlSyntaxError{1, 1,
                           "the MDL text is " + std::to_string(text_.size()) +
                               " bytes, more than the limit of " +
                               std::to_string(MdlLimits::kTextBytes)};
    }
    int number = 0;
    size_t start = 0;
    while (start < text_.size()) {
      size_t end = text_.find('\n', start);
      if (end == std::string_view::npos) {
        end = text_.size();
      }
      std::string_view line = text_.substr(start, end - start);
      if (!line.empty() && line.back() == '\r') {
        line.remove_suffix(1);
      }
      readLine(line, ++number);
      start = end + 1;
    }
    finish(number + 1);
    return std::move(document_);
  }

 private:
  enum class Stage { Start, Application, Table, Sources, Attributes };

  void readLine(std::string_view line, int number) {
    MdlCursor cursor(line, number);
    if (line.size() > MdlLimits::kLineBytes) {
      cursor.failAt(MdlLimits::kLineBytes,
                    "the line is longer than " + std::to_string(MdlLimits::kLineBytes) + " bytes");
    }
    size_t nul = line.find('\0');
    if (nul != std::string_view::npos) {
      cursor.failAt(nul, "a NUL byte may not appear in MDL text");
    }
    cursor.skipBlanks();
    if (cursor.atEnd() || cursor.peek() == '#') {
      return;
    }
    size_t at = cursor.position();
    if (!cursor.acceptLiteral("//")) {
      if (stage_ != Stage::Attributes) {
        cursor.fail(expected());
      }
      readAttribute(cursor);
      return;
    }
    std::string directive = lowered(cursor.token());
    cursor.setPosition(at + 2);
    if (directive == "appl" && stage_ == Stage::Start) {
      readApplication(cursor);
    } else if (directive == "name" && stage_ == Stage::Application) {
      readTable(cursor);
    } else if (directive == "source" && (stage_ == Stage::Table || stage_ == Stage::Sources)) {
      readSource(cursor);
    } else if (directive == "recordset" && stage_ == Stage::Sources && !document_.recordSet) {
      cursor.acceptKeyword("RECORDSET");
      cursor.skipBlanks();
      document_.recordSet = readRecordSet(cursor);
    } else if (directive == "attributes" && stage_ == Stage::Sources) {
      readFieldSplit(cursor);
    } else {
      cursor.setPosition(at);
      cursor.fail(expected());
    }
  }

  std::string expected() const {
    switch (stage_) {
      case Stage::Start:
        return "//APPL";
      case Stage::Application:
        return "//NAME";
      case Stage::Table:
        return "//SOURCE FILE";
      case Stage::Sources:
        return document_.recordSet ? "//SOURCE FILE or //ATTRIBUTES"
                                   : "//SOURCE FILE, //RECORDSET or //ATTRIBUTES";
      case Stage::Attributes:
        break;
    }
    return "an attribute line";
  }

  void finish(int lineAfterLast) {
    if (stage_ != Stage::Attributes || document_.attributes.empty()) {
      throw MdlSyntaxError{lineAfterLast, 1,
                           "expected " + expected() + ", found the end of the text"};
    }
  }

  void readApplication(MdlCursor& cursor) {
    cursor.acceptKeyword("APPL");
    cursor.requireSeparator("//APPL");
    document_.application = headerName(cursor, "an application name");
    while (true) {
      cursor.requireSeparator("the application name");
      if (cursor.atEnd()) {
        break;
      }
      if (document_.processMax || !cursor.acceptLiteral("ProcessMax=")) {
        cursor.fail("ProcessMax= or the end of the line");
      }
      document_.processMax = cursor.number("a CPU percentage", 1, 100);
    }
    stage_ = Stage::Application;
  }

  void readTable(MdlCursor& cursor) {
    cursor.acceptKeyword("NAME");
    cursor.requireSeparator("//NAME");
    document_.table = headerName(cursor, "a table name");
    cursor.requireSeparator("the table name");
    if (cursor.acceptKeyword("E")) {
      document_.kind = TableKind::Event;
    } else if (cursor.acceptKeyword("S")) {
      document_.kind = TableKind::Sampled;
    } else {
      cursor.fail("the table kind E or S");
    }
    bool sized = false;
    while (true) {
      cursor.requireSeparator("the table kind");
      if (cursor.atEnd()) {
        break;
      }
      if (sized || !cursor.acceptLiteral("MaximumAttributeSize=")) {
        cursor.fail("MaximumAttributeSize= or the end of the line");
      }
      document_.maximumAttributeSize = cursor.number("a size", 1, MdlLimits::kMaxAttributeSize);
      sized = true;
    }
    stage_ = Stage::Table;
  }

  void readSource(MdlCursor& cursor) {
    size_t at = cursor.position();
    cursor.acceptKeyword("SOURCE");
    cursor.requireSeparator("//SOURCE");
    if (!cursor.acceptKeyword("FILE")) {
      cursor.fail("FILE");
    }
    if (document_.sources.size() == MdlLimits::kSources) {
      cursor.failAt(
          at, "a table may watch at most " + std::to_string(MdlLimits::kSources) + " sources");
    }
    MdlSource source;
    source.line = cursor.line();
    std::set<std::string> seen;
    size_t nameColumn = 0;
    while (true) {
      cursor.requireSeparator("the previous option");
      if (cursor.atEnd()) {
        break;
      }
      size_t start = cursor.position();
      std::string word;
      std::string option = "file name";
      if (cursor.peek() != '\'') {
        word = lowered(cursor.name("a SOURCE FILE option or the file name"));
        option = word.starts_with("compareby")     ? "compareby"
                 : word.starts_with("restartfrom") ? "restartfrom"
                 : word.starts_with("regex")       ? "file name"
                                                   : word;
      }
      if (!seen.insert(option).second) {
        cursor.failAt(start, option == "file name" ? "the source has a second file name"
                                                   : "the option " + option + " is given twice");
      }
      if (word.empty()) {
        nameColumn = start;
        source.name = cursor.quoted("the file name", MdlLimits::kQuotedBytes);
      } else {
        if (option == "file name") {
          nameColumn = cursor.position() + 1;
        }
        readSourceOption(cursor, word, source);
      }
    }
    if (seen.count("file name") == 0) {
      cursor.fail("the file name: '/path' or REGEX='pattern'");
    }
    if (source.name.empty()) {
      cursor.failAt(nameColumn, "the file name is empty");
    }
    if (source.remote && source.sshHost.empty()) {
      cursor.failAt(at, "RemoteLog=Y needs SSH_HOSTNAME='host'");
    }
    document_.sources.push_back(std::move(source));
    stage_ = Stage::Sources;
  }

  void readSourceOption(MdlCursor& cursor, const std::string& word, MdlSource& source) {
    auto value = [&cursor](std::string_view what) {
      cursor.expectLiteral("=", "'='");
      return cursor.quoted(what, MdlLimits::kQuotedBytes);
    };
    static const std::map<std::string, CompareMode> compare = {
        {"comparebyallmatches", CompareMode::AllMatches},
        {"comparebylastupdate", CompareMode::LastUpdate},
        {"comparebysize", CompareMode::Size},
        {"comparebycreationtime", CompareMode::CreationTime}};
    static const std::map<std::string, std::string MdlSource::*> texts = {
        {"unmatchlog", &MdlSource::unmatchLog},
        {"description", &MdlSource::description},
        {"ssh_hostname", &MdlSource::sshHost},
        {"ssh_userid", &MdlSource::sshUser},
        {"ssh_password", &MdlSource::sshPassword},
        {"ssh_auth_type", &MdlSource::sshAuthType},
        {"ssh_pub_keyfile", &MdlSource::sshPublicKeyFile},
        {"ssh_priv_keyfile", &MdlSource::sshPrivateKeyFile}};
    if (word == "regex" || word == "regexstrict") {
      source.naming = word == "regex" ? SourceNaming::Regex : SourceNaming::RegexStrict;
      size_t start = cursor.position() + 1;
      source.name = value("the file pattern");
      checkGroups(cursor, start + 1, source.name);
    } else if (word == "tail") {
      source.tail = true;
    } else if (word == "restartfromtop" || word == "restartfromend") {
      source.restart =
          word == "restartfromtop" ? RestartPosition::FromTop : RestartPosition::FromEnd;
    } else if (word == "eraserestart") {
      cursor.expectLiteral("=", "'='");
      source.eraseRestart = yesNo(cursor, "EraseRestart");
    } else if (word == "remotelog") {
      cursor.expectLiteral("=", "'='");
      source.remote = yesNo(cursor, "RemoteLog");
    } else if (auto mode = compare.find(word); mode != compare.end()) {
      source.compare = mode->second;
    } else if (word == "codepage") {
      cursor.expectLiteral("=", "'='");
      source.codepage = std::string(cursor.token());
    } else if (word == "filemonitorfrequency") {
      cursor.expectLiteral("=", "'='");
      source.monitorFrequency = cursor.number("seconds", 0, 86400);
    } else if (word == "fileexisttimetowait") {
      cursor.expectLiteral("=", "'='");
      source.existTimeToWait = cursor.number("seconds", 0, 86400);
    } else if (word == "ssh_port") {
      size_t start = cursor.position() + 1;
      std::string port = value("the port");
      MdlCursor digits(port, cursor.line());
      try {
        source.sshPort = digits.number("a port", 1, 65535);
        if (!digits.atEnd()) {
          digits.fail("a port from 1 to 65535");
        }
      } catch (const MdlSyntaxError& error) {
        cursor.failAt(start + static_cast<size_t>(error.column), error.message);
      }
    } else if (auto text = texts.find(word); text != texts.end()) {
      source.*(text->second) = value(word);
    } else {
      cursor.setPosition(cursor.position() - word.size());
      cursor.fail("a SOURCE FILE option");
    }
  }

  void readFieldSplit(MdlCursor& cursor) {
    cursor.acceptKeyword("ATTRIBUTES");
    cursor.requireSeparator("//ATTRIBUTES");
    if (cursor.acceptKeyword("NEWLINE")) {
      document_.split = FieldSplit::Whole;
    } else if (cursor.acceptKeyword("TAB")) {
      document_.split = FieldSplit::Delimiter;
      document_.delimiter = "\t";
    } else if (cursor.peek() == '\'') {
      size_t start = cursor.position();
      document_.split = FieldSplit::Delimiter;
      document_.delimiter = cursor.quoted("the delimiter", 16);
      if (document_.delimiter.empty()) {
        cursor.failAt(start, "the delimiter is empty");
      }
    } else if (cursor.acceptKeyword("REGEX")) {
      cursor.expectLiteral("=", "'='");
      size_t start = cursor.position() + 1;
      document_.split = FieldSplit::Regex;
      document_.fieldRegexLine = cursor.line();
      document_.fieldRegexColumn = static_cast<int>(start) + 1;
      document_.fieldRegex = cursor.quoted("the expression", MdlLimits::kLineBytes);
      if (document_.fieldRegex.empty()) {
        cursor.failAt(start - 1, "the expression is empty");
      }
      fieldGroups_ = checkGroups(cursor, start, document_.fieldRegex);
    } else {
      cursor.fail("NEWLINE, TAB, a quoted delimiter or REGEX='expression'");
    }
    cursor.skipBlanks();
    if (!cursor.atEnd()) {
      cursor.fail("the end of the line");
    }
    stage_ = Stage::Attributes;
  }

  void readAttribute(MdlCursor& cursor) {
    size_t start = cursor.position();
    if (document_.attributes.size() == MdlLimits::kAttributes) {
      cursor.failAt(start, "a table may have at most " + std::to_string(MdlLimits::kAttributes) +
                               " attributes");
    }
    MdlAttribute attribute;
    attribute.line = cursor.line();
    attribute.name = std::string(cursor.name("an attribute name"));
    auto [first, added] = attributeLines_.emplace(attribute.name, attribute.line);
    if (!added) {
      cursor.failAt(start, "the attribute " + attribute.name + " is already defined on line " +
                               std::to_string(first->second));
    }
    if (!cursor.skipBlanks()) {
      cursor.fail("a blank after the attribute name");
    }
    readType(cursor, attribute);
    while (true) {
      cursor.requireSeparator("the previous item");
      if (cursor.atEnd()) {
        break;
      }
      if (cursor.peek() == '@') {
        std::string_view description = cursor.rest().substr(1);
        while (!description.empty() && (description.back() == ' ' || description.back() == '\t')) {
          description.remove_suffix(1);
        }
        attribute.description = std::string(description);
        break;
      }
      readAttributeOption(cursor, attribute);
    }
    checkGroupReference(cursor, start, attribute);
    document_.attributes.push_back(std::move(attribute));
  }

  void readType(MdlCursor& cursor, MdlAttribute& attribute) {
    long highest = 0;
    char letter = cursor.peek();
    if (letter >= 'a' && letter <= 'z') {
      letter = static_cast<char>(letter - 'a' + 'A');
    }
    switch (letter) {
      case 'Z':
        highest = document_.maximumAttributeSize;
        break;
      case 'I':
        highest = 20;
        break;
      case 'D':
        highest = 40;
        break;
      case 'H':
        highest = 255;
        break;
      default:
        cursor.fail("a type letter Z, I, D or H");
    }
    if (isNameChar(cursor.peek(1))) {
      cursor.fail("a type letter Z, I, D or H");
    }
    attribute.type = static_cast<AttributeType>(letter);
    cursor.advance();
    if (!cursor.skipBlanks()) {
      cursor.fail("a blank after the type letter");
    }
    attribute.size = cursor.number("a size", 1, highest);
  }

  void readAttributeOption(MdlCursor& cursor, MdlAttribute& attribute) {
    size_t start = cursor.position();
    bool keep = cursor.acceptLiteral("+FILTER=");
    if (keep || cursor.acceptLiteral("-FILTER=")) {
      if (attribute.filters.size() == MdlLimits::kFiltersPerAttribute) {
        cursor.failAt(start, "an attribute may have at most " +
                                 std::to_string(MdlLimits::kFiltersPerAttribute) + " filters");
      }
      attribute.filters.push_back(readFilter(cursor, !keep));
      return;
    }
    if (cursor.acceptLiteral("GROUP=")) {
      if (document_.split != FieldSplit::Regex) {
        cursor.failAt(start, "GROUP= needs fields from //ATTRIBUTES REGEX='expression'");
      }
      if (!attribute.group.empty()) {
        cursor.failAt(start, "the option GROUP is given twice");
      }
      size_t at = cursor.position();
      while (isNameChar(cursor.peek())) {
        cursor.advance();
      }
      attribute.group = std::string(cursor.text().substr(at, cursor.position() - at));
      bool number =
          !attribute.group.empty() && attribute.group[0] >= '0' && attribute.group[0] <= '9';
      if (attribute.group.empty() || attribute.group.size() > MdlLimits::kNameBytes ||
          (number && attribute.group.find_first_not_of("0123456789") != std::string::npos)) {
        cursor.setPosition(at);
        cursor.fail("a group number or name");
      }
      return;
    }
    cursor.fail("+FILTER=, -FILTER=, GROUP= or @description");
  }

  // With fields from one expression, an attribute names the group it takes: by
  // GROUP=, or by being named like the group; and a filter's input is one of the
  // expression's groups.
  void checkGroupReference(const MdlCursor& cursor, size_t start, const MdlAttribute& attribute) {
    if (document_.split != FieldSplit::Regex) {
      return;
    }
    for (const MdlFilter& filter : attribute.filters) {
      for (const MdlPattern& term : filter.alternatives) {
        if (term.input > fieldGroups_) {
          cursor.failAt(static_cast<size_t>(term.column - 1), noSuchGroup(term.input));
        }
      }
    }
    if (attribute.type == AttributeType::RemoteHost) {
      return;
    }
    const std::string& group = attribute.group.empty() ? attribute.name : attribute.group;
    if (group[0] >= '0' && group[0] <= '9') {
      if (group.size() > 4 || std::stoi(group) > fieldGroups_) {
        cursor.failAt(start, noSuchGroup(group.size() > 4 ? 9999 : std::stoi(group)));
      }
    } else if (!namesGroup(document_.fieldRegex, group)) {
      cursor.failAt(start, "the //ATTRIBUTES expression has no group named " + group +
                               "; name a group so or give GROUP=");
    }
  }

  std::string noSuchGroup(int group) const {
    return "there is no group " + std::to_string(group) + ": the //ATTRIBUTES expression has " +
           std::to_string(fieldGroups_) + " capturing groups";
  }

  std::string_view text_;
  Stage stage_ = Stage::Start;
  MdlDocument document_;
  std::map<std::string, int> attributeLines_;
  int fieldGroups_ = 0;  // capturing groups of the //ATTRIBUTES expression
};

}  // namespace

MdlReadResult MdlReader::read(std::string_view text) {
  try {
    return MdlReadResult(Reader(text).run());
  } catch (const MdlSyntaxError& error) {
    return MdlReadResult(MdlError{error.line, error.column, error.message});
  }
}

}  // namespace xrvlog
