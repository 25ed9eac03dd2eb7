#include "lab/LabClips.h"

#include <filesystem>

#include <QFile>
#include <QProcess>
#include <QStandardPaths>

#include "lab/LabWorld.h"

namespace vt::lab {

namespace fs = std::filesystem;

std::vector<std::string> clipArguments(int width, int height, const std::string& container, int seconds,
                                       const std::string& output) {
  const std::string size = std::to_string(width) + "x" + std::to_string(height);
  std::vector<std::string> args = {"-hide_banner", "-loglevel",
                                   "error",        "-y",
                                   "-f",           "lavfi",
                                   "-i",           "testsrc2=size=" + size + ":rate=24",
                                   "-f",           "lavfi",
                                   "-i",           "sine=frequency=440:sample_rate=48000",
                                   "-t",           std::to_string(seconds),
                                   "-c:v",         "libx264",
                                   "-preset",      "veryfast",
                                   "-crf",         "28",
                                   "-pix_fmt",     "yuv420p",
                                   "-c:a",         "aac",
                                   "-b:a",         "128k"};
  // A browser plays an mp4 from its first bytes only when the index comes first.
  if (container == "mp4") {
    args.push_back("-movflags");
    args.push_back("+faststart");
  }
  args.push_back("-f");
  args.push_back(container == "mkv" ? "matroska" : "mp4");
  args.push_back(output);
  return args;
}

Result<std::map<std::string, QByteArray>, LabError> ensureClips(const std::string& directory,
                                                                const std::function<void(const std::string&)>& say) {
  std::error_code ec;
  fs::create_directories(directory, ec);
  if (!fs::is_directory(directory, ec)) return Failure{LabError{"cannot create the clip folder " + directory}};
  std::map<std::string, QByteArray> clips;
  for (const auto& spec : clipSpecs()) {
    const fs::path path = fs::path(directory) / spec.name;
    if (!fs::is_regular_file(path, ec) || fs::file_size(path, ec) == 0) {
      const QString ffmpeg = QStandardPaths::findExecutable("ffmpeg");
      if (ffmpeg.isEmpty()) return Failure{LabError{"ffmpeg is needed once to make the lab's clips; install it"}};
      say("making the clip " + spec.name + " with ffmpeg (once)");
      const fs::path partial = fs::path(directory) / (".partial-" + spec.name);
      // An mp4 is the same pictures and sound as its resolution's mkv, made
      // before it: copied into the other container, not encoded again.
      const fs::path mkv = fs::path(directory) / (std::to_string(spec.height) + "p.mkv");
      const bool remux = spec.container == "mp4" && fs::is_regular_file(mkv, ec) && fs::file_size(mkv, ec) > 0;
      QStringList args;
      for (const auto& a :
           remux ? std::vector<std::string>{"-hide_banner", "-loglevel", "error", "-y", "-i", mkv.string(), "-c",
                                            "copy", "-movflags", "+faststart", "-f", "mp4", partial.string()}
                 : clipArguments(spec.width, spec.height, spec.container, 10, partial.string()))
        args << QString::fromStdString(a);
      QProcess process;
      process.setProcessChannelMode(QProcess::MergedChannels);
      process.start(ffmpeg, args);
      if (!process.waitForFinished(-1) || process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0) {
        fs::remove(partial, ec);
        return Failure{
            LabError{"ffmpeg failed to make " + spec.name + ": " + process.readAll().trimmed().toStdString()}};
      }
      fs::rename(partial, path, ec);
      if (ec) return Failure{LabError{"cannot move the clip into " + path.string() + ": " + ec.message()}};
    }
    QFile file(QString::fromStdString(path.string()));
    if (!file.open(QIODevice::ReadOnly)) return Failure{LabError{"cannot read the clip " + path.string()}};
    clips[spec.name] = file.readAll();
  }
  return clips;
}

}  // namespace vt::lab
