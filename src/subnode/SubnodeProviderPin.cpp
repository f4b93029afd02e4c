#include "subnode/SubnodeProviderPin.h"

#include <utility>

#include "provider/UAClientClass.h"

SubnodeProviderPin::SubnodeProviderPin(UAClientClass* provider) : provider_(provider) {
  provider_->setGenericAgentInUse(true);
}

SubnodeProviderPin::SubnodeProviderPin(SubnodeProviderPin&& other) noexcept
    : provider_(std::exchange(other.provider_, nullptr)) {}

SubnodeProviderPin& SubnodeProviderPin::operator=(SubnodeProviderPin&& other) noexcept {
  if (this != &other) {
    reset();
    provider_ = std::exchange(other.provider_, nullptr);
  }
  return *this;
}

void SubnodeProviderPin::reset() {
  if (provider_ != nullptr) {
    std::exchange(provider_, nullptr)->setGenericAgentInUse(false);
  }
}
