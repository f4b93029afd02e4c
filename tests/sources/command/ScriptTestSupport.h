#pragma once

// Script providers for tests, read from a definition snippet through the real
// element parsers, bound to their group and started: what the agent does at start-up.

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "../../provider/ProviderTestSupport.h"
#include "definition/AgentSettings.h"
#include "definition/AttributeGroupMeta.h"
#include "definition/DefinitionCheck.h"
#include "framework/Configuration.h"
#include "provider/UAClientClassList.h"
#include "sources/command/ShellQueryClass.h"

namespace XRV::testing {

using Rows = std::vector<std::vector<std::string>>;

// Reads `document` (an agent definition) and takes the first script provider out of
// the agent's provider list, bound to its group (when declared) and started.
inline std::unique_ptr<ShellQueryClass> loadScriptProvider(const std::string& document) {
  DefinitionCheck check;
  EXPECT_TRUE(check.check(document)) << (check.error() ? check.error()->message : "");
  auto* provider = static_cast<ShellQueryClass*>(queryClassList().getFirst());
  if (provider == nullptr) {
    ADD_FAILURE() << "the definition made no provider";
    return nullptr;
  }
  queryClassList().removeClientClass(provider);
  provider->setAttributeGroupMeta(findAttributeGroupMeta(provider->getAttributeGroup()));
  provider->start();
  return std::unique_ptr<ShellQueryClass>(provider);
}

// `text` as an XML attribute value.
inline std::string xmlEscaped(const std::string& text) {
  std::string escaped;
  for (char c : text) {
    escaped += c == '&'   ? "&amp;"
               : c == '<' ? "&lt;"
               : c == '>' ? "&gt;"
               : c == '"' ? "&quot;"
                          : std::string(1, c);
  }
  return escaped;
}

// A definition with group "G" of `attrs` and a script over it.
inline std::string scriptDefinition(const std::string& attrs, const std::string& scriptAttributes,
                                    const std::string& metrics) {
  return "<agent><metadata><ag name=\"G\" table=\"TG\">" + attrs +
         "</ag></metadata><script app=\"XRV\" ag=\"G\" " + scriptAttributes + ">" + metrics +
         "</script></agent>";
}

// One collection, then the rows as the framework would get them.
inline Rows collectRows(ShellQueryClass& provider) {
  provider.collectData(nullptr);
  DecodingRequest request(provider.getAttributeGroupMeta());
  provider.sendDataToAFW(&request, "Primary:box:XR");
  Rows rows;
  for (std::vector<std::string>& row : request.rows) {
    row.erase(row.begin());  // the origin node
    rows.push_back(row);
  }
  return rows;
}

// Forgets providers, groups and configuration between tests.
inline void resetScriptTestState() {
  resetDefinitionState();
  resetConfigurationForTesting();
}

}  // namespace XRV::testing
