#pragma once

// Format-file configurations for tests: a QRFConfig built from a conf text and a
// format text, and the pieces of its MDL text that tests look at.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "framework/Configuration.h"
#include "logmon/format/OBVEmitter.h"
#include "logmon/format/QRFConfig.h"

namespace XRV::testing {

struct Generated {
  std::unique_ptr<OBVEmitter> emitter;
  std::unique_ptr<QRFConfig> config;

  std::string mdl() const { return config->mdlStream(); }
  // The MDL lines that begin with `prefix`.
  std::vector<std::string> lines(const std::string& prefix) const {
    std::vector<std::string> found;
    const std::string text = mdl();
    size_t start = 0;
    while (start < text.size()) {
      size_t end = text.find('\n', start);
      end = end == std::string::npos ? text.size() : end;
      if (text.compare(start, prefix.size(), prefix) == 0) {
        found.push_back(text.substr(start, end - start));
      }
      start = end + 1;
    }
    return found;
  }
  // The terms of the OBVEvent filter, as one text.
  std::string filter() const {
    const std::string text = mdl();
    const size_t start = text.find("+FILTER={");
    const size_t end = text.find("} @Generated WSK Event");
    return start == std::string::npos || end == std::string::npos
               ? "<none>"
               : text.substr(start + 9, end - start - 9);
  }
  bool hasDiagnostic(const std::string& text) const {
    for (const QRFDiagnostic& diagnostic : config->diagnostics()) {
      if (diagnostic.text == text) {
        return true;
      }
    }
    return false;
  }
};

inline Generated generate(const std::string& conf, const std::string& format,
                          QRFOptions options = {}, int eventsToCatchUp = 0,
                          const char* subnodeType = nullptr, const char* group = "QRF_LOG") {
  Generated generated;
  generated.emitter = std::make_unique<OBVEmitter>("test.conf", conf);
  options.formatText = &format;
  generated.config = std::make_unique<QRFConfig>(generated.emitter.get(), "test.conf", "test.fmt",
                                                 group, subnodeType, eventsToCatchUp, options);
  return generated;
}

// A format file of one format, class C, whose pattern is `pattern` and whose other
// lines are `body`.
inline std::string oneFormat(const std::string& pattern, const std::string& body = "") {
  return "format C\n  pattern " + pattern + "\n" + body + "end\n";
}

// Tests of format-file configurations: a known host name and address, so that no test
// waits for name resolution, and no configuration left behind.
class FormatTest : public ::testing::Test {
 protected:
  void SetUp() override {
    resetConfigurationForTesting();
    setConfigurationProperty("CTAFW_HOSTNAME", "web01");
    setConfigurationProperty("CDP_IP_ADDR", "192.0.2.10");
  }
  void TearDown() override { resetConfigurationForTesting(); }
};

}  // namespace XRV::testing
