// Format-file mode's records: the engine hands over the OBVEvent value that the
// format's REPLACEFIRST template wrote (QRFConfig.h); it becomes the OBV event text,
// its format's class and its slots, which fill the attributes Class, msg and the
// custom attributes the slots are mapped to. Records of the class *DISCARD* are
// dropped here.

#include <cstring>

#include "framework/Trace.h"
#include "logmon/LogMonitorQrf.h"
#include "logmon/format/QRFEventText.h"
#include "logmon/format/QRFText.h"
#include "provider/ResultInstance.h"
#include "provider/ResultMetric.h"

namespace {

constexpr const char kClassSlot[] = "__QRF_Class_Slot";
constexpr const char kDiscard[] = "*DISCARD*";

// `value` between single quotes, a quote inside written twice.
std::string quotedValue(const std::string& value) {
  std::string out = "'";
  for (const char c : value) {
    out += c;
    if (c == '\'') {
      out += '\'';
    }
  }
  return out + "'";
}

void replaceAll(std::string* text, std::string_view token, const std::string& replacement) {
  for (size_t at = text->find(token); at != std::string::npos;
       at = text->find(token, at + replacement.size())) {
    text->replace(at, token.size(), replacement);
  }
}

// A slot's values as one attribute value: the item itself, or [a,b,...].
std::string attributeValue(const std::vector<std::string>& values) {
  if (values.size() == 1) {
    return values[0];
  }
  std::string out = "[";
  for (size_t i = 0; i < values.size(); ++i) {
    out += (i == 0 ? "" : ",") + values[i];
  }
  return out + "]";
}

}  // namespace

std::string LogMonitorQueryClass::expandForQRF(const QRFConfig& config, const char* text,
                                               int* formatIndex, const char* fileName,
                                               const char* remoteHost, QrfSlotMap* slots) {
  XRV_TRACE_FN();
  QRFEventText event;
  const std::string_view raw = text == nullptr ? std::string_view() : std::string_view(text);
  if (!decodeEventText(raw, config, &event)) {
    XRV_TRACE_ERROR("Event text is not well formed, taking what could be read: %s",
                    std::string(raw.substr(0, 200)).c_str());
  }
  *formatIndex = event.formatIndex;
  const QRFFormatNode* node = config.getFormat(event.formatIndex);
  std::string out;
  if (event.formatIndex < 0) {
    XRV_TRACE_DETAIL(
        "Does not contain format index, continuing, but will not be able to use PQL custom "
        "attributes");
  } else if (node != nullptr) {
    (*slots)[kClassSlot] = {node->getWskClass()};
    out = node->getWskClass() + ";";
  }
  const std::string regex = node == nullptr ? "" : node->getExpressionString();
  const std::string file = fileName == nullptr ? "" : fileName;
  const std::string host = remoteHost == nullptr ? "" : remoteHost;
  for (QRFEventSlot& slot : event.slots) {
    for (std::string& value : slot.values) {
      if (value.find("%XRV_") == std::string::npos) {
        continue;
      }
      replaceAll(&value, "%XRV_FILENAME%", file);
      replaceAll(&value, "%XRV_REGEX%", regex);
      replaceAll(&value, "%XRV_REMHOST%", host);
    }
    out += slot.name + "=";
    if (slot.list) {
      out += "[";
      for (size_t i = 0; i < slot.values.size(); ++i) {
        out += (i == 0 ? "" : ",") + quotedValue(slot.values[i]);
      }
      out += "]";
    } else {
      out += quotedValue(slot.values.empty() ? "" : slot.values[0]);
    }
    out += ";";
    (*slots)[slot.name] = std::move(slot.values);
  }
  return out + "END";
}

// Slots are taken in the format's order: of two slots mapped to one attribute the later
// one (a subclass's own rather than an inherited one) fills it.
void LogMonitorQueryClass::mapQRFCustomSlots(const QRFConfig& config, int formatIndex,
                                             const QrfSlotMap& slots,
                                             std::map<std::string, std::string>* attributes) {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("QRF: Filling in custom slots");
  const QRFFormatNode* node = config.getFormat(formatIndex);
  const auto fill = [&](const std::string& name, const std::vector<std::string>& values,
                        const std::string& custom) {
    if (!custom.empty()) {
      XRV_TRACE_DETAIL("Found slot %s mapped to custom attribute %s", name.c_str(), custom.c_str());
      (*attributes)[custom] = attributeValue(values);
    } else if (name == "msg") {
      XRV_TRACE_DETAIL(
          "Found msg slot not specifically mapped to something else, mapping automatically to "
          "msg attribute");
      attributes->emplace("msg", attributeValue(values));  // a mapping to msg wins
    }
  };
  if (node == nullptr) {
    if (const auto msg = slots.find("msg"); msg != slots.end()) {
      fill(msg->first, msg->second, "");
    }
  } else {
    for (const auto& [name, values] : slots) {
      if (name != kClassSlot && node->getSlot(name) == nullptr) {
        XRV_TRACE_ERROR("Error: slot %s does not exist", name.c_str());
      }
    }
    for (const auto& slot : node->getSlots()) {
      if (const auto found = slots.find(slot->getName()); found != slots.end()) {
        fill(found->first, found->second, slot->getPQLCustomSlot());
      }
    }
  }
  if (const auto found = slots.find(kClassSlot); found != slots.end() && !found->second.empty()) {
    XRV_TRACE_DETAIL("Found Class value %s mapping to PQL Class attribute",
                     found->second[0].c_str());
    (*attributes)["Class"] = found->second[0];
  }
}

bool LogMonitorQueryClass::prepareQrfRecord(const QrfState& state, const XPWP_NameValue* pairs,
                                            int count, const char* source, const char* remoteHost,
                                            std::string* eventText,
                                            std::map<std::string, std::string>* values) {
  XRV_TRACE_FN();
  const char* obvEvent = nullptr;
  for (int i = 0; i < count && pairs != nullptr; ++i) {
    if (pairs[i].name != nullptr && strcmp(pairs[i].name, "OBVEvent") == 0) {
      obvEvent = pairs[i].value;
      break;
    }
  }
  const char* file = source == nullptr ? "" : source;
  const std::string fileName = !state.syslogPipe.empty() && strncmp(file, state.syslogPipe.c_str(),
                                                                    state.syslogPipe.size()) == 0
                                   ? std::string("SysLogD")
                                   : qrf::toUTF8(file);
  QrfSlotMap slots;
  int formatIndex = -1;
  if (obvEvent != nullptr) {
    *eventText =
        expandForQRF(*state.config, obvEvent, &formatIndex, fileName.c_str(), remoteHost, &slots);
  }
  const auto found = slots.find(kClassSlot);
  if (found != slots.end() && !found->second.empty() && found->second[0] == kDiscard) {
    XRV_TRACE_DETAIL("Found %s in value %s of metric %s, discarding event", kDiscard, obvEvent,
                     "OBVEvent");
    return false;
  }
  (*values)["OBVEvent"] = includeObvEventAttr_.load() ? *eventText : "";
  (*values)["RemoteHost"] = remoteHost == nullptr ? "" : remoteHost;
  if (sendAsEvent_) {
    mapQRFCustomSlots(*state.config, formatIndex, slots, values);
  }
  return true;
}

void LogMonitorQueryClass::submitObvEvent(const QrfState& state, const std::string& eventText) {
  XRV_TRACE_FN();
  if (state.emitter == nullptr || !sendObvEvents_) {
    return;
  }
  if (eventText.empty()) {
    XRV_TRACE_ERROR("ERROR: qrfOBVEvent is NULL, can't send OBV Event");
    return;
  }
  XRV_TRACE_DETAIL("Submitting OBV event:\n%s", eventText.c_str());
  state.emitter->submit(eventText);
}

// With DupDetectionKeyAttributes, two events are duplicates when those attributes are
// equal; otherwise as for every event group (the key attributes and derived values).
bool LogMonitorQueryClass::instancesMatch(const ResultInstance* a, const ResultInstance* b) {
  {
    PthreadMutexLock lock(dupLock_);
    if (!dupKeys_.empty()) {
      XRV_TRACE_FN();
      const ResultMetric* left = a->getFirstMetric();
      const ResultMetric* right = b->getFirstMetric();
      for (int index = 0; left != nullptr && right != nullptr;
           ++index, left = static_cast<const ResultMetric*>(left->getNextElement()),
               right = static_cast<const ResultMetric*>(right->getNextElement())) {
        const char* name = left->getMetricName();
        const auto key = dupKeys_.find(name == nullptr ? "" : name);
        if (key != dupKeys_.end() && key->second == index && !left->areValuesEqual(right)) {
          return false;
        }
      }
      return true;
    }
  }
  return ResultsManager::instancesMatch(a, b);
}
