#include "provider/UAClientClassList.h"

#include <cstring>

#include "definition/AgentSettings.h"
#include "framework/Trace.h"
#include "provider/UAClientClass.h"

namespace {

UAClientClass* nextOf(const UAClientClass* provider) {
  return static_cast<UAClientClass*>(provider->getNextElement());
}

}  // namespace

void UAClientClassList::addClientClass(UAClientClass* provider) {
  XRV_TRACE_FN();
  if (provider == nullptr) {
    return;
  }
  if (provider == first_ || provider->getPrevElement() != nullptr ||
      provider->getNextElement() != nullptr) {
    XRV_TRACE_ERROR("Provider for %s is already in a list, not added",
                    provider->getAttributeGroup());
    return;
  }
  provider->setPrevElement(last_);
  provider->setNextElement(nullptr);
  if (last_ == nullptr) {
    first_ = provider;
  } else {
    last_->setNextElement(provider);
  }
  last_ = provider;
  ++count_;
}

bool UAClientClassList::removeClientClass(UAClientClass* provider) {
  XRV_TRACE_FN();
  UAClientClass* current = first_;
  while (current != nullptr && current != provider) {
    current = nextOf(current);
  }
  if (current == nullptr) {
    return false;
  }
  ListElement* previous = provider->getPrevElement();
  ListElement* next = provider->getNextElement();
  if (previous == nullptr) {
    first_ = static_cast<UAClientClass*>(next);
  } else {
    previous->setNextElement(next);
  }
  if (next == nullptr) {
    last_ = static_cast<UAClientClass*>(previous);
  } else {
    next->setPrevElement(previous);
  }
  provider->setPrevElement(nullptr);
  provider->setNextElement(nullptr);
  --count_;
  return true;
}

UAClientClass* UAClientClassList::getClientClass(const char* attributeGroup) const {
  XRV_TRACE_FN();
  if (attributeGroup == nullptr) {
    return nullptr;
  }
  for (UAClientClass* provider = first_; provider != nullptr; provider = nextOf(provider)) {
    if (strcmp(provider->getAttributeGroup(), attributeGroup) == 0) {
      return provider;
    }
  }
  return nullptr;
}

void UAClientClassList::deleteAll() {
  XRV_TRACE_FN();
  while (first_ != nullptr) {
    UAClientClass* provider = first_;
    removeClientClass(provider);
    delete provider;
  }
}

UAClientClassList& queryClassList() {
  // Never destroyed with its providers: fwTerminate deletes them (deleteAll) while
  // the threads that use them are stopped.
  static UAClientClassList list;
  return list;
}

namespace {

// The data-source elements of a definition made these providers: a definition that
// is forgotten takes them along.
[[maybe_unused]] const bool resetHookAdded =
    (addDefinitionResetHook([] { queryClassList().deleteAll(); }), true);

}  // namespace
