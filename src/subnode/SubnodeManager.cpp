#include "subnode/SubnodeManager.h"

#include <string>
#include <vector>

#include "definition/AttributeGroupMeta.h"
#include "foundation/List.h"
#include "framework/Configuration.h"
#include "framework/Trace.h"
#include "provider/UAClientClass.h"
#include "provider/UAClientClassList.h"
#include "subnode/SubnodeCopies.h"
#include "subnode/SubnodeDiscoveryRows.h"
#include "subnode/SubnodeHelpers.h"
#include "subnode/SubnodeRegistration.h"

using XRV::subnode::nextProvider;
using XRV::subnode::sameText;
using XRV::subnode::subnodeTypeOf;

// --- Construction ---

SubnodeManager::SubnodeManager(const SubnodeManagerSettings& settings, UAClientClassList* providers)
    : settings_(settings),
      names_(settings.msnHostName, settings.excludedType),
      providers_(providers == nullptr ? &queryClassList() : providers),
      zombies_(lock_, *providers_, settings.garbageCollectionInterval) {
  XRV_TRACE_FN();
}

SubnodeManager::~SubnodeManager() {
  XRV_TRACE_FN();
  // The zombie killer's thread takes lock_: stopped before anything goes. Its queue
  // is deleted with it.
  zombies_.stop();
  PthreadMutexLock guard(lock_);
  subnodes_.clear();
}

// --- Managed system names ---

char* SubnodeManager::generateSubnodeManagedSystemName(const char* application, const char* key,
                                                       const char* type, char* buffer) const {
  return names_.generate(application, key, type, buffer);
}

bool SubnodeManager::splitSubnodeManagedSystemName(const char* msn, std::string* application,
                                                   std::string* key, std::string* type) {
  return SubnodeManagedSystemNames::split(msn, application, key, type);
}

// --- The configuration ---

int SubnodeManager::applyConfiguredSubnodes(UAClientClassList& providers) {
  XRV_TRACE_FN();
  std::vector<XRV::SubnodeSectionName> sections = listSubnodeSections();
  PthreadMutexLock guard(lock_);
  return makeConfiguredSubnodeCopies(sections, providers);
}

// --- Subnodes ---

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
  ManagedSubnode* subnode = subnodes_.find(msn);
  const bool listed = discoveryProvider != nullptr && discoveries_.lists(discoveryProvider, msn);

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

  auto* created = new ManagedSubnode();
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
    awaitingData_.store(subnodes_.awaitingCount());
  }
  return true;
}

void SubnodeManager::createSubnode(ManagedSubnode* subnode) {
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
  subnodes_.insert(subnode);
}

void SubnodeManager::registerSubnode(ManagedSubnode* subnode) {
  XRV_TRACE_FN();
  if (!registerSubnodeWithFramework(subnode->msn.c_str(), subnode->affinity.c_str(),
                                    subnode->type.c_str(), subnode->version.c_str())) {
    return;
  }
  subnode->registered = true;
  if (subnode->awaitingData) {
    subnode->awaitingData = false;
    awaitingData_.store(subnodes_.awaitingCount());
  }
}

void SubnodeManager::deregisterSubnode(ManagedSubnode* subnode) {
  XRV_TRACE_FN();
  if (deregisterSubnodeFromFramework(subnode->msn.c_str())) {
    subnode->registered = false;
  }
}

bool SubnodeManager::removeSubnode(const char* msn) {
  XRV_TRACE_FN();
  PthreadMutexLock guard(lock_);
  return removeSubnodeLocked(msn);
}

bool SubnodeManager::removeSubnodeLocked(const char* msnArgument) {
  XRV_TRACE_FN();
  ManagedSubnode* subnode = subnodes_.find(msnArgument);
  if (subnode == nullptr) {
    XRV_TRACE_ERROR("Failed for msn=\"%s\", because SubnodeManager doesn't manage msn",
                    msnArgument == nullptr ? "" : msnArgument);
    return false;
  }
  // The argument may be one of the texts dropped below.
  const std::string msn = subnode->msn;
  subnodes_.remove(subnode);
  discoveries_.forget(msn.c_str());
  if (subnode->registered) {
    deregisterSubnode(subnode);
  }
  if (subnode->awaitingData) {
    subnode->awaitingData = false;
    awaitingData_.store(subnodes_.awaitingCount());
  }

  for (int i = 0; i < subnode->providers.getCount(); ++i) {
    auto* provider = static_cast<UAClientClass*>(subnode->providers.get(i));
    removeAGToQueriesEntry(provider->getAttributeGroup(), provider);
    providers_->removeClientClass(provider);
    provider->removeSummaryQuery();
    provider->setZombie(true);
    zombies_.enqueue(provider);
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
  for (const std::string& msn : discoveries_.drop(provider)) {
    if (subnodes_.find(msn.c_str()) != nullptr && !discoveries_.anyLists(msn.c_str())) {
      XRV_TRACE_DETAIL("Removing msn=\"%s\": the discovery group that found it went away",
                       msn.c_str());
      removeSubnodeLocked(msn.c_str());
    }
  }
}

bool SubnodeManager::isManagingSubnode(const char* msn) {
  XRV_TRACE_FN();
  PthreadMutexLock guard(lock_);
  return subnodes_.find(msn) != nullptr;
}

bool SubnodeManager::subnodeIsActive(const char* msn) {
  XRV_TRACE_FN();
  PthreadMutexLock guard(lock_);
  const ManagedSubnode* subnode = subnodes_.find(msn);
  if (subnode == nullptr) {
    XRV_TRACE_DETAIL("msn=\"%s\" is not managed, so not active", msn == nullptr ? "" : msn);
    return false;
  }
  return subnode->isActive();
}

void SubnodeManager::collectionDone(UAClientClass* provider) {
  XRV_TRACE_FN();
  if (awaitingData_.load() == 0 || provider == nullptr || provider->getSubnodeKey() == nullptr) {
    return;
  }
  PthreadMutexLock guard(lock_);
  ManagedSubnode* subnode = subnodes_.awaitingServedBy(provider);
  if (subnode == nullptr) {
    return;
  }
  const char* msn = subnode->msn.c_str();
  if (!subnode->online) {
    XRV_TRACE_DETAIL("Data collected for msn=\"%s\", but the target is offline; not registering",
                     msn);
  } else if (!subnode->isActive()) {
    XRV_TRACE_DETAIL("Data collected for msn=\"%s\", but it is not active; not registering", msn);
  } else {
    XRV_TRACE_DETAIL("Data collected for msn=\"%s\" and it is active, registering it", msn);
    registerSubnode(subnode);
  }
}

// --- Discovery ---

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
  const std::vector<DiscoveredSubnode> found =
      readDiscoveredSubnodes(discoveryProvider, names_, settings_.applicationName);

  PthreadMutexLock guard(lock_);
  if (discoveryProvider->isZombie()) {
    // Removed while its rows were read (zombies are marked under this lock).
    XRV_TRACE_DETAIL("Ignoring the rows of %s: its subnode was removed",
                     discoveryProvider->getAttributeGroup());
    return;
  }
  for (const DiscoveredSubnode& row : found) {
    addSubnodeLocked(row.msn.c_str(), row.key.c_str(), row.type.c_str(), row.affinity.c_str(),
                     row.version.c_str(), discoveryProvider, row.online);
  }
  std::vector<std::string> gone;
  for (const std::string& listed : discoveries_.foundBy(discoveryProvider)) {
    bool reported = false;
    for (size_t i = 0; i < found.size() && !reported; ++i) {
      reported = found[i].msn == listed;
    }
    if (!reported) {
      gone.push_back(listed);
    }
  }
  for (const std::string& msn : gone) {
    removeDAGToMSNsEntry(discoveryProvider, msn.c_str());
    if (discoveries_.anyLists(msn.c_str())) {
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
  // Pinned: a discovery group that serves a subnode itself may be removed while it
  // collects below.
  std::vector<SubnodeProviderPin> sources;
  {
    PthreadMutexLock guard(lock_);
    for (UAClientClass* finder :
         msn == nullptr ? std::vector<UAClientClass*>() : discoveries_.findersOf(msn)) {
      sources.push_back(SubnodeProviderPin(finder));
    }
  }
  if (sources.empty()) {
    XRV_TRACE_ERROR("No discovery attribute group found msn=\"%s\"", msn == nullptr ? "" : msn);
    return false;
  }
  for (const SubnodeProviderPin& pin : sources) {
    UAClientClass* source = pin.get();
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
  return subnodes_.providerFor(msn, meta);
}

SubnodeProviderPin SubnodeManager::pinSubnodeQueryClass(const char* msn,
                                                        const AttributeGroupMeta* meta) {
  XRV_TRACE_FN();
  PthreadMutexLock guard(lock_);
  UAClientClass* provider = subnodes_.providerFor(msn, meta);
  return provider == nullptr ? SubnodeProviderPin() : SubnodeProviderPin(provider);
}

std::vector<SubnodeProviderPin> SubnodeManager::pinAllSubnodeQueryClasses(
    const AttributeGroupMeta* meta) {
  XRV_TRACE_FN();
  PthreadMutexLock guard(lock_);
  std::vector<SubnodeProviderPin> pins;
  for (UAClientClass* provider : subnodes_.allProviders(meta)) {
    pins.push_back(SubnodeProviderPin(provider));
  }
  return pins;
}

UAClientClass* SubnodeManager::getSubnodeQueryClassByKey(const char* key,
                                                         const AttributeGroupMeta* meta) {
  XRV_TRACE_FN();
  if (key == nullptr || meta == nullptr) {
    return nullptr;
  }
  PthreadMutexLock guard(lock_);
  if (UAClientClass* provider = subnodes_.providerForKey(key, meta)) {
    return provider;
  }
  XRV_TRACE_DETAIL("No provider of attribute group %s serves subnode key %s", meta->getGroupName(),
                   key);
  return nullptr;
}

std::vector<UAClientClass*> SubnodeManager::getAllSubnodeQueryClasses(
    const AttributeGroupMeta* meta) {
  XRV_TRACE_FN();
  PthreadMutexLock guard(lock_);
  return subnodes_.allProviders(meta);
}

void SubnodeManager::forEachSubnodeQueryClass(const char* attributeGroup,
                                              const std::function<void(UAClientClass*)>& fn) {
  XRV_TRACE_FN();
  if (attributeGroup == nullptr) {
    return;
  }
  PthreadMutexLock guard(lock_);
  const List* list = subnodes_.groupProviders(attributeGroup);
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
  return subnodes_.addGroupProvider(attributeGroup, provider);
}

bool SubnodeManager::removeAGToQueriesEntry(const char* attributeGroup, UAClientClass* provider) {
  XRV_TRACE_FN();
  return attributeGroup != nullptr && subnodes_.removeGroupProvider(attributeGroup, provider);
}

bool SubnodeManager::addDAGToMSNsEntry(UAClientClass* discoveryProvider, const char* msn) {
  XRV_TRACE_FN();
  if (discoveryProvider == nullptr || msn == nullptr) {
    return false;
  }
  return discoveries_.add(discoveryProvider, msn);
}

bool SubnodeManager::removeDAGToMSNsEntry(UAClientClass* discoveryProvider, const char* msn) {
  XRV_TRACE_FN();
  if (discoveryProvider == nullptr || msn == nullptr) {
    return false;
  }
  return discoveries_.remove(discoveryProvider, msn);
}

// --- The zombie killer ---

bool SubnodeManager::startZombieKiller() { return zombies_.start(); }

void SubnodeManager::stopZombieKiller() { zombies_.stop(); }

int SubnodeManager::runGarbageCollection() { return zombies_.collect(); }

int SubnodeManager::getZombieCount() { return zombies_.count(); }

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
