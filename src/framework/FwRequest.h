#pragma once

// The framework's row protocol.
//
// For every table the agent serves it creates one TableManager. For every request
// the framework opens on that table (a demand sample, a situation, a history
// collection) the framework describes the request in a RequestDetail and a
// ContextInfo and asks the manager to CreateRequest; the request object it gets back
// (a GenericAgentBase) is driven through TakeSampleConstructor, TakeSample (once per
// sample) and TakeSampleDestructor, and hands its packed rows back with AddData.
// Rows that arise on their own (events) go through TableManager::EventArrived.
//
// A row is the table's fixed-size binary record: the layout of the columns comes
// from the agent definition and is reported by NumColumns / GetColumnInfo.

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

class GenericAgentBase;

enum FW_REQUEST_TYPE {
  FW_DEMAND = 0,
  FW_NON_HISTORICAL_SITUATION = 1,
  FW_HISTORICAL_SITUATION = 2,
};

// One column of a table row.
struct ColumnInfo {
  const char* name;
  int type;    // attribute type code of the definition (1 and 2 are text)
  int size;    // bytes
  int offset;  // bytes from the start of the row
};

// One condition of a request's filter, as the framework passes it on.
struct FwFilter {
  std::string name;
  std::string op;
  std::string value;
};

// Where the rows of a request go. Implemented by the framework host.
class FwRowSink {
 public:
  virtual ~FwRowSink() = default;
  // Returns 0 when the row was taken, non-zero when it was lost.
  virtual int acceptRow(GenericAgentBase& request, const char* row, int length) = 0;
};

// A framework-side filter that rejects rows before they are sent (exception
// filtering). Optional.
class FwRowFilter {
 public:
  virtual ~FwRowFilter() = default;
  virtual bool rejects(const GenericAgentBase& request, const char* row, int length) const = 0;
};

// What the framework asks for. Filled by the host, read by the agent.
class RequestDetail {
 public:
  RequestDetail(const char* applicationName, const char* tableName);

  const char* GetApplicationName() const { return applicationName_.c_str(); }
  const char* GetTableName() const { return tableName_.c_str(); }

  FW_REQUEST_TYPE GetRequestType() const { return requestType_; }
  void SetRequestType(FW_REQUEST_TYPE type) { requestType_ = type; }
  // The request's identifier (its "started" id); empty when the request has none.
  const char* GetRequestId() const { return requestId_.c_str(); }
  void SetRequestId(const char* id) { requestId_ = id == nullptr ? "" : id; }
  // Sampling interval in seconds; 0 when the request has none.
  int64_t GetSampleInterval() const { return sampleInterval_; }
  void SetSampleInterval(int64_t seconds) { sampleInterval_ = seconds; }
  // The request's parameter value (what replaces "PARMA" in request filters); null
  // when none was given.
  const char* GetParameter() const { return hasParameter_ ? parameter_.c_str() : nullptr; }
  void SetParameter(const char* value);

  const std::vector<FwFilter>& GetFilters() const { return filters_; }
  void AddFilter(const char* name, const char* op, const char* value);

  // Request information items ("_REQ_TYPE", "_FILTER", ...): the value, or null.
  const char* GetRequestInfo(const char* name) const;
  void SetRequestInfo(const char* name, const char* value);
  const std::vector<std::pair<std::string, std::string>>& GetRequestInfoItems() const {
    return requestInfo_;
  }

  FwRowSink* GetRowSink() const { return rowSink_; }
  void SetRowSink(FwRowSink* sink) { rowSink_ = sink; }
  const FwRowFilter* GetExceptionFilter() const { return exceptionFilter_; }
  void SetExceptionFilter(const FwRowFilter* filter) { exceptionFilter_ = filter; }

  // A request that must not wait for a collection (asked from an event loop): the
  // agent answers it from current cached rows or, when a collection is due, sends
  // nothing and marks it (WouldWait) for the host to ask again where it may wait.
  bool IsCacheOnly() const { return cacheOnly_; }
  void SetCacheOnly(bool only) { cacheOnly_ = only; }
  bool WouldWait() const { return wouldWait_; }
  void SetWouldWait() { wouldWait_ = true; }

 private:
  std::string applicationName_;
  std::string tableName_;
  FW_REQUEST_TYPE requestType_ = FW_DEMAND;
  std::string requestId_;
  int64_t sampleInterval_ = 0;
  bool hasParameter_ = false;
  std::string parameter_;
  std::vector<FwFilter> filters_;
  std::vector<std::pair<std::string, std::string>> requestInfo_;
  FwRowSink* rowSink_ = nullptr;
  const FwRowFilter* exceptionFilter_ = nullptr;
  bool cacheOnly_ = false;
  bool wouldWait_ = false;
};

// Where the request is aimed: the main node, one subnode, or (history) every subnode.
class ContextInfo {
 public:
  ContextInfo() = default;
  // `targetNode` null or empty: the agent's main node.
  explicit ContextInfo(const char* targetNode, bool history = false);

  const char* GetTargetNode() const { return targetNode_.c_str(); }
  bool IsMainNode() const { return targetNode_.empty(); }
  bool IsHistory() const { return history_; }

  // The subnodes a history request covers: the index-th MSN, null past the end.
  const char* GetSubnode(int index) const;
  int GetSubnodeCount() const { return static_cast<int>(subnodes_.size()); }
  void AddSubnode(const char* msn) { subnodes_.emplace_back(msn == nullptr ? "" : msn); }

 private:
  std::string targetNode_;
  bool history_ = false;
  std::vector<std::string> subnodes_;
};

// The framework's request. The host owns it once CreateRequest has returned it.
class FwRequest {
 public:
  FwRequest(RequestDetail* detail, ContextInfo* context) : detail_(detail), context_(context) {}
  virtual ~FwRequest() = default;
  FwRequest(const FwRequest&) = delete;
  FwRequest& operator=(const FwRequest&) = delete;

  virtual void TakeSampleConstructor() {}
  virtual void TakeSample() = 0;
  virtual void TakeSampleDestructor() {}

  RequestDetail* GetRequestDetail() const { return detail_; }
  ContextInfo* GetContextInfo() const { return context_; }

 private:
  RequestDetail* detail_;
  ContextInfo* context_;
};

// The row interface of a request towards the framework.
class GenericAgentBase : public FwRequest {
 public:
  using FwRequest::FwRequest;

  // Hands one packed row to the framework. 0 when taken; non-zero when lost (no row
  // sink, or the sink refused it).
  virtual int AddData(const char* row, int length);
  virtual int NumColumns() const = 0;
  // Fills `info` for column `index`; false when there is no such column.
  virtual bool GetColumnInfo(ColumnInfo* info, int index) const = 0;
  // True when the framework filters on this column itself.
  virtual bool ColumnIsException(int index) const;
  // True when the framework's exception filter rejects the row (it is then not sent).
  virtual bool IsRowException(const char* row, int length) const;
};

// A table server: one per table of the agent. Announces itself to the framework host
// on construction and withdraws on destruction.
class TableManager {
 public:
  TableManager(const char* applicationName, const char* tableName);
  virtual ~TableManager();
  TableManager(const TableManager&) = delete;
  TableManager& operator=(const TableManager&) = delete;

  // Creates the request object for a new request on this table; null refuses it.
  virtual FwRequest* CreateRequest(RequestDetail* detail, ContextInfo* context) = 0;

  // An event row for this table. 0 when the framework took it, 1 when it was lost.
  int EventArrived(const char* row, int length);
  // A further row of the event that the last EventArrived started.
  int AddDataToEvent(const char* row, int length);

  const char* GetApplicationName() const { return applicationName_.c_str(); }
  const char* GetTableName() const { return tableName_.c_str(); }

 private:
  int sendEvent(const char* row, int length, bool continuation);

  std::string applicationName_;
  std::string tableName_;
};

// Sends one packed row of a request: 0 on success (a row rejected by the exception
// filter counts as handled), 1 on failure.
int sendRowToAFW(GenericAgentBase* agent, const char* row, int length);
