#pragma once

#include <type_traits>
#include <utility>

#include <QtConcurrent/QtConcurrentRun>
#include <qcoro/qcorofuture.h>
#include <qcoro/qcorotask.h>

namespace vt {

// Runs blocking work (file reads, encoding, decoding, lstat) on a worker
// thread and hands the value back to the awaiting job on the main thread.
// `fn` must not touch main-thread objects; give it copies. Pass a named
// function object: gcc 12 mishandles a lambda temporary written inside the
// co_await expression itself.
template <class F>
auto runInBackground(F fn) -> QCoro::Task<std::invoke_result_t<F>> {
  co_return co_await QtConcurrent::run(std::move(fn));
}

}  // namespace vt
