#include "host/AuditTrail.h"

#include <time.h>

#include <atomic>

namespace XRV::host {
namespace {

// Slot fields are written and read through relaxed atomic accesses: a reader may
// meet a writer in the same slot, and the stamps decide afterwards whether the copy
// counts.
template <typename T>
void store(T& field, T value) {
  std::atomic_ref<T>(field).store(value, std::memory_order_relaxed);
}

template <typename T>
T load(const T& field) {
  return std::atomic_ref<T>(const_cast<T&>(field)).load(std::memory_order_relaxed);
}

template <size_t N>
void storeText(char (&field)[N], const char* text) {
  size_t i = 0;
  if (text != nullptr) {
    for (; i + 1 < N && text[i] != '\0'; ++i) {
      store(field[i], text[i]);
    }
  }
  store(field[i], '\0');
}

template <size_t N>
std::string loadText(const char (&field)[N]) {
  std::string text;
  for (size_t i = 0; i < N; ++i) {
    const char c = load(field[i]);
    if (c == '\0') {
      break;
    }
    text.push_back(c);
  }
  return text;
}

int64_t nowMillis() {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);  // async-signal-safe
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

}  // namespace

void AuditTrail::add(const FwAuditRecord& record) noexcept {
  const uint64_t index = next_.fetch_add(1, std::memory_order_relaxed);
  Slot& slot = slots_[index % kSlots];
  slot.stamp.store(2 * index + 1, std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_release);
  store(slot.timeMillis, nowMillis());
  store(slot.recordClass, record.recordClass);
  store(slot.recordCode, record.recordCode);
  storeText(slot.component, record.component);
  storeText(slot.text, record.text);
  storeText(slot.category, record.category);
  storeText(slot.action, record.action);
  storeText(slot.messageId, record.messageId);
  storeText(slot.productName, record.productName);
  storeText(slot.applicationName, record.applicationName);
  slot.stamp.store(2 * index + 2, std::memory_order_release);
}

std::vector<AuditEntry> AuditTrail::entries() const {
  std::vector<AuditEntry> result;
  const uint64_t end = next_.load(std::memory_order_acquire);
  const uint64_t begin = end > kSlots ? end - kSlots : 0;
  for (uint64_t index = begin; index < end; ++index) {
    const Slot& slot = slots_[index % kSlots];
    if (slot.stamp.load(std::memory_order_acquire) != 2 * index + 2) {
      continue;  // being written, or already reused by a newer record
    }
    AuditEntry entry;
    entry.seq = index + 1;
    entry.timeMillis = load(slot.timeMillis);
    entry.recordClass = load(slot.recordClass);
    entry.recordCode = load(slot.recordCode);
    entry.component = loadText(slot.component);
    entry.text = loadText(slot.text);
    entry.category = loadText(slot.category);
    entry.action = loadText(slot.action);
    entry.messageId = loadText(slot.messageId);
    entry.productName = loadText(slot.productName);
    entry.applicationName = loadText(slot.applicationName);
    std::atomic_thread_fence(std::memory_order_acquire);
    if (slot.stamp.load(std::memory_order_relaxed) == 2 * index + 2) {
      result.push_back(std::move(entry));
    }
  }
  return result;
}

}  // namespace XRV::host
