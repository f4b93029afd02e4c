#include "sources/process/ProcessRule.h"

#include <cstdlib>
#include <cstring>

#include "framework/Trace.h"
#include "provider/expression/Regex.h"

std::shared_ptr<ProcessRule> ProcessRule::make(const std::string& rule, const std::string& name,
                                               const std::string& cmdline,
                                               const std::string& user, int minimum, int maximum,
                                               std::string* error) {
  XRV_TRACE_FN();
  if (name.empty() && cmdline.empty() && user.empty()) {
    *error = "it has none of name, cmdline and user";
    return nullptr;
  }
  std::shared_ptr<ProcessRule> made(new ProcessRule());
  if (!cmdline.empty()) {
    std::string why;
    made->cmdline_ = XRV::expression::Regex::compile(cmdline, &why);
    if (made->cmdline_ == nullptr) {
      *error = why;
      return nullptr;
    }
  }
  made->rule_ = !rule.empty() ? rule : !name.empty() ? name : !user.empty() ? user : cmdline;
  made->name_ = name;
  made->cmdlinePattern_ = cmdline;
  made->user_ = user;
  if (!user.empty() && strspn(user.c_str(), "0123456789") == user.size()) {
    made->userId_ = strtoll(user.c_str(), nullptr, 10);
  }
  made->minimum_ = minimum < 0 ? 0 : minimum;
  made->maximum_ = maximum < 0 ? 0 : maximum;
  return made;
}

ProcessRule::~ProcessRule() = default;

std::string_view ProcessRule::trimmedCmdline(const ps_info& process) {
  std::string_view text = process.cmdline == nullptr ? "" : process.cmdline;
  while (!text.empty() && text.back() == ' ') {
    text.remove_suffix(1);
  }
  return text;
}

bool ProcessRule::matches(const ps_info& process) const {
  if (!name_.empty() && name_ != process.commandName) {
    return false;
  }
  if (!user_.empty() && (!process.statusRead || (userId_ >= 0 ? process.uid[1] != userId_
                                                                : user_ != process.userName[1]))) {
    return false;
  }
  if (cmdline_ != nullptr) {
    std::string error;
    const bool found = cmdline_->find(trimmedCmdline(process), &error);
    if (!error.empty()) {
      XRV_TRACE_SITE();
      XRV_TRACE_ERROR("Process rule %s: %s", rule_.c_str(), error.c_str());
    }
    return found;
  }
  return true;
}
