#include "sources/command/ShellQueryClass.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "definition/AttributeGroupMeta.h"
#include "definition/Metric.h"
#include "foundation/HashMap.h"
#include "subnode/SubnodeConfiguration.h"
#include "foundation/UTF8String.h"
#include "foundation/Utilities.h"
#include "framework/Settings.h"
#include "framework/Trace.h"
#include "provider/NumericParser.h"
#include "provider/ResultInstance.h"
#include "provider/ResultMetric.h"
#include "provider/UAClientClassList.h"
#include "sources/command/CommandWithTimeout.h"
#include "sources/command/SshConnector.h"

namespace {

char* copyOrNull(const char* text) { return text == nullptr ? nullptr : strdup(text); }

// "TAB" in a delimiter stands for the tab character.
const char* delimiterText(const char* delimiter) {
  return delimiter != nullptr && strcmp(delimiter, "TAB") == 0 ? "\t" : delimiter;
}

// Removes up to two trailing CR or LF characters.
void stripNewLine(char* line) {
  size_t length = strlen(line);
  for (int i = 0; i < 2 && length > 0; ++i) {
    if (line[length - 1] != '\r' && line[length - 1] != '\n') {
      break;
    }
    line[--length] = '\0';
  }
}

const char* orNull(const char* text) { return text == nullptr ? "(null)" : text; }

}  // namespace

// --- Construction ---

ShellQueryClass::ShellQueryClass(const char* applicationName, const char* attributeGroup,
                                 const char* command, const char* separator, const char* name,
                                 bool utf8Input, bool ssh, bool multipleSpaceSeparator)
    : ResultsManager(applicationName, attributeGroup, ssh ? UA_SSH_SCRIPT : UA_SCRIPT),
      utf8Input_(utf8Input),
      useSsh_(ssh),
      multipleSpaceSeparator_(multipleSpaceSeparator),
      providerName_(copyOrNull(name)),
      separator_(copyOrNull(separator)),
      rawCommand_(copyOrNull(command)),
      command_(command == nullptr ? nullptr
                                  : Utilities::substituteEnvVars(command, nullptr, nullptr, false)),
      tokenizer_(nullptr, separator) {
  XRV_TRACE_FN();
  setInputIsUTF8(utf8Input_);
  readSettings();
  if (useSsh_) {
    makeConnector();
  }
}

ShellQueryClass::ShellQueryClass(const ShellQueryClass* other, const char* subnodeKey)
    : ResultsManager(other, subnodeKey),
      utf8Input_(other->utf8Input_),
      useSsh_(other->useSsh_),
      multipleSpaceSeparator_(other->multipleSpaceSeparator_),
      providerName_(copyOrNull(other->providerName_)),
      separator_(copyOrNull(other->separator_)),
      timeout_(other->timeout_),
      allowBlankValues_(other->allowBlankValues_),
      createEmptyRow_(other->createEmptyRow_),
      killOrphans_(other->killOrphans_),
      rawCommand_(copyOrNull(other->rawCommand_)),
      command_(copyOrNull(other->command_)),
      tokenizer_(nullptr, other->separator_) {
  XRV_TRACE_FN();
  setInputIsUTF8(utf8Input_);
  if (useSsh_) {
    makeConnector();
    for (const std::string& file : other->commandFiles_) {
      addCommandFile(file.c_str());
    }
  }
}

ShellQueryClass::~ShellQueryClass() {
  XRV_TRACE_FN();
  if (outstandingCommands_ != nullptr) {
    outstandingCommands_->cleanupFinishedCommands();
    outstandingCommands_.reset();  // hands the ones still running to their workers
  }
  connector_.reset();  // commands still running keep it until they end
  free(providerName_);
  free(separator_);
  {
    PthreadMutexLock guard(stateLock_);
    free(envPrefix_);
  }
  free(commandStdErr_);
  free(rawCommand_);
  free(command_);
}

void ShellQueryClass::readSettings() {
  XRV_TRACE_FN();
  using XRV::Setting;
  const XRV::SettingContext here = XRV_SETTING_HERE().forGroup(getAttributeGroup());
  timeout_ = static_cast<int>(XRV::settingNumber(Setting::ScriptTimeout, here));
  killOrphans_ =
      XRV::settingFlag(Setting::GroupKillOrphanScripts, here.withExtra(orNull(rawCommand_)));
  allowBlankValues_ = allowBlankValues_ || XRV::settingFlag(Setting::ScriptAllowBlankValues, here);
  createEmptyRow_ = createEmptyRow_ || XRV::settingFlag(Setting::ScriptCreateEmptyRow, here);
}

void ShellQueryClass::makeConnector() {
  XRV_TRACE_FN();
  {
    PthreadMutexLock guard(processLock);
    connector_.reset(createSshConnector(getAttributeGroup()));
  }
  if (connector_ == nullptr) {
    connector_ = std::make_shared<UnavailableSshConnector>(GENERIC_ERROR);
  }
  if (connector_->isInErrorState()) {
    XRV_TRACE_ERROR("Error initializing SSH Connector class\n");
  }
}

UAClientClass* ShellQueryClass::subnodeCopy(const char* subnodeKey, UAClientClassList* list) {
  XRV_TRACE_FN();
  auto* copy = new ShellQueryClass(this, subnodeKey);
  if (list != nullptr) {
    list->addClientClass(copy);
  }
  return copy;
}

void ShellQueryClass::reset() {
  XRV_TRACE_FN();
  ResultsManager::reset();
  AttributeGroupMeta* meta = getAttributeGroupMeta();
  const char* subnodeType = meta == nullptr ? nullptr : meta->subnodeType();
  if (useSsh_) {
    HashMap* configuration = subnodeType == nullptr || getSubnodeKey() == nullptr
                                 ? nullptr
                                 : getSubnodeConfiguration(subnodeType, getSubnodeKey());
    connector_->resetConfig(subnodeType, configuration);
    freeSubnodeConfiguration(configuration);
    return;
  }
  char* prefix = nullptr;
  if (subnodeType != nullptr && getSubnodeKey() != nullptr) {
    HashMap* configuration = getSubnodeConfiguration(subnodeType, getSubnodeKey());
    if (configuration != nullptr) {
      prefix = CommandWithTimeout::buildEnvString(configuration);
      freeSubnodeConfiguration(configuration);
    }
  }
  PthreadMutexLock guard(stateLock_);
  free(envPrefix_);
  envPrefix_ = prefix;
}

// --- Collection ---

void ShellQueryClass::internalCollectData(const char* /*subnode*/) {
  XRV_TRACE_FN();
  if (outstandingCommands_ != nullptr) {
    outstandingCommands_->cleanupFinishedCommands();
    int outstanding = outstandingCommands_->getCount();
    if (outstanding >= kMaxOutstandingCommands) {
      XRV_TRACE_ERROR(
          "There are %d outstanding invocations of command \"%s\" which have not returned.  "
          "Disabling data collection for this instance.  Collection will resume if these "
          "commands eventually complete.",
          outstanding, orNull(command_));
      keepActiveResults();
      return;
    }
  }
  XRV_TRACE_DETAIL("Initializing command %s", orNull(command_));
  std::unique_ptr<CommandWithTimeout> command;
  int result = runCommandObject(&command);
  if (result == 1) {
    perfObjectStatus_ = PERF_OBJECT_INACTIVE;
    perfErrorCode_ = TIMEOUT;
    XRV_TRACE_ERROR(
        "command did not complete - timeout - command %s, status returned is %d, "
        "perfObjectErrorCode=%d, commandReturnCode=%d",
        orNull(command_), result, perfErrorCode_.load(), commandReturnCode_.load());
    if (outstandingCommands_ == nullptr) {
      outstandingCommands_ = std::make_unique<CommandWithTimeoutList>();
    }
    outstandingCommands_->addCommand(command.release());  // the list owns it from here
    keepActiveResults();
    return;
  }
  if (result != 0) {
    perfObjectStatus_ = PERF_OBJECT_INACTIVE;
    if (command->isOutputTooBig()) {
      // No partial table: the rows of a cut output would look complete.
      perfErrorCode_ = RESPONSE_TOO_BIG;
      XRV_TRACE_ERROR("output of command %s is too big, no rows kept, perfObjectErrorCode=%d",
                      orNull(command_), perfErrorCode_.load());
    } else if (useSsh_) {
      perfErrorCode_ = connector_->getErrorCode();
      XRV_TRACE_ERROR("SSH FAILED or command %s, status returned is %d", orNull(command_), result);
      // Why, for the operator: the status groups show it as the standard error.
      setCommandStdErr(connector_->getErrorMessage().c_str());
    } else {
      switch (command->getStatus()) {
        case CWT_START_FAILED:
          perfErrorCode_ = SCRIPT_LAUNCH_ERROR;
          break;
        case CWT_NOT_FOUND:
          perfErrorCode_ = SCRIPT_NOT_FOUND;
          break;
        case CWT_NOT_EXECUTABLE:
          perfErrorCode_ = ACCESS_DENIED;
          break;
        default:
          perfErrorCode_ = GENERIC_ERROR;
          break;
      }
      XRV_TRACE_ERROR(
          "non zero return from running command %s, status returned is %d, "
          "perfObjectErrorCode=%d, commandReturnCode=%d",
          orNull(command_), result, perfErrorCode_.load(), commandReturnCode_.load());
    }
    return;
  }
  perfObjectStatus_ = PERF_OBJECT_ACTIVE;
  processOutput(command.get());
}

int ShellQueryClass::runCommandObject(std::unique_ptr<CommandWithTimeout>* command) {
  XRV_TRACE_FN();
  if (!useSsh_) {
    std::string prefix = getEnvPrefix();
    *command = std::make_unique<CommandWithTimeout>(command_, timeout_,
                                                    prefix.empty() ? nullptr : prefix.c_str());
    (*command)->setKillProcess(killOrphans_);
    return (*command)->runCommand();
  }
  *command = std::make_unique<CommandWithTimeout>(new SshConnectorLease(connector_), command_,
                                                  timeout_, nullptr, true);
  if (connector_->isInErrorState()) {
    int code = connector_->getErrorCode();
    if (code == MISSING_LIBRARY || code == CALLBACK_REGISTRATION_ERROR ||
        code == SUBNODE_NOT_FOUND_IN_CONFIG) {
      return -1;
    }
  }
  return (*command)->runCommand();
}

void ShellQueryClass::processOutput(CommandWithTimeout* command) {
  XRV_TRACE_FN();
  commandReturnCode_ = command->getRC();
  const char* errorText = command->getStderr();
  if (errorText == nullptr) {
    XRV_TRACE_DETAIL("stderr for this query class is null.");
    errorText = "";
  } else {
    XRV_TRACE_DETAIL("Set stderr for this query class to <%s>", errorText);
  }
  setCommandStdErr(errorText);

  char* line = line_.get();
  bool firstLine = true;
  int rows = 0;
  for (;;) {
    line[0] = '\0';
    line[kLineBufferSize] = '\0';
    const bool endOfOutput = command->getNextLineFromStdout(line, kLineBufferSize) == nullptr;
    if (endOfOutput) {
      if (!(firstLine && createEmptyRow_)) {
        break;
      }
      line[0] = '\0';
    }
    stripNewLine(line);
    if (line[0] == '\0') {
      if (firstLine && createEmptyRow_ && allowBlankValues_) {
        XRV_TRACE_DETAIL(
            "the line is blank, allowing one blank line through to build a fake row to allow "
            "stderr and return code to be returned.");
      } else {
        XRV_TRACE_DETAIL("the line is blank, skipping");
        if (endOfOutput) {
          // The stand-in for no output: without blank values there is no row to make
          // of it, and it would come back for ever.
          break;
        }
        continue;
      }
    }
    firstLine = false;
    ResultInstance* row = parseLine(line);
    if (row != nullptr) {
      addResultInstance(row);
      ++rows;
    }
  }
  setErrorFromReturnCode(commandReturnCode_, rows);
}

void ShellQueryClass::setCommandStdErr(const char* text) {
  char* copy = strdup(text == nullptr ? "" : text);
  PthreadMutexLock guard(stateLock_);
  free(commandStdErr_);
  commandStdErr_ = copy;
}

void ShellQueryClass::setErrorFromReturnCode(int returnCode, int rowCount) {
  XRV_TRACE_FN();
  // Over SSH the connector's code stands (OBJECT_ACTIVE once it reached the host and
  // ran the command); the remote exit status is Last_Return_Code.
  if (useSsh_) {
    perfErrorCode_ = connector_->getErrorCode();
  } else if (returnCode == 0) {
    perfErrorCode_ = rowCount > 0 ? OBJECT_ACTIVE : NO_INSTANCES_RETURNED;
  } else if (returnCode == 126) {
    perfErrorCode_ = SCRIPT_LAUNCH_ERROR;
  } else if (returnCode == 127) {
    perfErrorCode_ = SCRIPT_NOT_FOUND;
  } else {
    perfErrorCode_ = SCRIPT_NONZERO_RETURN;
  }
  XRV_TRACE_DETAIL(
      "runCommand/ssh returned %d for command %s, error code set to %d, commandReturnCode=%d", 0,
      orNull(command_), perfErrorCode_.load(), returnCode);
}

// --- Cutting lines into rows ---

ResultInstance* ShellQueryClass::parseLine(const char* line) {
  XRV_TRACE_FN();
  int metricCount = getMetricCount();
  if (rawMetricCount_ < 0) {
    int raw = 0;
    for (int i = 0; i < metricCount; ++i) {
      raw += getMetric(i)->isDerived() ? 0 : 1;
    }
    rawMetricCount_ = raw;
  }
  tokenizer_.reset(line);
  tokenizer_.setUtf8(utf8Input_);
  auto* row = new ResultInstance("", rawMetricCount_);
  int parsed = 0;
  for (int i = 0; i < metricCount; ++i) {
    const Metric* metric = getMetric(i);
    if (metric->isDerived()) {
      continue;
    }
    const char* token = nextTokenFor(metric);
    bool stop = false;
    if (token == nullptr) {
      token = "";
      if (allowBlankValues_) {
        XRV_TRACE_DETAIL("Token was NULL, allowing infinite trailing values");
      } else {
        XRV_TRACE_DETAIL("Token was NULL, allowing one trailing value");
        stop = true;
      }
    }
    row->addMetric(makeValue(metric, token));
    ++parsed;
    if (stop) {
      break;
    }
  }
  if (parsed < rawMetricCount_) {
    XRV_TRACE_DETAIL(
        "Missing metrics. Skipping row. Attribute group %s expected %d tokens, parsed %d. "
        "Input:<%s>, separator:<%s>",
        getAttributeGroup(), rawMetricCount_, parsed, line, orNull(separator_));
    delete row;
    return nullptr;
  }
  return row;
}

const char* ShellQueryClass::nextTokenFor(const Metric* metric) {
  XRV_TRACE_FN();
  if (metric->isRestOfRecord()) {
    return tokenizer_.restOfLine();
  }
  if (metric->getMaxChars() >= 1) {
    return tokenizer_.nextChars(metric->getMaxChars());
  }
  if (metric->getEndDelimiter() != nullptr) {
    return tokenizer_.nextToken(delimiterText(metric->getBeginDelimiter()),
                                delimiterText(metric->getEndDelimiter()));
  }
  const char* delimiters = delimiterText(metric->getSeparator());
  const char* token = tokenizer_.nextToken(delimiters);
  if (multipleSpaceSeparator_) {
    if (token != nullptr && *token == '\0') {
      XRV_TRACE_DETAIL("metric %s - parsing multi-space as space", metric->getMetricName());
    }
    while (token != nullptr && *token == '\0') {
      token = tokenizer_.nextToken(delimiters);
    }
  }
  return token;
}

ResultMetric* ShellQueryClass::makeValue(const Metric* metric, const char* token) {
  XRV_TRACE_FN();
  switch (metric->getRawMetricType()) {
    case STRING_DATA:
    case PREVIOUS_STRING_DATA:
    case VALUE_CHANGED: {
      UTF8String* text = nullptr;
      if (utf8Input_) {
        text = new UTF8String(token);
      } else {
        text = UTF8String::fromNative(token);
        if (text == nullptr) {
          text = new UTF8String();
        }
      }
      return new ResultMetric(metric, text);
    }
    default:
      return parseNumericString(metric, token);
  }
}

// --- What the provider reports ---

const char* ShellQueryClass::getPerfObjectName() {
  return providerName_ != nullptr ? providerName_ : getAttributeGroup();
}

int ShellQueryClass::getPerfErrorCode() {
  XRV_TRACE_FN();
  int code = isCollectionDisabled() ? static_cast<int>(DISABLED) : perfErrorCode_.load();
  XRV_TRACE_DETAIL("PerfObj error code %s [%d] for command %s", perfObjectErrorCodeName(code), code,
                   orNull(command_));
  return code;
}

std::string ShellQueryClass::getCollectionStdErr() {
  PthreadMutexLock guard(stateLock_);
  return commandStdErr_ == nullptr ? "" : commandStdErr_;
}

std::string ShellQueryClass::getEnvPrefix() {
  PthreadMutexLock guard(stateLock_);
  return envPrefix_ == nullptr ? "" : envPrefix_;
}

int ShellQueryClass::getOutstandingCommandCount() {
  return outstandingCommands_ == nullptr ? 0 : outstandingCommands_->getCount();
}

void ShellQueryClass::addCommandFile(const char* name) {
  XRV_TRACE_FN();
  if (connector_ != nullptr && name != nullptr) {
    connector_->addCommandFile(name);
    if (std::find(commandFiles_.begin(), commandFiles_.end(), name) == commandFiles_.end()) {
      commandFiles_.emplace_back(name);
    }
  }
}

std::vector<std::string> ShellQueryClass::getPropertyNames() {
  XRV_TRACE_FN();
  {
    PthreadMutexLock guard(stateLock_);
    if (propertyNamesCached_) {
      return propertyNames_;
    }
  }
  std::vector<std::string> names = ResultsManager::getPropertyNames();
  AttributeGroupMeta* meta = getAttributeGroupMeta();
  const char* subnodeType = meta == nullptr ? nullptr : meta->subnodeType();
  if (!useSsh_ && subnodeType != nullptr && getSubnodeKey() != nullptr) {
    HashMap* configuration = getSubnodeConfiguration(subnodeType, getSubnodeKey());
    if (configuration != nullptr) {
      configuration->foreach (
          [](const char* key, const void*, void* out) {
            static_cast<std::vector<std::string>*>(out)->emplace_back(key);
          },
          &names);
      freeSubnodeConfiguration(configuration);
    }
  }
  if (useSsh_) {
    for (const char* name :
         {"SSH_USERID", "SSH_PASSWORD", "SSH_HOSTNAME", "SSH_PORT", "SSH_AUTH_TYPE",
          "SSH_PUB_KEYFILE", "SSH_PRIV_KEYFILE", "SSH_DISCONNECT_SESSION", "SSH_DELETE_FILE",
          "CDP_SSH_TEMP_DIRECTORY", "CDP_SSH_DEL_COMMAND", "CDP_DP_SCRIPT_USE_CONSOLE_CODEPAGE"}) {
      names.emplace_back(name);
    }
  }
  PthreadMutexLock guard(stateLock_);
  propertyNames_ = names;
  propertyNamesCached_ = true;
  return names;
}


void ShellQueryClass::printResults() {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("Script provider %s: command %s, return code %d, error code %s",
                   getPerfObjectName(), orNull(command_), commandReturnCode_.load(),
                   perfObjectErrorCodeName(perfErrorCode_));
  printResultInstances();
}
