#pragma once

// The attributes of a metadata group written as words "name:type:size":
// attrs("K:2:4 V:0:4") is <attr name="K" type="2" size="4"/><attr name="V" type="0" size="4"/>.

#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace XRV::testing {

inline std::string attrs(const std::string& words) {
  std::istringstream in(words);
  std::string elements;
  for (std::string word; in >> word;) {
    const size_t type = word.find(':');
    const size_t size = type == std::string::npos ? type : word.find(':', type + 1);
    if (size == std::string::npos) {
      ADD_FAILURE() << "not name:type:size: " << word;
      continue;
    }
    elements += "<attr name=\"" + word.substr(0, type) + "\" type=\"" +
                word.substr(type + 1, size - type - 1) + "\" size=\"" + word.substr(size + 1) +
                "\"/>";
  }
  return elements;
}

}  // namespace XRV::testing
