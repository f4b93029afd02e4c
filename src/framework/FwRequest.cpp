#include "framework/FwRequest.h"

#include "framework/Framework.h"
#include "framework/Trace.h"

RequestDetail::RequestDetail(const char* applicationName, const char* tableName)
    : applicationName_(applicationName == nullptr ? "" : applicationName),
      tableName_(tableName == nullptr ? "" : tableName) {}

void RequestDetail::SetParameter(const char* value) {
  hasParameter_ = value != nullptr;
  parameter_ = value == nullptr ? "" : value;
}

void RequestDetail::AddFilter(const char* name, const char* op, const char* value) {
  filters_.push_back(FwFilter{name == nullptr ? "" : name, op == nullptr ? "" : op,
                              value == nullptr ? "" : value});
}

const char* RequestDetail::GetRequestInfo(const char* name) const {
  if (name == nullptr) {
    return nullptr;
  }
  for (const auto& [itemName, value] : requestInfo_) {
    if (itemName == name) {
      return value.c_str();
    }
  }
  return nullptr;
}

void RequestDetail::SetRequestInfo(const char* name, const char* value) {
  if (name == nullptr) {
    return;
  }
  for (auto& item : requestInfo_) {
    if (item.first == name) {
      item.second = value == nullptr ? "" : value;
      return;
    }
  }
  requestInfo_.emplace_back(name, value == nullptr ? "" : value);
}

ContextInfo::ContextInfo(const char* targetNode, bool history)
    : targetNode_(targetNode == nullptr ? "" : targetNode), history_(history) {}

const char* ContextInfo::GetSubnode(int index) const {
  if (index < 0 || index >= static_cast<int>(subnodes_.size())) {
    return nullptr;
  }
  return subnodes_[static_cast<size_t>(index)].c_str();
}

int GenericAgentBase::AddData(const char* row, int length) {
  XRV_TRACE_FN();
  FwRowSink* sink = GetRequestDetail() == nullptr ? nullptr : GetRequestDetail()->GetRowSink();
  if (sink == nullptr) {
    XRV_TRACE_ERROR("Request on table %s has no row sink, row lost",
                    GetRequestDetail() == nullptr ? "?" : GetRequestDetail()->GetTableName());
    return 1;
  }
  return sink->acceptRow(*this, row, length);
}

bool GenericAgentBase::ColumnIsException(int /*index*/) const { return false; }

bool GenericAgentBase::IsRowException(const char* row, int length) const {
  const FwRowFilter* filter =
      GetRequestDetail() == nullptr ? nullptr : GetRequestDetail()->GetExceptionFilter();
  return filter != nullptr && filter->rejects(*this, row, length);
}

TableManager::TableManager(const char* applicationName, const char* tableName)
    : applicationName_(applicationName == nullptr ? "" : applicationName),
      tableName_(tableName == nullptr ? "" : tableName) {
  XRV_TRACE_FN();
  if (FrameworkHost* host = fwGetHost()) {
    host->tableManagerCreated(this);
  }
}

TableManager::~TableManager() {
  XRV_TRACE_FN();
  if (FrameworkHost* host = fwGetHost()) {
    host->tableManagerDestroyed(this);
  }
}

int TableManager::EventArrived(const char* row, int length) {
  XRV_TRACE_FN();
  return sendEvent(row, length, false);
}

int TableManager::AddDataToEvent(const char* row, int length) {
  XRV_TRACE_FN();
  return sendEvent(row, length, true);
}

int TableManager::sendEvent(const char* row, int length, bool continuation) {
  XRV_TRACE_FN();
  FrameworkHost* host = fwGetHost();
  if (host == nullptr || host->eventArrived(this, row, length, continuation) != 0) {
    XRV_TRACE_ERROR("Event row for table %s lost", tableName_.c_str());
    return 1;
  }
  return 0;
}

int sendRowToAFW(GenericAgentBase* agent, const char* row, int length) {
  XRV_TRACE_FN();
  if (agent == nullptr || row == nullptr || length <= 0) {
    return 1;
  }
  if (agent->IsRowException(row, length)) {
    XRV_TRACE_DETAIL("Row rejected by the exception filter");
    return 0;
  }
  return agent->AddData(row, length) == 0 ? 0 : 1;
}
