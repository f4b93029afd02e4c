#pragma once

// SubnodeManager: the bookkeeping of the agent's subnodes.
//
// A subnode is a monitored target that the framework shows as a managed system of its
// own under the agent. It is served by its own copies of the providers of its subnode
// type's attribute groups (made by applyConfiguredSubnodes from the [subnode TYPE KEY]
// sections of the configuration file), found by discovery attribute groups (one row
// per subnode), and registered with the framework under a generated managed system
// name (MSN). The manager keeps three maps:
//   MSN -> the subnode and the providers serving it (in the order they were indexed);
//   attribute group -> the subnode providers of that group (in the order added)
//   (these two in SubnodeRegistry.h);
//   discovery provider ("%p" of its address) -> the MSNs it found
//   (SubnodeDiscoverySources.h);
// registers and deregisters subnodes, answers which provider serves an MSN and an
// attribute group, and runs the zombie killer: a thread that deletes the providers of
// removed subnodes once nothing refers to them any more.
//
// The parts that are not bookkeeping live in files of their own: the settings
// (SubnodeSettings.h), MSN generation (SubnodeManagedSystemNames.h), reading a
// discovery group's rows (SubnodeDiscoveryRows.h), the framework registration
// (SubnodeRegistration.h), the copies made for configured subnodes (SubnodeCopies.h)
// and the zombie killer with its thread (SubnodeZombieCollector.h).
//
// Ownership: the providers of a live subnode belong to the provider list the manager
// was given (queryClassList() by default); removeSubnode takes them out of that list
// and hands them to the zombie killer, which owns them until it deletes them or is
// destroyed with the manager. Texts passed in are copied.
//
// Locks: lock_ guards the maps and the provider list's subnode changes
// (acquireLock/releaseLock, or taken by each operation itself). It is not recursive:
// callbacks run under it (forEachSubnodeQueryClass) must not call back into the
// manager. Framework registrations and provider queries (error codes, references,
// busy flags) are made while it is held; a discovery provider's results lock is never
// taken while it is held. The zombie killer's queue and thread have locks of their
// own, taken after lock_.
//
// Provider lifetime: a provider pointer from a plain lookup is valid only while its
// subnode is live, that is, while the caller holds lock_ or otherwise knows the
// subnode stays. To use a provider beyond that, hold a SubnodeProviderPin: the pin*
// lookups make one under lock_, and the zombie killer, which decides under lock_ too,
// never deletes a pinned provider. A provider on the collection queue (markOnQueue,
// set under lock_ inside forEachSubnodeQueryClass or while a pin is held) is kept the
// same way until it comes off the queue.
//
// Thread-safety: every public operation may be called from any thread.

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "foundation/Locks.h"
#include "subnode/SubnodeDiscoverySources.h"
#include "subnode/SubnodeManagedSystemNames.h"
#include "subnode/SubnodeProviderPin.h"
#include "subnode/SubnodeRegistry.h"
#include "subnode/SubnodeSettings.h"
#include "subnode/SubnodeZombieCollector.h"

class AttributeGroupMeta;
class UAClientClass;
class UAClientClassList;

class SubnodeManager {
 public:
  // `providers`: the list whose providers serve subnodes and from which removed
  // subnodes' providers are taken; null for queryClassList(). It must outlive the
  // manager.
  explicit SubnodeManager(const SubnodeManagerSettings& settings,
                          UAClientClassList* providers = nullptr);
  // Stops the zombie killer and deletes the providers still on the zombie queue.
  ~SubnodeManager();
  SubnodeManager(const SubnodeManager&) = delete;
  SubnodeManager& operator=(const SubnodeManager&) = delete;

  const SubnodeManagerSettings& settings() const { return settings_; }

  // --- Managed system names ---
  // application part (2 characters) ":" key part (at most 25 characters, with the
  // configured host name and "_" in front) ":" type (at most 3 characters); for the
  // excluded type the key part may have 29 characters and ":" type is left out. The
  // first two characters are upper-cased. Written to `buffer`
  // (SUBNODE_MSN_BUFFER_SIZE bytes) when one is given, else to a new one the caller
  // frees with free(). Null when an argument is null.
  char* generateSubnodeManagedSystemName(const char* application, const char* key, const char* type,
                                         char* buffer) const;
  // Takes an MSN apart at its ":" separators; `type` is empty for an MSN without one.
  // False for a malformed MSN (no ":", empty application or key, a third ":").
  static bool splitSubnodeManagedSystemName(const char* msn, std::string* application,
                                            std::string* key, std::string* type);

  // --- The configuration ---
  // For every [subnode TYPE KEY] section of the configuration file, gives every
  // provider of `providers` whose group has subnode type TYPE and that is no copy
  // itself a copy for KEY (subnodeCopy adds it to `providers`), unless the list holds
  // one already. The copies are not started. Returns the number of copies made.
  int applyConfiguredSubnodes(UAClientClassList& providers) XRV_EXCLUDES(lock_);

  // --- Subnodes ---
  // Adds the subnode `msn` found by `discoveryProvider` (null when no discovery group
  // found it): indexes the providers of the manager's list whose subnode key is `key`
  // and whose group has subnode type `type`, and registers it with the framework
  // unless the initial node state or `online` says otherwise. For a subnode already
  // managed it updates the registration to `online`. False when an argument is
  // missing.
  bool addSubnode(const char* msn, const char* key, const char* type, const char* affinity,
                  const char* version, UAClientClass* discoveryProvider, bool online = true)
      XRV_EXCLUDES(lock_);
  // Deregisters the subnode, takes its providers out of the manager's list and the
  // maps, marks them zombies and queues them for the zombie killer. False when the
  // MSN is not managed.
  bool removeSubnode(const char* msn) XRV_EXCLUDES(lock_);
  bool isManagingSubnode(const char* msn) XRV_EXCLUDES(lock_);
  // True when the subnode has a provider reporting OBJECT_ACTIVE or
  // NO_INSTANCES_RETURNED; false when all report other codes, it has none, or it is
  // not managed.
  bool subnodeIsActive(const char* msn) XRV_EXCLUDES(lock_);
  // After every collection of a subnode provider: registers the subnode that the DOWN
  // node state held back once it is online and active. Cheap (no lock) while no
  // subnode is held back. Must not be called under the manager's lock.
  void collectionDone(UAClientClass* provider) XRV_EXCLUDES(lock_);

  // --- Discovery ---
  // Reads the discovery provider's current rows (columns Subnode_Key, Subnode_Type,
  // Subnode_Affinity, Subnode_Version, Subnode_Status), adds or updates every subnode
  // they name and removes the subnodes it found before and no longer reports (unless
  // another discovery group still does).
  void discoveryAttributeGroupWasUpdated(UAClientClass* discoveryProvider) XRV_EXCLUDES(lock_);
  // Collects the discovery groups that found `msn` and processes their rows. False
  // when no discovery group found it.
  bool updateDiscoveryAttributeGroupForSubnode(const char* msn) XRV_EXCLUDES(lock_);

  // --- Lookups (see the note on provider lifetime above) ---
  // The provider of `meta`'s group serving `msn`; null when there is none.
  UAClientClass* getSubnodeQueryClass(const char* msn, const AttributeGroupMeta* meta)
      XRV_EXCLUDES(lock_);
  // The provider of `meta`'s group serving the subnode whose key is `key`.
  UAClientClass* getSubnodeQueryClassByKey(const char* key, const AttributeGroupMeta* meta)
      XRV_EXCLUDES(lock_);
  // Every subnode provider of `meta`'s group in the order added (of every group when
  // `meta` is null).
  std::vector<UAClientClass*> getAllSubnodeQueryClasses(const AttributeGroupMeta* meta)
      XRV_EXCLUDES(lock_);
  // getSubnodeQueryClass and getAllSubnodeQueryClasses, with each provider found
  // pinned before the lock is released; the provider stays valid while its pin lives.
  // An empty pin when there is none.
  SubnodeProviderPin pinSubnodeQueryClass(const char* msn, const AttributeGroupMeta* meta)
      XRV_EXCLUDES(lock_);
  std::vector<SubnodeProviderPin> pinAllSubnodeQueryClasses(const AttributeGroupMeta* meta)
      XRV_EXCLUDES(lock_);
  // Calls `fn` for every subnode provider of the group, in the order added, while
  // holding the lock. `fn` must not call back into the manager.
  void forEachSubnodeQueryClass(const char* attributeGroup,
                                const std::function<void(UAClientClass*)>& fn) XRV_EXCLUDES(lock_);

  // --- The lock ---
  void acquireLock() XRV_ACQUIRE(lock_);
  void releaseLock() XRV_RELEASE(lock_);

  // --- The maps, for callers holding the lock ---
  // Files `provider` under its group; false when it is filed there already.
  bool addAGToQueriesEntry(const char* attributeGroup, UAClientClass* provider) XRV_REQUIRES(lock_);
  // False when it was not filed there.
  bool removeAGToQueriesEntry(const char* attributeGroup, UAClientClass* provider)
      XRV_REQUIRES(lock_);
  // Notes that `discoveryProvider` found `msn`; false when noted already.
  bool addDAGToMSNsEntry(UAClientClass* discoveryProvider, const char* msn) XRV_REQUIRES(lock_);
  // False when it was not noted.
  bool removeDAGToMSNsEntry(UAClientClass* discoveryProvider, const char* msn) XRV_REQUIRES(lock_);

  // --- The zombie killer ---
  // Starts the thread that runs a garbage-collection pass every
  // garbageCollectionInterval seconds. False when it runs already or cannot start.
  bool startZombieKiller();
  // Wakes the thread and waits for it to end; returns at once when none runs.
  void stopZombieKiller();
  // One garbage-collection pass, on the caller's thread. Returns the number of
  // providers deleted.
  int runGarbageCollection() XRV_EXCLUDES(lock_);
  int getZombieCount() XRV_EXCLUDES(lock_);

 private:
  bool addSubnodeLocked(const char* msn, const char* key, const char* type, const char* affinity,
                        const char* version, UAClientClass* discoveryProvider, bool online)
      XRV_REQUIRES(lock_);
  void createSubnode(ManagedSubnode* subnode) XRV_REQUIRES(lock_);
  bool removeSubnodeLocked(const char* msn) XRV_REQUIRES(lock_);
  // Forgets the discovery provider `provider` and removes the subnodes that only it
  // found (a provider of a removed subnode that is a discovery group itself).
  void dropDiscoverySource(UAClientClass* provider) XRV_REQUIRES(lock_);
  void registerSubnode(ManagedSubnode* subnode) XRV_REQUIRES(lock_);
  void deregisterSubnode(ManagedSubnode* subnode) XRV_REQUIRES(lock_);

  const SubnodeManagerSettings settings_;
  const SubnodeManagedSystemNames names_;
  PthreadMutex lock_;
  UAClientClassList* const providers_ XRV_PT_GUARDED_BY(lock_);  // its subnode changes
  // MSN -> subnode, group -> providers.
  SubnodeRegistry subnodes_ XRV_GUARDED_BY(lock_);
  SubnodeDiscoverySources discoveries_ XRV_GUARDED_BY(lock_);  // discovery provider -> MSNs
  // Subnodes held back by the DOWN node state; read without the lock by collectionDone.
  std::atomic<int> awaitingData_{0};
  // The removed subnodes' providers. Declared after lock_, which it takes in its passes.
  SubnodeZombieCollector zombies_;
};

// The process-wide manager: the one installed by setSubnodeManagerForTesting, else
// one made on first use with SubnodeManagerSettings::fromConfiguration() and
// queryClassList() (so first use it after the configuration is loaded). Never
// destroyed; stop its zombie killer at shutdown.
SubnodeManager& getSubnodeManager();
// Makes `manager` the process-wide one (null: back to the made one) and returns the
// one installed before (null when none was). The caller keeps ownership.
SubnodeManager* setSubnodeManagerForTesting(SubnodeManager* manager);
