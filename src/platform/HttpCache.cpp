#include "platform/HttpCache.h"

#include <QNetworkDiskCache>

namespace vt {

TieredNetworkCache::TieredNetworkCache(int64_t memoryBytes, int64_t diskBytes, const QString& diskDirectory,
                                       QObject* parent)
    : QAbstractNetworkCache(parent), memoryLimit_(memoryBytes), disk_(new QNetworkDiskCache(this)) {
  disk_->setCacheDirectory(diskDirectory);
  disk_->setMaximumCacheSize(diskBytes);
}

TieredNetworkCache::~TieredNetworkCache() {
  for (auto it = preparing_.begin(); it != preparing_.end(); ++it) delete it.key();
}

void TieredNetworkCache::touch(Entry& e) { lru_.splice(lru_.begin(), lru_, e.lru); }

void TieredNetworkCache::dropFromMemory(const QUrl& url) {
  auto it = memory_.find(url);
  if (it == memory_.end()) return;
  memoryUsed_ -= it->body.size();
  lru_.erase(it->lru);
  memory_.erase(it);
}

void TieredNetworkCache::putInMemory(const QNetworkCacheMetaData& meta, const QByteArray& body) {
  dropFromMemory(meta.url());
  // A body larger than a quarter of the tier would flush everything else.
  if (body.size() > memoryLimit_ / 4) return;
  lru_.push_front(meta.url());
  memory_.insert(meta.url(), Entry{meta, body, lru_.begin()});
  memoryUsed_ += body.size();
  while (memoryUsed_ > memoryLimit_ && !lru_.empty()) dropFromMemory(lru_.back());
}

QNetworkCacheMetaData TieredNetworkCache::metaData(const QUrl& url) {
  auto it = memory_.find(url);
  if (it != memory_.end()) {
    touch(*it);
    return it->meta;
  }
  return disk_->metaData(url);
}

void TieredNetworkCache::updateMetaData(const QNetworkCacheMetaData& metaData) {
  auto it = memory_.find(metaData.url());
  if (it != memory_.end()) it->meta = metaData;
  disk_->updateMetaData(metaData);
}

QIODevice* TieredNetworkCache::data(const QUrl& url) {
  auto it = memory_.find(url);
  if (it != memory_.end()) {
    touch(*it);
    auto* buffer = new QBuffer();
    buffer->setData(it->body);
    buffer->open(QIODevice::ReadOnly);
    return buffer;
  }
  std::unique_ptr<QIODevice> device(disk_->data(url));
  if (!device) return nullptr;
  const QByteArray body = device->readAll();
  const auto meta = disk_->metaData(url);
  if (meta.isValid()) putInMemory(meta, body);
  auto* buffer = new QBuffer();
  buffer->setData(body);
  buffer->open(QIODevice::ReadOnly);
  return buffer;
}

bool TieredNetworkCache::remove(const QUrl& url) {
  // An aborted download removes its URL; the half-filled buffer goes with it.
  for (auto it = preparing_.begin(); it != preparing_.end();) {
    if (it.value().url() == url) {
      delete it.key();
      it = preparing_.erase(it);
    } else {
      ++it;
    }
  }
  const bool inMem = memory_.contains(url);
  dropFromMemory(url);
  return disk_->remove(url) || inMem;
}

qint64 TieredNetworkCache::cacheSize() const { return disk_->cacheSize(); }

QIODevice* TieredNetworkCache::prepare(const QNetworkCacheMetaData& metaData) {
  if (!metaData.isValid() || !metaData.saveToDisk()) return nullptr;
  auto* buffer = new QBuffer();
  buffer->open(QIODevice::ReadWrite);
  preparing_.insert(buffer, metaData);
  return buffer;
}

void TieredNetworkCache::insert(QIODevice* device) {
  auto it = preparing_.find(device);
  if (it == preparing_.end()) return;
  const auto meta = it.value();
  preparing_.erase(it);
  auto* buffer = static_cast<QBuffer*>(device);
  const QByteArray body = buffer->data();
  delete buffer;
  putInMemory(meta, body);
  if (QIODevice* out = disk_->prepare(meta)) {
    out->write(body);
    disk_->insert(out);
  }
}

void TieredNetworkCache::clear() {
  memory_.clear();
  lru_.clear();
  memoryUsed_ = 0;
  disk_->clear();
}

}  // namespace vt
