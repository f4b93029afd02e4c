#include "host/TableSampler.h"

#include <memory>
#include <mutex>

#include "framework/Trace.h"

namespace XRV::host {
namespace {

// Keeps the rows of one request.
class RowCollector : public FwRowSink {
 public:
  int acceptRow(GenericAgentBase& /*request*/, const char* row, int length) override {
    if (row == nullptr || length <= 0) {
      return 1;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    rows_.emplace_back(row, static_cast<size_t>(length));
    return 0;
  }

  std::vector<std::string> take() {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::move(rows_);
  }

 private:
  std::mutex mutex_;  // a sample may send from a collection thread
  std::vector<std::string> rows_;
};

constexpr struct {
  FW_REQUEST_TYPE type;
  const char* name;
} kRequestTypes[] = {
    {FW_DEMAND, "DEMAND"},
    {FW_NON_HISTORICAL_SITUATION, "NON_HISTORICAL_SITUATION"},
    {FW_HISTORICAL_SITUATION, "HISTORICAL_SITUATION"},
};

}  // namespace

const char* requestTypeName(FW_REQUEST_TYPE type) {
  for (const auto& known : kRequestTypes) {
    if (known.type == type) {
      return known.name;
    }
  }
  return "DEMAND";
}

bool parseRequestType(const std::string& name, FW_REQUEST_TYPE* type) {
  for (const auto& known : kRequestTypes) {
    if (name == known.name) {
      *type = known.type;
      return true;
    }
  }
  return false;
}

SampleResult sampleTable(TableManager& manager, const SampleRequest& request) {
  XRV_TRACE_FN();
  RequestDetail detail(manager.GetApplicationName(), manager.GetTableName());
  detail.SetRequestType(request.type);
  detail.SetRequestInfo("_REQ_TYPE", requestTypeName(request.type));
  if (!request.filter.empty()) {
    detail.SetRequestInfo("_FILTER", request.filter.c_str());
  }
  detail.SetRequestId(request.requestId.c_str());
  detail.SetSampleInterval(request.interval);
  if (request.parameter) {
    detail.SetParameter(request.parameter->c_str());
  }
  detail.SetCacheOnly(request.cacheOnly);
  RowCollector collector;
  detail.SetRowSink(&collector);

  ContextInfo context(request.node.c_str(), request.history);

  SampleResult result;
  std::unique_ptr<FwRequest> fwRequest(manager.CreateRequest(&detail, &context));
  if (fwRequest == nullptr) {
    XRV_TRACE_ERROR("Table %s refused a %s request", manager.GetTableName(),
                    requestTypeName(request.type));
    return result;
  }
  fwRequest->TakeSampleConstructor();
  fwRequest->TakeSample();
  fwRequest->TakeSampleDestructor();
  fwRequest.reset();
  result.ok = true;
  result.wouldWait = detail.WouldWait();
  result.rows = collector.take();
  XRV_TRACE_DETAIL("Table %s answered with %zu rows", manager.GetTableName(), result.rows.size());
  return result;
}

}  // namespace XRV::host
