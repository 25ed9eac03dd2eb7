#pragma once

#include <functional>

namespace vt {

// Runs `handler` on the main thread's event loop when the process receives
// SIGINT or SIGTERM (through a self-pipe, so the handler may do anything).
void onTerminationSignal(std::function<void()> handler);

}  // namespace vt
