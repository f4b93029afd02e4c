#pragma once

// xrvctl mdl: the MDL text that format-file mode generates from a conf file and a
// format file (docs/format-files.md), exactly as the agent would load it, with the
// warnings and errors of both files.

#include <iosfwd>
#include <memory>
#include <string>

#include "logmon/format/OBVEmitter.h"
#include "logmon/format/QRFConfig.h"

struct MdlOptions {
  std::string conf;    // the .conf file
  std::string format;  // the .fmt file; "" for the conf path with .fmt for .conf
  std::string app = "XRV";
  std::string group = "Log_Events";
  std::string subnodeType;
};

struct FormatMdl {
  std::unique_ptr<OBVEmitter> emitter;
  std::unique_ptr<QRFConfig> config;  // null when the conf file could not be read
  std::string mdl;                    // as the engine gets it ("" when there is none)
};

// Generates the MDL text; warnings and errors ("FILE:LINE: warning: ...") go to `err`.
// False when no MDL text could be made, or the log engine would refuse it.
bool generateFormatMdl(const MdlOptions& options, FormatMdl* result, std::ostream& err);

// Prints the MDL text to `out`. Returns the exit status: 0, or 2 when a file cannot be
// read, the format file is wrong or the engine would refuse the text (printed all the
// same when there is one).
int runMdl(const MdlOptions& options, std::ostream& out, std::ostream& err);
