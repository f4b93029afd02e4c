#include "runtime/InstanceName.h"

#include <cctype>
#include <cstring>
#include <string>

#include "framework/Settings.h"
#include "framework/Trace.h"

namespace {

// PROGRAM ARG: ARG is HOST_NAME, or (without a matching host) something ending in
// "_NAME".
bool fromInstanceArgument(const char* argument, XRV::String* name) {
  XRV_TRACE_FN();
  const XRV::SettingRead hostSetting = XRV::readSetting(XRV::Setting::InstanceHostName);
  const bool hostSet = hostSetting.set;
  const std::string& host = hostSetting.text;
  const size_t hostLength = host.size();
  if (hostSet && strncmp(argument, host.c_str(), hostLength) == 0 &&
      strlen(argument) > hostLength + 1) {
    name->assign(argument + hostLength + 1);
    XRV_TRACE_DETAIL("Got instance using hostname - name = %s\n", name->c_str());
    return true;
  }
  if (hostSet) {
    XRV_TRACE_DETAIL("Instance arg is not host_inst - %s, host - %s, so use Instance arg", argument,
                     host.c_str());
  }
  const char* separator = strrchr(argument, '_');
  if (separator == nullptr) {
    XRV_TRACE_ERROR("Instance value is null-Not able to find the separator");
    return false;
  }
  name->assign(separator + 1);
  XRV_TRACE_DETAIL("Got instance using _ location - name = %s\n", name->c_str());
  return true;
}

// PROGRAM alone: ".../xxagent_NAME.ext" names the instance NAME.
void fromProgramName(const char* program, XRV::String* name) {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("Going to extract instance name from %s", program);
  const char* slash = strrchr(program, '/');
  const char* component = slash == nullptr ? program : slash + 1;
  std::string lowered(component);
  for (char& c : lowered) {
    c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  }
  static const char kPattern[] = "agent_";
  size_t found = lowered.find(kPattern);
  if (found == std::string::npos) {
    return;
  }
  const char* start = component + found + sizeof kPattern - 1;
  const char* dot = strchr(start, '.');
  name->assign(start, dot == nullptr ? strlen(start) : static_cast<size_t>(dot - start));
  XRV_TRACE_DETAIL("Got instance name = %s\n", name->c_str());
}

}  // namespace

bool findInstanceName(int argc, char** argv, XRV::String* name) {
  XRV_TRACE_FN();
  name->clear();
  const XRV::SettingRead fromEnvironment =
      XRV::readSetting(XRV::Setting::InstanceName, XRV_SETTING_HERE());
  if (fromEnvironment.set) {
    name->assign(fromEnvironment.text.c_str());
    return true;
  }
  if (argv == nullptr || argc < 1 || argv[0] == nullptr) {
    return true;
  }
  if (argc > 2 && argv[2] != nullptr && strcmp(argv[2], "TEST") == 0) {
    name->assign(argv[1]);
    XRV_TRACE_DETAIL("Got instance name = %s\n", name->c_str());
    return true;
  }
  if (argc == 2) {
    return argv[1] != nullptr && fromInstanceArgument(argv[1], name);
  }
  if (argc == 1) {
    fromProgramName(argv[0], name);
  }
  return true;
}
