#include "definition/ConfigXMLParser.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstring>

#include "definition/Parser.h"
#include "foundation/FatalExit.h"
#include "framework/api/Trace.h"

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
  FILE* file = path == nullptr ? nullptr : fopen(path, "rb");
  if (file == nullptr) {
    XRV_TRACE_ERROR("Error opening file %s", path == nullptr ? "(null)" : path);
    return false;
  }
  struct stat status;
  XRV::String document;
  if (fstat(fileno(file), &status) != 0 ||
      !document.reserve(static_cast<size_t>(status.st_size) + 1)) {
    XRV_TRACE_ERROR("Error opening file %s", path);
    fclose(file);
    return false;
  }
  size_t read = fread(document.data(), 1, static_cast<size_t>(status.st_size), file);
  document.setLength(read);
  fclose(file);
  XRV_TRACE_DETAIL("Read %zu bytes of agent definition from %s", read, path);

  ConfigXMLParser dispatcher;
  Parser parser(&dispatcher);
  parser.parse(document.data());
  return true;
}
