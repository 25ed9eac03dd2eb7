#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <QHttpServer>
#include <QTcpServer>

#include "NfsServer.h"
#include "NfsService.h"
#include "NfsTree.h"
#include "SourceReader.h"
#include "engine/contract/EngineContract.h"
#include "platform/Http.h"
#include "platform/Job.h"

namespace vtnfs {

struct Options {
  std::string config;  // the manifest
  std::string nfsHost;
  quint16 nfsPort = 0;
  std::string controlHost;
  quint16 controlPort = 0;
  std::string mount;
  std::string log;
  std::string rdKey;  // from VT_RD_KEY, never from the command line
};

// Parses "-config P -nfs H:P -control H:P -mount P -log P"; none with a
// message in `error` when anything is missing or malformed.
std::optional<Options> parseArguments(const std::vector<std::string>& args, std::string& error);

// The engine behind the control port: the manifest's entries and what is
// known of each, warming, and the hints the application sends.
class Engine : public NfsBackend {
 public:
  explicit Engine(Options options);
  ~Engine() override;

  // Binds the NFS port, then the control port, and reads the manifest.
  // False with a message when either address can't be bound.
  bool start(std::string& error);

  struct EntryState {
    vt::EngineEntry entry;
    std::optional<int64_t> size;  // confirmed by the source
    bool warmed = false;
    bool probeReady = false;
    int64_t bytesServed = 0;
    bool warming = false;
  };
  const std::map<std::string, EntryState>& entries() const { return entries_; }

  // Reads the manifest again; returns how many changed entries were put off
  // because they are in use.
  int reload();
  void log(const std::string& line);

  // NfsBackend
  const NfsTree& tree() const override { return tree_; }
  QCoro::Task<ReadOutcome> read(std::string entry, uint64_t offset, uint32_t count, std::string& out,
                                FileSpan* span) override;

 private:
  void routes();
  void queueWarm(const std::vector<std::string>& names);
  QCoro::Task<> warmLoop(vt::CancelToken token);
  QCoro::Task<bool> warmOne(const std::string& name);
  bool inUse(const std::string& name) const;

  Options options_;
  QHttpServer control_;
  std::map<std::string, EntryState> entries_;
  NfsTree tree_;
  std::vector<std::string> warmQueue_;
  std::set<std::string> boosted_;
  std::map<std::string, double> expected_;
  bool playback_ = false;
  vt::HttpClient http_;
  SourceReader reader_;
  NfsService service_;
  NfsServer nfs_;
  vt::Job warmer_;
  vt::Completion warmWake_;
};

}  // namespace vtnfs
