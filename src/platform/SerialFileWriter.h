#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace vt {

// Writes `bytes` to `path` so that a reader or a crash sees the old file or
// the new one whole: a temporary file in the same folder, synced, renamed
// over. False on any failure; the temporary file is removed then. The
// temporary file has a unique hidden name, or `tempPath` where a caller that
// serialises its writers needs a fixed one.
bool writeFileAtomically(const std::string& path, const std::string& bytes, const std::string& tempPath = {});
// Removes what interrupted writes of `path` left behind (their hidden
// temporary files beside it); the number removed.
int removeInterruptedWrites(const std::string& path);

// Reads a whole file; none when it can't be read.
std::optional<std::string> readFile(const std::string& path);

// The background writer of a store. save() returns at once; the encoding and
// the write run on a low-priority background thread, strictly in call order
// per writer. The producer captures a snapshot of the value by copy, so later
// changes on the main thread can't leak into an earlier save. A save that a
// later one of the same writer supersedes before it starts is skipped: the
// file still goes through the saves in order and ends with the last one.
// Failures are dropped without a message; the next save writes everything.
class SerialFileWriter {
 public:
  // Returns the bytes to write, or none to write nothing.
  using Producer = std::function<std::optional<std::string>()>;

  SerialFileWriter();
  ~SerialFileWriter();
  SerialFileWriter(const SerialFileWriter&) = delete;
  SerialFileWriter& operator=(const SerialFileWriter&) = delete;

  // Fills `bytes` (empty, but with the capacity an earlier save left) with
  // what to write; false to write nothing. The writer thread keeps one buffer
  // for every encoder, so a large file is encoded without fresh memory each
  // time; `bytes` is valid only during the call.
  using Encoder = std::function<bool(std::string& bytes)>;

  void save(std::string path, Producer produce);
  void save(std::string path, Encoder encode);

  // Blocks until every save handed over so far is on disk (tests, tools).
  void waitUntilIdle();

  // Number of writes that reached the disk (tests).
  uint64_t completedWrites() const;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace vt
