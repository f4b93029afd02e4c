#pragma once

// SubnodeProviderPin: holds a subnode's provider for as long as the pin lives.
//
// The subnode manager's pin lookups return one. It is made under the manager's
// lock, where it marks the provider in use (setGenericAgentInUse); the zombie
// killer, deciding under the same lock, never deletes a provider so marked. So the
// provider stays valid while the pin lives, even when its subnode is removed
// meanwhile; the pin's end (destruction, reset, or being moved over) ends the mark.
//
// Move-only. A pin belongs to one thread at a time; pins of the same provider on
// different threads are independent (the mark counts them).

class UAClientClass;

class SubnodeProviderPin {
 public:
  SubnodeProviderPin() = default;
  ~SubnodeProviderPin() { reset(); }
  SubnodeProviderPin(SubnodeProviderPin&& other) noexcept;
  SubnodeProviderPin& operator=(SubnodeProviderPin&& other) noexcept;
  SubnodeProviderPin(const SubnodeProviderPin&) = delete;
  SubnodeProviderPin& operator=(const SubnodeProviderPin&) = delete;

  UAClientClass* get() const { return provider_; }
  UAClientClass* operator->() const { return provider_; }
  explicit operator bool() const { return provider_ != nullptr; }
  // Ends the pin now; the provider must not be used afterwards.
  void reset();

 private:
  friend class SubnodeManager;
  // Marks `provider` in use. Only under the subnode manager's lock, while the
  // provider is live.
  explicit SubnodeProviderPin(UAClientClass* provider);

  UAClientClass* provider_ = nullptr;
};
