#include "subnode/SubnodeDiscoverySources.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

struct SubnodeDiscoverySources::Source {
  UAClientClass* provider;
  std::vector<std::string> msns;  // in the order found
};

namespace {

// How discovery providers are filed: their address printed with "%p".
std::string pointerKey(const void* pointer) {
  char text[32];
  snprintf(text, sizeof text, "%p", pointer);
  return text;
}

}  // namespace

SubnodeDiscoverySources::~SubnodeDiscoverySources() {
  sources_.foreach (
      [](const char* key, const void* value, void* /*arg*/) {
        free(const_cast<char*>(key));
        delete static_cast<const Source*>(value);
      },
      nullptr);
  sources_.clear();
}

SubnodeDiscoverySources::Source* SubnodeDiscoverySources::find(
    const UAClientClass* provider) const {
  return static_cast<Source*>(sources_.get(pointerKey(provider).c_str()));
}

bool SubnodeDiscoverySources::add(UAClientClass* provider, const char* msn) {
  Source* source = find(provider);
  if (source == nullptr) {
    source = new Source{provider, {}};
    sources_.put(strdup(pointerKey(provider).c_str()), source);
  }
  if (std::find(source->msns.begin(), source->msns.end(), msn) != source->msns.end()) {
    return false;
  }
  source->msns.emplace_back(msn);
  return true;
}

bool SubnodeDiscoverySources::remove(const UAClientClass* provider, const char* msn) {
  Source* source = find(provider);
  if (source == nullptr) {
    return false;
  }
  auto listed = std::find(source->msns.begin(), source->msns.end(), msn);
  if (listed == source->msns.end()) {
    return false;
  }
  source->msns.erase(listed);
  return true;
}

bool SubnodeDiscoverySources::lists(const UAClientClass* provider, const char* msn) const {
  const Source* source = find(provider);
  return source != nullptr &&
         std::find(source->msns.begin(), source->msns.end(), msn) != source->msns.end();
}

bool SubnodeDiscoverySources::anyLists(const char* msn) const {
  return !findersOf(msn).empty();
}

std::vector<std::string> SubnodeDiscoverySources::foundBy(const UAClientClass* provider) const {
  const Source* source = find(provider);
  return source == nullptr ? std::vector<std::string>() : source->msns;
}

std::vector<UAClientClass*> SubnodeDiscoverySources::findersOf(const char* msn) const {
  std::vector<UAClientClass*> finders;
  HashMapIterator it = sources_.iterator();
  while (it.hasNext()) {
    it.next();
    const auto* source = static_cast<const Source*>(it.getData());
    if (std::find(source->msns.begin(), source->msns.end(), msn) != source->msns.end()) {
      finders.push_back(source->provider);
    }
  }
  return finders;
}

void SubnodeDiscoverySources::forget(const char* msn) {
  HashMapIterator it = sources_.iterator();
  while (it.hasNext()) {
    it.next();
    std::vector<std::string>& msns = static_cast<Source*>(it.getData())->msns;
    auto listed = std::find(msns.begin(), msns.end(), msn);
    if (listed != msns.end()) {
      msns.erase(listed);
    }
  }
}

std::vector<std::string> SubnodeDiscoverySources::drop(const UAClientClass* provider) {
  const char* storedKey = nullptr;
  auto* source = static_cast<Source*>(sources_.remove(pointerKey(provider).c_str(), &storedKey));
  if (source == nullptr) {
    return {};
  }
  free(const_cast<char*>(storedKey));
  std::vector<std::string> msns = std::move(source->msns);
  delete source;
  return msns;
}
