#pragma once

// A configuration property as a std::string, for code that reads a few settings once.

#include <cstdlib>
#include <string>

#include "framework/Configuration.h"

// True with the value in *value when `name` is set; false (and *value untouched)
// when it is not.
inline bool readSetting(const char* name, std::string* value) {
  char* text = fwGetEnv(name, nullptr);
  if (text == nullptr) {
    return false;
  }
  value->assign(text);
  free(text);
  return true;
}
