#include "logmon/LogMonitorMdl.h"

#include <cctype>
#include <cstring>

namespace logmon {
namespace {

bool isBlank(char c) { return c == ' ' || c == '\t'; }

// Where the name after `keyword` starts and how long it is; false when the keyword
// does not occur.
bool findHeaderName(const std::string& mdl, const char* keyword, size_t* start, size_t* length) {
  const size_t at = mdl.find(keyword);
  if (at == std::string::npos) {
    return false;
  }
  size_t position = at + strlen(keyword);
  while (position < mdl.size() && isBlank(mdl[position])) {
    ++position;
  }
  size_t end = position;
  while (end < mdl.size() && isMdlNameCharacter(mdl[end])) {
    ++end;
  }
  *start = position;
  *length = end - position;
  return true;
}

std::string withoutBlanks(const char* text) {
  std::string out = text == nullptr ? "" : text;
  for (char& c : out) {
    if (isBlank(c)) {
      c = '_';
    }
  }
  return out;
}

}  // namespace

bool isMdlNameCharacter(char c) {
  return isalnum(static_cast<unsigned char>(c)) != 0 || c == '-' || c == '_' || c == '*';
}

std::string mdlHeaderName(const std::string& mdl, const char* keyword) {
  size_t start = 0;
  size_t length = 0;
  if (!findHeaderName(mdl, keyword, &start, &length)) {
    return "";
  }
  return mdl.substr(start, length);
}

std::string subnodeTableName(const std::string& tableName, const char* subnodeKey) {
  return tableName + "_" + withoutBlanks(subnodeKey);
}

bool rewriteSubnodeHeader(std::string* mdl, const char* subnodeType, const char* subnodeKey,
                          const std::string& tableName) {
  size_t applStart = 0;
  size_t applLength = 0;
  size_t nameStart = 0;
  size_t nameLength = 0;
  if (!findHeaderName(*mdl, "//APPL ", &applStart, &applLength) ||
      !findHeaderName(*mdl, "//NAME ", &nameStart, &nameLength)) {
    return false;
  }
  const std::string application = mdl->substr(applStart, applLength) + "_" +
                                  withoutBlanks(subnodeType) + "_" + withoutBlanks(subnodeKey);
  // The later of the two first, so that the earlier one's position still holds.
  if (applStart > nameStart) {
    mdl->replace(applStart, applLength, application);
    mdl->replace(nameStart, nameLength, tableName);
  } else {
    mdl->replace(nameStart, nameLength, tableName);
    mdl->replace(applStart, applLength, application);
  }
  return true;
}

SourceFileCheck checkSourceFile(const std::string& mdl, std::string* fileName) {
  const size_t line = mdl.find("//SOURCE FILE ");
  if (line == std::string::npos) {
    return SourceFileCheck::NoLine;
  }
  const size_t open = mdl.find('\'', line);
  if (open == std::string::npos) {
    return SourceFileCheck::NoQuote;
  }
  if (open + 1 < mdl.size() && mdl[open + 1] == '\'') {
    return SourceFileCheck::EmptyName;
  }
  const size_t close = mdl.find('\'', open + 1);
  if (fileName != nullptr) {
    *fileName =
        mdl.substr(open + 1, close == std::string::npos ? std::string::npos : close - open - 1);
  }
  return SourceFileCheck::Found;
}

}  // namespace logmon
