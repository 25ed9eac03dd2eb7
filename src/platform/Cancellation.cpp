#include "platform/Cancellation.h"

namespace vt {

CancelToken::CancelToken() : state_(std::make_shared<State>()) {}

void CancelToken::cancel() const {
  if (state_->cancelled) return;
  state_->cancelled = true;
  // A callback may resume a coroutine that removes other callbacks, so take
  // them out one at a time instead of iterating over the live map.
  auto keepAlive = state_;
  while (!keepAlive->callbacks.empty()) {
    auto node = keepAlive->callbacks.extract(keepAlive->callbacks.begin());
    node.mapped()();
  }
}

CancelToken::CallbackId CancelToken::onCancel(std::function<void()> fn) const {
  if (state_->cancelled) {
    fn();
    return 0;
  }
  const auto id = state_->nextId++;
  state_->callbacks.emplace(id, std::move(fn));
  return id;
}

void CancelToken::removeCallback(CallbackId id) const {
  if (id != 0) state_->callbacks.erase(id);
}

CancelToken CancelToken::child() const {
  CancelToken c;
  if (isCancelled()) {
    c.state_->cancelled = true;
    return c;
  }
  std::weak_ptr<State> weak = c.state_;
  onCancel([weak] {
    if (auto s = weak.lock()) {
      CancelToken t;
      t.state_ = s;
      t.cancel();
    }
  });
  return c;
}

}  // namespace vt
