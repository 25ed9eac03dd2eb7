#include "NfsReadClient.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "../vtnfs/Xdr.h"

namespace vtnfs {

namespace {

constexpr uint32_t kNfsProgram = 100003, kMountProgram = 100005, kVersion = 3;
constexpr uint32_t kLookup = 3, kRead = 6, kMount = 1;
constexpr uint32_t kAttributesBytes = 84;  // fattr3
constexpr size_t kMaxRecord = 64 << 10;    // of anything but a READ's data
constexpr int kWaitStepMs = 200;           // how often a wait looks whether it was interrupted

// NFS and MOUNT statuses as the errors programs see.
int errorOf(uint32_t status) {
  switch (status) {
    case 2:
      return -ENOENT;
    case 13:
      return -EACCES;
    case 20:
      return -ENOTDIR;
    case 21:
      return -EISDIR;
    case 63:
      return -ENAMETOOLONG;
    case 70:
      return -ESTALE;
    default:
      return -EIO;
  }
}

uint32_t word(const char* p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return ntohl(v);
}

class XdrOut {
 public:
  explicit XdrOut(std::string& out) : out_(out) {}
  void u32(uint32_t v) {
    v = htonl(v);
    out_.append(reinterpret_cast<const char*>(&v), 4);
  }
  void u64(uint64_t v) {
    u32(static_cast<uint32_t>(v >> 32));
    u32(static_cast<uint32_t>(v));
  }
  void opaque(std::string_view bytes) {
    u32(static_cast<uint32_t>(bytes.size()));
    out_.append(bytes);
    out_.append((4 - bytes.size() % 4) % 4, '\0');
  }

 private:
  std::string& out_;
};

}  // namespace

bool NfsReadClient::connect() {
  disconnect();
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (::getaddrinfo(host_.c_str(), std::to_string(port_).c_str(), &hints, &found) != 0) return false;
  for (addrinfo* a = found; a && fd_ < 0; a = a->ai_next) {
    fd_ = ::socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
    if (fd_ >= 0 && ::connect(fd_, a->ai_addr, a->ai_addrlen) != 0) disconnect();
  }
  ::freeaddrinfo(found);
  if (fd_ < 0) return false;
  const int one = 1;
  ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  return true;
}

void NfsReadClient::disconnect() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  handles_.clear();  // handles stay valid, but a restarted engine is asked again
}

bool NfsReadClient::send(uint32_t program, uint32_t procedure, const std::string& arguments) {
  std::string call;
  XdrOut w(call);
  w.u32(0);  // record mark, below
  w.u32(++xid_);
  w.u32(0);  // CALL
  w.u32(2);  // RPC version
  w.u32(program);
  w.u32(kVersion);
  w.u32(procedure);
  w.u32(0);  // credential and verifier: AUTH_NONE
  w.u32(0);
  w.u32(0);
  w.u32(0);
  call += arguments;
  const uint32_t mark = htonl(0x80000000u | static_cast<uint32_t>(call.size() - 4));
  std::memcpy(call.data(), &mark, 4);
  for (size_t sent = 0; sent < call.size();) {
    const ssize_t n = ::send(fd_, call.data() + sent, call.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    sent += static_cast<size_t>(n);
  }
  return true;
}

bool NfsReadClient::receive(char* into, size_t size, const Interrupted& interrupted) {
  interruptedNow_ = false;
  for (size_t got = 0; got < size;) {
    const ssize_t n = ::recv(fd_, into + got, size - got, MSG_DONTWAIT);
    if (n > 0) {
      got += static_cast<size_t>(n);
      continue;
    }
    if (n == 0) return false;
    if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) return false;
    if (interrupted && interrupted()) {
      interruptedNow_ = true;
      return false;
    }
    pollfd p{fd_, POLLIN, 0};
    ::poll(&p, 1, kWaitStepMs);
  }
  return true;
}

// The reply's words up to the procedure's results: record mark, xid, REPLY,
// MSG_ACCEPTED, the verifier, SUCCESS. `left` is what remains of the record.
bool NfsReadClient::receiveReplyHeader(size_t& left, int& error, const Interrupted& interrupted) {
  error = 0;
  char head[24];
  if (!receive(head, sizeof head, interrupted)) return false;
  const uint32_t mark = word(head);
  if (!(mark & 0x80000000u)) return false;  // the engine answers in one fragment
  left = (mark & 0x7fffffffu);
  if (left < 20 || word(head + 4) != xid_ || word(head + 8) != 1) return false;
  if (word(head + 12) != 0) {  // denied
    error = -EACCES;
    return false;
  }
  const uint32_t verifierBytes = (word(head + 20) + 3) & ~3u;
  left -= 20;
  if (verifierBytes + 4 > left || verifierBytes > 400) return false;
  std::string skip(verifierBytes + 4, '\0');
  if (!receive(skip.data(), skip.size(), interrupted)) return false;
  left -= skip.size();
  if (word(skip.data() + verifierBytes) != 0) {  // not SUCCESS
    error = -EIO;
    return false;
  }
  return true;
}

bool NfsReadClient::receiveRecord(std::string& record, const Interrupted& interrupted) {
  size_t left = 0;
  int error = 0;
  if (!receiveReplyHeader(left, error, interrupted) || left > kMaxRecord) return false;
  record.resize(left);
  return receive(record.data(), left, interrupted);
}

int NfsReadClient::handleFor(const std::string& path, std::string& handle, const Interrupted& interrupted,
                             Failure& failure) {
  if (auto it = handles_.find(path); it != handles_.end()) {
    handle = it->second;
    return 0;
  }
  const auto fail = [&](int error, bool connection) {
    failure = {error, connection};
    return error;
  };
  const auto broken = [&] { return interruptedNow_ ? fail(-EINTR, false) : fail(-EIO, true); };
  // MNT of the root, or LOOKUP of the name in its folder: both answer a
  // status and then the handle.
  std::string args;
  XdrOut w(args);
  const auto slash = path.find_last_of('/');
  if (path == "/") {
    w.opaque("/");
    if (!send(kMountProgram, kMount, args)) return broken();
  } else {
    std::string parent;
    if (const int rc = handleFor(slash == 0 ? "/" : path.substr(0, slash), parent, interrupted, failure); rc < 0)
      return rc;
    w.opaque(parent);
    w.opaque(path.substr(slash + 1));
    if (!send(kNfsProgram, kLookup, args)) return broken();
  }
  std::string record;
  if (!receiveRecord(record, interrupted)) return broken();
  XdrReader r(record.data(), record.size());
  uint32_t status = 0;
  std::string_view fh;
  if (!r.u32(status)) return broken();
  if (status != 0) return fail(errorOf(status), false);
  if (!r.opaque(fh, 64)) return broken();
  handle = handles_[path] = std::string(fh);
  return 0;
}

int NfsReadClient::readOnce(const std::string& path, uint64_t offset, uint32_t count, char* buf,
                            const Interrupted& interrupted, Failure& failure) {
  const auto fail = [&](int error, bool connection) {
    failure = {error, connection};
    return error;
  };
  const auto broken = [&] { return interruptedNow_ ? fail(-EINTR, false) : fail(-EIO, true); };
  if (fd_ < 0 && !connect()) return fail(-EIO, true);
  std::string handle;
  if (const int rc = handleFor(path, handle, interrupted, failure); rc < 0) return rc;
  std::string args;
  XdrOut w(args);
  w.opaque(handle);
  w.u64(offset);
  w.u32(count);
  size_t left = 0;
  int error = 0;
  if (!send(kNfsProgram, kRead, args)) return broken();
  if (!receiveReplyHeader(left, error, interrupted)) return error ? fail(error, true) : broken();
  // status, post_op_attr, then (when OK) count, eof and the data's length
  char words[8];
  if (left < 8 || !receive(words, 8, interrupted)) return broken();
  left -= 8;
  const uint32_t status = word(words);
  const size_t attributes = word(words + 4) == 1 ? kAttributesBytes : 0;
  std::string rest(attributes + (status == 0 ? 12 : 0), '\0');
  if (rest.size() > left || !receive(rest.data(), rest.size(), interrupted)) return broken();
  left -= rest.size();
  if (status != 0) {
    if (left != 0) return broken();
    if (status == 70) handles_.erase(path);  // the next read looks it up again
    return fail(errorOf(status), false);
  }
  const uint32_t length = word(rest.data() + attributes + 8);
  const size_t padded = (static_cast<size_t>(length) + 3) & ~size_t(3);
  if (length > count || padded != left) return broken();
  if (!receive(buf, length, interrupted)) return broken();
  char pad[4];
  if (padded > length && !receive(pad, padded - length, interrupted)) return broken();
  return static_cast<int>(length);
}

int NfsReadClient::read(const std::string& path, uint64_t offset, uint32_t count, char* buf,
                        const Interrupted& interrupted) {
  Failure failure{};
  int rc = readOnce(path, offset, count, buf, interrupted, failure);
  if (rc >= 0) return rc;
  if (failure.error == -EINTR || failure.connection) disconnect();
  // After an engine restart the connection is dead: once more on a fresh
  // one (the engine's handles stay the same for an unchanged entry).
  if (failure.connection) rc = readOnce(path, offset, count, buf, interrupted, failure);
  if (rc < 0 && (failure.error == -EINTR || failure.connection)) disconnect();
  return rc;
}

}  // namespace vtnfs
