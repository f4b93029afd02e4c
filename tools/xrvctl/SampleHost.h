#pragma once

// The framework as xrvctl sample plays it: in-process, for one run. It names the main
// node as the agent does ("HOST:NODETYPE"), registers nothing, keeps no audit trail,
// and keeps the rows a request sends so that the command can print them.
//
// Not thread-safe: the command drives one request at a time on its own thread.

#include <string>
#include <vector>

#include "framework/Framework.h"
#include "framework/FwRequest.h"

class SampleHost : public FrameworkHost, public FwRowSink {
 public:
  // `nodeType` goes into the origin node (the agent definition's node type).
  explicit SampleHost(const char* nodeType);

  // The rows sent since the last call, in order; forgets them.
  std::vector<std::string> takeRows();
  const std::string& originNodeName() const { return originNode_; }

  // FwRowSink
  int acceptRow(GenericAgentBase& request, const char* row, int length) override;

  // FrameworkHost
  int run(int argc, char** argv) override;
  void shutdown(int /*mode*/) override {}
  void initBasicServices(const char* /*programName*/) override {}
  void setAffinity(const char* /*affinity*/) override {}
  void setAffinityVersion(int /*version*/) override {}
  void setAffinityFeature(const char* /*feature*/) override {}
  void setNodeType(const char* /*nodeType*/) override {}
  void setProductVersion(const char* /*version*/) override {}
  void registerAgentLoader(FwAgentLoader /*loader*/) override {}
  void registerCommandCallback(const char* /*name*/, FwCommandCallback /*callback*/) override {}
  bool originNode(char* buffer, size_t size) override;
  const char* productName() override { return "xrvctl"; }
  int subnodeRegister(const FwSubnodeRegistration& /*registration*/) override {
    return FW_SUBNODE_OK;
  }
  int subnodeDeregister(const char* /*msn*/) override { return FW_SUBNODE_OK; }
  bool auditAvailable() override { return false; }
  int auditRecord(const FwAuditRecord& /*record*/) override { return -1; }
  void tableManagerCreated(TableManager* /*manager*/) override {}
  void tableManagerDestroyed(TableManager* /*manager*/) override {}
  int eventArrived(TableManager* /*manager*/, const char* /*row*/, int /*length*/,
                   bool /*continuation*/) override {
    return 0;  // a one-shot sample shows tables, not events
  }

 private:
  std::string originNode_;
  std::vector<std::string> rows_;
};
