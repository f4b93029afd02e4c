#include "definition/DefinitionCheck.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "definition/ConfigXMLParser.h"
#include "definition/DefinitionWarnings.h"
#include "definition/Parser.h"
#include "foundation/HashMap.h"
#include "framework/ReadFile.h"
#include "framework/Trace.h"

namespace {

// Line and column of byte offsets in the original document.
class LineIndex {
 public:
  explicit LineIndex(const std::string& document) {
    lineStarts_.push_back(0);
    for (size_t i = 0; i < document.size(); ++i) {
      if (document[i] == '\n') {
        lineStarts_.push_back(i + 1);
      }
    }
  }
  void locate(size_t offset, int* line, int* column) const {
    auto next = std::upper_bound(lineStarts_.begin(), lineStarts_.end(), offset);
    size_t index = static_cast<size_t>(next - lineStarts_.begin()) - 1;
    *line = static_cast<int>(index + 1);
    *column = static_cast<int>(offset - lineStarts_[index] + 1);
  }

 private:
  std::vector<size_t> lineStarts_;
};

// The agent's dispatcher, with errors and warnings recorded instead of ending the
// process.
class CheckingDispatcher : public ConfigXMLParser, public DefinitionWarningSink {
 public:
  CheckingDispatcher(const LineIndex& lines, std::optional<DefinitionProblem>* error,
                     std::vector<DefinitionProblem>* warnings)
      : lines_(lines), error_(error), warnings_(warnings) {
    setDefinitionWarningSink(this);
  }
  ~CheckingDispatcher() override { setDefinitionWarningSink(nullptr); }

  void setParser(const Parser* parser) { parser_ = parser; }

  void fatalError(const char* message) override {
    XRV_TRACE_FN();
    if (!error_->has_value()) {
      *error_ = problemAt(message);
    }
    markFailed();
  }

  void startElement(const char* name, HashMap* attributes) override {
    warnAboutBlankSeparators(name, attributes);
    ConfigXMLParser::startElement(name, attributes);
  }

  void definitionWarning(const char* message) override {
    if (!error_->has_value()) {
      warnings_->push_back(problemAt(message));
    }
  }

 protected:
  void unhandledElement(const char* name, int depth) override {
    if (depth == 1) {
      definitionWarning(
          (std::string("Element ") + name + " is not handled by this build and is ignored")
              .c_str());
    }
  }

 private:
  // Only spaces separate attributes: after a tab or a line break the next attribute's
  // name starts with it, and nothing finds that attribute.
  void warnAboutBlankSeparators(const char* element, HashMap* attributes) {
    HashMapIterator it = attributes->iterator();
    while (it.hasNext()) {
      it.next();
      std::string attribute = it.getKey();
      if (attribute.find_first_of("\t\r\n") == std::string::npos) {
        continue;
      }
      attribute.erase(0, attribute.find_last_of("\t\r\n ") + 1);
      definitionWarning((std::string("Attribute ") + attribute + " of element " + element +
                         " follows a tab or line break and will not be found: separate "
                         "attributes with spaces and keep each tag on one line")
                            .c_str());
    }
  }

  DefinitionProblem problemAt(const char* message) const {
    DefinitionProblem problem{0, 0, message};
    if (parser_ != nullptr) {
      lines_.locate(parser_->getCurrentOffset(), &problem.line, &problem.column);
    }
    return problem;
  }

  const LineIndex& lines_;
  std::optional<DefinitionProblem>* error_;
  std::vector<DefinitionProblem>* warnings_;
  const Parser* parser_ = nullptr;
};

}  // namespace

bool DefinitionCheck::check(const std::string& document) {
  XRV_TRACE_FN();
  error_.reset();
  warnings_.clear();
  LineIndex lines(document);
  std::string buffer(document);  // the parser cuts its buffer into pieces
  CheckingDispatcher dispatcher(lines, &error_, &warnings_);
  Parser parser(&dispatcher);
  dispatcher.setParser(&parser);
  parser.parse(buffer.data());
  if (!error_.has_value() && !dispatcher.sawAgentElement()) {
    error_ = DefinitionProblem{1, 1, "no <agent> element: this is not an agent definition"};
  }
  return !error_.has_value();
}

bool DefinitionCheck::checkFile(const std::string& path) {
  XRV_TRACE_FN();
  std::string text;
  std::string problem;
  if (!readWholeFile(path.c_str(), maxReadFileBytes(), &text, &problem)) {
    error_ = DefinitionProblem{0, 0, problem};
    warnings_.clear();
    return false;
  }
  return check(text);
}
