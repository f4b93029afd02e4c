#include "MdlCommand.h"

#include <cstdlib>
#include <ostream>

#include "foundation/Utilities.h"
#include "framework/Settings.h"
#include "logmon/format/OBVEmitter.h"
#include "logmon/format/QRFConfig.h"
#include "mdl/MdlReader.h"
#include "record/RecordBuilder.h"

namespace {

void printDiagnostics(const QRFConfig& config, std::ostream& err) {
  for (const QRFDiagnostic& diagnostic : config.diagnostics()) {
    err << diagnostic.file;
    if (diagnostic.line > 0) {
      err << ":" << diagnostic.line;
    }
    err << (diagnostic.error ? ": error: " : ": warning: ") << diagnostic.text << "\n";
  }
}

// The text as the log engine reads and compiles it; "" when it takes it.
std::string engineComplaint(const std::string& mdl) {
  xrvlog::MdlReadResult read = xrvlog::MdlReader::read(mdl);
  if (!read.ok()) {
    return read.error().toString();
  }
  try {
    xrvlog::RecordRules::compile(read.document());
  } catch (const xrvlog::RecordRuleError& error) {
    return "line " + std::to_string(error.line()) + ", column " + std::to_string(error.column()) +
           ": " + error.what();
  }
  return "";
}

}  // namespace

bool generateFormatMdl(const MdlOptions& options, FormatMdl* result, std::ostream& err) {
  std::string format = options.format;
  if (format.empty()) {
    const std::string& conf = options.conf;
    if (conf.size() <= 5 || conf.compare(conf.size() - 5, 5, ".conf") != 0) {
      err << conf << ": does not end with .conf; name the format file as well\n";
      return false;
    }
    format = conf.substr(0, conf.size() - 5) + ".fmt";
  }
  result->emitter = std::make_unique<OBVEmitter>(options.conf.c_str());
  const OBVEmitter& emitter = *result->emitter;
  if (emitter.getError() != OBVEmitter::OBV_OK) {
    err << emitter.getErrorText() << "\n";
    return false;
  }
  QRFOptions qrf;
  qrf.applicationName = options.app;
  qrf.instanceName = XRV::settingText(XRV::Setting::InstanceName);
  qrf.syslogDryRun = true;
  result->config = std::make_unique<QRFConfig>(
      result->emitter.get(), options.conf.c_str(), format.c_str(), options.group.c_str(),
      options.subnodeType.empty() ? nullptr : options.subnodeType.c_str(),
      emitter.getConfInt("NumEventsToCatchUp", 0), qrf);
  const QRFConfig& config = *result->config;
  printDiagnostics(config, err);
  if (config.getError() != QRFConfig::QRF_OK) {
    return false;
  }
  // The agent expands ${NAME} references in the text before the engine gets it.
  char* expanded = Utilities::substituteEnvVars(config.mdlStream(), nullptr, nullptr, true);
  result->mdl = expanded == nullptr ? config.mdlStream() : expanded;
  free(expanded);
  const std::string complaint = engineComplaint(result->mdl);
  if (!complaint.empty()) {
    err << "the log engine would refuse this MDL text: " << complaint << "\n";
    return false;
  }
  return true;
}

int runMdl(const MdlOptions& options, std::ostream& out, std::ostream& err) {
  FormatMdl result;
  const bool ok = generateFormatMdl(options, &result, err);
  out << result.mdl;
  return ok ? 0 : 2;
}
