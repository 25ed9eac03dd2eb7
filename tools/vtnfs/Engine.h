#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "ControlServer.h"
#include "NfsServer.h"
#include "NfsService.h"
#include "NfsTree.h"
#include "SourceReader.h"
#include "engine/contract/EngineContract.h"
#include "platform/Clock.h"
#include "platform/Http.h"
#include "platform/Job.h"
#include "platform/Result.h"

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

// Why the manifest was not taken.
struct ManifestError {
  enum class Kind {
    unreadable,  // the file could not be read
    invalid,     // it was read but is no manifest
  };
  Kind kind = Kind::unreadable;
  std::string path;

  bool operator==(const ManifestError&) const = default;
};
std::string message(const ManifestError& error);

// The engine behind the control port: the manifest's entries and what is
// known of each, warming, and the hints the application sends.
class Engine : public NfsBackend {
 public:
  // The clock times the ports' connection limits.
  explicit Engine(Options options, vt::Clock& clock = vt::systemClock());
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
  const SourceReader& reader() const { return reader_; }

  // Reads the manifest again; gives how many changed entries were put off
  // because they are in use. A manifest that doesn't read changes nothing.
  vt::Result<int, ManifestError> reload();
  // One line of the log file, stamped, redacted, its control characters
  // escaped so that no text can make a line of its own.
  void log(const std::string& line);

  // NfsBackend
  const NfsTree& tree() const override { return tree_; }
  QCoro::Task<ReadResult> read(std::string entry, uint64_t offset, uint32_t count, std::string& out, FileSpan* span,
                               vt::CancelToken token) override;

 private:
  void routes();
  // The manifest's entries less those that can't be served beside the others.
  std::vector<vt::EngineEntry> validated(std::vector<vt::EngineEntry> manifest);
  void queueWarm(const std::vector<std::string>& names);
  QCoro::Task<> warmLoop(vt::CancelToken token);
  QCoro::Task<bool> warmOne(std::string name, vt::CancelToken token);
  // A source or the local file told the entry's real size.
  void confirmSize(const std::string& name, int64_t size);
  bool inUse(const std::string& name) const;

  Options options_;
  ControlServer control_;
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
  vt::Completion warmWake_;
  // Last, so that the warmer ends while the rest of the engine still stands.
  vt::JobScope jobs_;
};

}  // namespace vtnfs
