#include "SampleCommand.h"

#include <cstring>
#include <memory>
#include <ostream>

#include "SampleHost.h"
#include "SampleOutput.h"
#include "definition/AgentSettings.h"
#include "definition/AttributeGroupMeta.h"
#include "definition/AttributeMeta.h"
#include "definition/DefinitionCheck.h"
#include "framework/Configuration.h"
#include "provider/PerfObject.h"
#include "provider/ResultsManager.h"
#include "provider/UAClientClassList.h"
#include "runtime/GenericAgent.h"
#include "runtime/PerfObjectStatus.h"
#include "runtime/ThreadPoolStatus.h"

namespace {

constexpr char kStatusApplication[] = "ZQM";

UAClientClass* nextProvider(const UAClientClass* provider) {
  return static_cast<UAClientClass*>(provider->getNextElement());
}

// The built-in status groups the definition declares, as start-up makes them (no
// thread pool here).
void addStatusProviders() {
  if (AttributeGroupMeta* meta = findAttributeGroupMeta("Performance_Object_Status")) {
    queryClassList().addClientClass(new PerfObjectStatus(
        kStatusApplication, "Performance_Object_Status", &queryClassList(), meta));
  }
  if (AttributeGroupMeta* meta = findAttributeGroupMeta("Thread_Pool_Status")) {
    queryClassList().addClientClass(
        new ThreadPoolStatus(kStatusApplication, "Thread_Pool_Status", meta, nullptr));
  }
}

// Binds every provider to its group (the first of a group wins) and starts it.
void startProviders() {
  for (UAClientClass* provider = queryClassList().getFirst(); provider != nullptr;
       provider = nextProvider(provider)) {
    AttributeGroupMeta* meta = findAttributeGroupMeta(provider->getAttributeGroup());
    if (meta == nullptr) {
      continue;
    }
    if (meta->query() == nullptr) {
      meta->setQuery(provider);
      provider->setAttributeGroupMeta(meta);
    }
    if (meta->getRequestInfoMap() != nullptr) {
      provider->setThreadPoolEligible(false);
    }
    provider->start();
  }
}

// The groups asked for, by group or table name; all when none is named. False, with
// the reason on `err`, when a name matches no group.
bool chooseGroups(const std::vector<std::string>& names, std::vector<AttributeGroupMeta*>* chosen,
                  std::ostream& err) {
  std::vector<AttributeGroupMeta*> all = attributeGroupsInDefinitionOrder();
  if (names.empty()) {
    *chosen = all;
    return true;
  }
  bool ok = true;
  for (const std::string& name : names) {
    AttributeGroupMeta* found = nullptr;
    for (AttributeGroupMeta* group : all) {
      if (name == group->getGroupName() || name == group->tableName()) {
        found = group;
        break;
      }
    }
    if (found == nullptr) {
      err << "xrvctl: the definition has no attribute group or table named " << name << "; it has:";
      for (const AttributeGroupMeta* group : all) {
        err << " " << group->getGroupName();
      }
      err << "\n";
      ok = false;
    } else {
      chosen->push_back(found);
    }
  }
  return ok;
}

// One demand sample of `group` on the main node, through its table server.
SampledGroup sampleGroup(AttributeGroupMeta& group, SampleHost& host) {
  SampledGroup sampled{group.getGroupName(), group.tableName(), host.originNodeName(), {}, {}, {}};
  for (int i = 0; i < group.noOfColumns(); ++i) {
    sampled.columns.emplace_back(group.attrInfo(i)->name);
    sampled.numeric.push_back(isNumericAttributeType(group.attrInfo(i)->type));
  }
  RequestDetail detail(group.applName(), group.tableName());
  detail.SetRowSink(&host);
  ContextInfo context;
  std::unique_ptr<FwRequest> request(group.getTableManager()->CreateRequest(&detail, &context));
  if (request != nullptr) {
    request->TakeSampleConstructor();
    request->TakeSample();
    request->TakeSampleDestructor();
  }
  std::vector<DecodedColumn> values;
  for (const std::string& row : host.takeRows()) {
    if (decodeRow(group, row.data(), row.size(), &values)) {
      sampled.rows.push_back(values);
    }
  }
  return sampled;
}

// What went wrong in the data source, in the operator's words; "" when nothing did.
std::string problemOf(UAClientClass* provider) {
  auto* results = dynamic_cast<ResultsManager*>(provider);
  if (results == nullptr) {
    return "";
  }
  int code = results->getPerfErrorCode();
  if (code == OBJECT_ACTIVE || code == NO_INSTANCES_RETURNED) {
    return "";
  }
  std::string problem = std::string("the data source reports ") + perfObjectErrorCodeName(code);
  std::string stdErr = results->getCollectionStdErr();
  while (!stdErr.empty() && (stdErr.back() == '\n' || stdErr.back() == '\r')) {
    stdErr.pop_back();
  }
  if (!stdErr.empty()) {
    problem += " (standard error: " + stdErr + ")";
  }
  return problem;
}

}  // namespace

int runSample(const SampleOptions& options, std::ostream& out, std::ostream& err) {
  std::string error;
  if (!loadAgentConfig(&error)) {
    err << "xrvctl: " << error << "\n";
    return 1;
  }
  installPerfObjectStatusHook();
  DefinitionCheck check;
  if (!check.checkFile(options.definition)) {
    const DefinitionProblem& problem = *check.error();
    err << options.definition;
    if (problem.line > 0) {
      err << ":" << problem.line << ":" << problem.column;
    }
    err << ": error: " << problem.message << "\n";
    return 1;
  }
  std::vector<AttributeGroupMeta*> groups;
  if (!chooseGroups(options.groups, &groups, err)) {
    return 1;
  }

  SampleHost host(applicationSettings().nodeType.c_str());
  fwSetHost(&host);
  addStatusProviders();
  startProviders();
  int status = 0;
  std::vector<SampledGroup> sampled;
  for (AttributeGroupMeta* group : groups) {
    if (group->query() == nullptr) {
      err << "xrvctl: attribute group " << group->getGroupName()
          << " has no data source in this definition, not sampled\n";
      status = 1;
      continue;
    }
    std::unique_ptr<TableManager> server(
        newGenericAgent(group->applName(), group->tableName(), group));
    group->setTableManager(server.get());
    sampled.push_back(sampleGroup(*group, host));
    group->setTableManager(nullptr);
    std::string problem = problemOf(group->query());
    if (!problem.empty()) {
      err << "xrvctl: " << group->getGroupName() << ": " << problem << "\n";
    }
  }
  if (options.format == "json") {
    printSampleJson(sampled, out);
  } else if (options.format == "csv") {
    printSampleCsv(sampled, out);
  } else {
    printSampleTable(sampled, out);
  }
  queryClassList().deleteAll();
  fwSetHost(nullptr);
  return status;
}
