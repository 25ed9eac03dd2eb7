#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platform/Clock.h"
#include "wall/MosaicRenderer.h"
#include "wall/MosaicWall.h"

namespace vt {

struct MosaicPoint {
  float x = 0, y = 0;
  bool operator==(const MosaicPoint&) const = default;
};

struct MosaicScroll {
  float y = 0;
  float velocity = 0;  // points per second
  bool coasting = false;
};

struct MosaicSpring {
  float value = 1.0f;
  float velocity = 0;
};

enum class MosaicEventKind { wantPoster, hover };

struct MosaicEvent {
  MosaicEventKind kind = MosaicEventKind::wantPoster;
  uint64_t key = 0;
  bool operator==(const MosaicEvent&) const = default;
};

struct MosaicStats {
  float p50Ms = 0, worstMs = 0, cpuMs = 0;
  uint32_t frames = 0, late = 0, textures = 0, textureMB = 0, poolMB = 0, queuedMB = 0, visible = 0;
};

// The shape of a fan of `cards` cards in an area: card size, the horizontal
// step between cards and how far the tilt lowers the deepest card.
struct MosaicFan {
  float cardW = 0, cardH = 0, step = 0, swing = 0;
};
MosaicFan mosaicFan(int cards, float areaW, float areaH);

// The placeholder tone of a key before its poster arrives: red, green, blue.
std::array<float, 3> mosaicPlaceholder(uint64_t key);

// The wall's per-frame state: layout, scrolling with its own coasting, the
// swell of the hovered cell, the remembered place of each list, the queue of
// wanted posters and the instance list handed to the renderer. The host feeds
// the inbox from its input handlers and calls tick() once per display frame;
// poster pixels arrive from any thread through addArrival().
class MosaicEngine {
 public:
  struct Options {
    std::optional<MosaicPoint> cellShape;  // (target width, aspect) or the defaults 150.0 and 1.5
    int cards = 1;                         // 2 or more: the collections wall
    float captionHeight = 0;
    float width = 0, height = 0, scale = 2.0f;
  };

  // A remembered place on a list.
  struct Place {
    uint64_t key = 0;
    float offset = 0;
    bool valid = false;
    bool atEnd = false;
  };

  struct ScrollEntry {
    float dy = 0;
    bool ended = false;
  };
  struct WallChange {
    std::vector<MosaicChapterSpan> chapters;
    std::vector<MosaicFilmRef> films;
    std::string scope;
    bool opensAtEnd = false;
  };
  struct SizeChange {
    float width = 0, height = 0, scale = 1, topInset = 0;
  };
  // What the outside hands over for the next frame; the frame takes it all.
  struct Inbox {
    std::vector<ScrollEntry> scroll;
    std::optional<std::optional<MosaicPoint>> pointer;  // absent, a position, or none: the pointer left
    std::optional<WallChange> wall;
    std::optional<SizeChange> size;
    std::vector<uint64_t> missing;
    bool menuOpening = false;
  };

  struct Arrival {
    uint64_t key = 0;
    std::vector<uint8_t> bytes;  // 4 bytes per pixel
    int width = 0, height = 0, stride = 0;
    bool soft = false;  // a small version of the poster
  };

  struct Published {
    float cellWidth = 0, cellHeight = 0, scrollY = 0;
    int columns = 0;
    float topInset = 0;
    uint64_t hoverKey = 0;
    MosaicRect hoverRect;  // screen space; width 0 without a hover
  };

  // No renderer (no graphics device) means no engine.
  static std::unique_ptr<MosaicEngine> create(Clock& clock, std::unique_ptr<MosaicRenderer> renderer,
                                              const Options& options);

  // One display frame.
  void tick();

  // Inbox writers; any thread. A second wall or size before the tick replaces
  // the first; scroll entries add up.
  void addScroll(float dy, bool ended);
  void pointerMoved(float x, float y);
  void pointerLeft();
  void setWall(std::vector<MosaicChapterSpan> chapters, std::vector<MosaicFilmRef> films, std::string scope,
               bool opensAtEnd);
  void setSize(float width, float height, float scale, float topInset);
  void reportMissing(uint64_t key);
  void menuOpening();

  // Finished poster pixels; any thread.
  void addArrival(Arrival arrival);

  // Readers; any thread. swapEvents hands back the outbox in exchange for
  // `spare` (cleared first), so two lists can go back and forth.
  std::vector<MosaicEvent> takeEvents();
  void swapEvents(std::vector<MosaicEvent>& spare);
  Published published() const;
  MosaicStats stats() const;

  // The first and last key of the films on screen; main thread.
  std::optional<std::pair<uint64_t, uint64_t>> visibleRange() const;

  // Measures the time the upload drain spends, in seconds of a steady clock.
  void setWorkTimer(std::function<double()> seconds) { workTime_ = std::move(seconds); }

  // State for the host and for tests; main thread, between ticks.
  const MosaicWall& wall() const { return wall_; }
  const MosaicScroll& scroll() const { return scroll_; }
  const std::string& scope() const { return scope_; }
  bool opensAtEnd() const { return opensAtEnd_; }
  std::optional<MosaicCursor> hovered() const { return hovered_; }
  bool hoverActive() const { return active_; }
  bool menuHold() const { return menuHold_; }
  std::optional<double> releaseAt() const { return releaseAt_; }
  const std::vector<MosaicPlaced>& cells() const { return cells_; }
  std::optional<MosaicSpring> spring(MosaicCursor c) const;
  size_t springCount() const { return springs_.size(); }
  const std::vector<std::string>& placeOrder() const { return placeOrder_; }
  std::optional<Place> place(const std::string& scope) const;
  std::optional<double> requestedAt(uint64_t key) const;
  bool isDead(uint64_t key) const;
  size_t queuedCount() const { return queue_.size(); }
  size_t queuedBytes() const { return queuedBytes_; }
  float viewWidth() const { return viewW_; }
  float viewHeight() const { return viewH_; }
  int cards() const { return cards_; }
  MosaicRenderer& renderer() { return *renderer_; }

  MosaicEngine(const MosaicEngine&) = delete;
  MosaicEngine& operator=(const MosaicEngine&) = delete;

 private:
  MosaicEngine(Clock& clock, std::unique_ptr<MosaicRenderer> renderer, const Options& options);

  struct SpringSlot {
    MosaicCursor cursor;
    MosaicSpring spring;
  };

  void takeSize(const SizeChange& size, bool& insetChanged);
  void relayoutInPlace();
  void installWall(WallChange& change, double now);
  void reserveScratch();
  void drainArrivals();
  void stepScroll(const Inbox& in, double step);
  void takeHoverIntent(const Inbox& in, double t);
  void hoverTest(MosaicPoint p);
  void clearHover();
  void collectCells();
  void applyShift(double now);
  void stepSprings(double step);
  void choosePosters(float change, double step, double t);
  void publish();
  void buildInstances();
  void drawFilm(const MosaicPlaced& cell, float y, float lift);
  void drawFan(const MosaicPlaced& cell, float y, float lift, const MosaicFan& fan);
  void updateStats(double dt, double cpuMs);

  float maxScroll() const { return std::max(wall_.contentHeight - viewH_, 0.0f); }
  bool atEnd() const { return opensAtEnd_ && scroll_.y >= maxScroll() - 1.0f; }
  MosaicSpring* findSpring(MosaicCursor c);
  // The slot of a key among the wall's distinct keys, or -1.
  int64_t slotOf(uint64_t key) const;
  void appendEvent(MosaicEventKind kind, uint64_t key);

  Clock& clock_;
  std::unique_ptr<MosaicRenderer> renderer_;
  std::function<double()> workTime_;

  mutable std::mutex inboxLock_, arrivalsLock_, outboxLock_, statsLock_, publishedLock_;
  Inbox inbox_;                      // under inboxLock_
  std::vector<Arrival> arrivals_;    // under arrivalsLock_
  std::vector<MosaicEvent> outbox_;  // under outboxLock_
  MosaicStats sharedStats_;          // under statsLock_
  Published sharedPublished_;        // under publishedLock_

  // Everything below is touched only inside tick() (and read between ticks).
  Inbox taken_;
  std::vector<Arrival> arrived_;
  MosaicWall wall_;
  bool hasWall_ = false;
  std::vector<SpringSlot> springs_;
  std::string scope_;
  bool opensAtEnd_ = false;
  std::unordered_map<std::string, Place> places_;
  std::vector<std::string> placeOrder_;  // oldest first
  MosaicScroll scroll_;
  std::unordered_map<uint64_t, MosaicPoint> shiftFrom_;
  double shiftAt_ = 0;
  std::optional<MosaicCursor> hovered_;
  bool active_ = false;
  std::optional<MosaicPoint> pointer_;
  std::optional<double> releaseAt_;
  bool menuHold_ = false;
  std::vector<MosaicPlaced> cells_;
  std::vector<std::pair<float, uint32_t>> order_;
  std::vector<uint32_t> wanted_;  // film indices, in order of want
  // `requested` and `dead` live per distinct wall key; keys outside the wall
  // reported missing wait in deadElsewhere_ until a wall holds them.
  std::unordered_map<uint64_t, uint32_t> slots_;
  std::vector<uint32_t> filmSlot_;
  std::vector<double> requestedAt_;
  std::vector<uint8_t> dead_;
  std::unordered_set<uint64_t> deadElsewhere_;
  std::vector<Arrival> queue_;  // oldest first
  size_t queuedBytes_ = 0;
  std::array<float, 240> intervals_{};
  size_t intervalCount_ = 0, intervalNext_ = 0;
  std::vector<float> sorted_;
  std::optional<double> lastFrame_;
  MosaicStats stats_;
  double started_ = 0;
  int cards_ = 1;
  float captionHeight_ = 0;
  float viewW_ = 0, viewH_ = 0;
  Published published_;
  std::vector<MosaicEvent> frameEvents_;
};

}  // namespace vt
