#include "platform/Job.h"

#include <cstdio>

namespace vt {

void Completion::fire() const {
  if (state_->fired) return;
  state_->fired = true;
  auto keepAlive = state_;
  auto waiters = std::move(keepAlive->waiters);
  keepAlive->waiters.clear();
  for (auto h : waiters) h.resume();
}

QCoro::Task<bool> Completion::wait(CancelToken token) const {
  if (state_->fired) co_return true;
  if (token.isCancelled()) co_return false;
  // Whichever comes first resumes the waiter; the other side is disarmed.
  struct A {
    std::shared_ptr<State> s;
    CancelToken token;
    CancelToken::CallbackId cb = 0;
    bool cancelled = false;
    std::coroutine_handle<> handle;
    bool await_ready() const { return false; }
    void await_suspend(std::coroutine_handle<> h) {
      handle = h;
      s->waiters.push_back(h);
      cb = token.onCancel([this] {
        cancelled = true;
        auto& w = s->waiters;
        std::erase(w, handle);
        handle.resume();
      });
    }
    bool await_resume() {
      if (!cancelled) token.removeCallback(cb);
      return !cancelled;
    }
  };
  A awaiter{state_, std::move(token)};
  const bool fired = co_await awaiter;
  co_return fired;
}

QCoro::Task<> Job::finished() const {
  if (!state_) co_return;
  auto keep = state_;
  co_await keep->done;
}

void Job::reportUncaught(const std::string& what) {
  std::fprintf(stderr, "background job ended with an exception: %s\n", what.c_str());
}

}  // namespace vt
