// Fuzz target for the two readers of operator-written text at start-up: the
// configuration file (XRV_CONFIG_FILE) and the trace rules (XRV_TRACE). Besides
// surviving any input, the results must keep the readers' promises.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "Require.h"
#include "framework/ConfigFile.h"
#include "framework/Trace.h"
#include "framework/TraceRules.h"

namespace {

bool hasOuterBlank(const std::string& text) {
  return !text.empty() &&
         (text.front() == ' ' || text.front() == '\t' || text.back() == ' ' || text.back() == '\t');
}

void checkConfigFile(std::string_view text) {
  XRV::ConfigFile file;
  std::string error;
  if (!file.parse(text, "fuzz.ini", &error)) {
    require(error.rfind("fuzz.ini:", 0) == 0);
    require(file.agent().values.empty() && file.subnodes().empty());
    return;
  }
  auto checkSection = [](const XRV::ConfigSection& section) {
    for (const auto& [name, value] : section.values) {
      require(!name.empty() && !hasOuterBlank(name));
      require(name.find('\n') == std::string::npos && value.find('\n') == std::string::npos);
      require(name.find('=') == std::string::npos);
      require(section.find(name) == &value);
    }
  };
  checkSection(file.agent());
  for (const XRV::ConfigSection& section : file.subnodes()) {
    require(!section.type.empty() && !section.key.empty());
    require(file.findSubnode(section.type, section.key) == &section);
    checkSection(section);
  }
}

void checkTraceRules(std::string_view text) {
  XRV::trace::TraceRuleSet rules;
  std::string error;
  bool ok = rules.parse(text, &error);
  require(ok == error.empty());
  constexpr uint32_t kAll =
      XRV::trace::TRACE_ERROR | XRV::trace::TRACE_DETAIL | XRV::trace::TRACE_FLOW;
  for (const XRV::trace::TraceRule& rule : rules.rules()) {
    require((rule.mask & ~kAll) == 0);
    require(XRV::trace::globMatch(rule.pattern, rule.pattern));
  }
  require((rules.maskFor("ResultsManager::updateResults", "ResultsManager.cpp") & ~kAll) == 0);
  // The same text as a pattern and as a compiler's function text.
  require(XRV::trace::globMatch("*", text));
  std::string name = XRV::trace::traceFunctionName(text);
  require(name.size() <= text.size() || name == std::string(text));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  checkConfigFile(text);
  checkTraceRules(text);
  return 0;
}
