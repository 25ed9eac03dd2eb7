#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include <QByteArray>

#include "platform/Result.h"

namespace vt::lab {

// What went wrong while the lab got ready, in words for the person starting it.
struct LabError {
  std::string text;
};
inline std::string message(const LabError& e) { return e.text; }

// The clips the lab's files start with, by name ("1080p.mkv"). Missing ones
// are made once with ffmpeg (a test pattern with a tone, in the clip's size
// and container) into `directory` and reused by later starts; a clip is
// written under a temporary name and moved into place when complete, so an
// interrupted run never leaves half a clip behind. `say` hears progress.
Result<std::map<std::string, QByteArray>, LabError> ensureClips(const std::string& directory,
                                                                const std::function<void(const std::string&)>& say);

// The ffmpeg arguments that make a clip of `seconds` into `output`.
std::vector<std::string> clipArguments(int width, int height, const std::string& container, int seconds,
                                       const std::string& output);

}  // namespace vt::lab
