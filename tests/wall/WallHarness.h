#pragma once

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
  struct Upload {
    uint64_t key;
    bool soft;
    size_t bytes;
  };

  void resize(float width, float height, float scale) override;
  int pixelWidth() const override { return pixelW_; }
  int pixelHeight() const override { return pixelH_; }
  float scale() const override { return scale_; }
  void upload(uint64_t key, const uint8_t* bytes, size_t size, int width, int height, int stride, bool soft) override;
  const MosaicTexture* lookup(uint64_t key) override;
  bool hasTexture(uint64_t key, bool* soft) const override;
  void retain(const std::function<bool(uint64_t)>& keep) override;
  void trim(size_t budgetBytes) override { lastTrim = budgetBytes; }
  void clearInstances() override { current_.clear(); }
  void addInstance(const MosaicInstance& instance, const MosaicTexture* texture) override;
  double draw() override;
  uint32_t textureCount() const override { return static_cast<uint32_t>(textures_.size()); }
  size_t residentBytes() const override;
  size_t pooledBytes() const override { return 0; }

  // Puts a texture in place as if it had been uploaded.
  void give(uint64_t key, bool soft = false) { textures_[key] = MosaicTexture{key, soft, 4}; }
  bool holds(uint64_t key) const { return textures_.count(key) != 0; }

  std::vector<Drawn> lastFrame;
  int draws = 0;
  std::vector<Upload> uploads;
  size_t lastTrim = 0;

 private:
  int pixelW_ = 1, pixelH_ = 1;
  float scale_ = 1;
  std::unordered_map<uint64_t, MosaicTexture> textures_;
  std::vector<Drawn> current_;
};

// Plays frames at a chosen pace with inputs in between, on virtual time, and
// gathers the events the engine sends.
class WallDriver {
 public:
  explicit WallDriver(MosaicEngine::Options options);

  WallDriver& frame(double seconds = 1.0 / 60.0);
  WallDriver& frames(int count, double seconds = 1.0 / 60.0);
  WallDriver& scroll(float dy, bool ended = false);
  WallDriver& pointer(float x, float y);
  WallDriver& leave();
  WallDriver& menu();
  WallDriver& missing(uint64_t key);
  WallDriver& size(float width, float height, float scale = 2.0f, float topInset = 0);
  WallDriver& wall(const std::vector<uint32_t>& chapterCounts, uint64_t firstKey, std::string scope = "-|all",
                   bool opensAtEnd = false);
  WallDriver& wall(std::vector<MosaicChapterSpan> chapters, std::vector<MosaicFilmRef> films,
                   std::string scope = "-|all", bool opensAtEnd = false);
  // Runs frames until the wall stops coasting (at most `limit`).
  WallDriver& settle(int limit = 600);

  // Keys of the events of one kind gathered so far, then forgets them.
  std::vector<uint64_t> take(MosaicEventKind kind);
  double t() const { return clock.now() - created_; }

  ManualClock clock;
  RecordingRenderer* renderer = nullptr;
  std::unique_ptr<MosaicEngine> engine;
  std::vector<MosaicEvent> events;

 private:
  double created_ = 0;
};

// Chapters of consecutive keys starting at `firstKey`.
MosaicEngine::WallChange makeWall(const std::vector<uint32_t>& chapterCounts, uint64_t firstKey);

// One instance as a line: rect, tint, then the fields that are set.
std::string describe(const RecordingRenderer::Drawn& d);
std::vector<std::string> describe(const std::vector<RecordingRenderer::Drawn>& frame);

}  // namespace test
}  // namespace vt
