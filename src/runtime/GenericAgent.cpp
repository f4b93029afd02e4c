#include "runtime/GenericAgent.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <utility>

#include "definition/AttributeGroupMeta.h"
#include "foundation/HashMap.h"
#include "framework/Framework.h"
#include "framework/Mutex.h"
#include "framework/Trace.h"
#include "provider/ResultsManager.h"
#include "provider/UAClientClass.h"
#include "runtime/AgentGlobals.h"
#include "scheduling/CollectDataJob.h"
#include "scheduling/ThreadPool.h"
#include "subnode/SubnodeManager.h"

namespace {

constexpr char kParameterToken[] = "PARMA";
// A sample waiting for pool collections wakes at least this often to report.
constexpr std::chrono::milliseconds kWaitStep{1000};
// How often it looks at a provider that another job collects (that job does not tell
// the sample when it ends).
constexpr std::chrono::milliseconds kForeignJobPoll{50};

std::atomic<unsigned> jobCounter{0};

const char* orNone(const char* text) { return text == nullptr || *text == '\0' ? "none" : text; }

// Which of a sample's pool jobs have run. Shared with the jobs: a sample that gives
// up waiting leaves, its jobs finish later.
struct CompletionBoard {
  explicit CompletionBoard(size_t count) : finished(count, false) {}
  XRV::Mutex mutex;
  std::condition_variable changed;
  std::vector<bool> finished XRV_GUARDED_BY(mutex);  // one per target of the sample
};

// A collection a sample waits for: tells the board when it is done.
class SampleCollectDataJob : public CollectDataJob {
 public:
  SampleCollectDataJob(UAClientClass* provider, const char* id,
                       std::shared_ptr<CompletionBoard> board, size_t slot)
      : CollectDataJob(provider, id), board_(std::move(board)), slot_(slot) {
    setUseCache(true);
  }

  void execute() override {
    CollectDataJob::execute();
    {
      XRV::MutexLock lock(board_->mutex);
      board_->finished[slot_] = true;
    }
    board_->changed.notify_all();
  }

 private:
  std::shared_ptr<CompletionBoard> board_;
  size_t slot_;
};

std::string serialiseFilters(const std::vector<FwFilter>& filters) {
  std::string text;
  for (const FwFilter& filter : filters) {
    if (!text.empty()) {
      text += " AND ";
    }
    text += filter.name + " " + filter.op + " \"" + filter.value + "\"";
  }
  return text;
}

void replaceAll(std::string* text, const char* token, const char* value) {
  const size_t tokenLength = strlen(token);
  const size_t valueLength = strlen(value);
  for (size_t at = text->find(token); at != std::string::npos;
       at = text->find(token, at + valueLength)) {
    text->replace(at, tokenLength, value);
  }
}

}  // namespace

const char* sampleTypeName(FW_REQUEST_TYPE type) {
  switch (type) {
    case FW_DEMAND:
      return "DEMAND";
    case FW_NON_HISTORICAL_SITUATION:
      return "NON_HISTORICAL_SITUATION";
    case FW_HISTORICAL_SITUATION:
      return "HISTORICAL_SITUATION";
  }
  return "UNKNOWN";
}

// --- The manager ---

GenericAgentManager::GenericAgentManager(const char* applicationName, const char* tableName,
                                         AttributeGroupMeta* meta)
    : TableManager(applicationName, tableName), attributeGroupMeta_(meta) {
  XRV_TRACE_FN();
}

FwRequest* GenericAgentManager::CreateRequest(RequestDetail* detail, ContextInfo* context) {
  XRV_TRACE_FN();
  if (attributeGroupMeta_ == nullptr || detail == nullptr) {
    XRV_TRACE_ERROR("Request on table %s refused: %s", GetTableName(),
                    detail == nullptr ? "no request detail" : "the table has no metadata");
    return nullptr;
  }
  return new GenericAgent(this, detail, context);
}

TableManager* newGenericAgent(const char* applicationName, const char* tableName,
                              AttributeGroupMeta* meta) {
  XRV_TRACE_FN();
  if (meta == nullptr) {
    XRV_TRACE_ERROR("No metadata for table %s, no table server made",
                    tableName == nullptr ? "" : tableName);
    return nullptr;
  }
  return new GenericAgentManager(applicationName, tableName, meta);
}

// --- One request ---

struct GenericAgent::Target {
  enum Collection {
    NOT_SUBMITTED,     // collected here, or its data were current
    SUBMITTED,         // a job of this sample collects it
    QUEUED_ELSEWHERE,  // a job of somebody else's collects it
  };

  UAClientClass* provider;
  std::string node;         // the managed system its rows are sent for
  SubnodeProviderPin pin;   // a subnode's copy: holds it while the sample does
  Collection collection = NOT_SUBMITTED;

  // Whether a pool job still collects it. `slot` is its place in the sample, `board`
  // the sample's (a target SUBMITTED has one), or an empty one when the sample only
  // waits for jobs of others.
  bool stillCollecting(size_t slot, const CompletionBoard& board) const XRV_REQUIRES(board.mutex);
};

struct GenericAgent::Collections {
  std::shared_ptr<CompletionBoard> board;
};

class GenericAgent::QueryListLease {
 public:
  explicit QueryListLease(GenericAgent* agent) : agent_(agent), targets_(agent->tsGetQueryList()) {}
  ~QueryListLease() { agent_->tsFreeQueryList(targets_); }
  QueryListLease(const QueryListLease&) = delete;
  QueryListLease& operator=(const QueryListLease&) = delete;

  std::vector<Target>& targets() { return targets_; }

 private:
  GenericAgent* agent_;
  std::vector<Target> targets_;
};

bool GenericAgent::Target::stillCollecting(size_t slot, const CompletionBoard& board) const {
  switch (collection) {
    case SUBMITTED:
      return !board.finished[slot];
    case QUEUED_ELSEWHERE:
      return provider->isOnQueue();
    case NOT_SUBMITTED:
      break;
  }
  return false;
}

GenericAgent::GenericAgent(GenericAgentManager* manager, RequestDetail* detail,
                           ContextInfo* context)
    : GenericAgentBase(detail, context),
      manager_(manager),
      meta_(manager->getAttributeGroupMeta()) {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("Starting situation");
}

GenericAgent::~GenericAgent() {
  XRV_TRACE_FN();
  if (active_) {
    TakeSampleDestructor();
  }
  XRV_TRACE_DETAIL("Stopping situation");
}

int GenericAgent::NumColumns() const { return meta_ == nullptr ? 0 : meta_->noOfColumns(); }

bool GenericAgent::GetColumnInfo(ColumnInfo* info, int index) const {
  const ColumnInfo* column = meta_ == nullptr ? nullptr : meta_->attrInfo(index);
  if (column == nullptr || info == nullptr) {
    return false;
  }
  *info = *column;
  return true;
}

void GenericAgent::TakeSampleConstructor() {
  XRV_TRACE_FN();
  RequestDetail* detail = GetRequestDetail();
  tableName_ = detail->GetTableName();
  applicationName_ = detail->GetApplicationName();
  meta_ = manager_->getAttributeGroupMeta();
  char origin[64];
  mainNode_ = fwGetOriginNode(origin, sizeof origin) ? origin : "";
  if (XRV_TRACE_ENABLED(TRACE_DETAIL)) {
    filterText_ = serialiseFilters(detail->GetFilters());
    XRV_TRACE_DETAIL("Request filter on table %s: %s", tableName_.c_str(),
                     filterText_.empty() ? "(none)" : filterText_.c_str());
  }
  sampleType_ = detail->GetRequestType();
  sampleInterval_ = detail->GetSampleInterval();
  if (*detail->GetRequestId() != '\0') {
    requestInfoId_ = detail->GetRequestId();
  } else {
    char id[32];
    snprintf(id, sizeof id, "%p", static_cast<void*>(this));
    requestInfoId_ = id;
  }
  receivesRequestInfo_ = meta_->getRequestInfoMap() != nullptr;
  if (receivesRequestInfo_) {
    ParseRequestInformation();
  }
  if (sampleInterval_ > 0) {
    XRV_TRACE_DETAIL("interval=%lld for reqID=%s", static_cast<long long>(sampleInterval_),
                     detail->GetRequestId());
  } else {
    XRV_TRACE_DETAIL("no interval for reqID=%s", detail->GetRequestId());
  }
  active_ = true;

  const bool intervalToFile = sampleInterval_ > 0 && *detail->GetRequestId() != '\0';
  if (receivesRequestInfo_ || intervalToFile) {
    QueryListLease lease(this);
    for (Target& target : lease.targets()) {
      if (receivesRequestInfo_) {
        target.provider->setRequestInfo(requestInfoId(), requestInformation_);
      }
      if (intervalToFile) {
        target.provider->setRequestInterval(detail->GetRequestId(),
                                            static_cast<int>(sampleInterval_));
      }
    }
  }
}

void GenericAgent::ParseRequestInformation() {
  XRV_TRACE_FN();
  const RequestDetail* detail = GetRequestDetail();
  const HashMap* received = meta_->getRequestInfoMap();
  requestInformation_.clear();
  for (const auto& [name, value] : detail->GetRequestInfoItems()) {
    if (name == "_REQ_TYPE") {
      if (value == "DEMAND") {
        sampleType_ = FW_DEMAND;
      } else if (value == "NON_HISTORICAL_SITUATION") {
        sampleType_ = FW_NON_HISTORICAL_SITUATION;
      } else if (value == "HISTORICAL_SITUATION") {
        sampleType_ = FW_HISTORICAL_SITUATION;
      } else {
        XRV_TRACE_ERROR("Unknown sample type %s\n", value.c_str());
      }
    } else if (name == "_FILTER") {
      std::string filter = value;
      const char* parameter = detail->GetParameter();
      if (parameter != nullptr && filter.find(kParameterToken) != std::string::npos) {
        XRV_TRACE_DETAIL("Replacing PARMA with %s", parameter);
        replaceAll(&filter, kParameterToken, parameter);
      }
      requestInformation_.push_back(FwFilter{name, "=", filter});
    } else if (received != nullptr && received->contains(name.c_str())) {
      requestInformation_.push_back(FwFilter{name, "=", value});
    } else {
      XRV_TRACE_DETAIL("Attribute group %s does not receive request information %s, ignored",
                       meta_->getGroupName(), name.c_str());
    }
  }
}

void GenericAgent::TakeSampleDestructor() {
  XRV_TRACE_FN();
  if (!active_) {
    return;
  }
  active_ = false;
  // Every request may bring an id of its own (each HTTP request does): what was filed
  // under it goes with it, or the providers' maps would grow for ever.
  const char* requestId = GetRequestDetail()->GetRequestId();
  const bool intervalFiled = sampleInterval_ > 0 && *requestId != '\0';
  if (!receivesRequestInfo_ && !intervalFiled) {
    return;
  }
  QueryListLease lease(this);
  for (Target& target : lease.targets()) {
    if (receivesRequestInfo_) {
      target.provider->removeRequestInfo(requestInfoId());
    }
    if (intervalFiled) {
      target.provider->removeRequestInterval(requestId);
    }
  }
}

void GenericAgent::SitInfo(const char* text) {
  XRV_TRACE_FN();
  if (!XRV_TRACE_ENABLED(TRACE_DETAIL)) {
    return;
  }
  const char* request = GetRequestDetail()->GetRequestId();
  if (*request == '\0') {
    request = sampleTypeName(sampleType_);
  }
  const int interval = static_cast<int>(sampleInterval_);
  if (isMainNodeRequest()) {
    XRV_TRACE_DETAIL("%s - %s with interval %d on table %s on main node %s", text, request,
                     interval, tableName_.c_str(), mainNode_.c_str());
  } else {
    XRV_TRACE_DETAIL("%s - %s with interval %d on table %s on subnode %s", text, request, interval,
                     tableName_.c_str(), GetContextInfo()->GetTargetNode());
  }
}

void GenericAgent::TakeSample() {
  XRV_TRACE_FN();
  if (!active_) {
    XRV_TRACE_ERROR("Request on table %s is not active (TakeSampleConstructor has not run)",
                    GetRequestDetail()->GetTableName());
    return;
  }
  SitInfo("Collecting data for situation ");
  const int64_t started = fwMonotonicMillis();
  size_t served = 0;
  {
    QueryListLease lease(this);
    std::vector<Target>& targets = lease.targets();
    Collections collections;
    served = targets.size();
    if (GetRequestDetail()->IsCacheOnly()) {
      // Nothing is collected here: the caller must not wait for a script.
      for (const Target& target : targets) {
        if (!target.provider->useCurrentCache()) {
          XRV_TRACE_DETAIL("%s:%s needs a collection, the request must ask again",
                           target.provider->getAttributeGroup(),
                           orNone(target.provider->getSubnodeKey()));
          GetRequestDetail()->SetWouldWait();
          return;
        }
        notifyCollectionDone(target.provider);  // as after any cache hit
      }
    } else {
      tsCollectData(targets, &collections);
    }
    tsSubmitData(targets, &collections);
  }  // the providers are handed back before the sample is reported
  XRV_TRACE_DETAIL("Sample on table %s served %zu data providers in %lld ms", tableName_.c_str(),
                   served, static_cast<long long>(fwMonotonicMillis() - started));
}

bool GenericAgent::isMainNodeRequest() const {
  const ContextInfo* context = GetContextInfo();
  return context == nullptr || context->IsMainNode() || mainNode_ == context->GetTargetNode();
}

bool GenericAgent::isHistoryRequest() const {
  const ContextInfo* context = GetContextInfo();
  return sampleType_ == FW_HISTORICAL_SITUATION || (context != nullptr && context->IsHistory());
}

bool GenericAgent::addSubnodeTarget(const char* msn, std::vector<Target>* targets) {
  XRV_TRACE_FN();
  SubnodeManager& subnodes = getSubnodeManager();
  // The pin keeps the provider until tsFreeQueryList, even if its subnode goes.
  SubnodeProviderPin pin = subnodes.pinSubnodeQueryClass(msn, meta_);
  if (!pin) {
    if (!subnodes.isManagingSubnode(msn)) {
      XRV_TRACE_ERROR("Subnode %s is not managed by this agent.", msn);
    }
    return false;
  }
  UAClientClass* provider = pin.get();
  targets->push_back(Target{provider, msn, std::move(pin)});
  return true;
}

std::vector<GenericAgent::Target> GenericAgent::tsGetQueryList() {
  XRV_TRACE_FN();
  std::vector<Target> targets;
  if (!isMainNodeRequest()) {
    const char* msn = GetContextInfo()->GetTargetNode();
    XRV_TRACE_DETAIL("Generic Agent <%p> TakeSample for Subnode %s", static_cast<void*>(this), msn);
    addSubnodeTarget(msn, &targets);
    return targets;
  }
  if (meta_->subnodeType() != nullptr && isHistoryRequest()) {
    XRV_TRACE_DETAIL("Generic Agent <%p> TakeSample subnode history request for all subnodes",
                     static_cast<void*>(this));
    const ContextInfo* context = GetContextInfo();
    const int listed = context == nullptr ? 0 : context->GetSubnodeCount();
    for (int i = 0; i < listed; ++i) {
      const char* msn = context->GetSubnode(i);
      if (msn == nullptr) {
        XRV_TRACE_ERROR("GetSubnode() unexpectedly returned NULL, assuming no more subnodes");
        break;
      }
      addSubnodeTarget(msn, &targets);
    }
    if (listed == 0) {
      // The framework named no subnodes: every subnode of the group.
      for (SubnodeProviderPin& pin : getSubnodeManager().pinAllSubnodeQueryClasses(meta_)) {
        UAClientClass* provider = pin.get();
        targets.push_back(Target{provider, provider->getOriginNode(), std::move(pin)});
      }
    }
    return targets;
  }
  UAClientClass* own = meta_->query();
  if (own == nullptr) {
    XRV_TRACE_ERROR("Attribute group %s has no data provider, no rows to send",
                    meta_->getGroupName());
    return targets;
  }
  targets.push_back(Target{own, mainNode_, {}});
  return targets;
}

void GenericAgent::tsCollectData(std::vector<Target>& targets, Collections* collections) {
  XRV_TRACE_FN();
  const bool impatient = impatientCollectorTimeout > 0;
  for (size_t slot = 0; slot < targets.size(); ++slot) {
    Target& target = targets[slot];
    UAClientClass* provider = target.provider;
    const char* group = provider->getAttributeGroup();
    const char* key = orNone(provider->getSubnodeKey());
    bool usePool = impatient && provider->isThreadPoolEligible();
    if (usePool && threadPool == nullptr) {
      XRV_TRACE_ERROR(
          "ERROR: impatientCollectorTimeout is set but threadPool is NULL, can't "
          "submit job");
      usePool = false;
    }
    if (!usePool) {
      XRV_TRACE_DETAIL("Calling collectDataIfNeeded on %s:%s\n", group, key);
      provider->collectDataIfNeeded(provider->getSubnodeKey());
      notifyCollectionDone(provider);
      continue;
    }
    if (!provider->markOnQueue()) {
      XRV_TRACE_DETAIL("%s:%s is on the thread pool queue already, waiting for that collection",
                       group, key);
      target.collection = Target::QUEUED_ELSEWHERE;
      continue;
    }
    if (!provider->isExpired()) {
      provider->setOnQueue(false);
      XRV_TRACE_DETAIL("Cached data for %s:%s is still current, not submitting a job", group, key);
      continue;
    }
    if (collections->board == nullptr) {
      collections->board = std::make_shared<CompletionBoard>(targets.size());
    }
    char id[16];
    snprintf(id, sizeof id, "%08x", jobCounter.fetch_add(1));
    XRV_TRACE_DETAIL("Submitting collectDataIfNeeded request to threadpool on %s:%s\n", group, key);
    target.collection = Target::SUBMITTED;
    threadPool->submitJob(new SampleCollectDataJob(provider, id, collections->board, slot));
  }
}

void GenericAgent::tsSubmitData(std::vector<Target>& targets, Collections* collections) {
  XRV_TRACE_FN();
  using Clock = std::chrono::steady_clock;
  const bool impatient = impatientCollectorTimeout > 0;
  const std::shared_ptr<CompletionBoard>& board = collections->board;
  std::vector<bool> impatientFor(targets.size(), false);
  bool waitFor = false;
  bool pollForeign = false;
  for (const Target& target : targets) {
    waitFor = waitFor || target.collection != Target::NOT_SUBMITTED;
    pollForeign = pollForeign || target.collection == Target::QUEUED_ELSEWHERE;
  }
  if (impatient && waitFor) {
    CompletionBoard noJobs(0);  // for a sample that only waits on jobs of others
    CompletionBoard& waitBoard = board != nullptr ? *board : noJobs;
    XRV::MutexLock lock(waitBoard.mutex);
    const Clock::time_point start = Clock::now();
    const Clock::time_point deadline = start + std::chrono::seconds(impatientCollectorTimeout);
    Clock::time_point nextReport = start;
    for (;;) {
      bool pending = false;
      for (size_t slot = 0; slot < targets.size() && !pending; ++slot) {
        pending = targets[slot].stillCollecting(slot, waitBoard);
      }
      const Clock::time_point now = Clock::now();
      if (!pending || now >= deadline) {
        break;
      }
      if (now >= nextReport) {
        XRV_TRACE_DETAIL(
            "elapsed time <%d>, time remaining until timeout <%d>",
            static_cast<int>(
                std::chrono::duration_cast<std::chrono::milliseconds>(now - start).count()),
            static_cast<int>(
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now).count()));
        nextReport += kWaitStep;
      }
      Clock::time_point wakeAt = std::min(deadline, now + kWaitStep);
      if (pollForeign) {
        wakeAt = std::min(wakeAt, now + kForeignJobPoll);
      }
      waitBoard.changed.wait_until(lock.native(), wakeAt);
    }
    for (size_t slot = 0; slot < targets.size(); ++slot) {
      impatientFor[slot] = targets[slot].stillCollecting(slot, waitBoard);
    }
  }
  for (size_t slot = 0; slot < targets.size(); ++slot) {
    UAClientClass* provider = targets[slot].provider;
    const char* group = provider->getAttributeGroup();
    const char* key = orNone(provider->getSubnodeKey());
    if (impatientFor[slot]) {
      XRV_TRACE_DETAIL("Got impatient: returning older cached data for %s:%s", group, key);
    } else {
      XRV_TRACE_DETAIL("Returning fresh data for %s:%s", group, key);
    }
    provider->sendDataToAFW(this, targets[slot].node.c_str());
    // Kept rows that only a history request wanted are purged at the next merge.
    provider->setPreviousRequestHistorical(isHistoryRequest());
  }
}

void GenericAgent::tsFreeQueryList(std::vector<Target>& targets) {
  XRV_TRACE_FN();
  targets.clear();  // ends the subnode copies' pins
}
