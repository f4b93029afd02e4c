#include "subnode/SubnodeManager.h"

#include <strings.h>

#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <system_error>
#include <unordered_set>
#include <utility>

#include "definition/AgentSettings.h"
#include "definition/AttributeGroupMeta.h"
#include "foundation/List.h"
#include "framework/Configuration.h"
#include "framework/Framework.h"
#include "framework/Trace.h"
#include "provider/PerfObject.h"
#include "provider/ResultInstance.h"
#include "provider/ResultList.h"
#include "provider/ResultMetric.h"
#include "provider/ResultsManager.h"
#include "provider/UAClientClass.h"
#include "provider/UAClientClassList.h"

// Settings (configuration properties, read once when the process-wide manager is made):
//
//   CDP_DP_INITIAL_CONFIG_DISCOVERY_NODE_STATE  UP (default): register new subnodes at
//                                               once; DOWN: once data was collected
//   CDP_DP_USE_HOSTNAME_IN_SUBNODE_MSN          Y: CTAFW_HOSTNAME + "_" in front of keys
//   CDP_DP_EXCLUDE_SUBNODE_TYPE_FROM_MSN        a subnode type whose MSNs leave it out
//   CDP_DP_GARBAGE_COLLECTION_INTERVAL          seconds between zombie-killer passes; 600

namespace {

constexpr size_t kApplicationLimit = 2;
constexpr size_t kKeyLimit = 25;
constexpr size_t kKeyLimitWithoutType = 29;
constexpr size_t kTypeLimit = 3;
constexpr int kDefaultGarbageCollectionInterval = 600;

const char* const kAffinityFeatures[] = {"AFF_FEAT_DM_PARITY", "AFF_FEAT_AGENT_MGMT",
                                         "AFF_FEAT_INTERNATIONALIZATION"};
constexpr int kAffinityFeatureCount = sizeof kAffinityFeatures / sizeof kAffinityFeatures[0];

// The columns of a discovery attribute group.
constexpr const char kKeyColumn[] = "Subnode_Key";
constexpr const char kTypeColumn[] = "Subnode_Type";
constexpr const char kAffinityColumn[] = "Subnode_Affinity";
constexpr const char kVersionColumn[] = "Subnode_Version";
constexpr const char kStatusColumn[] = "Subnode_Status";
constexpr const char kOnline[] = "ONLINE";

bool flagIsOn(const char* value) {
  return value != nullptr && (value[0] == 'y' || value[0] == 'Y');
}

bool sameText(const char* a, const char* b) {
  return a != nullptr && b != nullptr && strcmp(a, b) == 0;
}

// How discovery providers are filed: their address printed with "%p".
std::string pointerKey(const void* pointer) {
  char text[32];
  snprintf(text, sizeof text, "%p", pointer);
  return text;
}

// The low 32 bits of an address, as the garbage-collection traces print it.
unsigned shortAddress(const void* pointer) {
  return static_cast<unsigned>(reinterpret_cast<uintptr_t>(pointer));
}

const char* subnodeTypeOf(const UAClientClass* provider) {
  const AttributeGroupMeta* meta = provider->getAttributeGroupMeta();
  return meta == nullptr ? nullptr : meta->subnodeType();
}

UAClientClass* nextProvider(const UAClientClass* provider) {
  return static_cast<UAClientClass*>(provider->getNextElement());
}

bool providesGroup(const UAClientClass* provider, const AttributeGroupMeta* meta) {
  return provider->getAttributeGroupMeta() == meta ||
         strcmp(provider->getAttributeGroup(), meta->getGroupName()) == 0;
}

// A discovery value as text: strings as they are, numbers in decimal.
std::string metricText(const ResultMetric* metric) {
  const char* text = metric->getTextBytes();
  if (text != nullptr) {
    return text;
  }
  return std::to_string(metric->getIntValue64());
}

void freeKey(const char* key, const void* /*value*/, void* /*arg*/) {
  free(const_cast<char*>(key));
}

}  // namespace

struct SubnodeManager::Subnode {
  std::string msn;
  std::string key;
  std::string type;
  std::string affinity;
  std::string version;
  List providers;             // of UAClientClass*, in the order they were indexed
  bool online = true;         // what discovery said last
  bool registered = false;    // registered with the framework (or the request is pending)
  bool awaitingData = false;  // held back by the DOWN node state until data is collected
};

struct SubnodeManager::DiscoverySource {
  UAClientClass* provider;
  std::vector<std::string> msns;  // in the order found
};

struct SubnodeManager::DiscoveredRow {
  std::string key;
  std::string type;
  std::string affinity;
  std::string version;
  bool online;
};

// --- Settings ---

SubnodeManagerSettings SubnodeManagerSettings::fromConfiguration() {
  XRV_TRACE_FN();
  SubnodeManagerSettings settings;

  char* state = fwGetEnv("CDP_DP_INITIAL_CONFIG_DISCOVERY_NODE_STATE", nullptr);
  if (state != nullptr && *state != '\0') {
    if (strcasecmp(state, "DOWN") == 0) {
      settings.registerNewNodes = false;
      XRV_TRACE_DETAIL(
          "CDP_DP_INITIAL_CONFIG_DISCOVERY_NODE_STATE set to DOWN, new nodes will be not be "
          "registered until data is collected");
    } else if (strcasecmp(state, "UP") != 0) {
      XRV_TRACE_ERROR(
          "CDP_DP_INITIAL_CONFIG_DISCOVERY_NODE_STATE - invalid value %s, new nodes will be "
          "registered",
          state);
    }
  }
  free(state);

  char* useHostName = fwGetEnv("CDP_DP_USE_HOSTNAME_IN_SUBNODE_MSN", nullptr);
  if (flagIsOn(useHostName)) {
    char* hostName = fwGetConfiguredHostName();
    if (hostName != nullptr && *hostName != '\0') {
      settings.msnHostName = hostName;
    } else {
      XRV_TRACE_ERROR(
          "CDP_DP_USE_HOSTNAME_IN_SUBNODE_MSN is set, but CTAFW_HOSTNAME is not; subnode MSNs "
          "will not include a host name");
    }
    free(hostName);
  }
  free(useHostName);

  char* excluded = fwGetEnv("CDP_DP_EXCLUDE_SUBNODE_TYPE_FROM_MSN", nullptr);
  if (excluded != nullptr) {
    settings.excludedType = excluded;
    free(excluded);
  }

  char* interval = fwGetEnv("CDP_DP_GARBAGE_COLLECTION_INTERVAL", nullptr);
  if (interval != nullptr && *interval != '\0') {
    int seconds = atoi(interval);
    if (seconds >= 1) {
      settings.garbageCollectionInterval = seconds;
    } else {
      XRV_TRACE_ERROR("CDP_DP_GARBAGE_COLLECTION_INTERVAL - invalid value %s, using %d seconds",
                      interval, kDefaultGarbageCollectionInterval);
    }
  }
  free(interval);
  return settings;
}

// --- Construction ---

SubnodeManager::SubnodeManager(const SubnodeManagerSettings& settings, UAClientClassList* providers)
    : settings_(settings), providers_(providers == nullptr ? &queryClassList() : providers) {
  XRV_TRACE_FN();
  pthread_condattr_t attributes;
  pthread_condattr_init(&attributes);
  pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
  pthread_cond_init(&killerWake_, &attributes);
  pthread_condattr_destroy(&attributes);
}

SubnodeManager::~SubnodeManager() {
  XRV_TRACE_FN();
  stopZombieKiller();
  std::vector<UAClientClass*> zombies;
  {
    PthreadMutexLock guard(lock_);
    for (const Zombie& zombie : zombies_) {
      zombies.push_back(zombie.provider);
    }
    zombies_.clear();
    // The Subnode owns its MSN, which is the key.
    msnToQueries_.foreach ([](const char* /*key*/, const void* value,
                              void* /*arg*/) { delete static_cast<const Subnode*>(value); },
                           nullptr);
    msnToQueries_.clear();
    agToQueries_.foreach (
        [](const char* key, const void* value, void* arg) {
          freeKey(key, value, arg);
          delete static_cast<const List*>(value);
        },
        nullptr);
    agToQueries_.clear();
    dagToMSNs_.foreach (
        [](const char* key, const void* value, void* arg) {
          freeKey(key, value, arg);
          delete static_cast<const DiscoverySource*>(value);
        },
        nullptr);
    dagToMSNs_.clear();
  }
  for (UAClientClass* zombie : zombies) {
    zombie->shutdownExternalProcesses();
    delete zombie;
  }
  pthread_cond_destroy(&killerWake_);
}

// --- Managed system names ---

char* SubnodeManager::generateSubnodeManagedSystemName(const char* application, const char* key,
                                                       const char* type, char* buffer) const {
  XRV_TRACE_FN();
  if (application == nullptr || key == nullptr || type == nullptr) {
    XRV_TRACE_ERROR("Failed due to NULL args: appl=%p, key=%p, type=%p",
                    static_cast<const void*>(application), static_cast<const void*>(key),
                    static_cast<const void*>(type));
    return nullptr;
  }

  std::string keyPart = key;
  if (!settings_.msnHostName.empty()) {
    XRV_TRACE_DETAIL(
        "CDP_DP_USE_HOSTNAME_IN_SUBNODE_MSN is set, incorporating CTAFW_HOSTNAME=%s into MSN",
        settings_.msnHostName.c_str());
    keyPart = settings_.msnHostName + "_" + key;
  }
  bool withType = true;
  size_t keyLimit = kKeyLimit;
  if (!settings_.excludedType.empty() && settings_.excludedType == type) {
    XRV_TRACE_DETAIL(
        "Not including type in MSN for subnode type %s due to "
        "CDP_DP_EXCLUDE_SUBNODE_TYPE_FROM_MSN setting",
        type);
    withType = false;
    keyLimit = kKeyLimitWithoutType;
  }
  if (keyPart.size() > keyLimit) {
    keyPart.resize(keyLimit);
    XRV_TRACE_DETAIL("key will be truncated to \"%25s\"", keyPart.c_str());
  }

  // The application's first character is skipped: "XRV" contributes "XR".
  std::string applicationPart = application;
  if (applicationPart.size() > kApplicationLimit) {
    applicationPart = applicationPart.substr(1, kApplicationLimit);
    XRV_TRACE_DETAIL("appl will be truncated to \"%2s\"", applicationPart.c_str());
  }

  std::string msn = applicationPart + ":" + keyPart;
  if (withType) {
    std::string typePart = type;
    if (typePart.size() > kTypeLimit) {
      typePart.resize(kTypeLimit);
      XRV_TRACE_DETAIL("type will be truncated to \"%3s\"", typePart.c_str());
    }
    msn += ":" + typePart;
  }
  for (size_t i = 0; i < kApplicationLimit && i < msn.size(); ++i) {
    msn[i] = static_cast<char>(toupper(static_cast<unsigned char>(msn[i])));
  }

  if (buffer == nullptr) {
    buffer = static_cast<char*>(malloc(SUBNODE_MSN_BUFFER_SIZE));
    if (buffer == nullptr) {
      XRV_TRACE_ERROR("Out of memory for the MSN of key %s", key);
      return nullptr;
    }
  }
  snprintf(buffer, SUBNODE_MSN_BUFFER_SIZE, "%s", msn.c_str());
  XRV_TRACE_DETAIL("Generated MSN \"%s\"", buffer);
  return buffer;
}

bool SubnodeManager::splitSubnodeManagedSystemName(const char* msn, std::string* application,
                                                   std::string* key, std::string* type) {
  XRV_TRACE_FN();
  const char* first = msn == nullptr ? nullptr : strchr(msn, ':');
  const char* second = first == nullptr ? nullptr : strchr(first + 1, ':');
  int keyStart = first == nullptr ? -1 : static_cast<int>(first - msn) + 1;
  int keyEnd = -1;
  if (first != nullptr) {
    keyEnd = static_cast<int>(second == nullptr ? strlen(msn) : static_cast<size_t>(second - msn));
  }
  bool malformed = first == nullptr || keyStart < 2 || keyEnd <= keyStart ||
                   (second != nullptr && (second[1] == '\0' || strchr(second + 1, ':') != nullptr));
  if (malformed) {
    XRV_TRACE_ERROR("Failed due to malformed msn=\"%s\", keyEnd=%d, keyStart=%d",
                    msn == nullptr ? "" : msn, keyEnd, keyStart);
    return false;
  }
  if (application != nullptr) {
    application->assign(msn, static_cast<size_t>(keyStart - 1));
  }
  if (key != nullptr) {
    key->assign(msn + keyStart, static_cast<size_t>(keyEnd - keyStart));
  }
  if (type != nullptr) {
    type->assign(second == nullptr ? "" : second + 1);
  }
  return true;
}

// --- The configuration ---

int SubnodeManager::applyConfiguredSubnodes(UAClientClassList& providers) {
  XRV_TRACE_FN();
  std::vector<XRV::SubnodeSectionName> sections = listSubnodeSections();
  PthreadMutexLock guard(lock_);
  // The copies are appended to the list while we go: decide on the providers there
  // were before.
  std::vector<UAClientClass*> templates;
  for (UAClientClass* provider = providers.getFirst(); provider != nullptr;
       provider = nextProvider(provider)) {
    if (provider->getSubnodeKey() == nullptr && subnodeTypeOf(provider) != nullptr) {
      templates.push_back(provider);
    }
  }
  int made = 0;
  for (const XRV::SubnodeSectionName& section : sections) {
    const char* type = section.type.c_str();
    const char* key = section.key.c_str();
    bool served = false;
    for (UAClientClass* source : templates) {
      if (!sameText(subnodeTypeOf(source), type)) {
        continue;
      }
      served = true;
      bool exists = false;
      for (UAClientClass* provider = providers.getFirst(); provider != nullptr && !exists;
           provider = nextProvider(provider)) {
        exists = sameText(provider->getSubnodeKey(), key) &&
                 strcmp(provider->getAttributeGroup(), source->getAttributeGroup()) == 0;
      }
      if (exists) {
        XRV_TRACE_DETAIL("Attribute group %s has a copy for subnode %s %s already",
                         source->getAttributeGroup(), type, key);
        continue;
      }
      if (source->subnodeCopy(key, &providers) == nullptr) {
        XRV_TRACE_ERROR(
            "Attribute group %s cannot serve subnode %s %s: its data source makes "
            "no subnode copies",
            source->getAttributeGroup(), type, key);
        continue;
      }
      XRV_TRACE_DETAIL("Made a copy of attribute group %s for subnode %s %s",
                       source->getAttributeGroup(), type, key);
      ++made;
    }
    if (!served) {
      XRV_TRACE_ERROR(
          "No attribute group has subnode type %s: section [subnode %s %s] serves "
          "nothing",
          type, type, key);
    }
  }
  return made;
}

// --- Subnodes ---

SubnodeManager::Subnode* SubnodeManager::findSubnode(const char* msn) const {
  return msn == nullptr ? nullptr : static_cast<Subnode*>(msnToQueries_.get(msn));
}

SubnodeManager::DiscoverySource* SubnodeManager::findDiscoverySource(
    const UAClientClass* discoveryProvider) const {
  return static_cast<DiscoverySource*>(dagToMSNs_.get(pointerKey(discoveryProvider).c_str()));
}

bool SubnodeManager::isListedByDiscovery(const char* msn) const {
  XRV_TRACE_FN();
  HashMapIterator it = dagToMSNs_.iterator();
  while (it.hasNext()) {
    it.next();
    const auto* source = static_cast<const DiscoverySource*>(it.getData());
    for (const std::string& listed : source->msns) {
      if (listed == msn) {
        return true;
      }
    }
  }
  return false;
}

void SubnodeManager::updateAwaitingCount() {
  XRV_TRACE_FN();
  int count = 0;
  HashMapIterator it = msnToQueries_.iterator();
  while (it.hasNext()) {
    it.next();
    count += static_cast<const Subnode*>(it.getData())->awaitingData ? 1 : 0;
  }
  awaitingData_.store(count);
}

bool SubnodeManager::addSubnode(const char* msn, const char* key, const char* type,
                                const char* affinity, const char* version,
                                UAClientClass* discoveryProvider, bool online) {
  XRV_TRACE_FN();
  if (msn == nullptr || *msn == '\0' || key == nullptr || type == nullptr) {
    XRV_TRACE_ERROR("Failed due to missing args: msn=%p, key=%p, type=%p",
                    static_cast<const void*>(msn), static_cast<const void*>(key),
                    static_cast<const void*>(type));
    return false;
  }
  PthreadMutexLock guard(lock_);
  return addSubnodeLocked(msn, key, type, affinity == nullptr ? "" : affinity,
                          version == nullptr ? "" : version, discoveryProvider, online);
}

bool SubnodeManager::addSubnodeLocked(const char* msn, const char* key, const char* type,
                                      const char* affinity, const char* version,
                                      UAClientClass* discoveryProvider, bool online) {
  XRV_TRACE_FN();
  Subnode* subnode = findSubnode(msn);
  bool listed = false;
  if (discoveryProvider != nullptr) {
    const DiscoverySource* source = findDiscoverySource(discoveryProvider);
    for (size_t i = 0; source != nullptr && i < source->msns.size() && !listed; ++i) {
      listed = source->msns[i] == msn;
    }
  }

  if (subnode != nullptr && (discoveryProvider == nullptr || listed)) {
    subnode->online = online;
    if (online) {
      if (subnode->registered || subnode->awaitingData) {
        XRV_TRACE_DETAIL(
            "Not doing anything for msn=\"%s\" because SubnodeManager manages it and it is "
            "online",
            msn);
      } else {
        XRV_TRACE_DETAIL("msn=\"%s\" is online again, registering it", msn);
        registerSubnode(subnode);
      }
    } else if (subnode->registered) {
      XRV_TRACE_DETAIL(
          "deregistering msn=\"%s\" because SubnodeManager manages it but the target is offline",
          msn);
      deregisterSubnode(subnode);
      XRV_TRACE_DETAIL(
          "Leaving subnode - allow it to continue to try to collect data for MSN \"%s\"", msn);
    } else {
      XRV_TRACE_DETAIL("msn=\"%s\" is offline and not registered, nothing to do", msn);
    }
    return true;
  }

  if (subnode != nullptr) {
    // Another discovery group (or a direct call) created it.
    subnode->online = online;
    bool registerIt = online && !subnode->registered && !subnode->awaitingData;
    XRV_TRACE_DETAIL("MSN %s is already created, just add it to the list and return. Register=%s",
                     msn, registerIt ? "Yes" : "No");
    addDAGToMSNsEntry(discoveryProvider, msn);
    if (registerIt) {
      registerSubnode(subnode);
    }
    return true;
  }

  auto* created = new Subnode();
  created->msn = msn;
  created->key = key;
  created->type = type;
  created->affinity = affinity;
  created->version = version;
  created->online = online;
  createSubnode(created);
  if (discoveryProvider != nullptr) {
    addDAGToMSNsEntry(discoveryProvider, msn);
  }
  if (online && settings_.registerNewNodes) {
    registerSubnode(created);
  } else {
    created->awaitingData = !settings_.registerNewNodes;
    XRV_TRACE_DETAIL(
        "Found a subnode, but not registering due to state/policy - subnode msn=\"%s\", "
        "affinity=\"%s\", type=\"%s\", version=\"%s\"",
        msn, affinity, type, version);
    updateAwaitingCount();
  }
  return true;
}

void SubnodeManager::createSubnode(Subnode* subnode) {
  XRV_TRACE_FN();
  const char* msn = subnode->msn.c_str();
  for (UAClientClass* provider = providers_->getFirst(); provider != nullptr;
       provider = nextProvider(provider)) {
    if (!sameText(provider->getSubnodeKey(), subnode->key.c_str()) ||
        !sameText(subnodeTypeOf(provider), subnode->type.c_str())) {
      continue;
    }
    if (!addAGToQueriesEntry(provider->getAttributeGroup(), provider)) {
      XRV_TRACE_ERROR(
          "The %s provider of subnode key %s serves another MSN already, not adding it to "
          "msn=\"%s\"",
          provider->getAttributeGroup(), subnode->key.c_str(), msn);
      continue;
    }
    subnode->providers.add(provider);
    provider->setOriginNode(msn);
    XRV_TRACE_DETAIL("Attribute group %s serves msn=\"%s\"", provider->getAttributeGroup(), msn);
  }
  if (subnode->providers.getCount() == 0) {
    XRV_TRACE_ERROR(
        "No data provider serves msn=\"%s\": is there a [subnode %s %s] section in the "
        "configuration file?",
        msn, subnode->type.c_str(), subnode->key.c_str());
  }
  msnToQueries_.put(msn, subnode);
}

void SubnodeManager::registerSubnode(Subnode* subnode) {
  XRV_TRACE_FN();
  const char* msn = subnode->msn.c_str();
  XRV_TRACE_DETAIL(
      "Registering subnode with msn=\"%s\", affinity=\"%s\", type=\"%s\", version=\"%s\"", msn,
      subnode->affinity.c_str(), subnode->type.c_str(), subnode->version.c_str());
  FwHostInfo host{};
  if (fwGetLocalHostInfo(&host)) {
    XRV_TRACE_DETAIL(
        "Setting host information for subnode to local information for msn=\"%s\", "
        "hostInfo=\"%s\", hostAddr=\"%s\", hostLoc=\"%s\"",
        msn, host.hostInfo, host.hostAddr, host.hostLoc);
  } else {
    XRV_TRACE_ERROR("No local host information for msn=\"%s\", registering without it", msn);
  }
  FwSubnodeRegistration registration{msn,
                                     subnode->affinity.c_str(),
                                     subnode->type.c_str(),
                                     subnode->version.c_str(),
                                     kAffinityFeatures,
                                     kAffinityFeatureCount,
                                     host.hostInfo,
                                     host.hostAddr,
                                     host.hostLoc};
  int result = fwSubnodeRegister(registration);
  if (result == FW_SUBNODE_SEND_FAILED) {
    XRV_TRACE_DETAIL(
        "Registration SendRequest failed for msn=\"%s\", affinity=\"%s\", type=\"%s\", "
        "version=\"%s\". The request will be sent when communication with the Nexo is "
        "restored.",
        msn, subnode->affinity.c_str(), subnode->type.c_str(), subnode->version.c_str());
  } else if (result != FW_SUBNODE_OK) {
    XRV_TRACE_ERROR(
        "Registration failed for msn=\"%s\", affinity=\"%s\", type=\"%s\", version=\"%s\"", msn,
        subnode->affinity.c_str(), subnode->type.c_str(), subnode->version.c_str());
    return;
  }
  subnode->registered = true;
  if (subnode->awaitingData) {
    subnode->awaitingData = false;
    updateAwaitingCount();
  }
}

void SubnodeManager::deregisterSubnode(Subnode* subnode) {
  XRV_TRACE_FN();
  const char* msn = subnode->msn.c_str();
  XRV_TRACE_DETAIL("Deregistering subnode %s", msn);
  int result = fwSubnodeDeregister(msn);
  if (result == FW_SUBNODE_SEND_FAILED) {
    XRV_TRACE_DETAIL(
        "Deregistration SendRequest failed for msn=\"%s\". The request will be sent when "
        "communication with the Nexo is restored.",
        msn);
  } else if (result != FW_SUBNODE_OK) {
    // Still registered as far as we know: the next offline report tries again.
    XRV_TRACE_ERROR("Deregistration failed for msn=\"%s\", rc=%d", msn, result);
    return;
  }
  subnode->registered = false;
}

bool SubnodeManager::removeSubnode(const char* msn) {
  XRV_TRACE_FN();
  PthreadMutexLock guard(lock_);
  return removeSubnodeLocked(msn);
}

bool SubnodeManager::removeSubnodeLocked(const char* msnArgument) {
  XRV_TRACE_FN();
  Subnode* subnode = findSubnode(msnArgument);
  if (subnode == nullptr) {
    XRV_TRACE_ERROR("Failed for msn=\"%s\", because SubnodeManager doesn't manage msn",
                    msnArgument == nullptr ? "" : msnArgument);
    return false;
  }
  // The argument may be one of the texts dropped below.
  const std::string msn = subnode->msn;
  msnToQueries_.remove(msn.c_str(), nullptr);  // the key was the Subnode's own
  HashMapIterator it = dagToMSNs_.iterator();
  while (it.hasNext()) {
    it.next();
    std::vector<std::string>& msns = static_cast<DiscoverySource*>(it.getData())->msns;
    for (auto listed = msns.begin(); listed != msns.end(); ++listed) {
      if (*listed == msn) {
        msns.erase(listed);
        break;
      }
    }
  }
  if (subnode->registered) {
    deregisterSubnode(subnode);
  }
  if (subnode->awaitingData) {
    subnode->awaitingData = false;
    updateAwaitingCount();
  }

  for (int i = 0; i < subnode->providers.getCount(); ++i) {
    auto* provider = static_cast<UAClientClass*>(subnode->providers.get(i));
    removeAGToQueriesEntry(provider->getAttributeGroup(), provider);
    providers_->removeClientClass(provider);
    provider->removeSummaryQuery();
    provider->setZombie(true);
    zombies_.push_back(Zombie{provider});
    XRV_TRACE_DETAIL("Queued the %s provider of msn=\"%s\" for the zombie killer",
                     provider->getAttributeGroup(), msn.c_str());
    const AttributeGroupMeta* meta = provider->getAttributeGroupMeta();
    if (meta != nullptr && meta->isDiscoveryAttributeGroup()) {
      XRV_TRACE_ERROR(
          "Processing attribute group \"%s\", which is both a DAG and a SAG. This code path "
          "isn't tested",
          provider->getAttributeGroup());
      dropDiscoverySource(provider);
    }
  }
  delete subnode;
  return true;
}

void SubnodeManager::dropDiscoverySource(UAClientClass* provider) {
  XRV_TRACE_FN();
  const std::string key = pointerKey(provider);
  const char* storedKey = nullptr;
  auto* source = static_cast<DiscoverySource*>(dagToMSNs_.remove(key.c_str(), &storedKey));
  if (source == nullptr) {
    return;
  }
  free(const_cast<char*>(storedKey));
  for (const std::string& msn : source->msns) {
    if (findSubnode(msn.c_str()) != nullptr && !isListedByDiscovery(msn.c_str())) {
      XRV_TRACE_DETAIL("Removing msn=\"%s\": the discovery group that found it went away",
                       msn.c_str());
      removeSubnodeLocked(msn.c_str());
    }
  }
  delete source;
}

bool SubnodeManager::isManagingSubnode(const char* msn) {
  XRV_TRACE_FN();
  PthreadMutexLock guard(lock_);
  return findSubnode(msn) != nullptr;
}

bool SubnodeManager::subnodeIsActive(const char* msn) {
  XRV_TRACE_FN();
  PthreadMutexLock guard(lock_);
  const Subnode* subnode = findSubnode(msn);
  if (subnode == nullptr) {
    XRV_TRACE_DETAIL("msn=\"%s\" is not managed, so not active", msn == nullptr ? "" : msn);
    return false;
  }
  return isActiveLocked(subnode);
}

bool SubnodeManager::isActiveLocked(const Subnode* subnode) const {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("checking subnode %s", subnode->msn.c_str());
  for (int i = 0; i < subnode->providers.getCount(); ++i) {
    auto* provider = static_cast<UAClientClass*>(subnode->providers.get(i));
    int code = provider->getPerfErrorCode();
    XRV_TRACE_DETAIL("checking attr group %s, errcode %d", provider->getAttributeGroup(), code);
    if (code == OBJECT_ACTIVE || code == NO_INSTANCES_RETURNED) {
      return true;
    }
  }
  return false;
}

void SubnodeManager::collectionDone(UAClientClass* provider) {
  XRV_TRACE_FN();
  if (awaitingData_.load() == 0 || provider == nullptr || provider->getSubnodeKey() == nullptr) {
    return;
  }
  PthreadMutexLock guard(lock_);
  HashMapIterator it = msnToQueries_.iterator();
  while (it.hasNext()) {
    it.next();
    auto* subnode = static_cast<Subnode*>(it.getData());
    if (!subnode->awaitingData || subnode->providers.find(provider) < 0) {
      continue;
    }
    const char* msn = subnode->msn.c_str();
    if (!subnode->online) {
      XRV_TRACE_DETAIL("Data collected for msn=\"%s\", but the target is offline; not registering",
                       msn);
    } else if (!isActiveLocked(subnode)) {
      XRV_TRACE_DETAIL("Data collected for msn=\"%s\", but it is not active; not registering", msn);
    } else {
      XRV_TRACE_DETAIL("Data collected for msn=\"%s\" and it is active, registering it", msn);
      registerSubnode(subnode);
    }
    return;
  }
}

// --- Discovery ---

std::string SubnodeManager::applicationNameForMSNs(const UAClientClass* discoveryProvider) const {
  XRV_TRACE_FN();
  if (!settings_.applicationName.empty()) {
    return settings_.applicationName;
  }
  const XRV::String& agent = applicationSettings().applicationName;
  if (!agent.empty()) {
    return agent.c_str();
  }
  return discoveryProvider->getApplicationName();
}

std::vector<SubnodeManager::DiscoveredRow> SubnodeManager::readDiscoveryRows(
    UAClientClass* discoveryProvider) {
  XRV_TRACE_FN();
  std::vector<DiscoveredRow> rows;
  discoveryProvider->visitRows([&](const ResultInstance& row) {
    const ResultMetric* key = row.findMetric(kKeyColumn);
    const ResultMetric* type = row.findMetric(kTypeColumn);
    const ResultMetric* affinity = row.findMetric(kAffinityColumn);
    const ResultMetric* version = row.findMetric(kVersionColumn);
    if (key == nullptr || type == nullptr || affinity == nullptr || version == nullptr) {
      XRV_TRACE_ERROR(
          "DAG row is missing a metric, skipping: key = %08x type = %08x aff = %08x "
          "ver = %08x",
          shortAddress(key), shortAddress(type), shortAddress(affinity), shortAddress(version));
      return;
    }
    if (!row.passesFilter()) {
      XRV_TRACE_DETAIL("DAG row of %s does not pass the filter, skipping",
                       discoveryProvider->getAttributeGroup());
      return;
    }
    const ResultMetric* status = row.findMetric(kStatusColumn);
    DiscoveredRow found{metricText(key), metricText(type), metricText(affinity),
                        metricText(version), status == nullptr || metricText(status) == kOnline};
    if (found.key.empty() || found.type.empty()) {
      XRV_TRACE_ERROR("DAG row of %s has an empty subnode key or type, skipping",
                      discoveryProvider->getAttributeGroup());
      return;
    }
    rows.push_back(std::move(found));
  });
  return rows;
}

void SubnodeManager::discoveryAttributeGroupWasUpdated(UAClientClass* discoveryProvider) {
  XRV_TRACE_FN();
  if (discoveryProvider == nullptr) {
    XRV_TRACE_ERROR("No discovery provider given");
    return;
  }
  if (discoveryProvider->isZombie()) {
    // Its subnode was removed, and with it everything it found.
    XRV_TRACE_DETAIL("Ignoring the rows of %s: its subnode was removed",
                     discoveryProvider->getAttributeGroup());
    return;
  }
  // Read the rows before taking our lock: the two locks are never held together.
  std::vector<DiscoveredRow> rows = readDiscoveryRows(discoveryProvider);
  const std::string application = applicationNameForMSNs(discoveryProvider);
  std::vector<std::pair<std::string, const DiscoveredRow*>> found;
  for (const DiscoveredRow& row : rows) {
    char msn[SUBNODE_MSN_BUFFER_SIZE];
    if (generateSubnodeManagedSystemName(application.c_str(), row.key.c_str(), row.type.c_str(),
                                         msn) == nullptr) {
      continue;
    }
    if (row.online) {
      XRV_TRACE_DETAIL("status of subnode is ACTIVE for msn = %s", msn);
    } else {
      XRV_TRACE_DETAIL("status of subnode is INACTIVE for msn = %s", msn);
    }
    found.emplace_back(msn, &row);
  }

  PthreadMutexLock guard(lock_);
  if (discoveryProvider->isZombie()) {
    // Removed while its rows were read (zombies are marked under this lock).
    XRV_TRACE_DETAIL("Ignoring the rows of %s: its subnode was removed",
                     discoveryProvider->getAttributeGroup());
    return;
  }
  for (const auto& [msn, row] : found) {
    addSubnodeLocked(msn.c_str(), row->key.c_str(), row->type.c_str(), row->affinity.c_str(),
                     row->version.c_str(), discoveryProvider, row->online);
  }
  const DiscoverySource* source = findDiscoverySource(discoveryProvider);
  if (source == nullptr) {
    return;
  }
  std::vector<std::string> gone;
  for (const std::string& listed : source->msns) {
    bool reported = false;
    for (size_t i = 0; i < found.size() && !reported; ++i) {
      reported = found[i].first == listed;
    }
    if (!reported) {
      gone.push_back(listed);
    }
  }
  for (const std::string& msn : gone) {
    removeDAGToMSNsEntry(discoveryProvider, msn.c_str());
    if (isListedByDiscovery(msn.c_str())) {
      XRV_TRACE_DETAIL("%s no longer reports msn=\"%s\", another discovery group still does",
                       discoveryProvider->getAttributeGroup(), msn.c_str());
      continue;
    }
    XRV_TRACE_DETAIL("%s no longer reports msn=\"%s\", removing it",
                     discoveryProvider->getAttributeGroup(), msn.c_str());
    removeSubnodeLocked(msn.c_str());
  }
}

bool SubnodeManager::updateDiscoveryAttributeGroupForSubnode(const char* msn) {
  XRV_TRACE_FN();
  std::vector<UAClientClass*> sources;
  {
    PthreadMutexLock guard(lock_);
    HashMapIterator it = dagToMSNs_.iterator();
    while (it.hasNext()) {
      it.next();
      const auto* source = static_cast<const DiscoverySource*>(it.getData());
      for (const std::string& listed : source->msns) {
        if (sameText(listed.c_str(), msn)) {
          sources.push_back(source->provider);
          break;
        }
      }
    }
  }
  if (sources.empty()) {
    XRV_TRACE_ERROR("No discovery attribute group found msn=\"%s\"", msn == nullptr ? "" : msn);
    return false;
  }
  for (UAClientClass* source : sources) {
    XRV_TRACE_DETAIL("Updating discovery attribute group %s for msn=\"%s\"",
                     source->getAttributeGroup(), msn);
    source->collectData(source->getSubnodeKey());
    discoveryAttributeGroupWasUpdated(source);
  }
  return true;
}

// --- Lookups ---

UAClientClass* SubnodeManager::getSubnodeQueryClass(const char* msn,
                                                    const AttributeGroupMeta* meta) {
  XRV_TRACE_FN();
  PthreadMutexLock guard(lock_);
  return findSubnodeQueryClassLocked(msn, meta);
}

UAClientClass* SubnodeManager::pinSubnodeQueryClass(const char* msn,
                                                    const AttributeGroupMeta* meta) {
  XRV_TRACE_FN();
  PthreadMutexLock guard(lock_);
  UAClientClass* provider = findSubnodeQueryClassLocked(msn, meta);
  if (provider != nullptr) {
    provider->setGenericAgentInUse(true);
  }
  return provider;
}

std::vector<UAClientClass*> SubnodeManager::pinAllSubnodeQueryClasses(
    const AttributeGroupMeta* meta) {
  XRV_TRACE_FN();
  PthreadMutexLock guard(lock_);
  std::vector<UAClientClass*> all = allSubnodeQueryClassesLocked(meta);
  for (UAClientClass* provider : all) {
    provider->setGenericAgentInUse(true);
  }
  return all;
}

UAClientClass* SubnodeManager::findSubnodeQueryClassLocked(const char* msn,
                                                           const AttributeGroupMeta* meta) {
  XRV_TRACE_SITE();
  const Subnode* subnode = findSubnode(msn);
  if (subnode == nullptr) {
    XRV_TRACE_ERROR("Failed for msn=\"%s\", meta=%p, because msn is not in _msnToQueries",
                    msn == nullptr ? "" : msn, static_cast<const void*>(meta));
    return nullptr;
  }
  if (meta == nullptr) {
    XRV_TRACE_ERROR("No attribute group given for msn=\"%s\"", msn);
    return nullptr;
  }
  for (int i = 0; i < subnode->providers.getCount(); ++i) {
    auto* provider = static_cast<UAClientClass*>(subnode->providers.get(i));
    if (providesGroup(provider, meta)) {
      return provider;
    }
  }
  XRV_TRACE_ERROR("No provider of attribute group %s serves msn=\"%s\"", meta->getGroupName(), msn);
  return nullptr;
}

UAClientClass* SubnodeManager::getSubnodeQueryClassByKey(const char* key,
                                                         const AttributeGroupMeta* meta) {
  XRV_TRACE_FN();
  if (key == nullptr || meta == nullptr) {
    return nullptr;
  }
  PthreadMutexLock guard(lock_);
  HashMapIterator it = msnToQueries_.iterator();
  while (it.hasNext()) {
    it.next();
    const auto* subnode = static_cast<const Subnode*>(it.getData());
    if (subnode->key != key) {
      continue;
    }
    for (int i = 0; i < subnode->providers.getCount(); ++i) {
      auto* provider = static_cast<UAClientClass*>(subnode->providers.get(i));
      if (providesGroup(provider, meta)) {
        return provider;
      }
    }
  }
  XRV_TRACE_DETAIL("No provider of attribute group %s serves subnode key %s", meta->getGroupName(),
                   key);
  return nullptr;
}

std::vector<UAClientClass*> SubnodeManager::getAllSubnodeQueryClasses(
    const AttributeGroupMeta* meta) {
  XRV_TRACE_FN();
  PthreadMutexLock guard(lock_);
  return allSubnodeQueryClassesLocked(meta);
}

std::vector<UAClientClass*> SubnodeManager::allSubnodeQueryClassesLocked(
    const AttributeGroupMeta* meta) {
  std::vector<UAClientClass*> all;
  auto append = [&all](const List* list) {
    for (int i = 0; list != nullptr && i < list->getCount(); ++i) {
      all.push_back(static_cast<UAClientClass*>(list->get(i)));
    }
  };
  if (meta != nullptr) {
    append(static_cast<const List*>(agToQueries_.get(meta->getGroupName())));
    return all;
  }
  HashMapIterator it = agToQueries_.iterator();
  while (it.hasNext()) {
    it.next();
    append(static_cast<const List*>(it.getData()));
  }
  return all;
}

void SubnodeManager::forEachSubnodeQueryClass(const char* attributeGroup,
                                              const std::function<void(UAClientClass*)>& fn) {
  XRV_TRACE_FN();
  if (attributeGroup == nullptr) {
    return;
  }
  PthreadMutexLock guard(lock_);
  const auto* list = static_cast<const List*>(agToQueries_.get(attributeGroup));
  for (int i = 0; list != nullptr && i < list->getCount(); ++i) {
    fn(static_cast<UAClientClass*>(list->get(i)));
  }
}

// --- The lock and the maps ---

void SubnodeManager::acquireLock() {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("Acquiring the SubnodeManager lock");
  lock_.lock();
}

void SubnodeManager::releaseLock() {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("Releasing the SubnodeManager lock");
  lock_.unlock();
}

bool SubnodeManager::addAGToQueriesEntry(const char* attributeGroup, UAClientClass* provider) {
  XRV_TRACE_FN();
  if (attributeGroup == nullptr || provider == nullptr) {
    return false;
  }
  auto* list = static_cast<List*>(agToQueries_.get(attributeGroup));
  if (list == nullptr) {
    list = new List();
    agToQueries_.put(strdup(attributeGroup), list);
  } else if (list->find(provider) >= 0) {
    return false;
  }
  list->add(provider);
  return true;
}

bool SubnodeManager::removeAGToQueriesEntry(const char* attributeGroup, UAClientClass* provider) {
  XRV_TRACE_FN();
  auto* list =
      attributeGroup == nullptr ? nullptr : static_cast<List*>(agToQueries_.get(attributeGroup));
  int index = list == nullptr ? -1 : list->find(provider);
  if (index < 0) {
    return false;
  }
  list->remove(index);
  if (list->getCount() == 0) {
    const char* storedKey = nullptr;
    agToQueries_.remove(attributeGroup, &storedKey);
    free(const_cast<char*>(storedKey));
    delete list;
  }
  return true;
}

bool SubnodeManager::addDAGToMSNsEntry(UAClientClass* discoveryProvider, const char* msn) {
  XRV_TRACE_FN();
  if (discoveryProvider == nullptr || msn == nullptr) {
    return false;
  }
  DiscoverySource* source = findDiscoverySource(discoveryProvider);
  if (source == nullptr) {
    source = new DiscoverySource{discoveryProvider, {}};
    dagToMSNs_.put(strdup(pointerKey(discoveryProvider).c_str()), source);
  }
  for (const std::string& listed : source->msns) {
    if (listed == msn) {
      return false;
    }
  }
  source->msns.emplace_back(msn);
  return true;
}

bool SubnodeManager::removeDAGToMSNsEntry(UAClientClass* discoveryProvider, const char* msn) {
  XRV_TRACE_FN();
  DiscoverySource* source =
      discoveryProvider == nullptr ? nullptr : findDiscoverySource(discoveryProvider);
  if (source == nullptr || msn == nullptr) {
    return false;
  }
  for (auto listed = source->msns.begin(); listed != source->msns.end(); ++listed) {
    if (*listed == msn) {
      source->msns.erase(listed);
      return true;
    }
  }
  return false;
}

// --- The zombie killer ---

bool SubnodeManager::startZombieKiller() {
  XRV_TRACE_FN();
  PthreadMutexLock guard(killerLock_);
  if (killer_.joinable()) {
    XRV_TRACE_ERROR("The zombie killer runs already");
    return false;
  }
  unsigned generation = ++killerGeneration_;
  try {
    killer_ = std::thread(&SubnodeManager::zombieKiller, this, generation);
  } catch (const std::system_error& error) {
    XRV_TRACE_ERROR("Could not start the zombie killer: %s", error.what());
    return false;
  }
  return true;
}

void SubnodeManager::stopZombieKiller() {
  XRV_TRACE_FN();
  std::thread thread;
  {
    PthreadMutexLock guard(killerLock_);
    if (!killer_.joinable()) {
      return;
    }
    ++killerGeneration_;
    pthread_cond_broadcast(&killerWake_);
    thread = std::move(killer_);
  }
  thread.join();
  XRV_TRACE_DETAIL("The zombie killer has stopped");
}

void SubnodeManager::zombieKiller(unsigned generation) {
  XRV_TRACE_FN();
  const int interval = settings_.garbageCollectionInterval;
  XRV_TRACE_DETAIL("Initiating garbage collection with interval of %d seconds", interval);
  for (;;) {
    struct timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += interval;
    bool stop = false;
    {
      PthreadMutexLock guard(killerLock_);
      while (killerGeneration_ == generation) {
        if (pthread_cond_timedwait(&killerWake_, killerLock_.native(), &deadline) == ETIMEDOUT) {
          break;
        }
      }
      stop = killerGeneration_ != generation;
    }
    if (stop) {
      return;
    }
    runGarbageCollection();
  }
}

int SubnodeManager::getZombieCount() {
  PthreadMutexLock guard(lock_);
  return static_cast<int>(zombies_.size());
}

int SubnodeManager::runGarbageCollection() {
  XRV_TRACE_FN();
  std::vector<UAClientClass*> doomed;
  {
    PthreadMutexLock guard(lock_);
    XRV_TRACE_DETAIL("Beginning garbage collection interval, %d zombies on queue",
                     static_cast<int>(zombies_.size()));
    std::unordered_set<const UAClientClass*> queued;
    for (const Zombie& zombie : zombies_) {
      queued.insert(zombie.provider);
    }
    // A live provider that reads from a zombie keeps it, for as long as it does.
    std::unordered_set<const UAClientClass*> referencedByLive;
    for (UAClientClass* provider = providers_->getFirst(); provider != nullptr && !queued.empty();
         provider = nextProvider(provider)) {
      for (const UAClientClass* referenced : provider->getQueryReferences()) {
        if (queued.count(referenced) != 0) {
          XRV_TRACE_DETAIL("Query Object %08x refers to %08x", shortAddress(provider),
                           shortAddress(referenced));
          referencedByLive.insert(referenced);
        }
      }
    }

    int lastCount = static_cast<int>(zombies_.size());
    int curCount = lastCount;
    // Deleting a zombie may free the ones it referred to: repeat while the queue shrinks.
    while (curCount > 0) {
      XRV_TRACE_DETAIL("Starting garbage collection cycle, lastCount = %d, curCount = %d",
                       lastCount, curCount);
      lastCount = curCount;
      std::unordered_set<const UAClientClass*> referenced = referencedByLive;
      for (const Zombie& zombie : zombies_) {
        for (const UAClientClass* target : zombie.provider->getQueryReferences()) {
          if (target != zombie.provider) {
            XRV_TRACE_DETAIL("Query Object %08x refers to %08x", shortAddress(zombie.provider),
                             shortAddress(target));
            referenced.insert(target);
          }
        }
      }
      for (auto zombie = zombies_.begin(); zombie != zombies_.end();) {
        UAClientClass* provider = zombie->provider;
        if (referenced.count(provider) != 0) {
          ++zombie;
          continue;
        }
        XRV_TRACE_DETAIL("Query Object %08x is a root-- no other objects refer to it",
                         shortAddress(provider));
        const char* busy = nullptr;
        if (provider->genericAgentInUse()) {
          busy = "in use by a framework request";
        } else if (provider->isOnQueue()) {
          busy = "queued for a collection";
        } else if (provider->isCollecting()) {
          busy = "collecting";
        }
        if (busy != nullptr) {
          XRV_TRACE_DETAIL("Query Object %08x is not quiescent (%s)-- keeping it",
                           shortAddress(provider), busy);
          ++zombie;
          continue;
        }
        XRV_TRACE_DETAIL("Query Object %08x is quiescent-- deleting", shortAddress(provider));
        doomed.push_back(provider);
        zombie = zombies_.erase(zombie);
      }
      curCount = static_cast<int>(zombies_.size());
      if (curCount == lastCount) {
        break;
      }
    }
  }
  // Nothing can reach them any more: delete them without holding the lock.
  for (UAClientClass* provider : doomed) {
    provider->shutdownExternalProcesses();
    delete provider;
  }
  return static_cast<int>(doomed.size());
}

// --- The process-wide manager ---

namespace {

std::atomic<SubnodeManager*> installedManager{nullptr};

SubnodeManager& madeManager() {
  // Never destroyed: providers and threads may use it until the process ends.
  static SubnodeManager* made = new SubnodeManager(SubnodeManagerSettings::fromConfiguration());
  return *made;
}

}  // namespace

SubnodeManager& getSubnodeManager() {
  SubnodeManager* installed = installedManager.load();
  return installed != nullptr ? *installed : madeManager();
}

SubnodeManager* setSubnodeManagerForTesting(SubnodeManager* manager) {
  return installedManager.exchange(manager);
}
