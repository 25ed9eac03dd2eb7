// The verbs that ask the running application: they speak to it on the local
// socket in its data folder, one request a connection, answered in lines of
// JSON.

#include <QElapsedTimer>
#include <QEventLoop>
#include <QLocalSocket>
#include <QTimer>
#include <ostream>

#include "cli/Verbs.h"
#include "platform/Json.h"
#include "platform/Paths.h"

namespace vt::cli {

int askRunningApplication(const std::string& socketPath, const Json& request,
                          const std::function<bool(const Json& line)>& onLine, Io& io, const std::string& verb) {
  const VerbEventLoop loop;
  QLocalSocket socket;
  QEventLoop events;
  bool connected = false, failed = false, finished = false;
  QByteArray buffer;
  QObject::connect(&socket, &QLocalSocket::connected, &events, [&] {
    connected = true;
    socket.write(QByteArray::fromStdString(json::encode(request) + "\n"));
    socket.flush();
  });
  QObject::connect(&socket, &QLocalSocket::errorOccurred, &events, [&](QLocalSocket::LocalSocketError error) {
    if (!connected) failed = true;
    if (error != QLocalSocket::PeerClosedError || !connected) events.quit();
  });
  QObject::connect(&socket, &QLocalSocket::readyRead, &events, [&] {
    buffer.append(socket.readAll());
    qsizetype newline;
    while (!finished && (newline = buffer.indexOf('\n')) >= 0) {
      const auto line = buffer.left(newline).toStdString();
      buffer.remove(0, newline + 1);
      const auto parsed = json::parse(line);
      if (!parsed) continue;
      if (!onLine(*parsed)) finished = true;
    }
    if (finished) events.quit();
  });
  QObject::connect(&socket, &QLocalSocket::disconnected, &events, [&] { events.quit(); });
  socket.connectToServer(QString::fromStdString(socketPath));
  if (!failed && socket.state() != QLocalSocket::UnconnectedState) events.exec();
  if (!connected) {
    io.err << kToolName << " " << verb << ": Vantory isn't running (nothing answers on " << socketPath << ")\n";
    return kUsageError;
  }
  return finished ? 0 : 1;
}

namespace {

std::string socketOf(const Arguments& args) {
  const auto paths = args.home ? AppPaths::forTestHome(*args.home) : AppPaths::fromEnvironment();
  return paths.controlSocket();
}

// A request answered by one line: {"ok":true,...} printed as it is (0), or
// {"ok":false,"error":...} with the reason on standard error (1).
int askOnce(const Arguments& args, const Json& request, Io& io, const std::string& verb) {
  std::optional<Json> answer;
  const int rc = askRunningApplication(
      socketOf(args), request,
      [&](const Json& line) {
        answer = line;
        return false;
      },
      io, verb);
  if (rc == kUsageError) return rc;
  if (!answer) {
    io.err << kToolName << " " << verb << ": Vantory closed the connection without an answer\n";
    return 1;
  }
  if (answer->value("ok", false)) {
    io.out << json::encode(*answer) << '\n';
    return 0;
  }
  io.err << kToolName << " " << verb << ": " << answer->value("error", std::string("the request failed")) << '\n';
  return 1;
}

}  // namespace

Verb watchVerb() {
  return {"watch",
          "press the watch button of a film or an episode in the running application",
          "Asks the running Vantory to bring a film (\"tt0111161\") or an episode (\"tt0944947:1:1\") to Plex,\n"
          "and prints its progress as JSON lines {\"stage\":...,\"text\":...}. Ends with stage \"ready\" and the\n"
          "Plex web link in \"url\" (exit 0) or stage \"failed\" and the reason (exit 1). Exit status 2 when\n"
          "Vantory isn't running.",
          {},
          [](const Arguments& args, Io& io) {
            if (args.operands.size() != 1) return usageError(io, "watch", "give one IMDb id or episode key");
            std::string last;
            const Json request{{"verb", "watch"}, {"id", args.operands[0]}};
            const int rc = askRunningApplication(
                socketOf(args), request,
                [&](const Json& line) {
                  io.out << json::encode(line) << '\n';
                  io.out.flush();
                  last = line.value("stage", std::string());
                  return last != "ready" && last != "failed";
                },
                io, "watch");
            if (rc == kUsageError) return rc;
            if (last == "ready") return 0;
            if (last.empty()) io.err << kToolName << " watch: Vantory closed the connection without an answer\n";
            return 1;
          },
          "ID"};
}

Verb statusVerb() {
  return {"status",
          "the running application's engines, Plex and collections as JSON",
          "Prints one JSON object from the running Vantory: each engine's state and whether Plex can read its\n"
          "folder, the last engine error, whether the Plex server answers, every collection with its source,\n"
          "members, titles in the library and delivery to Plex, and the watch presses in progress. Exit\n"
          "status 2 when Vantory isn't running.",
          {},
          [](const Arguments& args, Io& io) {
            const Json request{{"verb", "status"}};
            return askOnce(args, request, io, "status");
          },
          ""};
}

Verb subscribeVerb() {
  return {"subscribe",
          "subscribe to an add-on catalog and publish it to Plex",
          "Asks the running Vantory to follow the catalog CATALOG_ID of type TYPE (\"movie\", \"series\") of the\n"
          "Stremio add-on at ADDON_BASE, fill it from the add-on and publish it to Plex. Prints the new\n"
          "collection as JSON.",
          {{"--genre", "G", "the catalog's genre option"}, {"--max", "N", "how many titles the list keeps (40)"}},
          [](const Arguments& args, Io& io) {
            if (args.operands.size() != 3) return usageError(io, "subscribe", "give ADDON_BASE TYPE CATALOG_ID");
            Json request{{"verb", "subscribe"},
                         {"addon", args.operands[0]},
                         {"type", args.operands[1]},
                         {"catalog", args.operands[2]}};
            if (const auto genre = args.value("--genre")) request["genre"] = *genre;
            if (const auto max = args.value("--max")) {
              int n = 0;
              try {
                size_t used = 0;
                n = std::stoi(*max, &used);
                if (used != max->size()) n = 0;
              } catch (...) {
                n = 0;
              }
              if (n < 1) return usageError(io, "subscribe", "--max takes a whole number of at least 1");
              request["max"] = n;
            }
            return askOnce(args, request, io, "subscribe");
          },
          "ADDON_BASE TYPE CATALOG_ID"};
}

Verb unsubscribeVerb() {
  return {"unsubscribe",
          "stop following a list and take it off Plex",
          "Asks the running Vantory to delete the collection with this name or id. The library and watchlist\n"
          "collections can't be removed.",
          {},
          [](const Arguments& args, Io& io) {
            if (args.operands.size() != 1) return usageError(io, "unsubscribe", "give one collection name or id");
            const Json request{{"verb", "unsubscribe"}, {"collection", args.operands[0]}};
            return askOnce(args, request, io, "unsubscribe");
          },
          "NAME_OR_ID"};
}

}  // namespace vt::cli
