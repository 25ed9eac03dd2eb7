#pragma once

#include <optional>
#include <string>

#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <qcoro/qcorotask.h>

#include "platform/Cancellation.h"

namespace vt {

struct CommandResult {
  // The exit code; -1 when the program could not be started (then `output`
  // holds the reason). A program killed by a signal reports the signal number.
  int status = -1;
  // Standard output and standard error merged, read to the end.
  std::string output;
  bool crashed = false;
};

// Runs a program to its end without blocking the main thread. The arguments
// go to the program as they are (no shell). A cancelled token kills it.
QCoro::Task<CommandResult> runCommand(QString program, QStringList arguments,
                                      std::optional<QProcessEnvironment> environment = std::nullopt,
                                      CancelToken token = CancelToken::none());

}  // namespace vt
