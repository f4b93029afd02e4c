#include "framework/Settings.h"

#include <strings.h>

#include <charconv>
#include <cstdlib>
#include <cstring>

#include "framework/Configuration.h"

namespace XRV {
namespace {

// --- Reading ---

bool hasTraces(const SettingSpec& entry) { return entry.traces[0].format != nullptr; }

// The raw value: set, and the text.
bool lookUp(const SettingSpec& entry, const std::string& name, std::string* text) {
  if (entry.scope == SettingScope::Environment) {
    const char* value = getenv(name.c_str());
    if (value == nullptr) {
      return false;
    }
    text->assign(value);
    return true;
  }
  char* value = fwGetEnv(name.c_str(), nullptr);
  if (value == nullptr) {
    return false;
  }
  text->assign(value);
  free(value);
  return true;
}

// The number `text` holds as the agent has always taken it: atoi, or atoll for wide
// settings; Reject settings take only whole numbers.
bool parseNumber(const SettingSpec& entry, const std::string& text, long long* number) {
  if (entry.outOfRange == OutOfRange::Reject) {
    long value = 0;
    const char* end = text.data() + text.size();
    const auto [stop, status] = std::from_chars(text.data(), end, value);
    *number = value;
    return status == std::errc() && stop == end;
  }
  const long long value = strtoll(text.c_str(), nullptr, 10);
  *number = entry.wide ? value : static_cast<long long>(static_cast<int>(value));
  return true;
}

int choiceIndex(const char* choices, const std::string& text) {
  int index = 0;
  for (const char* start = choices; *start != '\0'; ++index) {
    const char* bar = strchr(start, '|');
    const size_t length = bar == nullptr ? strlen(start) : static_cast<size_t>(bar - start);
    if (text.size() == length && strncasecmp(text.c_str(), start, length) == 0) {
      return index;
    }
    start += length + (bar == nullptr ? 0 : 1);
  }
  return -1;
}

bool flagValue(FlagRule rule, const std::string& text) {
  const char first = text.empty() ? '\0' : text[0];
  switch (rule) {
    case FlagRule::Yes:
      return first == 'Y' || first == 'y';
    case FlagRule::NotNo:
      return first != 'N' && first != 'n';
    case FlagRule::Present:
      return true;
    case FlagRule::None:
      break;
  }
  return false;
}

void appendWarning(const SettingContext& context, const SettingSpec& entry, const std::string& name,
                   const std::string& text) {
  if (context.warning == nullptr) {
    return;
  }
  std::string& w = *context.warning;
  w += std::string(w.empty() ? "" : "; ") + name + "=" + text + " is not a number from " +
       std::to_string(entry.min) + " to " + std::to_string(entry.max) + ", using " +
       std::to_string(entry.defaultValue);
}

// Reads `entry` into *read (whose name is already the name first looked up for it).
void readInto(const SettingSpec& entry, const std::string& name, const SettingContext& context,
              SettingRead* read) {
  std::string text;
  bool present = lookUp(entry, name, &text);
  if (present && entry.emptyIsUnset && text.empty()) {
    present = false;
  }
  read->traced = entry.id;
  read->given = present;
  read->text = present ? text : std::string();
  uint8_t outcome = 0;
  long long value = entry.defaultValue;
  if (context.hasDefault && entry.id == context.defaultFor) {
    value = context.defaultValue;
  }
  if (present) {
    outcome = when::Set;
    switch (entry.kind) {
      case SettingKind::Text:
        break;
      case SettingKind::Flag:
        value = flagValue(entry.flag, text) ? 1 : 0;
        break;
      case SettingKind::Choice: {
        const int index = choiceIndex(entry.choices, text);
        if (index < 0) {
          outcome = when::Invalid | when::Unset;
        } else {
          value = index;
        }
        break;
      }
      case SettingKind::Number: {
        long long number = 0;
        const bool whole = parseNumber(entry, text, &number);
        if (whole && number >= entry.min && number <= entry.max) {
          value = number;
        } else if (entry.outOfRange == OutOfRange::Replace) {
          value = entry.replacement;
          outcome = when::Replaced;
        } else if (entry.outOfRange == OutOfRange::Ignore) {
          outcome = when::Invalid | when::Unset;
        } else if (entry.outOfRange == OutOfRange::Reject) {
          appendWarning(context, entry, name, text);
          outcome = when::Unset;
        } else {
          value = number;
        }
        break;
      }
    }
  }
  if ((outcome & when::Set) == 0 && (outcome & when::Replaced) == 0) {
    outcome |= when::Unset;
    if (entry.fallback != Setting::None) {
      const SettingSpec& fallback = settingSpec(entry.fallback);
      readInto(fallback, fallback.name, context, read);
      if (!hasTraces(fallback)) {
        read->traced = entry.id;
      }
      read->outcome |= outcome & when::Invalid;
      return;
    }
  }
  read->set = (outcome & (when::Set | when::Replaced)) != 0;
  const bool on = entry.kind == SettingKind::Choice ? value != entry.defaultValue
                  : entry.kind == SettingKind::Text ? !read->text.empty()
                                                    : value > 0;
  // Wraps rather than overflows for absurd sizes, as the size_t arithmetic it replaces.
  read->number = static_cast<long long>(static_cast<unsigned long long>(value) *
                                        static_cast<unsigned long long>(entry.scale));
  read->outcome = outcome | (on ? when::On : when::Off);
}

bool applies(uint8_t condition, uint8_t outcome) {
  constexpr uint8_t kPrimary = when::Set | when::Unset | when::Replaced;
  constexpr uint8_t kState = when::On | when::Off;
  const auto fits = [&](uint8_t mask) {
    return (condition & mask) == 0 || (condition & outcome & mask) != 0;
  };
  return fits(kPrimary) && fits(kState) && fits(when::Invalid);
}

}  // namespace

const SettingSpec& settingSpec(Setting id) { return allSettings()[static_cast<size_t>(id)]; }

std::string settingName(Setting id, const char* owner) {
  const SettingSpec& entry = settingSpec(id);
  if (entry.scope == SettingScope::Application) {
    return std::string(owner == nullptr ? "" : owner) + entry.name;
  }
  if (entry.scope != SettingScope::Group) {
    return entry.name;
  }
  // ASCII only: the name of a setting must not depend on the process locale.
  std::string name = "CDP_";
  for (const char* p = owner == nullptr ? "" : owner; *p != '\0'; ++p) {
    name += (*p >= 'a' && *p <= 'z') ? static_cast<char>(*p - 'a' + 'A') : *p;
  }
  return name + entry.name;
}

SettingRead readSetting(Setting id, const SettingContext& context) {
  SettingRead read;
  read.name = settingName(id, settingSpec(id).scope == SettingScope::Application
                                  ? context.application
                                  : context.group);
  readInto(settingSpec(id), read.name, context, &read);
  if (context.site != nullptr) {
    traceSetting(read, context);
  }
  return read;
}

std::string renderSettingText(const SettingTrace& trace, const SettingRead& read,
                              const SettingContext& context) {
  std::string out;
  const char* arg = trace.args;
  for (const char* p = trace.format; *p != '\0'; ++p) {
    if (*p != '%') {
      out += *p;
      continue;
    }
    ++p;
    if (*p == '%') {
      out += '%';
      continue;
    }
    p += *p == 'l' ? 2 : 0;  // %lld
    switch (*arg++) {
      case 'g':
        out += context.group == nullptr ? "(null)" : context.group;
        break;
      case 'n':
        out += read.name;
        break;
      case 't':
        out += read.given ? read.text : "(null)";
        break;
      case 'v':
        out += std::to_string(read.number);
        break;
      case 'o':
        out += read.on() ? "on" : "off";
        break;
      case 'x':
        out += context.extra == nullptr ? "(null)" : context.extra;
        break;
      default:
        break;
    }
  }
  return out;
}

void traceSetting(const SettingRead& read, const SettingContext& context) {
  if (context.site == nullptr || read.traced == Setting::None) {
    return;
  }
  for (const SettingTrace& trace : settingSpec(read.traced).traces) {
    if (trace.format == nullptr || !applies(trace.when, read.outcome)) {
      continue;
    }
    const uint32_t flag = trace.error ? trace::TRACE_ERROR : trace::TRACE_DETAIL;
    if (context.site->enabled(flag)) {
      trace::writeText(*context.site, context.line,
                       renderSettingText(trace, read, context).c_str());
    }
  }
}

void traceSettingValue(Setting id, long long number, const SettingContext& context) {
  SettingRead read;
  read.traced = id;
  read.name = settingName(id, context.group);
  read.number = number;
  read.outcome = number > 0 ? when::On : when::Off;
  traceSetting(read, context);
}

}  // namespace XRV
