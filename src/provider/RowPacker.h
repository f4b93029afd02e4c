#pragma once

// RowPacker: turns a provider's rows into the framework's fixed-size row buffers.
//
// A packed row is the origin node, then the timestamp and instance-name columns when
// the provider's rows have them, then one column per shown attribute in definition
// order, each value written by its representation (RowPacking.cpp).
//
// Contract:
// - It holds the row shape only: which optional columns the rows have, whether a
//   row's metric count is checked, and whether byte strings are UTF-8 already. The
//   data source sets the shape before its first collection (a subnode copy takes its
//   source's); it is read without a lock afterwards.
// - It keeps no rows and takes no lock: the caller holds the lock of the row it packs
//   until the row is packed (the store's active lock for a request, the pure-event
//   cache's lock for an event). A packed buffer is the caller's and outlives the row.
// - Called by the provider: sendDataToAFW for every active row of a request, and the
//   event path (sendEventData, sendEventDataToAFW, sendSummaryEvents). The provider
//   passes itself: its metrics, group metadata and display-hint hook are used.

#include <vector>

class AttributeMeta;
class Metric;
class ResultInstance;
class ResultMetric;
class ResultsManager;

// The optional columns and checks of a provider's rows (all off by default).
struct RowShape {
  bool timestampColumn = false;     // a timestamp column after the origin node
  bool instanceNameColumn = false;  // the row's instance name as a column
  bool checkMetricCounts = false;   // rows without their expected number of values are skipped
  bool inputIsUTF8 = false;         // byte strings are UTF-8 already (else the local code page)
};

class RowPacker {
 public:
  RowShape shape;

  // Packs `row` into `buffer` (the group's row size). False when the row is skipped
  // (no name, metric count, filter); the buffer is untouched then.
  bool packRow(ResultsManager& provider, const ResultInstance* row, char* buffer,
               const char* originNode, const char* timestamp, bool eventRow) const;
  // An event row packed with the provider's origin node and the current time; false
  // when it is skipped or the group has no metadata.
  bool packEvent(ResultsManager& provider, const ResultInstance* row,
                 std::vector<char>* buffer) const;
  // Hands a packed event to the group's table server: 0 when sent.
  static int deliverEvent(const ResultsManager& provider, const std::vector<char>& buffer);

 private:
  void writeValue(ResultsManager& provider, char* buffer, const AttributeMeta* column,
                  const Metric* metric, const ResultMetric* value) const;
};
