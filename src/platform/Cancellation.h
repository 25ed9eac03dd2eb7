#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>

namespace vt {

// Cooperative cancellation. A token is a cheap shared handle: every copy sees
// the same flag. Suspension points (sleeps, network calls, child processes)
// register a callback so that they wake at once when the token is cancelled.
// Main thread only.
class CancelToken {
 public:
  using CallbackId = uint64_t;

  CancelToken();

  // A token that is never cancelled (the default argument of every call).
  static CancelToken none() { return CancelToken(); }

  void cancel() const;
  bool isCancelled() const { return state_->cancelled; }

  // Runs `fn` when the token is cancelled (at once when it already is; then 0
  // is returned). Remove the callback when the awaited work ends first.
  CallbackId onCancel(std::function<void()> fn) const;
  void removeCallback(CallbackId id) const;

  // A token that is cancelled when this one is, and can also be cancelled alone.
  CancelToken child() const;

  bool operator==(const CancelToken& other) const { return state_ == other.state_; }

 private:
  struct State {
    bool cancelled = false;
    CallbackId nextId = 1;
    std::map<CallbackId, std::function<void()>> callbacks;
  };
  std::shared_ptr<State> state_;
};

}  // namespace vt
