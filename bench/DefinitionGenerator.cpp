#include "DefinitionGenerator.h"

#include <cstdint>
#include <iterator>
#include <random>
#include <string>

namespace XRV::bench {
namespace {

struct AttributeKind {
  const char* name;
  const char* type;  // raw metric type of the data-source metric
  int size;
  const char* hint;
};

const AttributeKind kAttributes[] = {
    {"Mount_Point", "STRING_DATA", 256, "File system mount point"},
    {"Device_Name", "STRING_DATA", 64, "Block device &amp; partition"},
    {"Size_MB", "NUMERIC_64BIT_DATA", 8, "Total size in megabytes"},
    {"Used_MB", "NUMERIC_64BIT_DATA", 8, "Space in use, in megabytes"},
    {"Free_Percent", "STRING_DATA", 4, "Free space in percent (&lt;= 100)"},
    {"Inode_Usage", "NUMERIC_64BIT_DATA", 8, "Inodes in use"},
    {"Process_ID", "STRING_DATA", 4, "Process identifier"},
    {"Command_Line", "STRING_DATA", 512, "Full command line of the process"},
    {"Resident_KB", "DELTA_64BIT_DATA", 8, "Resident set size &gt; 0 in kilobytes"},
    {"CPU_Percent", "RATE_DATA", 4, "Processor use since the last sample"},
    {"Interface", "STRING_DATA", 32, "Network interface"},
    {"Bytes_Received", "RATE_64BIT_DATA", 8, "Bytes received per second"},
    {"Bytes_Sent", "RATE_64BIT_DATA", 8, "Bytes sent per second"},
    {"Errors", "DELTA_DATA", 4, "Receive &amp; transmit errors"},
    {"Status", "STRING_DATA", 16, "Operational status (r&#233;sum&#233;)"},
    {"Response_Time", "STRING_DATA", 4, "Round trip in milliseconds"},
    {"Host_Name", "STRING_DATA", 128, "Host name or address"},
    {"Queue_Depth", "STRING_DATA", 4, "Messages waiting"},
    {"Message_Text", "STRING_DATA", 2048, "Text of the matched log record"},
    {"Severity", "STRING_DATA", 16, "Severity: &quot;error&quot; or &quot;warning&quot;"},
    {"Timestamp", "STRING_DATA", 16, "Time of the sample"},
    {"Sessions", "PERCENT_DELTA_DATA", 4, "Open sessions"},
    {"Heap_Used_MB", "NUMERIC_64BIT_DATA", 8, "Heap in use"},
    {"Last_Error", "PREVIOUS_STRING_DATA", 256, "Previous error text"},
};

struct GroupKind {
  const char* stem;
  const char* source;  // element name of the data source
  const char* sourceAttributes;
  const char* comment;
};

const GroupKind kGroups[] = {
    {"Disk_Usage", "script",
     "command=\"df -P | awk 'NR&gt;1 {print $6 &quot; &quot; $2 &quot; &quot; $3 &quot; &quot; "
     "$5}'\" separator=\" \"",
     "one row per mounted file system"},
    {"Process_Detail", "script",
     "command=\"ps -eo pid,rss,pcpu,args | awk '{print $1, $2, $3, $4}'\" separator=\" \" "
     "interval=\"120\"",
     "the processes the agent watches"},
    {"Interface_Traffic", "script",
     "command=\"awk -F'[: ]+' 'NR&gt;2 {print $2, $3, $11, $4}' /proc/net/dev\" separator=\" \"",
     "received and sent bytes per interface"},
    {"Queue_Status", "script",
     "command=\"${XRV_HOME}/bin/queue_status.sh -q ${QUEUE_NAME} 2&gt;/dev/null\" "
     "separator=\";\" timeout=\"30\"",
     "depth of the application queues"},
    {"Target_Ping", "ping", "fileName=\"${XRV_HOME}/etc/targets.txt\" interval=\"60\"",
     "reachability of the configured targets"},
    {"Error_Log", "log_monitor",
     "fileName=\"/var/log/app/error.log\" formatFile=\"${XRV_HOME}/etc/error.fmt\" "
     "maxEventsPerSecond=\"50\"",
     "error records from the application log"},
};

class Generator {
 public:
  explicit Generator(unsigned seed) : random_(seed) {}

  uint32_t next(uint32_t bound) { return static_cast<uint32_t>(random_() % bound); }

  // Appends one attribute group to the metadata and its data source to `sources`.
  void addGroup(int index, std::string& metadata, std::string& sources) {
    const GroupKind& group = kGroups[next(std::size(kGroups))];
    const std::string name = std::string(group.stem) + "_" + std::to_string(index);
    const uint32_t attributeCount = 5 + next(26);
    const uint32_t first = next(std::size(kAttributes));

    metadata += "    <ag name=\"" + name + "\" help=\"" + group.comment + "\" interval=\"" +
                std::to_string(30 * (1 + next(10))) + "\">\n";
    if (next(4) == 0) {
      sources += "\n  <!-- " + name + ": " + group.comment + " -->\n";
    } else {
      sources += "\n";
    }
    sources += std::string("  <") + group.source + " app=\"XRV\" ag=\"" + name + "\" " +
               group.sourceAttributes + ">\n";

    for (uint32_t i = 0; i < attributeCount; ++i) {
      const AttributeKind& attribute = kAttributes[(first + i) % std::size(kAttributes)];
      // Hidden helper attributes start with '-'.
      const bool hidden = next(8) == 0;
      std::string attributeName = std::string(hidden ? "-" : "") + attribute.name;
      if (i >= std::size(kAttributes)) {
        attributeName += "_" + std::to_string(i);
      }
      metadata += "      <attr name=\"" + attributeName + "\" type=\"" + std::to_string(next(13)) +
                  "\" size=\"" + std::to_string(attribute.size) + "\" hint=\"" + attribute.hint +
                  "\"/>\n";
      sources += "    <metric name=\"" + attributeName + "\" type=\"" + attribute.type +
                 "\" size=\"" + std::to_string(attribute.size) + "\" key=\"" +
                 (i == 0 ? "true" : "false") + "\" visible=\"" + (hidden ? "false" : "true") +
                 "\"/>\n";
    }
    metadata += "    </ag>\n";
    if (next(3) == 0) {
      metadata += "\n";
    }
    sources += std::string("  </") + group.source + ">\n";
  }

 private:
  std::mt19937 random_;
};

}  // namespace

std::string generateDefinition(size_t approximateBytes, unsigned seed) {
  Generator generator(seed);
  const std::string head =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<!-- Agent definition: application servers of the XRV estate.\n"
      "     Maintained by the monitoring team; keep one attribute per line. -->\n"
      "<agent_definition>\n"
      "  <appl name=\"XRVapp\" nodeType=\"XR\" hostName=\"${HOSTNAME}\" hostType=\"Linux\" "
      "affinity=\"%XRV.0000000000000000000000000\" agentVersion=\"1.0.4\" version=\"1\" "
      "service=\"xrvagent\" internalAgentVersion=\"01000400\"/>\n"
      "  <env_variable name=\"XRV_HOME\"/>\n\n"
      "  <metadata>\n";
  const std::string middle = "  </metadata>\n\n  <!-- Data sources, one per attribute group -->\n";
  const std::string tail = "\n</agent_definition>\n";

  std::string metadata;
  std::string sources;
  for (int index = 1; head.size() + metadata.size() + middle.size() + sources.size() + tail.size() <
                      approximateBytes;
       ++index) {
    generator.addGroup(index, metadata, sources);
  }
  std::string document;
  document.reserve(head.size() + metadata.size() + middle.size() + sources.size() + tail.size());
  document += head;
  document += metadata;
  document += middle;
  document += sources;
  document += tail;
  return document;
}

}  // namespace XRV::bench
