#pragma once

#include <string>

#include <QObject>
#include <QTcpServer>

#include "NfsService.h"

namespace vtnfs {

// The TCP side of the NFS port: record marking (RFC 5531 section 11) in
// front of the service. Each call runs as its own job, so a slow source
// doesn't hold up the other calls on the connection; replies go out as they
// are ready, matched by their xid. A connection's jobs end with it (and so
// with the server, which owns its sockets). A record over the service's
// limit closes the connection.
class NfsServer : public QObject {
 public:
  explicit NfsServer(NfsService& service) : service_(service) {}

  bool listen(const QHostAddress& address, quint16 port);
  QString errorString() const { return server_.errorString(); }
  quint16 port() const { return server_.serverPort(); }

 private:
  void accept();

  NfsService& service_;
  QTcpServer server_;
};

}  // namespace vtnfs
