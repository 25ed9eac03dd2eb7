#pragma once

#include <coroutine>
#include <exception>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <qcoro/qcorotask.h>

#include "platform/Cancellation.h"

namespace vt {

// Two traps of the toolchain that every coroutine here must avoid:
// - gcc 12 miscompiles aggregate temporaries, braced lists and lambda
//   temporaries written inside a `co_await` expression: name the value first.
// - QCoro 0.8's Task<T> *moves* from an lvalue handed to `co_return` when its
//   type is not exactly T (`co_return member;` into an optional, a
//   shared_ptr copy of a member, ...): the member is left empty. Return a
//   local copy when the value must stay where it is.

// A one-shot event a job can await. Copies share the state. Main thread only.
class Completion {
 public:
  Completion() : state_(std::make_shared<State>()) {}

  void fire() const;
  bool isFired() const { return state_->fired; }

  auto operator co_await() const {
    struct A {
      std::shared_ptr<State> s;
      bool await_ready() const { return s->fired; }
      void await_suspend(std::coroutine_handle<> h) { s->waiters.push_back(h); }
      void await_resume() const {}
    };
    return A{state_};
  }

  // Waits for the event or the token; false when the token ended the wait.
  QCoro::Task<bool> wait(CancelToken token) const;

 private:
  struct State {
    bool fired = false;
    std::vector<std::coroutine_handle<>> waiters;
  };
  std::shared_ptr<State> state_;
};

// A background job: a coroutine on the main thread with its own cancellation.
// The job runs until its coroutine returns; cancel() asks it to stop, and it
// notices at its next suspension (a sleep wakes at once). Dropping the handle
// does not stop the job.
class Job {
 public:
  Job() = default;

  // `fn` is called with the job's token and returns a QCoro::Task<>. It runs
  // at once up to its first suspension.
  template <class F>
  static Job start(F fn, CancelToken parent = CancelToken::none()) {
    Job job;
    job.state_ = std::make_shared<State>();
    job.state_->token = parent.child();
    run(job.state_, std::move(fn));
    return job;
  }

  void cancel() const {
    if (state_) state_->token.cancel();
  }
  bool isValid() const { return static_cast<bool>(state_); }
  bool isRunning() const { return state_ && !state_->done.isFired(); }
  bool isCancelled() const { return state_ && state_->token.isCancelled(); }
  CancelToken token() const { return state_ ? state_->token : CancelToken::none(); }
  // Completes when the job's coroutine has returned (at once for an empty handle).
  QCoro::Task<> finished() const;

 private:
  struct State {
    CancelToken token;
    Completion done;
  };
  std::shared_ptr<State> state_;

  template <class F>
  static QCoro::Task<> run(std::shared_ptr<State> state, F fn) {
    // `fn` lives in this frame, so a lambda's captures outlive its coroutine.
    try {
      co_await fn(state->token);
    } catch (const std::exception& e) {
      reportUncaught(e.what());
    } catch (...) {
      reportUncaught("unknown exception");
    }
    state->done.fire();
  }
  static void reportUncaught(const std::string& what);
};

// The jobs of one long-lived owner. The owner holds a scope as its last
// member, so that the scope goes first: every job it started is cancelled
// while the rest of the owner still stands. A job notices at its next
// suspension, and its open requests and child processes end with it (they
// take the job's token). Jobs check `token.isCancelled()` after each
// suspension and return without touching the owner once it is set.
// Finished jobs are forgotten as new ones start. Main thread only.
class JobScope {
 public:
  JobScope() = default;
  ~JobScope() { cancelAll(); }
  JobScope(const JobScope&) = delete;
  JobScope& operator=(const JobScope&) = delete;

  template <class F>
  Job start(F fn) {
    std::erase_if(jobs_, [](const Job& j) { return !j.isRunning(); });
    Job job = Job::start(std::move(fn), root_);
    if (job.isRunning()) jobs_.push_back(job);
    return job;
  }

  // Cancels every job of the scope; jobs started afterwards run normally.
  void cancelAll() {
    auto old = std::exchange(root_, CancelToken());
    jobs_.clear();
    old.cancel();
  }
  // A token cancelled when the scope goes, for work that is no job.
  CancelToken token() const { return root_; }
  size_t runningCount() const {
    size_t n = 0;
    for (const auto& j : jobs_) n += j.isRunning() ? 1 : 0;
    return n;
  }

 private:
  CancelToken root_;
  std::vector<Job> jobs_;
};

}  // namespace vt
