// xrv-settings-doc: prints docs/settings.md from the settings table.
//
//   xrv-settings-doc                 the document on standard output
//   xrv-settings-doc --write FILE    writes it to FILE
//   xrv-settings-doc --check FILE    exit status 1, and how to regenerate, when FILE differs

#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

#include "framework/Settings.h"

namespace {

using XRV::FlagRule;
using XRV::OutOfRange;
using XRV::Setting;
using XRV::SettingKind;
using XRV::SettingScope;
using XRV::SettingSpec;
using XRV::SettingTrace;

const char kIntroduction[] = R"(# Settings

<!-- Generated from the settings table (src/framework/SettingsTable.cpp) by
     `cmake --build build --target settings-doc`; do not edit by hand. -->

Every setting the agent reads. A setting is a configuration property: it is looked up
in the values the agent sets while it runs, the process environment, then the
`[agent]` section of the configuration file ([configuration.md](configuration.md)).
Those marked *environment only* come from the process environment alone: they are
read before the configuration file, or by tracing itself.

A per-group setting is named `CDP_` + the attribute group's name in upper case + its
suffix (`CDP_<GROUP>_CACHE_TTL`). When a group's setting is not set, the agent-wide
setting named as its default applies. A per-application setting is named by the
application a data-source element names (its `app` attribute), as written, + its
suffix (`XRV_SEND_PQL_EVENTS`).

Numbers are read as C's `atoi` reads them (the leading digits; anything else is 0),
except those that take only a whole number within their limits. An empty value counts
as set, except where the values say "empty: unset".

Each section ends with the trace lines the settings write when they are read (detail
lines, or *error* lines), and when: *set*, *unset*, *out of limits* (replaced),
*invalid* (ignored), *on* (a flag on, a number above 0, a choice other than the
default) or *off*. The arguments of `%s` and `%d` follow in brackets.
)";

std::string cell(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '|') {
      out += "\\|";
    } else {
      out += c;
    }
  }
  return out;
}

std::string shownName(const SettingSpec& entry) {
  switch (entry.scope) {
    case SettingScope::Group:
      return std::string("CDP_<GROUP>") + entry.name;
    case SettingScope::Application:
      return std::string("<APPLICATION>") + entry.name;
    default:
      return entry.name;
  }
}

std::string withUnit(long long value, const SettingSpec& entry) {
  std::string text = std::to_string(value);
  if (*entry.unit != '\0') {
    text += std::string(" ") + entry.unit;
  }
  return text;
}

std::string defaultOf(const SettingSpec& entry) {
  if (entry.fallback != Setting::None) {
    return std::string("`") + XRV::settingSpec(entry.fallback).name + "`";
  }
  if (*entry.defaultText != '\0') {
    return entry.defaultText;
  }
  switch (entry.kind) {
    case SettingKind::Text:
      return "unset";
    case SettingKind::Flag:
      return entry.defaultValue != 0 ? "on" : "off";
    case SettingKind::Choice: {
      std::string choices = entry.choices;
      return choices.substr(0, choices.find('|'));
    }
    case SettingKind::Number:
      break;
  }
  return withUnit(entry.defaultValue, entry);
}

std::string valuesOf(const SettingSpec& entry) {
  std::string text;
  switch (entry.kind) {
    case SettingKind::Text:
      text = "text";
      break;
    case SettingKind::Flag:
      text = entry.flag == FlagRule::Yes     ? "on when it starts with Y or y"
             : entry.flag == FlagRule::NotNo ? "off when it starts with N or n"
                                             : "on when set, whatever the value";
      break;
    case SettingKind::Choice: {
      std::string choices = entry.choices;
      for (size_t bar = choices.find('|'); bar != std::string::npos; bar = choices.find('|')) {
        choices.replace(bar, 1, " or ");
      }
      text = choices + ", in any case; another value is invalid";
      break;
    }
    case SettingKind::Number:
      text = *entry.unit != '\0' ? std::string("number (") + entry.unit + ")" : "number";
      switch (entry.outOfRange) {
        case OutOfRange::Accept:
          break;
        case OutOfRange::Replace:
          text += "; below " + std::to_string(entry.min) + ": " + std::to_string(entry.replacement);
          break;
        case OutOfRange::Ignore:
          text += "; below " + std::to_string(entry.min) + ": invalid, ignored";
          break;
        case OutOfRange::Reject:
          text = "whole number, " + std::to_string(entry.min) + " to " + std::to_string(entry.max) +
                 "; another value: the default, with a warning";
          break;
      }
      break;
  }
  if (entry.emptyIsUnset && entry.kind != SettingKind::Flag) {
    text += "; empty: unset";
  } else if (entry.emptyIsUnset) {
    text += " (empty: unset)";
  }
  if (entry.scope == SettingScope::Environment) {
    text = "*environment only*; " + text;
  }
  return text;
}

std::string whenOf(uint8_t condition) {
  namespace when = XRV::when;
  static const struct {
    uint8_t bit;
    const char* word;
  } kWords[] = {
      {when::Set, "set"},         {when::Unset, "unset"}, {when::Replaced, "out of limits"},
      {when::Invalid, "invalid"}, {when::On, "on"},       {when::Off, "off"}};
  std::string text;
  for (const auto& word : kWords) {
    if ((condition & word.bit) != 0) {
      text += std::string(text.empty() ? "" : ", ") + word.word;
    }
  }
  return text.empty() ? "always" : text;
}

std::string argumentsOf(const char* args) {
  std::string text;
  for (const char* p = args; *p != '\0'; ++p) {
    const char* word = *p == 'g'   ? "group"
                       : *p == 'n' ? "setting name"
                       : *p == 't' ? "value as given"
                       : *p == 'v' ? "number in force"
                       : *p == 'o' ? "on/off"
                                   : "command";
    text += std::string(text.empty() ? "" : ", ") + word;
  }
  return text.empty() ? "" : " [" + text + "]";
}

std::string traceText(const char* format) {
  std::string text;
  for (const char* p = format; *p != '\0'; ++p) {
    text += *p == '\n' ? std::string("\\n") : std::string(1, *p);
  }
  return text;
}

std::string document() {
  std::ostringstream out;
  out << kIntroduction;
  const auto settings = XRV::allSettings();
  for (size_t first = 0; first < settings.size();) {
    const char* section = settings[first].section;
    size_t end = first;
    while (end < settings.size() && strcmp(settings[end].section, section) == 0) {
      ++end;
    }
    out << "\n## " << section << "\n\n| Setting | Default | Values | Effect |\n|---|---|---|---|\n";
    for (size_t i = first; i < end; ++i) {
      const SettingSpec& entry = settings[i];
      out << "| `" << shownName(entry) << "` | " << cell(defaultOf(entry)) << " | "
          << cell(valuesOf(entry)) << " | " << cell(entry.effect) << " |\n";
    }
    bool heading = false;
    for (size_t i = first; i < end; ++i) {
      const SettingSpec& entry = settings[i];
      for (const SettingTrace& trace : entry.traces) {
        if (trace.format == nullptr) {
          continue;
        }
        if (!heading) {
          out << "\nTrace lines:\n\n";
          heading = true;
        }
        out << "- `" << shownName(entry) << "`, " << whenOf(trace.when)
            << (trace.error ? " (*error*)" : "") << ": `" << traceText(trace.format) << "`"
            << argumentsOf(trace.args) << "\n";
      }
    }
    first = end;
  }
  return out.str();
}

}  // namespace

int main(int argc, char** argv) {
  const std::string text = document();
  if (argc == 1) {
    std::cout << text;
    return 0;
  }
  if (argc == 3 && strcmp(argv[1], "--write") == 0) {
    std::ofstream file(argv[2], std::ios::binary | std::ios::trunc);
    file << text;
    return file.good() ? 0 : 1;
  }
  if (argc == 3 && strcmp(argv[1], "--check") == 0) {
    std::ifstream file(argv[2], std::ios::binary);
    std::stringstream committed;
    committed << file.rdbuf();
    if (file && committed.str() == text) {
      return 0;
    }
    std::cerr << argv[2] << " is not what the settings table gives; regenerate it with\n"
              << "  cmake --build build --target settings-doc\n"
              << "and commit the result.\n";
    return 1;
  }
  std::cerr << "usage: xrv-settings-doc [--write FILE | --check FILE]\n";
  return 2;
}
