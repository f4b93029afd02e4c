#pragma once

// ShellQueryClass: the script data source. Each collection runs the group's command
// (locally through "/bin/sh -c", or on a remote host over SSH) and turns every line
// of its standard output into one row, cutting the line into one value per raw
// attribute. Beside the rows it reports the command's return code, its standard
// error and an error code:
//
//   rows and exit 0          OBJECT_ACTIVE          exit 126       SCRIPT_LAUNCH_ERROR
//   no rows and exit 0       NO_INSTANCES_RETURNED  exit 127       SCRIPT_NOT_FOUND
//   any other exit status    SCRIPT_NONZERO_RETURN  (the rows it printed are kept)
//   past the time-out        TIMEOUT (the previous rows stay)
//   over SSH, not run         the connector's code (AUTHENTICATION_FAILED, ...), with
//                             its message as the standard error
//   could not be started     SCRIPT_LAUNCH_ERROR, SCRIPT_NOT_FOUND, ACCESS_DENIED or
//                            GENERIC_ERROR after the command's status
//
// A command that outlives its time-out is parked (and killed when the kill-orphans
// setting says so); while 10 or more of them are still running the group collects
// nothing, until one ends.
//
// Cutting a line, attribute by attribute in definition order: derived attributes
// take nothing; "isLast" takes the rest of the line; "maxChars" a fixed number of
// characters; an end delimiter the text up to it (after the begin delimiter, when
// there is one; "TAB" means a tab); a per-attribute separator the next token at it;
// every other attribute the next token at the group's separator, with runs of
// separators counted as one when "multipleSpaceSeparator" is on. A line may lack one
// trailing value ("" or 0); with CDP_DP_SCRIPT_ALLOW_BLANK_VALUES any number; a line
// that lacks more is skipped.
//
// Thread-safety: collections of one provider are serialised by the base class;
// reset() may run beside a collection.

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "foundation/Locks.h"
#include "foundation/StringTokenizer.h"
#include "provider/ResultsManager.h"

class CommandWithTimeout;
class CommandWithTimeoutList;
class Metric;
class ResultInstance;
class ResultMetric;
class SshConnector;

class ShellQueryClass : public ResultsManager {
 public:
  // Commands that timed out and still run; at this many the group stops collecting.
  static constexpr int kMaxOutstandingCommands = 10;
  // Longest output line taken, in characters; the rest of a longer line is lost.
  static constexpr int kLineBufferSize = 10240;

  ShellQueryClass(const char* applicationName, const char* attributeGroup, const char* command,
                  const char* separator, const char* name, bool utf8Input, bool ssh,
                  bool multipleSpaceSeparator);
  // A copy for the subnode `subnodeKey`: same command and settings, no rows.
  ShellQueryClass(const ShellQueryClass* other, const char* subnodeKey);
  // Reaps the parked commands once more; those still running finish on their own.
  ~ShellQueryClass() override;

  void internalCollectData(const char* subnode) override;
  // Rebuilds the environment exported to local commands from the subnode's
  // configuration, or hands the configuration to the SSH connector.
  void reset() override;
  UAClientClass* subnodeCopy(const char* subnodeKey, UAClientClassList* list) override;
  std::vector<std::string> getPropertyNames() override;

  const char* getPerfObjectName() override;
  // A group whose collection is disabled is inactive, with DISABLED as its reason.
  int getPerfObjectStatus() override {
    return isCollectionDisabled() ? PERF_OBJECT_INACTIVE : perfObjectStatus_.load();
  }
  int getPerfErrorCode() override;
  void setPerfObjectStatus(int status) { perfObjectStatus_.store(status); }
  void setPerfErrorCode(int code) { perfErrorCode_.store(code); }
  int getCollectionReturnCode() override { return commandReturnCode_.load(); }
  std::string getCollectionStdErr() override;
  bool getIsUTF8Input() const { return utf8Input_; }
  const char* getClassName() const { return "ShellQueryClass"; }
  void printResults() override;

  // A file the SSH connector uploads before running the command.
  void addCommandFile(const char* name);

  const char* getCommand() const { return command_; }
  const char* getRawCommand() const { return rawCommand_; }
  const char* getSeparator() const { return separator_; }
  int getTimeout() const { return timeout_; }
  // Sets the time-out without the minimum that applies to the setting (for tests and
  // for callers that know better).
  void setTimeout(int seconds) { timeout_ = seconds; }
  bool getKillOrphans() const { return killOrphans_; }
  bool isUsingSsh() const { return useSsh_; }
  SshConnector* getConnector() const { return connector_.get(); }
  // Commands parked after a time-out and not reaped yet.
  int getOutstandingCommandCount();
  // The environment text placed in front of local commands; "" when none.
  std::string getEnvPrefix();

  // Cuts `line` into a new row (caller owns it); null when the line lacks values and
  // is skipped. Public for direct tests.
  ResultInstance* parseLine(const char* line);

 private:
  void readSettings();
  void makeConnector();
  // Runs the command; the outcome of CommandWithTimeout::runCommand, or -1 when an
  // SSH connector in its error state did not run it. *command is the object run.
  int runCommandObject(std::unique_ptr<CommandWithTimeout>* command);
  void processOutput(CommandWithTimeout* command);
  void setErrorFromReturnCode(int returnCode, int rowCount);
  void setCommandStdErr(const char* text);
  // The value of `token` for `metric`, by the attribute's type.
  ResultMetric* makeValue(const Metric* metric, const char* token);
  // The next token for `metric`; null when the line has none left.
  const char* nextTokenFor(const Metric* metric);

  bool utf8Input_;
  bool useSsh_;
  bool multipleSpaceSeparator_;
  char* providerName_ = nullptr;
  char* separator_ = nullptr;
  int timeout_ = 30;
  std::unique_ptr<CommandWithTimeoutList> outstandingCommands_;  // collecting thread only
  // Guards what other threads read beside a collection.
  PthreadMutex stateLock_;
  char* envPrefix_ XRV_GUARDED_BY(stateLock_) = nullptr;
  // Shared with the commands running through it (SshConnectorLease), so that a
  // command that outlives the provider still has its connector.
  std::shared_ptr<SshConnector> connector_;
  std::vector<std::string> commandFiles_;  // handed to the connectors of copies too
  bool allowBlankValues_ = false;
  bool createEmptyRow_ = false;
  std::atomic<int> commandReturnCode_{0};
  char* commandStdErr_ XRV_GUARDED_BY(stateLock_) = nullptr;
  bool killOrphans_ = false;
  char* rawCommand_ = nullptr;
  char* command_ = nullptr;
  std::atomic<int> perfObjectStatus_{PERF_OBJECT_ACTIVE};
  std::atomic<int> perfErrorCode_{OBJECT_ACTIVE};
  bool propertyNamesCached_ XRV_GUARDED_BY(stateLock_) = false;
  std::vector<std::string> propertyNames_ XRV_GUARDED_BY(stateLock_);
  StringTokenizer tokenizer_;  // reused line after line
  // One byte more than the longest line, so that a line of the full length is
  // terminated too. Made once: a large block per collection costs more than it seems.
  std::unique_ptr<char[]> line_{new char[kLineBufferSize + 1]};
  int rawMetricCount_ = -1;    // computed on first use
};
