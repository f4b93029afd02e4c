#include "framework/FwRequest.h"

#include <gtest/gtest.h>


#include "support/FrameworkDouble.h"

namespace {

using XRV::testing::FrameworkDouble;

// A request that sends the rows it was given on every sample.
class RowRequest : public GenericAgentBase {
 public:
  RowRequest(RequestDetail* detail, ContextInfo* context, std::vector<std::string> rows)
      : GenericAgentBase(detail, context), rows_(std::move(rows)) {}
  void TakeSample() override {
    for (const std::string& row : rows_) {
      results.push_back(sendRowToAFW(this, row.data(), static_cast<int>(row.size())));
    }
  }
  int NumColumns() const override { return 1; }
  bool GetColumnInfo(ColumnInfo* info, int index) const override {
    if (index != 0) {
      return false;
    }
    *info = ColumnInfo{"ORIGINNODE", 1, 32, 0};
    return true;
  }
  std::vector<int> results;

 private:
  std::vector<std::string> rows_;
};

class RowTable : public TableManager {
 public:
  RowTable(const char* table, std::vector<std::string> rows)
      : TableManager("XRV", table), rows_(std::move(rows)) {}
  FwRequest* CreateRequest(RequestDetail* detail, ContextInfo* context) override {
    last = new RowRequest(detail, context, rows_);
    return last;
  }
  RowRequest* last = nullptr;

 private:
  std::vector<std::string> rows_;
};

// Rejects rows that start with "x".
class StartsWithX : public FwRowFilter {
 public:
  bool rejects(const GenericAgentBase&, const char* row, int length) const override {
    return length > 0 && row[0] == 'x';
  }
};

TEST(FwRequest, RowsReachTheSinkUnlessTheExceptionFilterRejectsThem) {
  FrameworkDouble framework;
  RowTable table("XRVDISK", {"row-1", "xrow", "row-3"});
  RequestDetail detail("XRV", "XRVDISK");
  StartsWithX filter;
  detail.SetExceptionFilter(&filter);
  ContextInfo context;
  std::vector<std::string> rows = framework.sample("XRVDISK", detail, context, 2);
  EXPECT_EQ(rows, (std::vector<std::string>{"row-1", "row-3", "row-1", "row-3"}));
}

TEST(FwRequest, SendRowReportsFailure) {
  FrameworkDouble framework;
  RequestDetail detail("XRV", "T");
  ContextInfo context;
  RowRequest request(&detail, &context, {"a", "b"});
  EXPECT_EQ(sendRowToAFW(nullptr, "a", 1), 1);
  EXPECT_EQ(sendRowToAFW(&request, "a", 0), 1);
  EXPECT_EQ(sendRowToAFW(&request, "a", 1), 1) << "no row sink: the row is lost";
  detail.SetRowSink(&framework);
  EXPECT_EQ(sendRowToAFW(&request, "a", 1), 0);
  framework.setRowResult(3);
  EXPECT_EQ(sendRowToAFW(&request, "a", 1), 1);
  EXPECT_EQ(framework.rows().size(), 2u);
}

TEST(FwRequest, TableManagersAnnounceThemselvesAndSendEvents) {
  FrameworkDouble framework;
  {
    RowTable table("XRVEVENT", {});
    ASSERT_EQ(framework.findTableManager("XRVEVENT"), &table);
    EXPECT_EQ(table.EventArrived("e1", 2), 0);
    EXPECT_EQ(table.AddDataToEvent("e2", 2), 0);
    framework.setEventResult(1);
    EXPECT_EQ(table.EventArrived("e3", 2), 1);
  }
  EXPECT_TRUE(framework.tableManagers().empty());
  std::vector<FrameworkDouble::Event> events = framework.events();
  ASSERT_EQ(events.size(), 3u);
  EXPECT_EQ(events[0].table, "XRVEVENT");
  EXPECT_EQ(events[0].bytes, "e1");
  EXPECT_FALSE(events[0].continuation);
  EXPECT_TRUE(events[1].continuation);
}

TEST(FwRequest, EventsWithoutAHostAreLost) {
  RowTable table("XRVLOST", {});
  EXPECT_EQ(table.EventArrived("e", 1), 1);
  EXPECT_EQ(table.AddDataToEvent("e", 1), 1);
}

}  // namespace
