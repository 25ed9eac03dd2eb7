#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <qcoro/qcorotask.h>

#include "FileSpan.h"
#include "NfsTree.h"
#include "ReadResult.h"
#include "platform/Cancellation.h"

namespace vtnfs {

// What the protocol needs from the engine: the tree and the bytes.
class NfsBackend {
 public:
  virtual ~NfsBackend() = default;
  virtual const NfsTree& tree() const = 0;

  // Appends up to `count` bytes of `entry` from `offset` to `out`. Where
  // `span` is given and the bytes lie in a local file, the backend may name
  // them there instead, and appends nothing. A failure is an I/O error for
  // the client. Once `token` is cancelled the backend returns at its next
  // suspension without touching anything of the caller's.
  virtual QCoro::Task<ReadResult> read(std::string entry, uint64_t offset, uint32_t count, std::string& out,
                                       FileSpan* span, vt::CancelToken token) = 0;
};

// NFS version 3 and MOUNT version 3 over ONC RPC, read-only, without the
// socket: one call record in, one reply record out. The same port serves
// both programs.
class NfsService {
 public:
  static constexpr uint32_t kMaxRead = 1 << 20;
  static constexpr size_t kMaxRecord = (1 << 20) + 4096;  // larger calls close the connection

  NfsService(NfsBackend& backend, uint32_t uid, uint32_t gid) : backend_(backend), uid_(uid), gid_(gid) {}

  // A reply record whose file bytes may still be in the file.
  struct Reply {
    std::string bytes;  // the record, record mark included, less the span
    FileSpan span;      // when set, its bytes belong at `spanAt` in `bytes`
    size_t spanAt = 0;
    // The whole record as one text; none when the file ended early.
    std::optional<std::string> flatten() &&;
  };

  // The reply to one complete record; empty bytes when no reply is due (a
  // record that isn't a call); none when the record is too broken to answer
  // and the connection should close. READ replies of local files carry a
  // span, for the socket to send without copying. A cancelled `token`
  // gives none at the next suspension, and the service is not touched again.
  QCoro::Task<std::optional<Reply>> reply(std::string record, vt::CancelToken token = vt::CancelToken::none());
  // The same reply as one text.
  QCoro::Task<std::optional<std::string>> handle(std::string record, vt::CancelToken token = vt::CancelToken::none());

 private:
  struct Call;
  QCoro::Task<bool> nfs(Call& call, Reply& reply, vt::CancelToken token);
  bool mount(Call& call, std::string& out);
  void attributes(std::string& out, const NfsNode& node) const;
  void postOpAttributes(std::string& out, const NfsNode* node) const;
  bool readdir(Call& call, std::string& out, bool plus);

  NfsBackend& backend_;
  uint32_t uid_;
  uint32_t gid_;
};

}  // namespace vtnfs
