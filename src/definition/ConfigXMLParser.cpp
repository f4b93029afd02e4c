#include "definition/ConfigXMLParser.h"

#include <cstdio>
#include <cstring>
#include <string>

#include "definition/Parser.h"
#include "foundation/FatalExit.h"
#include "framework/ReadFile.h"
#include "framework/Trace.h"

namespace {
ConfigXMLParser* activeDispatcher = nullptr;
}  // namespace

ConfigXMLParser::ConfigXMLParser() : previousActive_(activeDispatcher) { activeDispatcher = this; }

ConfigXMLParser::~ConfigXMLParser() { activeDispatcher = previousActive_; }

ConfigXMLParser* ConfigXMLParser::active() { return activeDispatcher; }

void ConfigXMLParser::startElement(const char* name, HashMap* attributes) {
  XRV_TRACE_FN();
  if (failed_) {
    return;
  }
  if (current_ == nullptr) {
    sawAgent_ = sawAgent_ || strcmp(name, "agent") == 0;
    current_ = findXMLConfigParser(name);
    if (current_ == nullptr) {
      unhandledElement(name, unhandledDepth_);
      ++unhandledDepth_;
      return;
    }
    currentName_.assign(name);
    XRV_TRACE_DETAIL("Reading definition element %s", name);
  }
  current_->startElement(name, attributes);
}

void ConfigXMLParser::endElement(const char* name) {
  XRV_TRACE_FN();
  if (failed_) {
    return;
  }
  if (current_ == nullptr) {
    if (unhandledDepth_ > 0) {
      --unhandledDepth_;
    }
    return;
  }
  current_->endElement(name);
  if (currentName_ == name) {
    current_ = nullptr;
    currentName_.clear();
  }
}

void ConfigXMLParser::characters(const char* text) {
  if (!failed_ && current_ != nullptr) {
    current_->characters(text);
  }
}

void ConfigXMLParser::fatalError(const char* message) {
  XRV_TRACE_FN();
  XRV_TRACE_ERROR("Agent definition error: %s", message);
  markFailed();
  exit_with_notification(-1);
}

void ConfigXMLParser::unhandledElement(const char* name, int depth) {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("No parser for element %s at depth %d, ignored", name, depth);
}

void reportDefinitionError(const char* message) {
  XRV_TRACE_FN();
  if (ConfigXMLParser* dispatcher = ConfigXMLParser::active()) {
    dispatcher->fatalError(message);
    return;
  }
  XRV_TRACE_ERROR("Agent definition error: %s", message);
  exit_with_notification(-1);
}

bool initFromFile(const char* path) {
  XRV_TRACE_FN();
  std::string document;
  std::string problem;
  if (!readWholeFile(path, maxReadFileBytes(), &document, &problem)) {
    XRV_TRACE_ERROR("Error opening file %s", path == nullptr ? "(null)" : path);
    XRV_TRACE_ERROR("%s", problem.c_str());
    return false;
  }
  XRV_TRACE_DETAIL("Read %zu bytes of agent definition from %s", document.size(), path);

  ConfigXMLParser dispatcher;
  Parser parser(&dispatcher);
  parser.parse(document.data());
  if (!dispatcher.sawAgentElement()) {
    XRV_TRACE_ERROR("ERROR: %s holds no <agent> element: it is not an agent definition", path);
    return false;
  }
  return true;
}
