#pragma once

// How QRFConfig reports a warning or an error: the text is traced through the calling
// function's trace site (so the line carries that function) and kept, with the file
// and line it concerns, among the configuration's diagnostics. For QRFConfig's own
// member functions.

#include "framework/Trace.h"
#include "logmon/format/QRFText.h"

#define QRF_REPORT(isError, file, line, ...)                  \
  do {                                                        \
    const std::string qrfText_ = ::qrf::format(__VA_ARGS__);  \
    XRV_TRACE_ERROR("%s", qrfText_.c_str());                  \
    addDiagnostic((isError), (file), (line), qrfText_);       \
  } while (0)

#define QRF_WARN(file, line, ...) QRF_REPORT(false, file, line, __VA_ARGS__)
#define QRF_FAULT(file, line, ...) QRF_REPORT(true, file, line, __VA_ARGS__)
