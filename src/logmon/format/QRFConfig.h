#pragma once

// QRFConfig: turns a configuration (.conf) file and a format (.fmt) file into the MDL
// text the log engine loads (docs/format-files.md, docs/mdl.md): which files to watch
// and one regular-expression filter per format, whose REPLACEFIRST template writes
// each matching record as an event text of named slots:
//
//   INDEX "#" { START_NAME name END_NAME START_VAL value END_VAL }
//
// INDEX is the format's place in the list (getFormat), the tags are the eight
// separator characters below. It also owns the slots that the log monitor maps onto
// custom attributes, and sets up the pipe through which the syslog daemon feeds the
// engine (setupSyslogPipe).
//
// Everything happens in the constructor; the caller then checks getError. Warnings
// and errors are traced and also kept, with the file and line they concern, in
// diagnostics() for tools that show them to an operator.
//
// Not thread-safe; the object is read-only once constructed.

#include <memory>
#include <string>
#include <vector>

#include "logmon/format/QRFFormatNode.h"

class OBVEmitter;

struct QRFOptions {
  std::string applicationName = "XRV";
  // The agent instance; the syslog pipe is named after it.
  std::string instanceName;
  // Put before every path of the syslog set-up (configuration files, pid files, the
  // pipe's directory); "" is the machine itself. Tests point it at a temporary tree.
  std::string syslogRoot;
  // Work out the syslog pipe as the agent would, but touch nothing (no FIFO, no
  // configuration change, no signal): for tools that only show the MDL.
  bool syslogDryRun = false;
  // The format file's text, instead of reading the format path (which then only names
  // it in messages).
  const std::string* formatText = nullptr;
};

struct QRFDiagnostic {
  bool error = false;  // else a warning
  std::string file;    // the conf or format file it concerns
  int line = 0;        // 0 when it is not about one line
  std::string text;    // the traced text
};

class QRFConfig {
 public:
  enum Error {
    QRF_OK = 0,
    QRF_CANNOT_OPEN_FORMAT_FILE = 3,
    QRF_FORMAT_FILE_SYNTAX_ERROR = 5,
  };

  // Reads the conf keys through `emitter` (which must have read `confPath`), sets up
  // the syslog pipe when asked to, parses `formatPath` and generates the MDL text.
  // `subnodeType` may be null (a top-level group). `eventsToCatchUp`: 0 reads each
  // file from its end (TAIL), -1 from its top; the engine cannot go back a number of
  // records, so other values count as 0.
  QRFConfig(OBVEmitter* emitter, const char* confPath, const char* formatPath,
            const char* attributeGroup, const char* subnodeType, int eventsToCatchUp,
            const QRFOptions& options = {});
  ~QRFConfig();
  QRFConfig(const QRFConfig&) = delete;
  QRFConfig& operator=(const QRFConfig&) = delete;

  int getError() const { return error_; }
  const char* getErrorFile() const { return errorFile_.c_str(); }
  const std::vector<QRFDiagnostic>& diagnostics() const { return diagnostics_; }

  int getFormatCount() const { return static_cast<int>(formats_.size()); }
  QRFFormatNode* getFormat(int index) const;
  QRFFormatNode* getFormat(const char* wskClass) const;

  // The MDL text; "" when the format file could not be used.
  const char* mdlStream() const { return mdlStream_.c_str(); }
  // One format's filter term with its REPLACEFIRST template; "" when the format gives
  // none (no expression, or one that can never match).
  std::string generateMdlFilter(int index);
  // `value` written into a REPLACEFIRST template as the text itself: '\', '$' and ')'
  // get a '\' before them.
  static std::string quoteSlotValue(const std::string& value);
  // The characters of "*?+[(){}^$|\./" in `literal` with a '\' before them.
  static std::string escapeRegexChars(const std::string& literal);
  // A file name pattern with '?' and '*' as a REGEX source pattern: each component
  // that holds a wildcard (or another pattern character) becomes ^component$.
  static std::string generateFilenameRegex(const std::string& path);

  // The host name of the DEFAULT slot "hostname": the framework's configured host
  // name, else the system's ("unknown" when there is none).
  static std::string localHostName();

  const char* getSyslogPipeName() const { return syslogPipe_.empty() ? nullptr : syslogPipe_.c_str(); }

  char getStartNameTag() const { return tags_[0]; }
  char getStartValTag() const { return tags_[1]; }
  char getEndValTag() const { return tags_[2]; }
  char getEndNameTag() const { return tags_[3]; }
  char getQuoteTag() const { return tags_[4]; }
  char getListSeparatorTag() const { return tags_[5]; }
  char getStartListTag() const { return tags_[6]; }
  char getEndListTag() const { return tags_[7]; }

  int getPollInterval() const { return pollInterval_; }
  // Percent of one CPU the engine may use for the group's files; 0: no limit.
  int getCpuLimit() const { return cpuLimit_; }
  int getCodePageId() const { return codePageId_; }
  const char* getCodePageName() const { return codePageName_.c_str(); }
  bool isStrict() const { return strict_; }
  bool configFilesAreUTF8() const { return configFilesAreUTF8_; }
  const char* getConfFile() const { return confPath_.c_str(); }
  const char* getFormatFile() const { return formatPath_.c_str(); }

 private:
  // --- QRFConfig.cpp ---
  void readConfKeys();
  void readCodePage();
  // The conf value of `key` in UTF-8; false when the conf file does not set it.
  bool confValue(const char* key, std::string* value) const;
  void parseFormat();
  bool defaultSlotValue(const std::string& name, int line, std::string* value);
  void addDiagnostic(bool error, const std::string& file, int line, const std::string& text);

  // --- QRFFilters.cpp ---
  // *lines: the lines a record of the format spans.
  std::string generateMdlFilter(int index, int* lines);
  std::string generateFormatFilter(QRFFormatNode& node, int* lines);
  std::string generateRegexFilter(QRFFormatNode& node, int* lines);
  // The REPLACEFIRST template text of `slot` in `node`; false when it cannot be built.
  bool slotTemplate(QRFFormatNode& node, const QRFSlot& slot, std::string* out);
  std::string variableReference(const QRFFormatNode& node, const QRFSlot& slot, int variable,
                                bool* ok);
  // The pattern of the first line of a format that spans lines (//RECORDSET).
  std::string firstLinePattern(QRFFormatNode& node);

  // --- QRFMdl.cpp ---
  void generateMdlFilters();
  std::string processLogSources();
  std::string sourceOptions(bool tail);
  std::string addSshParam(const char* property, const char* confKey);

  // --- QRFSyslog.cpp ---
  bool setupSyslogPipe();

  // --- QRFDefaults.cpp ---
  std::string hostName();
  std::string fqHostName();
  std::string originAddress();

  OBVEmitter* emitter_;
  std::string confPath_;
  std::string formatPath_;
  std::string tableName_;
  std::string subnodeType_;
  int eventsToCatchUp_;
  QRFOptions options_;

  std::vector<std::unique_ptr<QRFFormatNode>> formats_;
  std::string mdlStream_;
  std::string syslogPipe_;
  char tags_[8] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x0F, 0x0E};
  int pollInterval_ = 5;
  int cpuLimit_ = 0;
  int codePageId_ = 0;
  std::string codePageName_;
  bool strict_ = false;
  bool configFilesAreUTF8_ = false;
  int error_ = QRF_OK;
  std::string errorFile_;
  std::vector<QRFDiagnostic> diagnostics_;
  std::string hostName_;  // computed once, for the DEFAULT slots
  int printfDepth_ = 0;   // PRINTF slots being filled in, one inside the other
};
