#include "framework/ConfigFile.h"

#include <strings.h>

#include "framework/Trace.h"

namespace XRV {
namespace {

bool isBlank(char c) { return c == ' ' || c == '\t'; }

std::string_view trimBlanks(std::string_view text) {
  while (!text.empty() && isBlank(text.front())) {
    text.remove_prefix(1);
  }
  while (!text.empty() && isBlank(text.back())) {
    text.remove_suffix(1);
  }
  return text;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::vector<std::string_view> splitAtBlanks(std::string_view text) {
  std::vector<std::string_view> words;
  size_t i = 0;
  while (i < text.size()) {
    while (i < text.size() && isBlank(text[i])) {
      ++i;
    }
    size_t start = i;
    while (i < text.size() && !isBlank(text[i])) {
      ++i;
    }
    if (i > start) {
      words.push_back(text.substr(start, i - start));
    }
  }
  return words;
}

}  // namespace

const std::string* ConfigSection::find(std::string_view name) const {
  for (const auto& [entryName, value] : values) {
    if (entryName == name) {
      return &value;
    }
  }
  return nullptr;
}

void ConfigSection::set(std::string_view name, std::string_view value) {
  for (auto& entry : values) {
    if (entry.first == name) {
      entry.second = value;
      return;
    }
  }
  values.emplace_back(name, value);
}

const ConfigSection* ConfigFile::findSubnode(std::string_view type, std::string_view key) const {
  for (const ConfigSection& section : subnodes_) {
    if (section.type == type && section.key == key) {
      return &section;
    }
  }
  return nullptr;
}

ConfigSection* ConfigFile::subnodeSection(std::string_view type, std::string_view key) {
  for (ConfigSection& section : subnodes_) {
    if (section.type == type && section.key == key) {
      return &section;
    }
  }
  return &subnodes_.emplace_back(ConfigSection{std::string(type), std::string(key), {}});
}

bool ConfigFile::parse(std::string_view text, const std::string& fileName, std::string* error) {
  XRV_TRACE_FN();
  agent_ = ConfigSection();
  subnodes_.clear();
  ConfigSection* current = nullptr;
  size_t lineNumber = 0;
  auto fail = [&](const std::string& message) {
    if (error != nullptr) {
      *error = fileName + ":" + std::to_string(lineNumber) + ": " + message;
    }
    agent_ = ConfigSection();
    subnodes_.clear();
    return false;
  };

  while (!text.empty()) {
    ++lineNumber;
    size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    if (!line.empty() && line.back() == '\r') {
      line.remove_suffix(1);
    }
    line = trimBlanks(line);
    if (line.empty() || line.front() == '#') {
      continue;
    }
    if (line.front() == '[') {
      if (line.back() != ']') {
        return fail("section header without closing ']': " + std::string(line));
      }
      std::vector<std::string_view> words = splitAtBlanks(line.substr(1, line.size() - 2));
      if (words.size() == 1 && equalsIgnoringCase(words[0], "agent")) {
        current = &agent_;
      } else if (words.size() == 3 && equalsIgnoringCase(words[0], "subnode")) {
        current = subnodeSection(words[1], words[2]);
      } else {
        return fail("unknown section header " + std::string(line) +
                    " (expected [agent] or [subnode TYPE KEY])");
      }
      continue;
    }
    if (current == nullptr) {
      return fail("setting outside a section (start the file with [agent]): " + std::string(line));
    }
    size_t equals = line.find('=');
    if (equals == std::string_view::npos) {
      return fail("expected NAME = value: " + std::string(line));
    }
    std::string_view name = trimBlanks(line.substr(0, equals));
    if (name.empty()) {
      return fail("setting without a name: " + std::string(line));
    }
    std::string_view value = trimBlanks(line.substr(equals + 1));
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
      value = value.substr(1, value.size() - 2);
    }
    current->set(name, value);
  }
  return true;
}

}  // namespace XRV
