#include "platform/Process.h"

#include <QProcess>
#include <memory>

#include "platform/Job.h"

namespace vt {

QCoro::Task<CommandResult> runCommand(QString program, QStringList arguments,
                                      std::optional<QProcessEnvironment> environment, CancelToken token) {
  CommandResult result;
  if (token.isCancelled()) {
    result.output = "cancelled";
    co_return result;
  }
  auto process = std::make_unique<QProcess>();
  process->setProcessChannelMode(QProcess::MergedChannels);
  process->setInputChannelMode(QProcess::ManagedInputChannel);
  if (environment) process->setProcessEnvironment(*environment);

  Completion ended;
  bool failedToStart = false;
  QByteArray output;
  QObject::connect(process.get(), &QProcess::readyRead, process.get(),
                   [&output, p = process.get()] { output += p->readAll(); });
  // Queued: the job resumes (and deletes the QProcess) outside its signal emission.
  QObject::connect(
      process.get(), &QProcess::finished, process.get(), [ended] { ended.fire(); }, Qt::QueuedConnection);
  QObject::connect(
      process.get(), &QProcess::errorOccurred, process.get(),
      [ended, &failedToStart](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart) {
          failedToStart = true;
          ended.fire();
        }
      },
      Qt::QueuedConnection);
  const auto cb = token.onCancel([p = process.get()] {
    if (p->state() != QProcess::NotRunning) p->kill();
  });

  process->start(program, arguments);
  process->closeWriteChannel();
  co_await ended;
  token.removeCallback(cb);

  if (failedToStart) {
    result.status = -1;
    result.output = process->errorString().toStdString();
    co_return result;
  }
  output += process->readAll();
  result.output = output.toStdString();
  result.crashed = process->exitStatus() == QProcess::CrashExit;
  result.status = process->exitCode();
  co_return result;
}

}  // namespace vt
