#include "logmon/format/QRFSlot.h"

#include <cstdlib>

#include "logmon/format/QRFText.h"

QRFSlot::QRFSlot(const std::string& name, const std::string& value, QRFSlotType type,
                 bool visible, int line)
    : name_(name),
      nativeName_(qrf::toNative(name)),
      value_(value),
      nativeValue_(qrf::toNative(value)),
      type_(type),
      visible_(visible),
      line_(line) {}

void QRFSlot::setValue(const std::string& value) {
  value_ = value;
  nativeValue_ = qrf::toNative(value);
}

int QRFSlot::getVariable() const {
  if (type_ != QRF_SLOT_VARIABLE || value_.size() < 2) {
    return 0;
  }
  return atoi(value_.c_str() + 1);
}

void QRFSlot::setPQLCustomSlot(const std::string& attribute) {
  customSlot_ = attribute;
  nativeCustomSlot_ = qrf::toNative(attribute);
}
