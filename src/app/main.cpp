#include <QCoreApplication>
#include <csignal>
#include <sys/socket.h>
#include <unistd.h>

int main(int argc, char** argv) {
  QCoreApplication app(argc, argv);
  return app.exec();
}
