#include "sources/command/SshConnector.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "framework/Trace.h"
#include "provider/PerfObject.h"

namespace {

std::atomic<SshConnectorFactory> installedFactory{nullptr};

}  // namespace

// --- Command files ---

CommandFileListElement::CommandFileListElement(const char* name)
    : name_(strdup(name == nullptr ? "" : name)) {}

CommandFileListElement::~CommandFileListElement() { free(name_); }

CommandFileList::~CommandFileList() {
  CommandFileListElement* element = first_;
  while (element != nullptr) {
    auto* next = static_cast<CommandFileListElement*>(element->getNextElement());
    delete element;
    element = next;
  }
}

void CommandFileList::add(const char* name) {
  if (name == nullptr || *name == '\0') {
    return;
  }
  for (ListCursor c(first_); c.hasMoreElements(); c.setToNext()) {
    if (strcmp(static_cast<CommandFileListElement*>(c.getCurrentElement())->getName(), name) == 0) {
      return;
    }
  }
  auto* element = new CommandFileListElement(name);
  if (last_ == nullptr) {
    first_ = element;
  } else {
    last_->setNextElement(element);
    element->setPrevElement(last_);
  }
  last_ = element;
}

std::vector<std::string> CommandFileList::names() const {
  std::vector<std::string> result;
  for (ListCursor c(first_); c.hasMoreElements(); c.setToNext()) {
    result.emplace_back(static_cast<CommandFileListElement*>(c.getCurrentElement())->getName());
  }
  return result;
}

// --- Connectors ---

int SshConnector::runScript(const char* command, char** out, char** err, int timeoutSeconds,
                            int* exitStatus) {
  if (exitStatus != nullptr) {
    *exitStatus = 0;
  }
  return executeScript(command, out, err, timeoutSeconds);
}

int UnavailableSshConnector::executeScript(const char* command, char** out, char** err,
                                           int /*timeoutSeconds*/) {
  XRV_TRACE_FN();
  XRV_TRACE_ERROR("Cannot run %s over SSH: the connector is unusable (%s)",
                  command == nullptr ? "(null)" : command, perfObjectErrorCodeName(errorCode_));
  if (out != nullptr) {
    *out = nullptr;
  }
  if (err != nullptr) {
    *err = nullptr;
  }
  return -1;
}

std::string UnavailableSshConnector::getErrorMessage() const {
  return errorCode_ == MISSING_LIBRARY ? "this build of the agent has no SSH support"
                                       : perfObjectErrorCodeName(errorCode_);
}

void registerSshConnectorFactory(SshConnectorFactory factory) { installedFactory.store(factory); }

SshConnector* createSshConnector(const char* attributeGroup) {
  XRV_TRACE_FN();
  SshConnectorFactory factory = installedFactory.load();
  if (factory == nullptr) {
    XRV_TRACE_DETAIL("This build has no SSH support: attribute group %s cannot run remote scripts",
                     attributeGroup == nullptr ? "(null)" : attributeGroup);
    return new UnavailableSshConnector(MISSING_LIBRARY);
  }
  return factory(attributeGroup);
}
