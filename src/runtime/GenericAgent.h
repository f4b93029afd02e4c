#pragma once

// The table servers: how the framework's requests on the agent's tables become rows.
//
// Start-up makes one GenericAgentManager per attribute group (newGenericAgent) and
// files it in the group's metadata. For every request the framework opens on the
// table (a demand sample, a situation, a history collection) the manager makes one
// GenericAgent, which the framework drives:
//
//   TakeSampleConstructor   reads the request: its type, interval and, for groups that
//                           receive request information, the items the providers get
//                           (the "_FILTER" text with "PARMA" replaced by the request's
//                           parameter), filed with the providers under the request id;
//   TakeSample (repeated)   finds the providers (the group's own for the main node,
//                           the subnode's copy for a subnode, every subnode's copy for
//                           a history request on a subnode group), has their data
//                           collected when expired (on the pool, waiting at most the
//                           impatient-collector time-out, or right here) and sends
//                           their rows;
//   TakeSampleDestructor    withdraws the request information.
//
// Event rows that providers push go to the framework through the manager's
// TableManager::EventArrived / AddDataToEvent.
//
// Thread-safety: the framework drives one GenericAgent from one thread at a time;
// different requests may run at the same time on different threads. Collections they
// start run on the pool under each provider's own locks.

#include <cstdint>
#include <string>
#include <vector>

#include "framework/FwRequest.h"

class AttributeGroupMeta;
class UAClientClass;

class GenericAgentManager : public TableManager {
 public:
  // `meta` is the group's metadata; it outlives the manager.
  GenericAgentManager(const char* applicationName, const char* tableName, AttributeGroupMeta* meta);

  // A GenericAgent for the request (the caller owns it); null when the manager has no
  // metadata.
  FwRequest* CreateRequest(RequestDetail* detail, ContextInfo* context) override;

  AttributeGroupMeta* getAttributeGroupMeta() const { return attributeGroupMeta_; }

 private:
  AttributeGroupMeta* attributeGroupMeta_;
};

// The table server of one attribute group. Null when `meta` is null.
TableManager* newGenericAgent(const char* applicationName, const char* tableName,
                              AttributeGroupMeta* meta);

class GenericAgent : public GenericAgentBase {
 public:
  // Traces "Starting situation".
  GenericAgent(GenericAgentManager* manager, RequestDetail* detail, ContextInfo* context);
  // Traces "Stopping situation".
  ~GenericAgent() override;

  void TakeSampleConstructor() override;
  void TakeSample() override;
  void TakeSampleDestructor() override;

  int NumColumns() const override;
  bool GetColumnInfo(ColumnInfo* info, int index) const override;

  // Traces `text` with the request, its interval, the table and the node.
  void SitInfo(const char* text);

  // What TakeSampleConstructor made of the request.
  FW_REQUEST_TYPE getSampleType() const { return sampleType_; }
  int64_t getSampleInterval() const { return sampleInterval_; }
  // The request information filed with the providers; empty when the group receives
  // none.
  const std::vector<FwFilter>& getRequestInformation() const { return requestInformation_; }
  bool isActive() const { return active_; }

 private:
  // A provider a sample serves, the node its rows are sent for, and how its
  // collection went.
  struct Target;
  struct Collections;
  // The providers of one sample (tsGetQueryList), handed back with tsFreeQueryList
  // when the lease goes out of scope, on every way out of the function that holds it:
  // a subnode's copy marked in use is never left marked.
  class QueryListLease;

  void ParseRequestInformation();
  // The providers of this sample, subnode copies pinned; taken through a
  // QueryListLease only.
  std::vector<Target> tsGetQueryList();
  void tsCollectData(std::vector<Target>& targets, Collections* collections);
  void tsSubmitData(std::vector<Target>& targets, Collections* collections);
  void tsFreeQueryList(std::vector<Target>& targets);
  // Adds the subnode `msn`'s provider; false when the subnode is not managed.
  bool addSubnodeTarget(const char* msn, std::vector<Target>* targets);
  bool isMainNodeRequest() const;
  bool isHistoryRequest() const;
  // The id request information is filed under (the request's own, else one made
  // for this request).
  const char* requestInfoId() const { return requestInfoId_.c_str(); }

  GenericAgentManager* manager_;
  AttributeGroupMeta* meta_;
  std::string tableName_;
  std::string applicationName_;
  std::string mainNode_;    // the agent's own managed system name
  std::string filterText_;  // the request's filter, serialised for tracing
  FW_REQUEST_TYPE sampleType_ = FW_DEMAND;
  int64_t sampleInterval_ = 0;
  std::vector<FwFilter> requestInformation_;
  std::string requestInfoId_;
  bool receivesRequestInfo_ = false;
  bool active_ = false;
};

// The name of a sample type ("DEMAND", "NON_HISTORICAL_SITUATION",
// "HISTORICAL_SITUATION"); "UNKNOWN" for anything else.
const char* sampleTypeName(FW_REQUEST_TYPE type);
