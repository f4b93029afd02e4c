// Expansion of "${NAME}" references in definition texts.

#include <cstdlib>
#include <cstring>

#include "foundation/String.h"
#include "foundation/StringTokenizer.h"
#include "foundation/Utilities.h"
#include "framework/Configuration.h"
#include "framework/Trace.h"

namespace {

// The names that may always be expanded: where the agent is installed and where the
// log engine lives. Anything else only with allowAll.
constexpr const char* kAllowedNames[] = {"AGENT_BIN_DIR", "AGENT_ETC_DIR", "AGENT_LIB_DIR",
                                         "PELMO_HOME", "PELMOHOME"};

// The result text: a malloc'd buffer as large as the input, grown by reallocation
// (by half again at least, so that a long text with many references is not copied
// over and over). After a failed reallocation the buffer is gone (null, size 0).
struct Output {
  char* buffer;
  size_t size;
  size_t used;
};

bool appendToOutput(Output* out, const char* text, size_t length, const char* input) {
  XRV_TRACE_FN();
  if (out->buffer == nullptr) {
    return false;
  }
  size_t needed = out->used + length + 1;
  if (needed > out->size) {
    size_t size = needed > out->size + out->size / 2 ? needed : out->size + out->size / 2;
    char* grown = static_cast<char*>(realloc(out->buffer, size));
    if (grown == nullptr) {
      XRV_TRACE_ERROR("Unable to reallocate mdl %s\n", input);
      free(out->buffer);
      out->buffer = nullptr;
      out->size = 0;
      out->used = 0;
      return false;
    }
    out->buffer = grown;
    out->size = size;
  }
  memcpy(out->buffer + out->used, text, length);
  out->used += length;
  out->buffer[out->used] = '\0';
  return true;
}

// An owned copy of the value of `name`, or null.
char* lookUpProperty(const char* name, const char* subnodeType, const char* subnodeKey) {
  if (subnodeType != nullptr && subnodeKey != nullptr) {
    return getSubnodeConfigurationProperty(name, subnodeType, subnodeKey);
  }
  return getConfigurationProperty(name);
}

// Appends `line` to *out with its references expanded. False when memory ran out
// (the output is then gone).
bool substituteLine(const char* line, const char* subnodeType, const char* subnodeKey,
                    bool allowAll, const char* input, XRV::String* name, Output* out) {
  XRV_TRACE_FN();
  const char* rest = line;
  for (;;) {
    const char* open = strstr(rest, "${");
    if (open == nullptr) {
      break;
    }
    const char* close = strchr(open + 2, '}');
    if (close == nullptr) {
      break;
    }
    if (!appendToOutput(out, rest, static_cast<size_t>(open - rest), input)) {
      return false;
    }
    if (!name->assign(open + 2, static_cast<size_t>(close - open - 2))) {
      free(out->buffer);
      out->buffer = nullptr;
      return false;
    }
    if (!allowAll && !isSubstituteAllowed(name->c_str())) {
      XRV_TRACE_DETAIL("Substitution of environment variable %s not allowed", name->c_str());
    } else {
      XRV_TRACE_DETAIL("Getting environment variable %s", name->c_str());
      char* value = lookUpProperty(name->c_str(), subnodeType, subnodeKey);
      if (value != nullptr) {
        bool ok = appendToOutput(out, value, strlen(value), input);
        free(value);
        if (!ok) {
          return false;
        }
      }
    }
    rest = close + 1;
  }
  return appendToOutput(out, rest, strlen(rest), input);
}

}  // namespace

bool isSubstituteAllowed(const char* name) {
  XRV_TRACE_FN();
  if (name == nullptr) {
    return false;
  }
  for (const char* allowed : kAllowedNames) {
    if (strcmp(name, allowed) == 0) {
      return true;
    }
  }
  return false;
}

char* Utilities::substituteEnvVars(const char* text, const char* subnodeType,
                                   const char* subnodeKey, bool allowAll) {
  XRV_TRACE_FN();
  if (text == nullptr) {
    return nullptr;
  }
  XRV_TRACE_DETAIL("Prior to substituting variables: %s", text);
  bool multiLine = strchr(text, '\n') != nullptr;
  size_t inputLength = strlen(text);
  Output out{static_cast<char*>(malloc(inputLength + 1)), inputLength + 1, 0};
  if (out.buffer == nullptr) {
    XRV_TRACE_ERROR("Unable to allocate %zu bytes to substitute variables", inputLength + 1);
    return nullptr;
  }
  out.buffer[0] = '\0';

  // Splitting at each line feed keeps empty lines: "a\n\nb" gives "a", "", "b".
  StringTokenizer lines(text, "\n");
  XRV::String name;
  for (const char* line = lines.nextToken(); line != nullptr; line = lines.nextToken()) {
    if (!substituteLine(line, subnodeType, subnodeKey, allowAll, text, &name, &out)) {
      return nullptr;
    }
    if (multiLine && !appendToOutput(&out, "\n", 1, text)) {
      return nullptr;
    }
  }
  XRV_TRACE_DETAIL("Result after substituting variables: %s", out.buffer);
  return out.buffer;
}
