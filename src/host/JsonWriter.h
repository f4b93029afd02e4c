#pragma once

// JsonWriter: builds one JSON document into a string, appending as it goes: the
// HTTP answers are written straight from the agent's rows without an intermediate
// document tree.
//
//   JsonWriter json;
//   json.beginObject().key("group").value("Disk_Usage").key("rows").beginArray();
//   ...
//   json.endArray().endObject();
//   std::string body = json.take();
//
// Commas are placed by the writer; the caller keeps the nesting balanced. Texts are
// escaped, and bytes that are not valid UTF-8 become U+FFFD, so the result is always
// valid JSON whatever a script printed. Not thread-safe (one writer per answer).

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace XRV::host {

class JsonWriter {
 public:
  JsonWriter& beginObject();
  JsonWriter& endObject();
  JsonWriter& beginArray();
  JsonWriter& endArray();
  JsonWriter& key(std::string_view name);
  JsonWriter& value(std::string_view text);
  JsonWriter& value(const char* text) { return value(std::string_view(text)); }
  JsonWriter& value(int64_t number);
  JsonWriter& value(uint64_t number);
  JsonWriter& value(int number) { return value(static_cast<int64_t>(number)); }
  JsonWriter& value(bool flag);
  JsonWriter& null();
  // A value that is already JSON text, copied as it stands.
  JsonWriter& raw(std::string_view json);

  const std::string& text() const { return out_; }
  std::string take() { return std::move(out_); }

 private:
  void separate();

  std::string out_;
  std::vector<bool> first_;  // per open container: nothing written in it yet
  bool afterKey_ = false;
};

// Appends `text` as a quoted JSON string.
void appendJsonString(std::string& out, std::string_view text);

}  // namespace XRV::host
