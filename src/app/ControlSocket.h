#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/Json.h"
#include "platform/Job.h"

class QLocalServer;
class QLocalSocket;

namespace vt {

class VantoryApp;

// The answer side of one request: lines of JSON, then the end, which closes
// the connection. Lines after the end, or after the client went, are dropped.
class ControlReply {
 public:
  explicit ControlReply(QLocalSocket* socket);
  void send(const Json& line) const;
  void end() const;
  bool isOpen() const;
  // Runs when the client goes away before the end.
  void onGone(std::function<void()> fn) const;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

// A local socket in the data folder on which the running application takes
// requests: one JSON object a line from the client, answered with lines of
// JSON. Only this user may connect.
class ControlServer {
 public:
  using Handler = std::function<void(const Json& request, ControlReply reply)>;
  ControlServer(std::string path, Handler handler);
  ~ControlServer();
  bool isListening() const;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
  std::unique_ptr<QLocalServer> server_;
};

// The requests a user without a window needs, over the application:
//   {"verb":"watch","id":"tt0111161"}  progress lines {"stage":...,"text":...}
//     until "ready" (with "url") or "failed";
//   {"verb":"status"}  {"ok":true,"status":{...}};
//   {"verb":"subscribe","addon":...,"type":...,"catalog":...,"genre":...,"max":N};
//   {"verb":"unsubscribe","collection":NAME_OR_ID}.
// Every other answer is {"ok":true,...} or {"ok":false,"error":TEXT}.
class ControlRequests {
 public:
  explicit ControlRequests(VantoryApp& app);
  ~ControlRequests();
  void handle(const Json& request, ControlReply reply);

  Json status() const;

 private:
  void watch(const std::string& id, ControlReply reply);
  void followJob(const std::string& id, ControlReply reply);
  void subscribe(const Json& request, ControlReply reply);
  void unsubscribe(const std::string& nameOrId, ControlReply reply);

  VantoryApp& app_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  JobScope jobs_;  // last
};

}  // namespace vt
