// Drives the wall's engine over 50,000 films at 60 frames a second through a
// scripted session (fling, coast, hover, scope switch, resize) and reports the
// per-frame tick time (median, p99, max) and the allocations per frame once a
// wall is installed. Targets on the 2-core machine: p99 under 0.5 ms and no
// allocation per frame outside the two frames after each install of a wall
// and after each resize (the first frame on a new layout sizes its lists),
// which the counts leave out.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <new>
#include <unordered_map>

#include "platform/Clock.h"
#include "wall/MosaicEngine.h"

namespace {

std::atomic<uint64_t> gAllocations{0};

}  // namespace

void* operator new(std::size_t size) {
  gAllocations.fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace vt {

struct MosaicTexture {
  uint64_t key;
};

namespace {

// Holds textures as plain records and counts instances, like a device
// renderer would without the device.
class NullRenderer final : public MosaicRenderer {
 public:
  NullRenderer() { instances_.reserve(8192); }
  void resize(float width, float height, float scale) override {
    scale_ = scale;
    w_ = std::max(1, static_cast<int>(std::lround(width * scale)));
    h_ = std::max(1, static_cast<int>(std::lround(height * scale)));
  }
  int pixelWidth() const override { return w_; }
  int pixelHeight() const override { return h_; }
  float scale() const override { return scale_; }
  void upload(uint64_t key, const uint8_t*, size_t, int, int, int, bool) override { textures_[key] = {key}; }
  const MosaicTexture* lookup(uint64_t key) override {
    const auto it = textures_.find(key);
    return it == textures_.end() ? nullptr : &it->second;
  }
  bool hasTexture(uint64_t key, bool* soft) const override {
    if (soft) *soft = false;
    return textures_.count(key) != 0;
  }
  void retain(const std::function<bool(uint64_t)>& keep) override {
    std::erase_if(textures_, [&](const auto& e) { return !keep(e.first); });
  }
  void trim(size_t) override {}
  void clearInstances() override { instances_.clear(); }
  void addInstance(const MosaicInstance& i, const MosaicTexture*) override { instances_.push_back(i); }
  double draw() override { return 0; }
  uint32_t textureCount() const override { return static_cast<uint32_t>(textures_.size()); }
  size_t residentBytes() const override { return 0; }
  size_t pooledBytes() const override { return 0; }

 private:
  int w_ = 1, h_ = 1;
  float scale_ = 1;
  std::unordered_map<uint64_t, MosaicTexture> textures_;
  std::vector<MosaicInstance> instances_;
};

struct Films {
  std::vector<MosaicChapterSpan> chapters;
  std::vector<MosaicFilmRef> films;
};

Films makeFilms(uint32_t count, uint32_t perChapter, uint64_t salt) {
  Films f;
  for (uint32_t first = 0; first < count; first += perChapter) {
    f.chapters.push_back({std::min(perChapter, count - first), first});
  }
  for (uint32_t i = 0; i < count; ++i) f.films.push_back({(i + 1) * 0x9e3779b97f4a7c15ULL ^ salt, i % 7 == 0});
  return f;
}

double percentile(std::vector<double> v, double q) {
  std::sort(v.begin(), v.end());
  return v[std::min(v.size() - 1, static_cast<size_t>(q * static_cast<double>(v.size())))];
}

void BM_WallSession(benchmark::State& state) {
  ManualClock clock;
  MosaicEngine::Options options;
  options.width = 1440;
  options.height = 900;
  options.scale = 2.0f;
  auto renderer = std::make_unique<NullRenderer>();
  NullRenderer* nr = renderer.get();
  auto engine = MosaicEngine::create(clock, std::move(renderer), options);
  const Films all = makeFilms(50000, 400, 0);
  const Films watchlist = makeFilms(20000, 400, 0x5555);
  // Some posters are already on the device, as after a while of browsing.
  for (size_t i = 0; i < all.films.size(); i += 3) nr->upload(all.films[i].key, nullptr, 0, 1, 1, 4, false);

  std::vector<double> tickUs;
  std::vector<MosaicEvent> spare;
  spare.reserve(1024);
  uint64_t steadyAllocations = 0, steadyFrames = 0, events = 0;
  double installMs = 0;

  const auto frame = [&](bool installs) {
    clock.advance(1.0 / 60.0);
    const uint64_t before = gAllocations.load(std::memory_order_relaxed);
    const auto t0 = std::chrono::steady_clock::now();
    engine->tick();
    const double us = std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - t0).count();
    const uint64_t allocated = gAllocations.load(std::memory_order_relaxed) - before;
    engine->swapEvents(spare);
    events += spare.size();
    if (installs) {
      installMs = std::max(installMs, us / 1000.0);
    } else {
      tickUs.push_back(us);
      steadyAllocations += allocated;
      ++steadyFrames;
    }
  };
  const auto install = [&](const Films& f, const char* scope) {
    engine->setWall(f.chapters, f.films, scope, false);
    frame(true);
    frame(true);  // the first frame on a new wall sizes its lists
  };
  const auto idle = [&](int n) {
    for (int i = 0; i < n; ++i) frame(false);
  };
  const auto fling = [&](float dy) {
    for (int i = 0; i < 5; ++i) {
      engine->addScroll(dy, i == 4);
      frame(false);
    }
    for (int i = 0; i < 400 && engine->scroll().coasting; ++i) frame(false);
  };
  const auto hover = [&] {
    for (int i = 0; i < 120; ++i) {
      if (i % 6 == 0) engine->pointerMoved(40.0f + static_cast<float>(i) * 9.0f, 300.0f + static_cast<float>(i));
      frame(false);
    }
    engine->pointerLeft();
    idle(60);
  };

  for (auto _ : state) {
    install(all, "-|all");
    idle(30);
    fling(60);
    hover();
    fling(-30);
    install(watchlist, "-|watchlist");
    fling(80);
    hover();
    install(all, "-|all");  // back to where it was
    hover();
    engine->setSize(1180, 760, 2.0f, 0);
    frame(true);  // a resize lays the wall out again
    frame(true);
    fling(120);
    hover();
    engine->setSize(1440, 900, 2.0f, 0);
    frame(true);
    frame(true);
    fling(-120);
    idle(60);
  }

  state.counters["frames"] = static_cast<double>(tickUs.size());
  state.counters["median_us"] = percentile(tickUs, 0.5);
  state.counters["p99_us"] = percentile(tickUs, 0.99);
  state.counters["max_us"] = percentile(tickUs, 1.0);
  state.counters["allocs_per_frame"] = static_cast<double>(steadyAllocations) / static_cast<double>(steadyFrames);
  state.counters["install_max_ms"] = installMs;
  state.counters["events"] = static_cast<double>(events);
}
BENCHMARK(BM_WallSession)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace
}  // namespace vt

BENCHMARK_MAIN();
