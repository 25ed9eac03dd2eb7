#pragma once

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/Clock.h"
#include "wall/MosaicEngine.h"

namespace vt {

// What the recording renderer hands out as a texture.
struct MosaicTexture {
  uint64_t key = 0;
  bool soft = false;
  size_t bytes = 0;
};

namespace test {

// A renderer without a device: it keeps textures as records and every drawn
// frame as a list of instances with the key of their texture.
class RecordingRenderer final : public MosaicRenderer {
 public:
  struct Drawn {
    MosaicInstance instance;
    std::optional<uint64_t> texture;
  };

  void resize(float width, float height, float scale) override {
    scale_ = scale;
    pixelW_ = std::max(1, static_cast<int>(std::lround(width * scale)));
    pixelH_ = std::max(1, static_cast<int>(std::lround(height * scale)));
  }
  int pixelWidth() const override { return pixelW_; }
  int pixelHeight() const override { return pixelH_; }
  float scale() const override { return scale_; }
  void upload(uint64_t key, const uint8_t*, size_t size, int, int, int, bool soft) override {
    uploads.push_back({key, soft, size});
    const auto it = textures_.find(key);
    if (soft && it != textures_.end() && !it->second.soft) return;  // a late soft one never replaces the full poster
    textures_[key] = MosaicTexture{key, soft, size};
  }
  const MosaicTexture* lookup(uint64_t key) override {
    const auto it = textures_.find(key);
    return it == textures_.end() ? nullptr : &it->second;
  }
  bool hasTexture(uint64_t key, bool* soft) const override {
    const auto it = textures_.find(key);
    if (it != textures_.end() && soft) *soft = it->second.soft;
    return it != textures_.end();
  }
  void retain(const std::function<bool(uint64_t)>& keep) override {
    std::erase_if(textures_, [&](const auto& entry) { return !keep(entry.first); });
  }
  void trim(size_t budgetBytes) override { lastTrim = budgetBytes; }
  void clearInstances() override { current_.clear(); }
  void addInstance(const MosaicInstance& instance, const MosaicTexture* texture) override {
    current_.push_back(Drawn{instance, texture ? std::optional<uint64_t>(texture->key) : std::nullopt});
  }
  double draw() override {
    lastFrame = current_;
    ++draws;
    return 0.25;
  }
  uint32_t textureCount() const override { return static_cast<uint32_t>(textures_.size()); }
  size_t residentBytes() const override {
    size_t total = 0;
    for (const auto& [key, texture] : textures_) total += texture.bytes;
    return total;
  }
  size_t pooledBytes() const override { return 0; }

  // Puts a texture in place as if it had been uploaded.
  void give(uint64_t key) { textures_[key] = MosaicTexture{key, false, 4}; }
  bool holds(uint64_t key) const { return textures_.count(key) != 0; }

  std::vector<Drawn> lastFrame;
  int draws = 0;
  std::vector<MosaicTexture> uploads;
  size_t lastTrim = 0;

 private:
  int pixelW_ = 1, pixelH_ = 1;
  float scale_ = 1;
  std::unordered_map<uint64_t, MosaicTexture> textures_;
  std::vector<Drawn> current_;
};

// Chapters of consecutive keys starting at `firstKey`.
inline MosaicEngine::WallChange makeWall(const std::vector<uint32_t>& chapterCounts, uint64_t firstKey) {
  MosaicEngine::WallChange w;
  uint32_t first = 0;
  for (uint32_t count : chapterCounts) {
    w.chapters.push_back({count, first});
    for (uint32_t i = 0; i < count; ++i) w.films.push_back({firstKey + first + i, false});
    first += count;
  }
  return w;
}

// Plays frames at a chosen pace with inputs in between, on virtual time, and
// gathers the events the engine sends.
class WallDriver {
 public:
  explicit WallDriver(MosaicEngine::Options options) : created_(clock.now()) {
    auto recording = std::make_unique<RecordingRenderer>();
    renderer = recording.get();
    engine = MosaicEngine::create(clock, std::move(recording), options);
  }

  WallDriver& frame(double seconds = 1.0 / 60.0) {
    clock.advance(seconds);
    engine->tick();
    for (const auto& e : engine->takeEvents()) events.push_back(e);
    return *this;
  }
  WallDriver& frames(int count, double seconds = 1.0 / 60.0) {
    for (int i = 0; i < count; ++i) frame(seconds);
    return *this;
  }
  WallDriver& scroll(float dy, bool ended = false) { return engine->addScroll(dy, ended), *this; }
  WallDriver& pointer(float x, float y) { return engine->pointerMoved(x, y), *this; }
  WallDriver& leave() { return engine->pointerLeft(), *this; }
  WallDriver& menu() { return engine->menuOpening(), *this; }
  WallDriver& missing(uint64_t key) { return engine->reportMissing(key), *this; }
  WallDriver& size(float width, float height, float scale, float topInset) {
    return engine->setSize(width, height, scale, topInset), *this;
  }
  WallDriver& wall(std::vector<MosaicChapterSpan> chapters, std::vector<MosaicFilmRef> films,
                   std::string scope = "-|all", bool opensAtEnd = false) {
    return engine->setWall(std::move(chapters), std::move(films), std::move(scope), opensAtEnd), *this;
  }
  WallDriver& wall(const std::vector<uint32_t>& chapterCounts, uint64_t firstKey, std::string scope = "-|all",
                   bool opensAtEnd = false) {
    auto w = makeWall(chapterCounts, firstKey);
    return wall(std::move(w.chapters), std::move(w.films), std::move(scope), opensAtEnd);
  }

  // Keys of the events of one kind gathered so far, then forgets them.
  std::vector<uint64_t> take(MosaicEventKind kind) {
    std::vector<uint64_t> keys;
    for (const auto& e : events)
      if (e.kind == kind) keys.push_back(e.key);
    std::erase_if(events, [kind](const MosaicEvent& e) { return e.kind == kind; });
    return keys;
  }
  double t() const { return clock.now() - created_; }

  ManualClock clock;
  RecordingRenderer* renderer = nullptr;
  std::unique_ptr<MosaicEngine> engine;
  std::vector<MosaicEvent> events;

 private:
  double created_ = 0;
};

// One instance as a line: rect, tint, then the fields that are set.
inline std::string describe(const RecordingRenderer::Drawn& d) {
  const auto num = [](float v) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.3f", static_cast<double>(v));
    std::string s = buf;
    while (s.back() == '0') s.pop_back();
    if (s.back() == '.') s.pop_back();
    return s == "-0" ? std::string("0") : s;
  };
  const MosaicInstance& i = d.instance;
  std::string s = num(i.rect[0]) + "," + num(i.rect[1]) + " " + num(i.rect[2]) + "x" + num(i.rect[3]) + " tint " +
                  num(i.tint[0]) + "," + num(i.tint[1]) + "," + num(i.tint[2]) + "," + num(i.tint[3]);
  if (i.corner != 0) s += " corner " + num(i.corner);
  if (i.blur != 0) s += " blur " + num(i.blur);
  if (i.stroke != 0) s += " stroke " + num(i.stroke);
  if (i.rotation != 0) s += " rot " + num(i.rotation);
  if (i.gradient != 0) s += " gradient";
  if (i.textured != 0) s += " textured";
  if (d.texture) s += " tex " + std::to_string(*d.texture);
  return s;
}
inline std::vector<std::string> describe(const std::vector<RecordingRenderer::Drawn>& frame) {
  std::vector<std::string> lines;
  for (const auto& d : frame) lines.push_back(describe(d));
  return lines;
}

}  // namespace test
}  // namespace vt
