#include "runtime/AgentStartup.h"

#include <unicode/uclean.h>
#include <unicode/utypes.h>

#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "definition/AttributeGroupMeta.h"
#include "definition/ConfigXMLParser.h"
#include "framework/Configuration.h"
#include "framework/Framework.h"
#include "framework/Settings.h"
#include "framework/Trace.h"
#include "provider/UAClientClass.h"
#include "provider/UAClientClassList.h"
#include "runtime/ActionCallback.h"
#include "runtime/AgentAudit.h"
#include "runtime/AgentGlobals.h"
#include "runtime/AgentSignals.h"
#include "scheduling/CollectDataJob.h"
#include "runtime/GenericAgent.h"
#include "runtime/InstanceName.h"
#include "runtime/LogFileStatus.h"
#include "runtime/PerfObjectStatus.h"
#include "scheduling/RefreshThread.h"
#include "scheduling/ThreadPool.h"
#include "runtime/ThreadPoolStatus.h"
#include "sources/command/CommandWithTimeout.h"
#if XRV_HAVE_SSH
#include "sources/ssh/LibsshConnector.h"
#endif
#include "subnode/ConfigDiscovery.h"
#include "subnode/SubnodeManager.h"

const FwLocale* applicationLocale = nullptr;

namespace {

// The application the built-in status groups report under.
constexpr const char* kStatusApplication = "ZQM";

AgentInformation agentRecord;

// The thread that keeps the discovery attribute groups up to date, once started.
// Never destroyed: a process that exits without the orderly stop leaves it running,
// and destroying a std::thread that still runs would abort the exit.
std::thread& discoveryThread() {
  static std::thread* const thread = new std::thread;
  return *thread;
}

UAClientClass* nextProvider(const UAClientClass* provider) {
  return static_cast<UAClientClass*>(provider->getNextElement());
}

void setAffinity() {
  XRV_TRACE_FN();
  const ApplicationSettings& settings = applicationSettings();
  const char* affinity = settings.affinity.c_str();
  if (affinity[0] == '%' || affinity[0] == '&') {
    int version = atoi(settings.internalAgentVersion.c_str());
    if (version >= 1 && version <= 12) {
      char versioned[16];
      snprintf(versioned, sizeof versioned, "AFF_V%d", version);
      fwSetAffinity(versioned);
    } else {
      XRV_TRACE_DETAIL("Using Dynamic Affinity version mechanism for > 12 - version used: %d",
                       version);
      fwSetAffinityVersion(version);
    }
  } else {
    fwSetAffinity(settings.internalAgentVersion.c_str());
  }
}

void storeOriginNode() {
  XRV_TRACE_FN();
  char originNode[256];
  if (!fwGetOriginNode(originNode, sizeof originNode)) {
    XRV_TRACE_ERROR("The framework does not know the agent's managed system name yet");
    return;
  }
  setConfigurationProperty("XRV_AGENT_MSN", originNode);
  // Commands the agent runs see it too.
  setenv("XRV_AGENT_MSN", originNode, 1);
  XRV_TRACE_DETAIL("Set XRV_AGENT_MSN in environment to %s", originNode);
}

void readCommandSettings() {
  XRV_TRACE_FN();
  stdErrSizeLimit = static_cast<int>(XRV::settingNumber(XRV::Setting::TruncateStderrData));
  commandRetryDelay = static_cast<int>(XRV::settingNumber(XRV::Setting::CommandRetryDelay));
  outputSizeLimit = XRV::settingNumber(XRV::Setting::ScriptMaxOutputMb);
  traceCommandSettings();
}

// Sizes and creates the pool, and with it the impatient collector's time-out.
// Without its setting, the pool has a worker per event-driven group (or none).
void createThreadPool(int eventGroups) {
  XRV_TRACE_FN();
  using XRV::Setting;
  const int size = static_cast<int>(XRV::settingNumber(
      Setting::ThreadPoolSize,
      XRV_SETTING_HERE().withDefault(Setting::ThreadPoolSize, eventGroups < 1 ? 0 : eventGroups)));
  impatientCollectorTimeout = 0;
  if (size < 1) {
    return;
  }
  threadPool = new ThreadPool(size);
  // Data sources below the scheduler (the log monitor's resets) hand work to it too.
  setThreadPoolJobSink([](IThreadPoolJob* job) {
    if (threadPool == nullptr) {
      return false;
    }
    threadPool->submitJob(job);
    return true;
  });
  impatientCollectorTimeout =
      static_cast<int>(XRV::settingNumber(Setting::ImpatientCollectorTimeout, XRV_SETTING_HERE()));
}

void createBuiltInStatusProviders(int logMonitorCount) {
  XRV_TRACE_FN();
  if (AttributeGroupMeta* meta = findAttributeGroupMeta("Thread_Pool_Status")) {
    queryClassList().addClientClass(
        new ThreadPoolStatus(kStatusApplication, "Thread_Pool_Status", meta, threadPool));
  }
  if (logMonitorCount != 0) {
    if (AttributeGroupMeta* meta = findAttributeGroupMeta("Log_File_Status")) {
      queryClassList().addClientClass(
          new LogFileStatus(kStatusApplication, "Log_File_Status", meta));
    }
    if (AttributeGroupMeta* meta = findAttributeGroupMeta("Log_File_RegEx_Statistics")) {
      queryClassList().addClientClass(
          new LogFileRegExStats(kStatusApplication, "Log_File_RegEx_Statistics", meta));
    }
  }
  // A status group whose data source this build does not have: the group stays
  // without a provider and without a table.
  if (findAttributeGroupMeta("Take_Action_Status") != nullptr) {
    XRV_TRACE_ERROR("ERROR: attribute group %s is not served by this build of the agent",
                    "Take_Action_Status");
  }
}

// Binds every provider to its group, gives each group its table server and starts
// the providers. True when some group is a discovery attribute group.
bool startProviders() {
  XRV_TRACE_FN();
  bool discovery = false;
  for (UAClientClass* provider = queryClassList().getFirst(); provider != nullptr;
       provider = nextProvider(provider)) {
    const char* group = provider->getAttributeGroup();
    AttributeGroupMeta* meta = findAttributeGroupMeta(group);
    if (meta == nullptr) {
      XRV_TRACE_ERROR("ERROR: no metadata for attribute group: %s\n", group);
      continue;
    }
    if (meta->query() == nullptr) {
      meta->setQuery(provider);
      provider->setAttributeGroupMeta(meta);
    }
    if (meta->pureEventBased()) {
      provider->setPureEventBased(true);  // rows arrive as events, served from the cache
    }
    if (meta->getRequestInfoMap() != nullptr) {
      XRV_TRACE_DETAIL(
          "Attribute group %s needs request info, making it ineligible for thread pool", group);
      provider->setThreadPoolEligible(false);
    }
    discovery = discovery || meta->isDiscoveryAttributeGroup();
    XRV_TRACE_DETAIL("Starting AFW agent for attribute group %s <%s>\n", group, meta->tableName());
    // One table server per group: a later provider of the same group (a subnode's
    // copy) is served by the first one's.
    if (meta->getTableManager() == nullptr) {
      meta->setTableManager(newGenericAgent(meta->applName(), meta->tableName(), meta));
    }
    provider->start();
  }
  return discovery;
}

void startDiscoveryUpdates() {
  XRV_TRACE_FN();
  getSubnodeManager().startZombieKiller();
  try {
    discoveryThread() = std::thread([] { periodicallyUpdateDiscoveryAttributeGroups(nullptr); });
  } catch (const std::system_error& error) {
    XRV_TRACE_ERROR("Could not start the discovery update thread, rc = %d", error.code().value());
  }
}

void startRefreshThread(bool intervalSet, int interval, int eventGroups) {
  XRV_TRACE_FN();
  if (!intervalSet && eventGroups <= 0) {
    return;
  }
  refreshThread = new RefreshThread(intervalSet ? interval : 0, queryClassList(), threadPool,
                                    &getSubnodeManager());
  if (!refreshThread->start()) {
    delete refreshThread;  // "Could not start RefreshThread" is traced by start()
    refreshThread = nullptr;
  }
}

// The threads that touch providers, stopped before the providers go.
void stopCollectionThreads() {
  XRV_TRACE_FN();
  if (discoveryThread().joinable()) {
    stopDiscoveryAttributeGroupUpdates();
    discoveryThread().join();
  }
  getSubnodeManager().stopZombieKiller();
  // Workers finish the collection they run; queued jobs are dropped with the pool.
  setThreadPoolJobSink(nullptr);
  if (threadPool != nullptr) {
    threadPool->shutdown();
  }
}

void destroyAttributeGroups() {
  XRV_TRACE_FN();
  for (AttributeGroupMeta* group : attributeGroupsInDefinitionOrder()) {
    delete group->getTableManager();
    group->setTableManager(nullptr);
  }
  clearMetaMap();
}

}  // namespace

const AgentInformation* fwPreInit(int argc, char** argv) {
  XRV_TRACE_FN();
  // fdLock and processLock are ready from the start (static mutexes).
  UErrorCode status = U_ZERO_ERROR;
  u_init(&status);
  if (U_FAILURE(status)) {
    XRV_TRACE_ERROR("ICU initialization error, status returned = %d\n", static_cast<int>(status));
  }
  int localeError = 0;
  applicationLocale = fwGetProcessLocale(&localeError);
  if (localeError != 0) {
    XRV_TRACE_ERROR("Could not get the process locale from the environment, error = %d",
                    localeError);
  }
  fwInitBasicServices("windows_dp");
  // queryClassList() starts empty. This build has no action library to create.

  if (!findInstanceName(argc, argv, &instanceName)) {
    return nullptr;
  }

  installPerfObjectStatusHook();
#if XRV_HAVE_SSH
  installSshSupport();  // before the definition makes the connectors of remote scripts
#endif
  const XRV::SettingRead path = XRV::readSetting(XRV::Setting::AgentRefFile, XRV_SETTING_HERE());
  if (!initFromFile(path.set ? path.text.c_str() : nullptr)) {
    XRV_TRACE_ERROR("ERROR: agent ref loading error");
    exit_with_notification(-1);
  }

  if (AttributeGroupMeta* meta = findAttributeGroupMeta("Performance_Object_Status")) {
    queryClassList().addClientClass(new PerfObjectStatus(
        kStatusApplication, "Performance_Object_Status", &queryClassList(), meta));
  }
  agentRecord = agentInformation();
  return &agentRecord;
}

void fwInit() {
  XRV_TRACE_FN();
  const ApplicationSettings& settings = applicationSettings();
  fwSetProductVersion(settings.nodeType.c_str());
  fwSetNodeType(settings.nodeType.c_str());
  fwSetAffinity(settings.affinity.c_str());
  setAffinity();
  fwRegisterAgentLoader(load_agents);

  const XRV::SettingRead registerCallback = XRV::readSetting(XRV::Setting::RegisterActionCallback);
  if (registerCallback.on()) {
    fwRegisterCommandCallback("*", actionCallback);
  }
  XRV::traceSetting(registerCallback, XRV_SETTING_HERE());
  storeOriginNode();
}

int load_agents() {
  XRV_TRACE_FN();
  // The framework's audit records need no registration.
  if (setlocale(LC_ALL, "") == nullptr) {
    const int error = errno;
    XRV_TRACE_ERROR(
        "ERROR: setlocale() failed, some locale-dependent functions may not work correctly, "
        "errno = %d",
        error);
  }
  // A negative interval, which would schedule every turn before the previous one, is
  // ignored.
  const XRV::SettingRead refreshInterval =
      XRV::readSetting(XRV::Setting::RefreshInterval, XRV_SETTING_HERE());
  const bool refreshIntervalSet = refreshInterval.set;

  int logMonitorCount = 0;
  const int eventGroups =
      getEventGroupCount(queryClassList(), refreshIntervalSet, &logMonitorCount);

  readCommandSettings();

  createThreadPool(eventGroups);
  createBuiltInStatusProviders(logMonitorCount);

  for (const char* feature :
       {"AFF_FEAT_DM_PARITY", "AFF_FEAT_AGENT_MGMT", "AFF_FEAT_INTERNATIONALIZATION"}) {
    fwSetAffinityFeature(feature);
  }
  // Subnodes held back until their first data are registered once they have some.
  setCollectionDoneHook(
      [](UAClientClass* provider) { getSubnodeManager().collectionDone(provider); });

  if (startProviders()) {
    startDiscoveryUpdates();
  }
  startRefreshThread(refreshIntervalSet, static_cast<int>(refreshInterval.number), eventGroups);

  writeAgentAuditRecord("The agent has successfully completed startup processing.", "Start-up",
                        "Start", "XRV9000I");
  return 0;
}

void fwBeginTerminate() {
  XRV_TRACE_FN();
  stopAllCommands();
}

void fwTerminate() {
  XRV_TRACE_FN();
  writeAgentAuditRecord("The agent is shutting down.", "Shutdown", "Stop", "XRV9001I");
  stopAllCommands();  // when the host did not begin with it
  fwShutdown(1);
  if (refreshThread != nullptr) {
    refreshThread->refreshShutdown();
    delete refreshThread;
    refreshThread = nullptr;
  }
  stopCollectionThreads();
  // This build has no asynchronous SNMP layer to clean up.
  setCollectionDoneHook(nullptr);
  queryClassList().deleteAll();
  destroyAttributeGroups();
  delete threadPool;
  threadPool = nullptr;
  impatientCollectorTimeout = 0;
  // No action library to send its down heartbeat or to destroy.
  u_cleanup();
  // queryClassList() and the configuration lookup live as long as the process: the
  // framework host may still read settings while it winds down.
}

void shutdownExternalProcesses() {
  XRV_TRACE_FN();
  // Subnodes may come and go meanwhile: take the list apart under the manager's
  // lock, then act outside it (a removed subnode's providers outlive the walk).
  SubnodeManager& subnodes = getSubnodeManager();
  std::vector<UAClientClass*> providers;
  std::vector<std::string> subnodeGroups;
  subnodes.acquireLock();
  for (UAClientClass* provider = queryClassList().getFirst(); provider != nullptr;
       provider = nextProvider(provider)) {
    AttributeGroupMeta* meta = provider->getAttributeGroupMeta();
    if (meta != nullptr && meta->subnodeType() != nullptr && provider->getSubnodeKey() == nullptr) {
      subnodeGroups.emplace_back(provider->getAttributeGroup());
    } else {
      providers.push_back(provider);
    }
  }
  subnodes.releaseLock();
  for (const std::string& group : subnodeGroups) {
    subnodes.forEachSubnodeQueryClass(
        group.c_str(), [](UAClientClass* copy) { copy->shutdownExternalProcesses(); });
  }
  for (UAClientClass* provider : providers) {
    provider->shutdownExternalProcesses();
  }
}
