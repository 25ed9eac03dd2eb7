#include "app/SingleInstance.h"

#include <QLocalServer>
#include <QLocalSocket>
#include <unistd.h>

namespace vt {

std::string SingleInstance::defaultName() { return "com.quillon.vantory.app-" + std::to_string(::getuid()); }

bool SingleInstance::activateRunningInstance(const std::string& name) {
  QLocalSocket socket;
  socket.connectToServer(QString::fromStdString(name));
  if (!socket.waitForConnected(500)) return false;
  socket.write("activate\n");
  socket.waitForBytesWritten(500);
  socket.disconnectFromServer();
  return true;
}

SingleInstance::SingleInstance(const std::string& name, std::function<void()> onActivate)
    : server_(std::make_unique<QLocalServer>()) {
  const auto qname = QString::fromStdString(name);
  // A socket file left by a crashed instance would block listening.
  QLocalServer::removeServer(qname);
  server_->setSocketOptions(QLocalServer::UserAccessOption);
  server_->listen(qname);
  QObject::connect(server_.get(), &QLocalServer::newConnection, server_.get(),
                   [server = server_.get(), onActivate = std::move(onActivate)] {
                     while (auto* socket = server->nextPendingConnection()) {
                       QObject::connect(socket, &QLocalSocket::readyRead, socket, [socket, onActivate] {
                         if (socket->readAll().startsWith("activate")) onActivate();
                         socket->deleteLater();
                       });
                     }
                   });
}

SingleInstance::~SingleInstance() = default;

}  // namespace vt
