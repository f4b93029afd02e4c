#include "host/BasicAuth.h"

#include <crypt.h>
#include <gnutls/crypto.h>

#include <cstring>
#include <memory>
#include <sstream>

#include "framework/ReadFile.h"

namespace XRV::host {
namespace {

// Users files are small; a larger one is a mistake.
constexpr size_t kMaxUsersFileBytes = 1024 * 1024;
// Remembered good credentials; forgotten all at once beyond this many.
constexpr size_t kMaxVerified = 1024;

std::string trimmed(const std::string& text) {
  const size_t begin = text.find_first_not_of(" \t\r");
  if (begin == std::string::npos) {
    return "";
  }
  return text.substr(begin, text.find_last_not_of(" \t\r") - begin + 1);
}

std::string digestOf(const std::string& user, const std::string& password) {
  std::string both = user;
  both.push_back('\0');
  both += password;
  unsigned char digest[32];
  gnutls_hash_fast(GNUTLS_DIG_SHA256, both.data(), both.size(), digest);
  return std::string(reinterpret_cast<const char*>(digest), sizeof digest);
}

bool sameText(const char* a, const std::string& b) {
  const size_t length = strlen(a);
  if (length != b.size()) {
    return false;
  }
  unsigned char difference = 0;
  for (size_t i = 0; i < length; ++i) {
    difference |= static_cast<unsigned char>(a[i] ^ b[i]);
  }
  return difference == 0;
}

}  // namespace

bool BasicAuth::load(const std::string& path, std::string* error) {
  std::string text;
  if (!readWholeFile(path.c_str(), kMaxUsersFileBytes, &text, error)) {
    return false;
  }
  std::istringstream lines(text);
  std::string line;
  int number = 0;
  while (std::getline(lines, line)) {
    ++number;
    line = trimmed(line);
    if (line.empty() || line[0] == '#') {
      continue;
    }
    const size_t colon = line.find(':');
    const std::string name = colon == std::string::npos ? "" : trimmed(line.substr(0, colon));
    const std::string hash = colon == std::string::npos ? "" : trimmed(line.substr(colon + 1));
    if (name.empty() || hash.rfind("$2", 0) != 0) {
      *error = path + " line " + std::to_string(number) +
               ": expected \"name: bcrypt-hash\" (the hash starts with $2)";
      return false;
    }
    users_[name] = hash;
  }
  if (users_.empty()) {
    *error = path + " names no user";
    return false;
  }
  return true;
}

bool BasicAuth::check(const std::string& user, const std::string& password) {
  const auto found = users_.find(user);
  if (found == users_.end()) {
    return false;
  }
  const std::string digest = digestOf(user, password);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (verified_.count(digest) != 0) {
      return true;
    }
  }
  auto data = std::make_unique<crypt_data>();
  const char* computed = crypt_rn(password.c_str(), found->second.c_str(), data.get(),
                                  static_cast<int>(sizeof(crypt_data)));
  if (computed == nullptr || !sameText(computed, found->second)) {
    return false;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  if (verified_.size() >= kMaxVerified) {
    verified_.clear();
  }
  verified_.insert(digest);
  return true;
}

}  // namespace XRV::host
