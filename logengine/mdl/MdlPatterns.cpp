#include "mdl/MdlPatterns.h"

#include <functional>
#include <string_view>
#include <vector>

namespace xrvlog {

namespace {

constexpr std::string_view kReplaceFirst = ",REPLACEFIRST(";

bool startsWithNoCase(std::string_view text, size_t at, std::string_view prefix) {
  if (text.size() - at < prefix.size()) {
    return false;
  }
  for (size_t i = 0; i < prefix.size(); ++i) {
    char a = text[at + i];
    char b = prefix[i];
    if (a >= 'a' && a <= 'z') {
      a = static_cast<char>(a - 'a' + 'A');
    }
    if (a != b) {
      return false;
    }
  }
  return true;
}

// From the "[" at `open`: the position just past the class's closing "]". A "]"
// right after "[" or "[^" is a member, as is a POSIX name such as [:alpha:].
size_t skipClass(const MdlCursor& cursor, std::string_view text, size_t open, size_t base) {
  size_t i = open + 1;
  if (i < text.size() && text[i] == '^') {
    ++i;
  }
  if (i < text.size() && text[i] == ']') {
    ++i;
  }
  while (i < text.size()) {
    char c = text[i];
    if (c == '\\') {
      i += 2;
    } else if (c == '[' && i + 1 < text.size() && text[i + 1] == ':') {
      size_t close = text.find(":]", i + 2);
      i = close == std::string_view::npos ? i + 1 : close + 2;
    } else if (c == ']') {
      return i + 1;
    } else {
      ++i;
    }
  }
  cursor.failAt(base + open, "the character class opened here is never closed");
}

// Whether the group opening `group` captures: a plain group or a named one, not
// (?:...), a look-around or an option setting.
bool isCapture(std::string_view group) {
  if (group.size() < 2 || group[1] != '?') {
    return group.size() < 2 || group[1] != '*';
  }
  if (group.starts_with("(?P<") || group.starts_with("(?'")) {
    return true;
  }
  return group.starts_with("(?<") && group.size() > 3 && group[3] != '=' && group[3] != '!';
}

// Follows a regular expression from `begin`. Returns the first position outside
// every group at which `stop` holds, or npos when the text ends first; groups
// must balance and nest no deeper than the limit.
size_t scanRegex(const MdlCursor& cursor, std::string_view text, size_t begin, size_t base,
                 const std::function<bool(size_t)>& stop, int* captures = nullptr) {
  std::vector<size_t> open;
  size_t i = begin;
  while (i < text.size()) {
    if (open.empty() && stop(i)) {
      return i;
    }
    char c = text[i];
    if (c == '\\') {
      if (i + 1 < text.size() && text[i + 1] == 'Q') {
        size_t end = text.find("\\E", i + 2);
        i = end == std::string_view::npos ? text.size() : end + 2;
      } else {
        i += 2;
      }
    } else if (c == '[') {
      i = skipClass(cursor, text, i, base);
    } else if (c == '(' && text.substr(i, 3) == "(?#") {
      size_t end = text.find(')', i);
      if (end == std::string_view::npos) {
        cursor.failAt(base + i, "the comment opened here is never closed");
      }
      i = end + 1;
    } else if (c == '(') {
      if (open.size() == static_cast<size_t>(MdlLimits::kGroupNesting)) {
        cursor.failAt(base + i, "groups are nested deeper than " +
                                    std::to_string(MdlLimits::kGroupNesting) + " levels");
      }
      open.push_back(i);
      if (captures != nullptr && isCapture(text.substr(i))) {
        ++*captures;
      }
      ++i;
    } else if (c == ')') {
      if (open.empty()) {
        cursor.failAt(base + i, "this ')' closes no group");
      }
      open.pop_back();
      ++i;
    } else {
      ++i;
    }
  }
  if (!open.empty()) {
    cursor.failAt(base + open.back(), "the group opened here is never closed");
  }
  return std::string_view::npos;
}

// A non-empty expression written in line, up to the first place outside its groups
// where `stop` holds; the cursor is left there.
std::string readInlineRegex(MdlCursor& cursor, std::string_view closing,
                            const std::function<bool(size_t)>& stop) {
  std::string_view text = cursor.text();
  size_t start = cursor.position();
  size_t end = scanRegex(cursor, text, start, 0, stop);
  if (end == std::string_view::npos) {
    cursor.setPosition(text.size());
    cursor.fail("')' closing " + std::string(closing));
  }
  if (end == start) {
    cursor.fail("a regular expression");
  }
  cursor.setPosition(end);
  return std::string(text.substr(start, end - start));
}

// The end of a REPLACEFIRST template: the ")" that closes it is followed by the ")"
// of its term and then "}" or OR, blanks allowed in between. The template itself
// is kept as written.
size_t findTemplateEnd(std::string_view text, size_t begin) {
  for (size_t i = begin; i + 1 < text.size(); ++i) {
    if (text[i] == '\\') {
      ++i;
      continue;
    }
    if (text[i] != ')' || text[i + 1] != ')') {
      continue;
    }
    size_t j = i + 2;
    while (j < text.size() && (text[j] == ' ' || text[j] == '\t')) {
      ++j;
    }
    if (j < text.size() && text[j] == '}') {
      return i;
    }
    if (j > i + 2 && startsWithNoCase(text, j, "OR") && j + 2 < text.size() &&
        (text[j + 2] == ' ' || text[j + 2] == '\t')) {
      return i;
    }
  }
  return std::string_view::npos;
}

MdlPattern readTerm(MdlCursor& cursor) {
  MdlPattern pattern;
  pattern.line = cursor.line();
  pattern.column = cursor.column();
  pattern.kind = cursor.oneOf({"ScanRegEx", "MatchRegEx"}, "ScanRegEx or MatchRegEx") == 0
                     ? MdlPattern::Kind::Scan
                     : MdlPattern::Kind::Match;
  cursor.skipBlanks();
  cursor.expectLiteral("(", "'('");
  pattern.input = cursor.number("an input number", 0, 1000);
  cursor.expectLiteral(",", "',' after the input number");
  std::string_view text = cursor.text();
  pattern.regex = readInlineRegex(cursor, "the term", [text](size_t at) {
    return text[at] == ')' || startsWithNoCase(text, at, kReplaceFirst);
  });
  if (cursor.acceptLiteral(kReplaceFirst)) {
    size_t templateStart = cursor.position();
    size_t templateEnd = findTemplateEnd(text, templateStart);
    if (templateEnd == std::string_view::npos) {
      cursor.failAt(templateStart - kReplaceFirst.size() + 1,
                    "this REPLACEFIRST is not closed by '))' before '}' or OR");
    }
    pattern.replaceFirst = std::string(text.substr(templateStart, templateEnd - templateStart));
    cursor.setPosition(templateEnd + 1);
  }
  cursor.expectLiteral(")", "')' closing the term");
  return pattern;
}

}  // namespace

MdlFilter readFilter(MdlCursor& cursor, bool drop) {
  MdlFilter filter;
  filter.drop = drop;
  cursor.expectLiteral("{", "'{' opening the filter");
  cursor.skipBlanks();
  while (true) {
    if (filter.alternatives.size() == MdlLimits::kAlternatives) {
      cursor.failAt(cursor.position(), "a filter may join at most " +
                                           std::to_string(MdlLimits::kAlternatives) + " terms");
    }
    filter.alternatives.push_back(readTerm(cursor));
    bool blank = cursor.skipBlanks();
    if (cursor.acceptLiteral("}")) {
      return filter;
    }
    if (!blank || !cursor.acceptKeyword("OR")) {
      cursor.fail("OR or '}' after the term");
    }
    if (!cursor.skipBlanks()) {
      cursor.fail("a blank after OR");
    }
  }
}

MdlRecordSet readRecordSet(MdlCursor& cursor) {
  MdlRecordSet recordSet;
  recordSet.line = cursor.line();
  recordSet.boundary = cursor.oneOf({"START", "END"}, "START or END") == 0
                           ? MdlRecordSet::Boundary::Start
                           : MdlRecordSet::Boundary::End;
  cursor.expectLiteral("(", "'('");
  recordSet.input = cursor.number("the input number", 0, 0);
  cursor.expectLiteral(",", "','");
  if (!cursor.acceptKeyword("regex")) {
    cursor.fail("regex");
  }
  cursor.expectLiteral(",", "','");
  std::string_view text = cursor.text();
  recordSet.column = cursor.column();
  recordSet.pattern =
      readInlineRegex(cursor, "the pattern", [text](size_t at) { return text[at] == ')'; });
  cursor.advance();
  cursor.skipBlanks();
  if (!cursor.atEnd()) {
    cursor.fail("the end of the line after the RECORDSET pattern");
  }
  return recordSet;
}

int checkGroups(const MdlCursor& cursor, size_t start, const std::string& regex) {
  int captures = 0;
  scanRegex(
      cursor, regex, 0, start, [](size_t) { return false; }, &captures);
  return captures;
}

}  // namespace xrvlog
