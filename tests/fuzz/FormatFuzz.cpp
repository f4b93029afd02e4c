// Fuzz target for the format-file language: every input is a format file, read with a
// fixed conf file (a leading '!' turns on strict compatibility). Nothing may crash,
// leak or run away. A refused file names a line within it and says why; an accepted
// one gives an MDL text that the log engine's reader takes whenever some format gave
// a filter, and whose patterns all compile when no format brings a regular expression
// of its own (every pattern is then ours).

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "Require.h"
#include "framework/Trace.h"
#include "logmon/format/OBVEmitter.h"
#include "logmon/format/QRFConfig.h"
#include "mdl/MdlReader.h"
#include "record/RecordBuilder.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  XRV::trace::configure("off");
  unsetenv("XRV_CONFIG_FILE");
  // The DEFAULT slots without name resolution.
  setenv("CTAFW_HOSTNAME", "web01", 1);
  setenv("CDP_IP_ADDR", "192.0.2.10", 1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  const std::string text(reinterpret_cast<const char*>(bytes), size);
  const bool strict = !text.empty() && text[0] == '!';
  const std::string format = strict ? text.substr(1) : text;
  OBVEmitter emitter("fuzz.conf", std::string("LogSources=/var/log/a.log,/var/log/b*.log\n"
                                              "NO_UTF8_CONVERSION=YES\n") +
                                      (strict ? "ENFORCE_STRICT_WSK_COMPATIBILITY=yes\n" : ""));
  QRFOptions options;
  options.formatText = &format;
  QRFConfig config(&emitter, "fuzz.conf", "fuzz.fmt", "FUZZ", nullptr, 0, options);

  if (config.getError() != QRFConfig::QRF_OK) {
    require(config.getError() == QRFConfig::QRF_FORMAT_FILE_SYNTAX_ERROR);
    require(*config.mdlStream() == '\0' && config.getFormatCount() == 0);
    long lines = 1;
    for (char c : format) {
      lines += c == '\n' ? 1 : 0;
    }
    bool named = false;
    for (const QRFDiagnostic& diagnostic : config.diagnostics()) {
      named = named || (diagnostic.error && diagnostic.line >= 1 && diagnostic.line <= lines &&
                        !diagnostic.text.empty());
    }
    require(named);
    return 0;
  }
  const std::string mdl = config.mdlStream();
  require(!mdl.empty());
  bool ownRegex = false;
  for (int i = 0; i < config.getFormatCount(); ++i) {
    require(!config.getFormat(i)->getWskClass().empty());
    ownRegex = ownRegex || !config.getFormat(i)->getRegex().empty();
  }
  if (mdl.find("+FILTER={}") != std::string::npos) {
    return 0;
  }
  xrvlog::MdlReadResult read = xrvlog::MdlReader::read(mdl);
  require(read.ok());
  if (!ownRegex) {
    try {
      xrvlog::RecordRules::compile(read.document());
    } catch (const xrvlog::RecordRuleError&) {
      require(false);
    }
  }
  return 0;
}
