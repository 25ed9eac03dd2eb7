#include "WallHarness.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace vt::test {

void RecordingRenderer::resize(float width, float height, float scale) {
  scale_ = scale;
  pixelW_ = std::max(1, static_cast<int>(std::lround(width * scale)));
  pixelH_ = std::max(1, static_cast<int>(std::lround(height * scale)));
}

void RecordingRenderer::upload(uint64_t key, const uint8_t*, size_t size, int, int, int, bool soft) {
  uploads.push_back({key, soft, size});
  const auto it = textures_.find(key);
  if (soft && it != textures_.end() && !it->second.soft) return;  // a late soft one never replaces the full poster
  textures_[key] = MosaicTexture{key, soft, size};
}

const MosaicTexture* RecordingRenderer::lookup(uint64_t key) {
  const auto it = textures_.find(key);
  return it == textures_.end() ? nullptr : &it->second;
}

bool RecordingRenderer::hasTexture(uint64_t key, bool* soft) const {
  const auto it = textures_.find(key);
  if (it == textures_.end()) return false;
  if (soft) *soft = it->second.soft;
  return true;
}

void RecordingRenderer::retain(const std::function<bool(uint64_t)>& keep) {
  std::erase_if(textures_, [&](const auto& entry) { return !keep(entry.first); });
}

void RecordingRenderer::addInstance(const MosaicInstance& instance, const MosaicTexture* texture) {
  current_.push_back(Drawn{instance, texture ? std::optional<uint64_t>(texture->key) : std::nullopt});
}

double RecordingRenderer::draw() {
  lastFrame = current_;
  ++draws;
  return 0.25;
}

size_t RecordingRenderer::residentBytes() const {
  size_t total = 0;
  for (const auto& [key, texture] : textures_) total += texture.bytes;
  return total;
}

WallDriver::WallDriver(MosaicEngine::Options options) {
  auto recording = std::make_unique<RecordingRenderer>();
  renderer = recording.get();
  created_ = clock.now();
  engine = MosaicEngine::create(clock, std::move(recording), options);
}

WallDriver& WallDriver::frame(double seconds) {
  clock.advance(seconds);
  engine->tick();
  for (const auto& e : engine->takeEvents()) events.push_back(e);
  return *this;
}

WallDriver& WallDriver::frames(int count, double seconds) {
  for (int i = 0; i < count; ++i) frame(seconds);
  return *this;
}

WallDriver& WallDriver::scroll(float dy, bool ended) {
  engine->addScroll(dy, ended);
  return *this;
}

WallDriver& WallDriver::pointer(float x, float y) {
  engine->pointerMoved(x, y);
  return *this;
}

WallDriver& WallDriver::leave() {
  engine->pointerLeft();
  return *this;
}

WallDriver& WallDriver::menu() {
  engine->menuOpening();
  return *this;
}

WallDriver& WallDriver::missing(uint64_t key) {
  engine->reportMissing(key);
  return *this;
}

WallDriver& WallDriver::size(float width, float height, float scale, float topInset) {
  engine->setSize(width, height, scale, topInset);
  return *this;
}

WallDriver& WallDriver::wall(const std::vector<uint32_t>& chapterCounts, uint64_t firstKey, std::string scope,
                             bool opensAtEnd) {
  auto w = makeWall(chapterCounts, firstKey);
  return wall(std::move(w.chapters), std::move(w.films), std::move(scope), opensAtEnd);
}

WallDriver& WallDriver::wall(std::vector<MosaicChapterSpan> chapters, std::vector<MosaicFilmRef> films,
                             std::string scope, bool opensAtEnd) {
  engine->setWall(std::move(chapters), std::move(films), std::move(scope), opensAtEnd);
  return *this;
}

WallDriver& WallDriver::settle(int limit) {
  for (int i = 0; i < limit && (i == 0 || engine->scroll().coasting); ++i) frame();
  return *this;
}

std::vector<uint64_t> WallDriver::take(MosaicEventKind kind) {
  std::vector<uint64_t> keys;
  for (const auto& e : events) {
    if (e.kind == kind) keys.push_back(e.key);
  }
  std::erase_if(events, [kind](const MosaicEvent& e) { return e.kind == kind; });
  return keys;
}

MosaicEngine::WallChange makeWall(const std::vector<uint32_t>& chapterCounts, uint64_t firstKey) {
  MosaicEngine::WallChange w;
  uint32_t first = 0;
  for (uint32_t count : chapterCounts) {
    w.chapters.push_back({count, first});
    for (uint32_t i = 0; i < count; ++i) w.films.push_back({firstKey + first + i, false});
    first += count;
  }
  return w;
}

namespace {

std::string num(float v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.3f", static_cast<double>(v));
  std::string s = buf;
  while (!s.empty() && s.back() == '0') s.pop_back();
  if (!s.empty() && s.back() == '.') s.pop_back();
  return s == "-0" ? "0" : s;
}

}  // namespace

std::string describe(const RecordingRenderer::Drawn& d) {
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

std::vector<std::string> describe(const std::vector<RecordingRenderer::Drawn>& frame) {
  std::vector<std::string> lines;
  for (const auto& d : frame) lines.push_back(describe(d));
  return lines;
}

}  // namespace vt::test
