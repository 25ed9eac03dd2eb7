#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <unordered_map>

#include <QAbstractNetworkCache>
#include <QBuffer>
#include <QHash>
#include <QNetworkCacheMetaData>

class QNetworkDiskCache;

namespace vt {

// The shared session's response cache: a bounded in-memory LRU tier in front
// of QNetworkDiskCache. Entries written go to both tiers; a disk hit is copied
// into memory. Main thread only, as QNetworkAccessManager uses it.
class TieredNetworkCache final : public QAbstractNetworkCache {
  Q_OBJECT
 public:
  TieredNetworkCache(int64_t memoryBytes, int64_t diskBytes, const QString& diskDirectory, QObject* parent = nullptr);
  ~TieredNetworkCache() override;

  QNetworkCacheMetaData metaData(const QUrl& url) override;
  void updateMetaData(const QNetworkCacheMetaData& metaData) override;
  QIODevice* data(const QUrl& url) override;
  bool remove(const QUrl& url) override;
  qint64 cacheSize() const override;
  QIODevice* prepare(const QNetworkCacheMetaData& metaData) override;
  void insert(QIODevice* device) override;

  int64_t memoryBytes() const { return memoryUsed_; }
  int64_t memoryLimit() const { return memoryLimit_; }
  bool inMemory(const QUrl& url) const { return memory_.contains(url); }

 public slots:
  void clear() override;

 private:
  struct Entry {
    QNetworkCacheMetaData meta;
    QByteArray body;
    std::list<QUrl>::iterator lru;
  };
  void putInMemory(const QNetworkCacheMetaData& meta, const QByteArray& body);
  void dropFromMemory(const QUrl& url);
  void touch(Entry& e);

  int64_t memoryLimit_;
  int64_t memoryUsed_ = 0;
  QHash<QUrl, Entry> memory_;
  std::list<QUrl> lru_;  // front = most recent
  QNetworkDiskCache* disk_;
  // Devices handed out by prepare(), with the metadata they belong to.
  QHash<QIODevice*, QNetworkCacheMetaData> preparing_;
};

}  // namespace vt
