#include "engine/EngineInstaller.h"

#include <cstdio>

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace vt {

std::string message(const EngineError& e) {
  switch (e.kind) {
    case EngineError::Kind::engineMissing:
      return "Bundled resource vtnfs missing";
    case EngineError::Kind::badControlURL:
      return "Bad control URL";
    case EngineError::Kind::launchFailed:
      return e.detail;
    case EngineError::Kind::tooSlow:
      return "Vantory didn't start in time. Try quitting and reopening the app.";
    case EngineError::Kind::mountFailed:
      return "Couldn't connect Plex to your library folder. Try quitting and reopening Vantory.";
    case EngineError::Kind::manifestWriteFailed:
      return "Couldn't write the engine's manifest: " + e.detail;
    case EngineError::Kind::stopped:
      return "stopped while starting";
  }
  return e.detail;
}

EngineResult installEngine(const std::string& dataDirectory, const std::string& bundledEngine) {
  const EngineError missing{EngineError::Kind::engineMissing, {}};
  QDir().mkpath(QString::fromStdString(dataDirectory + "/tv"));
  // The probe caches; "excluded from backup" has no meaning here.
  QDir().mkpath(QString::fromStdString(dataDirectory + "/probe-cache"));
  QDir().mkpath(QString::fromStdString(dataDirectory + "/tv/probe-cache"));
  if (bundledEngine.empty() || !QFileInfo(QString::fromStdString(bundledEngine)).isFile()) return Failure(missing);
  const QString copy = QString::fromStdString(dataDirectory + "/vtnfs");
  const QString temp = copy + ".new";
  QFile::remove(temp);
  if (!QFile::copy(QString::fromStdString(bundledEngine), temp)) return Failure(missing);
  QFile::setPermissions(temp, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner |
                                  QFileDevice::ReadGroup | QFileDevice::ExeGroup | QFileDevice::ReadOther |
                                  QFileDevice::ExeOther);
  if (std::rename(temp.toLocal8Bit().constData(), copy.toLocal8Bit().constData()) != 0) return Failure(missing);
  return {};
}

}  // namespace vt
