#include "wall/MosaicEngine.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>
#include <numbers>

namespace vt {

namespace {

constexpr double kFirstFrame = 1.0 / 120.0;
constexpr double kMaxStep = 1.0 / 60.0;
constexpr size_t kOutboxReserve = 256;
constexpr size_t kOutboxMax = 512;
constexpr size_t kQueueLimit = 0x1800000;   // 24 MiB waiting for upload
constexpr size_t kUploadBudget = 0x800000;  // 8 MiB uploaded per frame
constexpr double kUploadSeconds = 0.0015;
constexpr size_t kTextureBudget = 0xa000000;  // 160 MiB resident
constexpr double kAskAgainAfter = 1.5;
constexpr int kRequestsPerFrame = 20;
constexpr double kHoverRelease = 0.42;
constexpr double kMenuRelease = 15.0;
constexpr double kGlideSeconds = 0.28;
constexpr float kSwell = 1.7f;
constexpr size_t kRememberedScopes = 8;
constexpr double kNotRequested = -std::numeric_limits<double>::infinity();
constexpr uint64_t kCardSalt1 = 0xc2b2ae3d27d4eb4fULL;
constexpr uint64_t kCardSalt2 = 0x165667b19e3779f9ULL;
constexpr float kAccent[3] = {0.9f, 0.62f, 0.0f};

double radians(double degrees) { return degrees * std::numbers::pi / 180.0; }

double steadySeconds() {
  using namespace std::chrono;
  return duration<double>(steady_clock::now().time_since_epoch()).count();
}

MosaicInstance instance(float x, float y, float w, float h) {
  MosaicInstance i;
  i.rect[0] = x;
  i.rect[1] = y;
  i.rect[2] = w;
  i.rect[3] = h;
  return i;
}

void setTint(MosaicInstance& i, float r, float g, float b, float a) {
  i.tint[0] = r;
  i.tint[1] = g;
  i.tint[2] = b;
  i.tint[3] = a;
}

uint64_t cardKey(uint64_t key, int depth) {
  return depth == 0 ? key : depth == 1 ? key ^ kCardSalt1 : key ^ kCardSalt2;
}

}  // namespace

MosaicFan mosaicFan(int cards, float areaW, float areaH) {
  const double theta = radians((cards - 1) * 5.0);
  const double cardH = std::max((areaH - 10.0) / (std::cos(theta) + 2.0 * std::sin(theta) / 1.5), 1.0);
  const double cardW = cardH / 1.5;
  double step = 0;
  if (cards >= 2) {
    step = std::max((areaW - 10.0 - (std::cos(theta) * cardW + std::sin(theta) * cardH)) / (cards - 1), 0.0);
  }
  MosaicFan fan;
  fan.cardW = static_cast<float>(std::round(cardW));
  fan.cardH = static_cast<float>(std::round(cardH));
  fan.step = static_cast<float>(step);
  fan.swing = static_cast<float>(std::sin(theta) * cardW);
  return fan;
}

std::array<float, 3> mosaicPlaceholder(uint64_t key) {
  const uint64_t h = key * 0xd6e8feb86659fd93ULL;
  const uint64_t p = ((h >> 32) ^ (h & 0xffffffffULL)) & 0xffffULL;
  const double phi = static_cast<double>(p) / 65535.0 * 6.283185;
  constexpr double kOffsets[3] = {0.0, 2.073, 4.209};
  std::array<float, 3> rgb{};
  for (int c = 0; c < 3; ++c) {
    rgb[c] = static_cast<float>((std::cos(phi + kOffsets[c]) * 0.5 + 0.5) * 0.14 + 13.0 / 255.0);
  }
  return rgb;
}

std::unique_ptr<MosaicEngine> MosaicEngine::create(Clock& clock, std::unique_ptr<MosaicRenderer> renderer,
                                                   const Options& options) {
  if (!renderer) return nullptr;
  return std::unique_ptr<MosaicEngine>(new MosaicEngine(clock, std::move(renderer), options));
}

MosaicEngine::MosaicEngine(Clock& clock, std::unique_ptr<MosaicRenderer> renderer, const Options& options)
    : clock_(clock), renderer_(std::move(renderer)), workTime_(steadySeconds) {
  cards_ = std::max(options.cards, 1);
  captionHeight_ = options.captionHeight;
  // Shapes and scales that would divide by zero or turn the layout inside
  // out keep the defaults.
  if (options.cellShape && std::isfinite(options.cellShape->x) && options.cellShape->x >= 1 &&
      std::isfinite(options.cellShape->y) && options.cellShape->y > 0) {
    wall_.targetWidth = options.cellShape->x;
    wall_.aspect = options.cellShape->y;
  }
  const float scale = std::isfinite(options.scale) && options.scale > 0 ? options.scale : Options{}.scale;
  renderer_->resize(options.width, options.height, scale);
  viewW_ = static_cast<float>(renderer_->pixelWidth()) / renderer_->scale();
  viewH_ = static_cast<float>(renderer_->pixelHeight()) / renderer_->scale();
  wall_.recompute(viewW_);
  started_ = clock_.now();
  outbox_.reserve(kOutboxReserve);
  frameEvents_.reserve(64);
  springs_.reserve(64);
  sorted_.reserve(intervals_.size());
}

// ---- Inbox, arrivals and readers -------------------------------------------

void MosaicEngine::addScroll(float dy, bool ended) {
  if (!std::isfinite(dy)) dy = 0;  // one broken event must not break the wall for good
  std::lock_guard lock(inboxLock_);
  inbox_.scroll.push_back({dy, ended});
}

void MosaicEngine::pointerMoved(float x, float y) {
  if (!std::isfinite(x) || !std::isfinite(y)) return;
  std::lock_guard lock(inboxLock_);
  inbox_.pointer = std::optional<MosaicPoint>(MosaicPoint{x, y});
}

void MosaicEngine::pointerLeft() {
  std::lock_guard lock(inboxLock_);
  inbox_.pointer = std::optional<MosaicPoint>();
}

void MosaicEngine::setWall(std::vector<MosaicChapterSpan> chapters, std::vector<MosaicFilmRef> films, std::string scope,
                           bool opensAtEnd) {
  WallChange change{std::move(chapters), std::move(films), std::move(scope), opensAtEnd};
  std::lock_guard lock(inboxLock_);
  inbox_.wall = std::move(change);
}

void MosaicEngine::setSize(float width, float height, float scale, float topInset) {
  // A collapsed view or a broken scale carries no layout.
  if (!(width > 1.0f) || !(height > 1.0f) || !(scale > 0.0f)) return;
  std::lock_guard lock(inboxLock_);
  inbox_.size = SizeChange{width, height, scale, std::max(topInset, 0.0f)};
}

void MosaicEngine::reportMissing(uint64_t key) {
  std::lock_guard lock(inboxLock_);
  inbox_.missing.push_back(key);
}

void MosaicEngine::menuOpening() {
  std::lock_guard lock(inboxLock_);
  inbox_.menuOpening = true;
}

void MosaicEngine::addArrival(Arrival arrival) {
  std::lock_guard lock(arrivalsLock_);
  arrivals_.push_back(std::move(arrival));
}

std::vector<MosaicEvent> MosaicEngine::takeEvents() {
  std::vector<MosaicEvent> out;
  swapEvents(out);
  return out;
}

void MosaicEngine::swapEvents(std::vector<MosaicEvent>& spare) {
  spare.clear();
  std::lock_guard lock(outboxLock_);
  outbox_.swap(spare);
}

MosaicEngine::Published MosaicEngine::published() const {
  std::lock_guard lock(publishedLock_);
  return sharedPublished_;
}

MosaicStats MosaicEngine::stats() const {
  std::lock_guard lock(statsLock_);
  return sharedStats_;
}

std::optional<std::pair<uint64_t, uint64_t>> MosaicEngine::visibleRange() const {
  std::optional<std::pair<uint64_t, uint64_t>> range;
  wall_.forEachFilmIn(scroll_.y, scroll_.y + viewH_, [&](MosaicCursor, size_t index) {
    const uint64_t key = wall_.films[index].key;
    if (!range) range.emplace(key, key);
    range->second = key;
  });
  return range;
}

std::optional<MosaicSpring> MosaicEngine::spring(MosaicCursor c) const {
  for (const auto& s : springs_) {
    if (s.cursor == c) return s.spring;
  }
  return std::nullopt;
}

std::optional<MosaicEngine::Place> MosaicEngine::place(const std::string& scope) const {
  const auto it = places_.find(scope);
  if (it == places_.end()) return std::nullopt;
  return it->second;
}

int64_t MosaicEngine::slotOf(uint64_t key) const {
  const auto it = slots_.find(key);
  return it == slots_.end() ? -1 : static_cast<int64_t>(it->second);
}

std::optional<double> MosaicEngine::requestedAt(uint64_t key) const {
  const int64_t slot = slotOf(key);
  if (slot < 0 || requestedAt_[slot] == kNotRequested) return std::nullopt;
  return requestedAt_[slot];
}

bool MosaicEngine::isDead(uint64_t key) const {
  const int64_t slot = slotOf(key);
  return slot >= 0 ? dead_[slot] != 0 : deadElsewhere_.count(key) != 0;
}

MosaicSpring* MosaicEngine::findSpring(MosaicCursor c) {
  for (auto& s : springs_) {
    if (s.cursor == c) return &s.spring;
  }
  return nullptr;
}

void MosaicEngine::appendEvent(MosaicEventKind kind, uint64_t key) { frameEvents_.push_back({kind, key}); }

// ---- The frame -----------------------------------------------------------

void MosaicEngine::tick() {
  const double now = clock_.now();
  const double dt = lastFrame_ ? now - *lastFrame_ : kFirstFrame;
  const double step = std::clamp(dt, 0.0, kMaxStep);
  lastFrame_ = now;
  const double t = now - started_;
  frameEvents_.clear();

  {
    std::lock_guard lock(inboxLock_);
    std::swap(inbox_, taken_);
  }
  Inbox& in = taken_;

  bool insetChanged = false;
  if (in.size) takeSize(*in.size, insetChanged);
  viewW_ = static_cast<float>(renderer_->pixelWidth()) / renderer_->scale();
  viewH_ = static_cast<float>(renderer_->pixelHeight()) / renderer_->scale();

  if (in.wall) {
    installWall(*in.wall, now);
  } else if (insetChanged || std::fabs(wall_.width - viewW_) > 0.5f) {
    relayoutInPlace();
  }

  for (uint64_t key : in.missing) {
    const int64_t slot = slotOf(key);
    if (slot >= 0) {
      requestedAt_[slot] = kNotRequested;
      dead_[slot] = 1;
    } else {
      deadElsewhere_.insert(key);
    }
  }

  drainArrivals();

  const float before = scroll_.y;
  stepScroll(in, step);
  const float change = scroll_.y - before;

  takeHoverIntent(in, t);
  if (in.scroll.empty() && !scroll_.coasting) {
    if (pointer_) hoverTest(*pointer_);
  } else {
    clearHover();  // nothing swells while the wall moves
  }
  if (releaseAt_ && t >= *releaseAt_) {
    clearHover();
    menuHold_ = false;
  }

  collectCells();
  applyShift(now);
  stepSprings(step);
  choosePosters(change, step, t);
  publish();

  double cpuMs = 0;
  if (hasWall_) {
    buildInstances();
    renderer_->trim(kTextureBudget);
    cpuMs = renderer_->draw();
  }
  updateStats(dt, cpuMs);

  // The taken inbox goes back empty, keeping its lists' room for the next swap.
  in.scroll.clear();
  in.missing.clear();
  in.pointer.reset();
  in.wall.reset();
  in.size.reset();
  in.menuOpening = false;
}

void MosaicEngine::takeSize(const SizeChange& size, bool& insetChanged) {
  renderer_->resize(size.width, size.height, size.scale);
  const float inset = cards_ < 2 ? 0.0f : size.topInset;
  insetChanged = std::fabs(wall_.topInset - inset) > 0.5f;
  wall_.topInset = inset;
}

void MosaicEngine::relayoutInPlace() {
  const auto anchor = wall_.anchorAt(scroll_.y);
  const bool end = atEnd();
  wall_.recompute(viewW_);
  reserveScratch();
  if (end) {
    scroll_.y = maxScroll();
  } else if (anchor) {
    if (const auto top = wall_.topOfKey(anchor->key)) scroll_.y = std::max(*top - anchor->offset, 0.0f);
  }
  clearHover();
}

void MosaicEngine::installWall(WallChange& change, double now) {
  opensAtEnd_ = change.opensAtEnd;
  shiftFrom_.clear();
  for (const auto& cell : cells_) shiftFrom_[cell.key] = MosaicPoint{cell.rect.x, cell.rect.y - scroll_.y};
  shiftAt_ = now;

  // A plain value with a flag: gcc 12 misreads an optional that is reset and
  // refilled on several paths as possibly uninitialised.
  MosaicAnchor anchor;
  bool hasAnchor = false;
  if (hasWall_) {
    if (const auto found = wall_.anchorAt(scroll_.y)) {
      anchor = *found;
      hasAnchor = true;
    }
  }
  bool end = atEnd();

  const bool scopeChanged = change.scope != scope_;
  if (scopeChanged) {
    // Before the first wall there is no place worth remembering.
    if (hasWall_) {
      const Place here{anchor.key, anchor.offset, hasAnchor, end};
      const auto [it, added] = places_.insert_or_assign(scope_, here);
      if (added) placeOrder_.push_back(scope_);
      while (placeOrder_.size() > kRememberedScopes) {
        places_.erase(placeOrder_.front());
        placeOrder_.erase(placeOrder_.begin());
      }
    }
    if (const auto it = places_.find(change.scope); it != places_.end()) {
      anchor = MosaicAnchor{it->second.key, it->second.offset};
      hasAnchor = it->second.valid;
      end = it->second.atEnd;
    } else {
      hasAnchor = false;
      end = opensAtEnd_;
    }
    scope_ = change.scope;
  }

  wall_.chapters = std::move(change.chapters);
  wall_.films = std::move(change.films);
  wall_.recompute(viewW_);
  reserveScratch();
  hasWall_ = true;

  if (end) {
    scroll_.y = maxScroll();
  } else if (hasAnchor) {
    if (const auto top = wall_.topOfKey(anchor.key)) scroll_.y = std::max(*top - anchor.offset, 0.0f);
  }

  if (!scopeChanged && hovered_ && wall_.film(*hovered_)) {
    std::erase_if(springs_, [this](const SpringSlot& s) { return wall_.film(s.cursor) == nullptr; });
  } else {
    clearHover();
    menuHold_ = false;
    springs_.clear();
  }

  // `requested` and `dead` keep only the new wall's keys.
  std::unordered_map<uint64_t, uint32_t> keySlots;
  keySlots.reserve(wall_.films.size());
  std::vector<uint32_t> filmSlot(wall_.films.size());
  std::vector<double> requested;
  std::vector<uint8_t> dead;
  for (size_t i = 0; i < wall_.films.size(); ++i) {
    const uint64_t key = wall_.films[i].key;
    const auto [it, added] = keySlots.try_emplace(key, static_cast<uint32_t>(requested.size()));
    if (added) {
      const int64_t old = slotOf(key);
      requested.push_back(old >= 0 ? requestedAt_[old] : kNotRequested);
      dead.push_back(old >= 0 ? dead_[old] : static_cast<uint8_t>(deadElsewhere_.count(key)));
    }
    filmSlot[i] = it->second;
  }
  slots_ = std::move(keySlots);
  filmSlot_ = std::move(filmSlot);
  requestedAt_ = std::move(requested);
  dead_ = std::move(dead);
  deadElsewhere_.clear();

  size_t kept = 0;
  queuedBytes_ = 0;
  for (size_t i = 0; i < queue_.size(); ++i) {
    if (!slots_.count(queue_[i].key)) continue;
    queuedBytes_ += queue_[i].bytes.size();
    if (kept != i) queue_[kept] = std::move(queue_[i]);
    ++kept;
  }
  queue_.resize(kept);

  // The collections wall draws its deeper cards under keys derived from the
  // cell's key; those textures belong to the wall as much as the front ones.
  const bool fans = cards_ >= 2;
  renderer_->retain([this, fans](uint64_t key) {
    if (slots_.count(key)) return true;
    return fans && (slots_.count(key ^ kCardSalt1) || slots_.count(key ^ kCardSalt2));
  });
}

void MosaicEngine::reserveScratch() {
  // Room for the cells of the view and its margins, and for the zones ahead
  // and behind, with slack for rows cut short by chapter ends: the frame then
  // never grows a list.
  const float pitch = std::max(wall_.rowPitch(), 1.0f);
  const auto rows = static_cast<size_t>(std::ceil((viewH_ + 2.0f * pitch) / pitch)) + 3;
  const auto cols = static_cast<size_t>(std::max(wall_.columns, 1));
  cells_.reserve(cols * rows * 2);
  order_.reserve(cols * rows * 2);
  wanted_.reserve(cols * (rows + 16) * 2);
}

void MosaicEngine::drainArrivals() {
  {
    std::lock_guard lock(arrivalsLock_);
    arrivals_.swap(arrived_);
  }
  for (auto& a : arrived_) {
    queuedBytes_ += a.bytes.size();
    queue_.push_back(std::move(a));
  }
  arrived_.clear();

  // Oldest first; what is taken is dropped from the front at the end.
  size_t head = 0;
  while (queuedBytes_ > kQueueLimit && head < queue_.size()) {
    queuedBytes_ -= queue_[head].bytes.size();
    queue_[head++].bytes = {};
  }

  const double began = workTime_();
  size_t frameBytes = 0;
  while (frameBytes < kUploadBudget && head < queue_.size()) {
    Arrival& a = queue_[head++];
    queuedBytes_ -= a.bytes.size();
    frameBytes += a.bytes.size();
    if (!a.soft) {
      // A soft version keeps the full poster counted as in flight.
      if (const int64_t slot = slotOf(a.key); slot >= 0) requestedAt_[slot] = kNotRequested;
    }
    renderer_->upload(a.key, a.bytes.data(), a.bytes.size(), a.width, a.height, a.stride, a.soft);
    a.bytes = {};
    if (workTime_() - began >= kUploadSeconds) break;
  }

  queue_.erase(queue_.begin(), queue_.begin() + static_cast<std::ptrdiff_t>(head));
}

void MosaicEngine::stepScroll(const Inbox& in, double step) {
  if (!in.scroll.empty()) {
    float sum = 0;
    bool ended = false;
    for (const auto& e : in.scroll) {
      sum += e.dy;
      ended = ended || e.ended;
    }
    scroll_.y += sum;
    scroll_.coasting = false;
    if (step > 0) scroll_.velocity = static_cast<float>(sum / step * 0.3 + scroll_.velocity * 0.7);
    if (ended) scroll_.coasting = true;
  }
  if (scroll_.coasting) {
    scroll_.y += static_cast<float>(step * scroll_.velocity);
    scroll_.velocity *= static_cast<float>(std::pow(0.02, step));
    if (std::fabs(scroll_.velocity) < 12.0f) {
      scroll_.velocity = 0;
      scroll_.coasting = false;
    }
  }
  if (!(scroll_.y >= 0)) {  // NaN too
    scroll_ = MosaicScroll{};
  } else if (scroll_.y > maxScroll()) {
    scroll_ = MosaicScroll{maxScroll(), 0, false};
  }
}

void MosaicEngine::takeHoverIntent(const Inbox& in, double t) {
  if (in.menuOpening && hovered_) {
    menuHold_ = true;
    if (releaseAt_) releaseAt_ = t + kMenuRelease;
  }
  if (in.pointer) {
    pointer_ = *in.pointer;
    if (pointer_) {
      menuHold_ = false;
    } else if (active_ && !releaseAt_) {
      releaseAt_ = t + (menuHold_ ? kMenuRelease : kHoverRelease);
    }
  }
}

void MosaicEngine::hoverTest(MosaicPoint p) {
  releaseAt_.reset();
  const MosaicRect& shown = published_.hoverRect;
  if (shown.width > 0 && shown.contains(p.x, p.y)) return;
  const auto hit = wall_.hit(p.x, p.y + scroll_.y);
  if (!hit) {
    active_ = false;  // the spring falls back from where it was
    return;
  }
  if (hovered_ == hit && active_) return;
  hovered_ = hit;
  active_ = true;
  if (const MosaicFilmRef* film = wall_.film(*hit)) appendEvent(MosaicEventKind::hover, film->key);
}

void MosaicEngine::clearHover() {
  hovered_.reset();
  active_ = false;
  releaseAt_.reset();
}

void MosaicEngine::collectCells() {
  cells_.clear();
  const float pitch = wall_.rowPitch();
  wall_.forEachFilmIn(scroll_.y - pitch, scroll_.y + viewH_ + pitch, [this](MosaicCursor c, size_t index) {
    const MosaicFilmRef& film = wall_.films[index];
    cells_.push_back(MosaicPlaced{c, film.key, film.inPlex, wall_.cellRect(c)});
  });
}

void MosaicEngine::applyShift(double now) {
  if (shiftFrom_.empty()) return;
  const double progress = (now - shiftAt_) / kGlideSeconds;
  if (progress >= 1.0) {
    shiftFrom_.clear();
    return;
  }
  const float k = static_cast<float>(std::pow(1.0 - progress, 3));
  for (auto& cell : cells_) {
    const auto it = shiftFrom_.find(cell.key);
    if (it == shiftFrom_.end()) continue;
    const float x = cell.rect.x, y = cell.rect.y;
    cell.rect.x += (it->second.x - x) * k;
    cell.rect.y += (it->second.y - (y - scroll_.y)) * k;
  }
}

void MosaicEngine::stepSprings(double step) {
  if (active_ && hovered_ && wall_.columns >= 1 && hovered_->chapter < wall_.chapters.size()) {
    const int radius = cards_ < 2 ? 0 : 2;
    const int cols = wall_.columns;
    const auto count = static_cast<int64_t>(wall_.chapters[hovered_->chapter].count);
    const auto rows = static_cast<int64_t>(wall_.rowsOf(hovered_->chapter));
    const int64_t row = hovered_->local / cols, col = hovered_->local % cols;
    for (int64_t r = row - radius; r <= row + radius; ++r) {
      for (int64_t c = col - radius; c <= col + radius; ++c) {
        if (r < 0 || r >= rows || c < 0 || c >= cols || r * cols + c >= count) continue;
        const MosaicCursor cursor{hovered_->chapter, static_cast<uint32_t>(r * cols + c)};
        if (!findSpring(cursor)) springs_.push_back(SpringSlot{cursor, MosaicSpring{1.0f, 0.0f}});
      }
    }
  }
  const float dt = static_cast<float>(step);
  std::erase_if(springs_, [&](SpringSlot& s) {
    const float target = active_ && hovered_ == s.cursor ? kSwell : 1.0f;
    MosaicSpring& sp = s.spring;
    sp.velocity += dt * ((target - sp.value) * 420.0f - 34.0f * sp.velocity);
    sp.value += dt * sp.velocity;
    if (std::fabs(target - sp.value) < 0.0005f && std::fabs(sp.velocity) < 0.01f) {
      sp.value = target;
      sp.velocity = 0;
      return target == 1.0f;
    }
    return false;
  });
}

void MosaicEngine::choosePosters(float change, double step, double t) {
  const double speed = std::fabs(change) / std::max(step, 0.0001);
  if (speed >= 2.0 * viewH_) return;  // flying too fast for a poster to matter
  const float pitch = std::max(wall_.cellH + 1.0f, 1.0f);
  const float ahead = pitch * static_cast<float>(std::clamp(speed / pitch * 0.35 + 4.0, 4.0, 14.0));
  const float behind = 2.0f * pitch;
  const float top = scroll_.y - pitch;
  const float bottom = scroll_.y + viewH_ + pitch;

  wanted_.clear();
  const auto want = [this](float from, float to) {
    wall_.forEachFilmIn(from, to,
                        [this](MosaicCursor, size_t index) { wanted_.push_back(static_cast<uint32_t>(index)); });
  };
  want(top, bottom);
  if (change >= 0) {
    want(bottom, bottom + ahead);
    want(top - behind, top);
  } else {
    want(top - ahead, top);
    want(bottom, bottom + behind);
  }

  int sent = 0;
  for (uint32_t index : wanted_) {
    if (sent >= kRequestsPerFrame) break;
    const uint64_t key = wall_.films[index].key;
    bool soft = false;
    if (renderer_->hasTexture(key, &soft) && !soft) continue;
    const uint32_t slot = filmSlot_[index];
    if (dead_[slot]) continue;
    if (t - requestedAt_[slot] < kAskAgainAfter) continue;
    requestedAt_[slot] = t;
    appendEvent(MosaicEventKind::wantPoster, key);
    ++sent;
  }
}

void MosaicEngine::publish() {
  if (!frameEvents_.empty()) {
    std::lock_guard lock(outboxLock_);
    outbox_.insert(outbox_.end(), frameEvents_.begin(), frameEvents_.end());
    if (outbox_.size() > kOutboxMax) {
      outbox_.erase(outbox_.begin(), outbox_.begin() + static_cast<std::ptrdiff_t>(outbox_.size() - kOutboxMax));
    }
  }

  published_.cellWidth = wall_.cellW;
  published_.cellHeight = wall_.cellH;
  published_.scrollY = scroll_.y;
  published_.columns = wall_.columns;
  published_.topInset = wall_.topInset;
  published_.hoverKey = 0;
  published_.hoverRect = MosaicRect{};
  if (hovered_ && active_) {
    for (const auto& cell : cells_) {
      if (cell.cursor != *hovered_) continue;
      published_.hoverKey = cell.key;
      published_.hoverRect = MosaicRect{cell.rect.x, cell.rect.y - scroll_.y, cell.rect.width, cell.rect.height};
      break;
    }
  }
  std::lock_guard lock(publishedLock_);
  sharedPublished_ = published_;
}

void MosaicEngine::buildInstances() {
  renderer_->clearInstances();
  order_.clear();
  bool swollen = false;
  for (size_t i = 0; i < cells_.size(); ++i) {
    const MosaicSpring* s = findSpring(cells_[i].cursor);
    const float swell = s ? s->value : 1.0f;
    swollen = swollen || swell > 1.0f;
    order_.emplace_back(swell, static_cast<uint32_t>(i));
  }
  // Swollen fans lie on top of their neighbours.
  if (swollen && cards_ >= 2) std::sort(order_.begin(), order_.end());

  MosaicFan fan;
  if (cards_ >= 2) fan = mosaicFan(cards_, wall_.cellW, std::max(wall_.cellH - captionHeight_, 1.0f));
  for (const auto& [swell, index] : order_) {
    const MosaicPlaced& cell = cells_[index];
    const float y = cell.rect.y - scroll_.y;
    const float lift = std::clamp((swell - 1.0f) / 0.7f, 0.0f, 1.0f);
    if (cards_ < 2) {
      drawFilm(cell, y, lift);
    } else {
      drawFan(cell, y, lift, fan);
    }
  }
}

void MosaicEngine::drawFilm(const MosaicPlaced& cell, float y, float lift) {
  const MosaicRect& r = cell.rect;
  if (lift > 0.01f) {
    MosaicInstance shadow = instance(r.x, y + lift * 4.0f, r.width, r.height);
    setTint(shadow, 0, 0, 0, lift * 0.45f);
    shadow.corner = 3.0f;
    shadow.blur = lift * 9.0f;
    renderer_->addInstance(shadow, nullptr);
  }
  MosaicInstance poster = instance(r.x, y, r.width, r.height);
  poster.corner = 3.0f;
  const MosaicTexture* texture = renderer_->lookup(cell.key);
  if (texture) {
    setTint(poster, 1, 1, 1, 1);
    poster.textured = 1.0f;
  } else {
    const auto rgb = mosaicPlaceholder(cell.key);
    setTint(poster, rgb[0], rgb[1], rgb[2], 1.0f);
  }
  renderer_->addInstance(poster, texture);
  if (cell.inPlex) {
    MosaicInstance scrim = instance(r.x, y + r.height * 0.75f, r.width, r.height * 0.25f);
    setTint(scrim, kAccent[0], kAccent[1], kAccent[2], 0.55f + lift * 0.15f);
    scrim.corner = 3.0f;
    scrim.gradient = 1.0f;
    renderer_->addInstance(scrim, nullptr);
  }
}

void MosaicEngine::drawFan(const MosaicPlaced& cell, float y, float lift, const MosaicFan& fan) {
  if (fan.cardW <= 1.0f) return;
  const float x = cell.rect.x;
  const double tilt = radians(5.0 + 4.0 * lift);
  const float spread = fan.step * (1.0f + 0.7f * lift);
  const float left = x + 5.0f;
  const float right = x + wall_.cellW - 5.0f;
  const float base = y + wall_.cellH - captionHeight_ - 5.0f - fan.swing - fan.cardH;
  const double phi = radians((cards_ - 1) * 9.0);
  const double reach = left + 1.7 * fan.step * (cards_ - 1) + fan.cardW * std::cos(phi) + fan.cardH * std::sin(phi);
  const bool opensRight = reach <= wall_.width;
  const float corner = 3.0f + 3.0f * lift;

  for (int depth = cards_ - 1; depth >= 0; --depth) {
    const double angle = tilt * depth;
    float ox, oy, rotation;
    if (opensRight) {
      ox = left + spread * static_cast<float>(depth);
      oy = base;
      rotation = static_cast<float>(angle);
    } else {
      ox = static_cast<float>(right - spread * depth - fan.cardW * std::cos(angle));
      oy = static_cast<float>(base + fan.cardW * std::sin(angle));
      rotation = static_cast<float>(-angle);
    }

    MosaicInstance shadow = instance(ox, oy + 2.0f + 3.0f * lift, fan.cardW, fan.cardH);
    setTint(shadow, 0, 0, 0, 0.34f + 0.16f * lift);
    shadow.corner = corner;
    shadow.blur = 5.0f + 6.0f * lift;
    shadow.rotation = rotation;
    renderer_->addInstance(shadow, nullptr);

    const float dim = 1.0f - 0.11f * static_cast<float>(depth);
    const uint64_t key = cardKey(cell.key, depth);
    MosaicInstance card = instance(ox, oy, fan.cardW, fan.cardH);
    card.corner = corner;
    card.rotation = rotation;
    const MosaicTexture* texture = renderer_->lookup(key);
    if (texture) {
      setTint(card, dim, dim, dim, 1.0f);
      card.textured = 1.0f;
    } else {
      const auto rgb = mosaicPlaceholder(key);
      setTint(card, rgb[0] * dim, rgb[1] * dim, rgb[2] * dim, 1.0f);
    }
    renderer_->addInstance(card, texture);

    if (cell.inPlex) {
      // The lowest quarter of the card as it lies: its corner turned about the card's.
      const float down = fan.cardH * 0.75f;
      MosaicInstance scrim =
          instance(ox - down * std::sin(rotation), oy + down * std::cos(rotation), fan.cardW, fan.cardH * 0.25f);
      setTint(scrim, kAccent[0], kAccent[1], kAccent[2], 0.55f + 0.15f * lift);
      scrim.corner = corner;
      scrim.rotation = rotation;
      scrim.gradient = 1.0f;
      renderer_->addInstance(scrim, nullptr);
    }
  }
}

void MosaicEngine::updateStats(double dt, double cpuMs) {
  const float ms = static_cast<float>(std::max(dt, 0.0) * 1000.0);
  intervals_[intervalNext_] = ms;
  intervalNext_ = (intervalNext_ + 1) % intervals_.size();
  intervalCount_ = std::min(intervalCount_ + 1, intervals_.size());

  stats_.worstMs = std::min(std::max(stats_.worstMs, ms), 10000.0f);
  stats_.cpuMs = static_cast<float>(cpuMs);
  ++stats_.frames;
  if (ms > 12.5f) ++stats_.late;
  stats_.textures = renderer_->textureCount();
  stats_.textureMB = static_cast<uint32_t>(renderer_->residentBytes() >> 20);
  stats_.poolMB = static_cast<uint32_t>(renderer_->pooledBytes() >> 20);
  stats_.queuedMB = static_cast<uint32_t>(queuedBytes_ >> 20);
  stats_.visible = static_cast<uint32_t>(cells_.size());
  if (stats_.frames % 15 == 0) {
    sorted_.assign(intervals_.begin(), intervals_.begin() + static_cast<std::ptrdiff_t>(intervalCount_));
    std::sort(sorted_.begin(), sorted_.end());
    stats_.p50Ms = sorted_[sorted_.size() / 2];
  }
  std::lock_guard lock(statsLock_);
  sharedStats_ = stats_;
}

}  // namespace vt
