#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>

namespace vtnfs {

// The helper's reads, spoken straight to the engine: NFS version 3 MNT,
// LOOKUP and READ over one TCP connection, one call at a time. A READ's data
// goes from the socket into the caller's buffer with no copy in between
// (libnfs hands each reply over in a buffer of its own). Not thread-safe:
// one per pooled connection.
class NfsReadClient {
 public:
  // Whether the read should give up: polled while waiting for the engine.
  using Interrupted = std::function<bool()>;

  NfsReadClient(std::string host, uint16_t port) : host_(std::move(host)), port_(port) {}
  ~NfsReadClient() { disconnect(); }
  NfsReadClient(const NfsReadClient&) = delete;
  NfsReadClient& operator=(const NfsReadClient&) = delete;

  // Reads up to `count` bytes at `offset` of the file at `path` ("/a/b.mkv")
  // into `buf`: how many came (0 at the end), or a negative errno. A broken
  // connection (the engine restarted) is made again once. -EINTR when
  // `interrupted` said so; the connection is then closed, as its call is
  // still outstanding.
  int read(const std::string& path, uint64_t offset, uint32_t count, char* buf, const Interrupted& interrupted);

 private:
  struct Failure {
    int error;        // negative errno
    bool connection;  // the connection broke: worth one more try on a fresh one
  };
  int readOnce(const std::string& path, uint64_t offset, uint32_t count, char* buf, const Interrupted& interrupted,
               Failure& failure);
  bool connect();
  void disconnect();
  // Sends one call; false when the connection broke.
  bool send(uint32_t program, uint32_t procedure, const std::string& arguments);
  // Receives exactly `size` bytes; false when the connection broke or the
  // read was interrupted (`interruptedNow` says which).
  bool receive(char* into, size_t size, const Interrupted& interrupted);
  // The rest of a record whose first words were read; false on a broken one.
  bool receiveRecord(std::string& record, const Interrupted& interrupted);
  // Reads a reply's header up to its results: false on a broken connection,
  // with `error` set for an RPC that was refused.
  bool receiveReplyHeader(size_t& left, int& error, const Interrupted& interrupted);
  int handleFor(const std::string& path, std::string& handle, const Interrupted& interrupted, Failure& failure);

  std::string host_;
  uint16_t port_;
  int fd_ = -1;
  uint32_t xid_ = 0;
  bool interruptedNow_ = false;
  std::map<std::string, std::string> handles_;  // by path, "/" the root
};

}  // namespace vtnfs
