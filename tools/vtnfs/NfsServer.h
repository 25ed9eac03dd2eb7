#pragma once

#include <string>

#include <QObject>
#include <QTcpServer>

#include "ConnectionLimits.h"
#include "NfsService.h"
#include "platform/Clock.h"

namespace vtnfs {

// The TCP side of the NFS port: record marking (RFC 5531 section 11) in
// front of the service. Each call runs as its own job, so a slow source
// doesn't hold up the other calls on the connection; replies go out as they
// are ready, matched by their xid. A connection's jobs end with it (and so
// with the server, which owns its sockets). A record over the service's
// limit closes the connection, and so does a record left half-sent for
// 30 seconds (its bytes would be held for ever), and a connection with
// nothing in flight that has been quiet for 10 minutes.
class NfsServer : public QObject {
 public:
  static constexpr double kHalfSentSeconds = limits::kNfsHalfSentSeconds;
  static constexpr double kIdleSeconds = limits::kNfsIdleSeconds;

  explicit NfsServer(NfsService& service, vt::Clock& clock = vt::systemClock()) : service_(service), clock_(clock) {}

  bool listen(const QHostAddress& address, quint16 port);
  QString errorString() const { return server_.errorString(); }
  quint16 port() const { return server_.serverPort(); }

 private:
  void accept();

  NfsService& service_;
  vt::Clock& clock_;
  QTcpServer server_;
};

}  // namespace vtnfs
