// The standalone host over real HTTP: a small in-process table server stands in for
// the agent, the host runs on a thread of its own, and the tests talk to it with an
// HTTP client as an operator's tools would.

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <httplib.h>
#include <nlohmann/json.hpp>

#include "definition/AttributeGroupMeta.h"
#include "definition/AttributeMeta.h"
#include "foundation/List.h"
#include "framework/Configuration.h"
#include "framework/Framework.h"
#include "framework/FwRequest.h"
#include "host/StandaloneHost.h"
#include "support/Recorded.h"

namespace XRV::host {
namespace {

using nlohmann::json;

// Row layout of every test table: ORIGINNODE, Name (text 16), Count (32-bit), Big
// (64-bit).
constexpr int kNameOffset = 32;
constexpr int kCountOffset = 48;
constexpr int kBigOffset = 52;
constexpr int kRowSize = 60;

std::string packRow(const std::string& node, const std::string& name, int32_t count, int64_t big) {
  std::string row(kRowSize, '\0');
  memcpy(row.data(), node.data(), std::min<size_t>(node.size(), 32));
  memcpy(row.data() + kNameOffset, name.data(), std::min<size_t>(name.size(), 16));
  memcpy(row.data() + kCountOffset, &count, sizeof count);
  memcpy(row.data() + kBigOffset, &big, sizeof big);
  return row;
}

void defineGroup(const char* name, const char* table, const char* subnodeType, bool pure) {
  auto* group = new AttributeGroupMeta("XRV", table);
  group->setGroupName(name);
  group->setRowSize(kRowSize);
  List attributes;
  attributes.add(new AttributeMeta("ORIGINNODE", nullptr, 1, 32, 0));
  attributes.add(new AttributeMeta("Name", nullptr, 2, 16, kNameOffset));
  attributes.add(new AttributeMeta("Count", nullptr, 4, 4, kCountOffset));
  attributes.add(new AttributeMeta("Big", nullptr, 9, 8, kBigOffset));
  group->updateColumns(attributes);
  group->setSubnodeType(subnodeType);
  group->setPureEventBased(pure);
  addAttributeGroupMeta(name, group);
}

// What a request brought to the table server.
struct Seen {
  FW_REQUEST_TYPE type;
  std::string node;
  bool history;
  std::string parameter;
  bool hasParameter;
  int64_t interval;
  std::string requestId;
  std::string reqTypeItem;
  std::string filterItem;
};

class TestManager : public TableManager {
 public:
  using TableManager::TableManager;
  FwRequest* CreateRequest(RequestDetail* detail, ContextInfo* context) override;

  XRV::testing::Recorded<Seen> seen;
  std::atomic<int> rows{2};
};

// Sends `rows` rows named row0, row1, ... (or after the request's parameter).
class TestRequest : public GenericAgentBase {
 public:
  TestRequest(TestManager* manager, RequestDetail* detail, ContextInfo* context)
      : GenericAgentBase(detail, context), manager_(manager) {}

  void TakeSample() override {
    RequestDetail* detail = GetRequestDetail();
    ContextInfo* context = GetContextInfo();
    const char* parameter = detail->GetParameter();
    const char* reqType = detail->GetRequestInfo("_REQ_TYPE");
    const char* filter = detail->GetRequestInfo("_FILTER");
    manager_->seen.add(Seen{detail->GetRequestType(), context->GetTargetNode(), context->IsHistory(),
                        parameter == nullptr ? "" : parameter, parameter != nullptr,
                        detail->GetSampleInterval(), detail->GetRequestId(),
                        reqType == nullptr ? "" : reqType, filter == nullptr ? "" : filter});
    const std::string node = context->IsMainNode() ? "main:XR" : context->GetTargetNode();
    const std::string stem = parameter == nullptr ? "row" : parameter;
    for (int i = 0; i < manager_->rows; ++i) {
      const std::string row =
          packRow(node, stem + std::to_string(i), i - 1, (int64_t{1} << 40) + i);
      AddData(row.data(), static_cast<int>(row.size()));
    }
  }
  int NumColumns() const override { return 4; }
  bool GetColumnInfo(ColumnInfo* /*info*/, int /*index*/) const override { return false; }

 private:
  TestManager* manager_;
};

FwRequest* TestManager::CreateRequest(RequestDetail* detail, ContextInfo* context) {
  return new TestRequest(this, detail, context);
}

TestManager* rowsManager = nullptr;
TestManager* subnodeManager = nullptr;
TestManager* eventsManager = nullptr;
std::atomic<int> terminateCalls{0};

int testLoader() {
  rowsManager = new TestManager("XRV", "XRVROWS");
  subnodeManager = new TestManager("XRV", "XRVSUBS");
  eventsManager = new TestManager("XRV", "XRVEVTS");
  return 0;
}

void testTerminate() { ++terminateCalls; }

class StandaloneHostTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setConfigurationProperty("XRV_HTTP_LISTEN", "127.0.0.1:0");
    setConfigurationProperty("XRV_EVENT_BUFFER", "3");
    setConfigurationProperty("XRV_HTTP_THREADS", "4");
    if (adminToken() != nullptr) {
      setConfigurationProperty("XRV_ADMIN_TOKEN", adminToken());
    }
    defineGroup("Rows", "XRVROWS", nullptr, false);
    defineGroup("Subnode_Rows", "XRVSUBS", "LNX", false);
    defineGroup("Events", "XRVEVTS", nullptr, true);
    defineGroup("No_Source", "XRVNONE", nullptr, false);
    host_ = std::make_unique<StandaloneHost>();
    fwSetHost(host_.get());
    host_->setTerminateHook(testTerminate);
    terminateCalls = 0;
    fwSetNodeType("XR");
    fwSetProductVersion("01.00.00");
    fwSetAffinity("%XRV.XRV");
    setConfigurationProperty("CTAFW_HOSTNAME", "main");
    char origin[64];
    ASSERT_TRUE(fwGetOriginNode(origin, sizeof origin));
    ASSERT_STREQ(origin, "main:XR");
    fwRegisterAgentLoader(testLoader);
    runner_ = std::thread([this] { runStatus_ = host_->run(0, nullptr); });
    ASSERT_TRUE(host_->waitUntilServing(std::chrono::seconds(10)));
    client_ = std::make_unique<httplib::Client>("127.0.0.1", host_->httpPort());
    client_->set_read_timeout(10, 0);
  }

  void TearDown() override {
    if (runner_.joinable()) {
      host_->requestStop();
      runner_.join();
    }
    client_.reset();
    delete rowsManager;
    delete subnodeManager;
    delete eventsManager;
    rowsManager = subnodeManager = eventsManager = nullptr;
    fwSetHost(nullptr);
    host_.reset();
    clearMetaMap();
    resetConfigurationForTesting();
  }

  virtual const char* adminToken() const { return nullptr; }

  // GET `path`: the status and the parsed body (null when it is not JSON).
  std::pair<int, json> get(const std::string& path) {
    httplib::Result result = client_->Get(path);
    if (!result) {
      ADD_FAILURE() << "no answer to " << path;
      return {0, json()};
    }
    EXPECT_EQ(result->get_header_value("Content-Type"), "application/json") << path;
    return {result->status, json::parse(result->body, nullptr, false)};
  }

  std::unique_ptr<StandaloneHost> host_;
  std::thread runner_;
  int runStatus_ = -1;
  std::unique_ptr<httplib::Client> client_;
};

TEST_F(StandaloneHostTest, ListsEveryGroupWithItsColumns) {
  auto [status, tables] = get("/api/v1/tables");
  ASSERT_EQ(status, 200);
  ASSERT_EQ(tables.size(), 4u);
  EXPECT_EQ(tables[0]["group"], "Rows");
  EXPECT_EQ(tables[0]["table"], "XRVROWS");
  EXPECT_EQ(tables[0]["pure_event"], false);
  EXPECT_TRUE(tables[0]["subnode_type"].is_null());
  EXPECT_EQ(tables[0]["columns"], json::parse(R"([{"name":"ORIGINNODE","type":1,"size":32},
                            {"name":"Name","type":2,"size":16},
                            {"name":"Count","type":4,"size":4},
                            {"name":"Big","type":9,"size":8}])"));
  EXPECT_EQ(tables[1]["subnode_type"], "LNX");
  EXPECT_EQ(tables[2]["pure_event"], true);
  EXPECT_EQ(get("/healthz").second["status"], "ok");
}

TEST_F(StandaloneHostTest, SamplesATableIntoDecodedRows) {
  auto [status, answer] = get("/api/v1/tables/Rows");
  ASSERT_EQ(status, 200) << answer;
  EXPECT_EQ(answer["group"], "Rows");
  EXPECT_EQ(answer["node"], "main:XR");
  EXPECT_EQ(answer["rows"], json::parse(R"([
      {"ORIGINNODE":"main:XR","Name":"row0","Count":-1,"Big":1099511627776},
      {"ORIGINNODE":"main:XR","Name":"row1","Count":0,"Big":1099511627777}])"));
  const std::vector<Seen> seen = rowsManager->seen.get();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].type, FW_DEMAND);
  EXPECT_EQ(seen[0].reqTypeItem, "DEMAND");
  EXPECT_EQ(seen[0].node, "");
  EXPECT_FALSE(seen[0].hasParameter);
  EXPECT_EQ(seen[0].interval, 0);
  EXPECT_EQ(seen[0].filterItem, "");

  rowsManager->rows = 0;
  EXPECT_EQ(get("/api/v1/tables/Rows").second["rows"], json::array());
}

TEST_F(StandaloneHostTest, PassesTheRequestOnToTheTableServer) {
  auto [status, answer] =
      get("/api/v1/tables/Rows?type=NON_HISTORICAL_SITUATION&parm=disk%20one&interval=30&request=R7"
          "&filter=Name%3D%27PARMA%27");
  ASSERT_EQ(status, 200) << answer;
  EXPECT_EQ(answer["rows"][1]["Name"], "disk one1");
  const Seen seen = rowsManager->seen.get().at(0);
  EXPECT_EQ(seen.type, FW_NON_HISTORICAL_SITUATION);
  EXPECT_EQ(seen.reqTypeItem, "NON_HISTORICAL_SITUATION");
  EXPECT_EQ(seen.parameter, "disk one");
  EXPECT_EQ(seen.interval, 30);
  EXPECT_EQ(seen.requestId, "R7");
  EXPECT_EQ(seen.filterItem, "Name='PARMA'");  // the table server replaces PARMA
  // The main node named explicitly is the main node.
  EXPECT_EQ(get("/api/v1/tables/Rows?node=main:XR").first, 200);
  EXPECT_EQ(rowsManager->seen.get().at(1).node, "");
}

TEST_F(StandaloneHostTest, AimsRequestsAtRegisteredSubnodes) {
  const char* features[] = {"AFF_FEAT_DM_PARITY"};
  ASSERT_EQ(fwSubnodeRegister(FwSubnodeRegistration{"XR:web01:LNX", "%XR", "LNX", "01.00", features,
                                                    1, "Linux", "127.0.0.1", "box"}),
            FW_SUBNODE_OK);
  ASSERT_EQ(fwSubnodeRegister(FwSubnodeRegistration{"XR:web02:LNX", "%XR", "LNX", "01.00", features,
                                                    1, "Linux", "127.0.0.1", "box"}),
            FW_SUBNODE_OK);
  ASSERT_EQ(fwSubnodeDeregister("XR:web02:LNX"), FW_SUBNODE_OK);
  EXPECT_EQ(fwSubnodeDeregister("XR:never:LNX"), FW_SUBNODE_FAILED);

  auto [status, nodes] = get("/api/v1/nodes");
  ASSERT_EQ(status, 200);
  EXPECT_EQ(nodes, json::parse(R"([
      {"msn":"main:XR","type":"XR","affinity":"%XRV.XRV","version":"01.00.00","online":true,"main":true},
      {"msn":"XR:web01:LNX","type":"LNX","affinity":"%XR","version":"01.00","online":true,"main":false},
      {"msn":"XR:web02:LNX","type":"LNX","affinity":"%XR","version":"01.00","online":false,"main":false}])"));

  auto [subStatus, answer] = get("/api/v1/tables/Subnode_Rows?node=XR:web01:LNX");
  ASSERT_EQ(subStatus, 200) << answer;
  EXPECT_EQ(answer["node"], "XR:web01:LNX");
  EXPECT_EQ(answer["rows"][0]["ORIGINNODE"], "XR:web01:LNX");
  EXPECT_EQ(subnodeManager->seen.get().at(0).node, "XR:web01:LNX");
  EXPECT_FALSE(subnodeManager->seen.get().at(0).history);

  // A history request without a node covers every subnode.
  auto [historyStatus, history] = get("/api/v1/tables/Subnode_Rows?type=HISTORICAL_SITUATION");
  ASSERT_EQ(historyStatus, 200);
  EXPECT_TRUE(history["node"].is_null());
  EXPECT_TRUE(subnodeManager->seen.get().at(1).history);
  EXPECT_EQ(subnodeManager->seen.get().at(1).node, "");

  // A group of the main node is not served on a subnode.
  auto [wrongStatus, wrong] = get("/api/v1/tables/Rows?node=XR:web01:LNX");
  EXPECT_EQ(wrongStatus, 404);
  EXPECT_NE(wrong["error"].get<std::string>().find("not served on node"), std::string::npos);
}

TEST_F(StandaloneHostTest, RefusesBadRequestsWithJsonErrors) {
  struct Case {
    const char* path;
    int status;
    const char* error;  // part of the error text
  } cases[] = {
      {"/api/v1/tables/Unknown", 404, "unknown attribute group: Unknown"},
      {"/api/v1/tables/No_Source", 404, "has no data source"},
      {"/api/v1/tables/Rows?node=XR:nobody:LNX", 404, "unknown node: XR:nobody:LNX"},
      {"/api/v1/tables/Rows?type=demand", 400, "type must be"},
      {"/api/v1/tables/Rows?interval=soon", 400, "interval must be"},
      {"/api/v1/tables/Rows?interval=-5", 400, "interval must be"},
      {"/api/v1/tables/Rows?interval=99999999999999999999999", 400, "interval must be"},
      {"/api/v1/tables/Rows?request=", 400, "request must be"},
      {"/api/v1/tables/Rows?nod=x", 400, "unknown query parameter: nod"},
      {"/api/v1/tables/Rows?parm=a&parm=b", 400, "more than once: parm"},
      {"/api/v1/tables/Rows/extra", 404, "not found"},
      {"/api/v1/events?group=Nope", 404, "unknown attribute group"},
      {"/api/v1/events?since=-1", 400, "since must be"},
      {"/api/v1/events?limit=0", 400, "limit must be"},
      {"/api/v1/events?limit=4", 400, "limit must be a number from 1 to 3"},
      {"/api/v1/nothing", 404, "not found"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    auto [status, body] = get(c.path);
    EXPECT_EQ(status, c.status);
    ASSERT_TRUE(body.is_object()) << body;
    EXPECT_NE(body["error"].get<std::string>().find(c.error), std::string::npos) << body;
  }
  EXPECT_TRUE(rowsManager->seen.get().empty());
}

TEST_F(StandaloneHostTest, KeepsEventsInItsRing) {
  for (int i = 0; i < 5; ++i) {
    const std::string row = packRow("main:XR", "event" + std::to_string(i), i, 0);
    EXPECT_EQ(eventsManager->EventArrived(row.data(), static_cast<int>(row.size())), 0);
  }
  const std::string continued = packRow("main:XR", "more", 9, 0);
  EXPECT_EQ(eventsManager->AddDataToEvent(continued.data(), static_cast<int>(continued.size())), 0);
  EXPECT_EQ(eventsManager->EventArrived("short", 5), 1);  // not a row of the table

  auto [status, page] = get("/api/v1/events?group=Events&since=2");
  ASSERT_EQ(status, 200) << page;
  EXPECT_EQ(page["dropped"], 2);  // 2 and 3: the ring keeps 3
  EXPECT_EQ(page["next"], 7);
  ASSERT_EQ(page["events"].size(), 3u);
  const json& first = page["events"][0];
  EXPECT_EQ(first["seq"], 4);
  EXPECT_EQ(first["group"], "Events");
  EXPECT_EQ(first["node"], "main:XR");
  EXPECT_EQ(first["row"]["Name"], "event3");
  EXPECT_FALSE(first.contains("continuation"));
  const std::string time = first["time"];
  EXPECT_EQ(time.size(), 24u) << time;
  EXPECT_EQ(time.back(), 'Z');
  EXPECT_EQ(page["events"][2]["continuation"], true);
  EXPECT_EQ(page["events"][2]["row"]["Name"], "more");

  EXPECT_EQ(get("/api/v1/events?since=7").second["events"].size(), 0u);
  EXPECT_EQ(get("/api/v1/events?group=Rows").second["events"].size(), 0u);
}

TEST_F(StandaloneHostTest, ShowsAuditRecords) {
  EXPECT_TRUE(fwAuditAvailable());
  ASSERT_EQ(fwAuditRecord(FwAuditRecord{"QBXAgent",
                                        "The agent has successfully completed startup "
                                        "processing.",
                                        "Start-up", "Start", "XRV9000I", fwGetProductName(), 36,
                                        6000, "XRV"}),
            0);
  auto [status, records] = get("/api/v1/audit");
  ASSERT_EQ(status, 200);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0]["message_id"], "XRV9000I");
  EXPECT_EQ(records[0]["text"], "The agent has successfully completed startup processing.");
  EXPECT_EQ(records[0]["class"], 36);
  EXPECT_EQ(records[0]["application"], "XRV");
}

TEST_F(StandaloneHostTest, ExposesNumericColumnsAsMetrics) {
  httplib::Result result = client_->Get("/metrics");
  ASSERT_TRUE(result);
  EXPECT_EQ(result->status, 200);
  EXPECT_NE(result->body.find("# TYPE xrv_Rows_Count gauge\n"
                              "xrv_Rows_Count{node=\"main:XR\",Name=\"row0\"} -1\n"
                              "xrv_Rows_Count{node=\"main:XR\",Name=\"row1\"} 0\n"),
            std::string::npos)
      << result->body;
  EXPECT_NE(result->body.find("xrv_Rows_Big{node=\"main:XR\",Name=\"row1\"} 1099511627777\n"),
            std::string::npos);
  EXPECT_EQ(result->body.find("xrv_Events"), std::string::npos);  // event groups are not sampled
}

TEST_F(StandaloneHostTest, ShutdownIsRefusedWithoutAConfiguredToken) {
  httplib::Headers headers{{"Authorization", "Bearer anything"}};
  httplib::Result result = client_->Post("/api/v1/shutdown", headers, "", "text/plain");
  ASSERT_TRUE(result);
  EXPECT_EQ(result->status, 403);
  EXPECT_EQ(get("/healthz").first, 200);
  EXPECT_EQ(terminateCalls, 0);
}

class StandaloneHostWithTokenTest : public StandaloneHostTest {
 protected:
  const char* adminToken() const override { return "s3cret"; }
};

TEST_F(StandaloneHostWithTokenTest, ShutsDownInOrderOnlyWithTheToken) {
  for (const char* authorization :
       {"", "Bearer", "Bearer s3cre", "Bearer s3cret2", "Basic s3cret", "bearer s3cret"}) {
    SCOPED_TRACE(authorization);
    httplib::Headers headers;
    if (*authorization != '\0') {
      headers.emplace("Authorization", authorization);
    }
    httplib::Result result = client_->Post("/api/v1/shutdown", headers, "", "text/plain");
    ASSERT_TRUE(result);
    EXPECT_EQ(result->status, 401);
    EXPECT_EQ(result->get_header_value("WWW-Authenticate"), "Bearer");
  }
  httplib::Result wrongMethod = client_->Get("/api/v1/shutdown");
  EXPECT_EQ(wrongMethod->status, 405);  // POST only
  EXPECT_EQ(wrongMethod->get_header_value("Allow"), "POST");
  EXPECT_EQ(get("/healthz").first, 200);

  httplib::Result result = client_->Post(
      "/api/v1/shutdown", httplib::Headers{{"Authorization", "Bearer s3cret"}}, "", "text/plain");
  ASSERT_TRUE(result);
  EXPECT_EQ(result->status, 202);
  EXPECT_EQ(json::parse(result->body)["status"], "shutting down");
  runner_.join();
  EXPECT_EQ(runStatus_, 0);
  EXPECT_EQ(terminateCalls, 1);
  EXPECT_FALSE(client_->Get("/healthz"));  // no longer serving
}

TEST(StandaloneHostStart, FailsWhenItCannotListen) {
  // A port that is taken.
  const int sock = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(bind(sock, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(sock, 1), 0);
  socklen_t length = sizeof address;
  getsockname(sock, reinterpret_cast<sockaddr*>(&address), &length);
  const std::string taken = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));

  for (const std::string& listenOn : {taken, std::string("127.0.0.1"), std::string("[::1")}) {
    SCOPED_TRACE(listenOn);
    setConfigurationProperty("XRV_HTTP_LISTEN", listenOn.c_str());
    StandaloneHost host;
    bool loaded = false;
    static bool* loadedFlag;
    loadedFlag = &loaded;
    host.registerAgentLoader([] {
      *loadedFlag = true;
      return 0;
    });
    EXPECT_EQ(host.run(0, nullptr), 1);
    EXPECT_TRUE(host.startFailed());
    EXPECT_FALSE(loaded);  // nothing of the agent is started
  }
  close(sock);
  resetConfigurationForTesting();
}

}  // namespace
}  // namespace XRV::host
