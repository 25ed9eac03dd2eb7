// The engine's control port spoken to byte by byte: what a client other than
// the application's may send, and what the port holds of it.
#include <gtest/gtest.h>

#include <QTcpSocket>
#include <fstream>
#include <optional>

#include "ConnectionLimits.h"
#include "engine/EngineTestKit.h"
#include "engine/LocalEngine.h"
#include "platform/Json.h"

using namespace vt;
using vt::test::entry;
using vt::test::LocalEngine;
namespace limits = vtnfs::limits;

namespace {

struct RawReply {
  int status = 0;
  QByteArray head;  // status line and headers
  QByteArray body;
  bool has(const QByteArray& headerLine) const { return head.contains("\r\n" + headerLine + "\r\n"); }
};

// A client that writes exactly the bytes it is given and reads replies by
// their Content-Length.
struct RawClient {
  explicit RawClient(quint16 port) {
    socket.connectToHost(QHostAddress::LocalHost, port);
    EXPECT_TRUE(test::spinUntil([&] { return socket.state() == QAbstractSocket::ConnectedState; }));
  }
  void send(const QByteArray& bytes) {
    socket.write(bytes);
    socket.flush();
  }
  // The next reply; none when it doesn't come whole within `ms`.
  std::optional<RawReply> reply(int ms = 5000) {
    std::optional<RawReply> got;
    test::spinUntil(
        [&] {
          if (got) return true;  // asked again after it held
          received += socket.readAll();
          const auto end = received.indexOf("\r\n\r\n");
          if (end < 0) return false;
          RawReply r;
          r.head = received.left(end + 2);
          r.status = received.mid(9, 3).toInt();
          qsizetype length = 0;
          for (const auto& line : r.head.split('\n'))
            if (line.toLower().startsWith("content-length:")) length = line.mid(15).trimmed().toLongLong();
          if (received.size() < end + 4 + length) return false;
          r.body = received.mid(end + 4, length);
          received.remove(0, end + 4 + length);
          got = r;
          return true;
        },
        ms);
    return got;
  }
  bool closed(int ms = 5000) {
    return test::spinUntil(
        [&] {
          received += socket.readAll();
          return socket.state() == QAbstractSocket::UnconnectedState;
        },
        ms);
  }
  QTcpSocket socket;
  QByteArray received;
};

QByteArray post(const QByteArray& path, const QByteArray& body, const QByteArray& extra = {}) {
  return "POST " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: application/json\r\nContent-Length: " +
         QByteArray::number(body.size()) + "\r\n" + extra + "\r\n" + body;
}

std::string errorOf(const RawReply& r) {
  const auto j = json::parse(r.body.toStdString());
  return j && j->is_object() && j->contains("error") && (*j)["error"].is_string() ? (*j)["error"].get<std::string>()
                                                                                  : "";
}

// The most memory the process has ever had resident, in bytes: a body held
// for a moment and let go counts too.
int64_t peakResidentBytesOf(qint64 pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);)
    if (line.rfind("VmHWM:", 0) == 0) return std::stoll(line.substr(6)) * 1024;
  return 0;
}

}  // namespace

TEST(ControlPort, KeepsConnectionsAliveAndRefusesWhatDoesntReadWithAReasonAndAClose) {
  test::TestHome home;
  LocalEngine e(home, {entry("A.mkv", "http://x/a")});
  const quint16 port = static_cast<quint16>(e.control.port());
  {
    // Requests one after the other and two sent at once, all on one connection; a miss doesn't end it.
    RawClient c(port);
    c.send("GET /healthz HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
    auto r = c.reply();
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 200);
    EXPECT_TRUE(r->has("Content-Type: text/plain"));
    EXPECT_EQ(r->body, "ok");
    c.send(post("/control/budget", R"({"cache_gb": 2})") + "GET /nowhere HTTP/1.1\r\n\r\n");
    r = c.reply();
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 200);
    EXPECT_TRUE(r->has("Content-Type: application/json"));
    EXPECT_EQ(r->body, "{}");
    EXPECT_EQ(e.engine->reader().budgetBytes(), 2'000'000'000);
    r = c.reply();
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 404);
    c.send("GET /control/reload HTTP/1.1\r\n\r\n");
    r = c.reply();
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 405);
    EXPECT_TRUE(r->has("Allow: POST"));
    // A body of exactly the limit is taken; a client that asks first is told to go on.
    QByteArray names = R"({"names": [")";
    names += QByteArray(limits::kControlMaxBodyBytes - names.size() - 3, 'n') + R"("]})";
    ASSERT_EQ(names.size(), limits::kControlMaxBodyBytes);
    c.send("POST /control/warm-pending HTTP/1.1\r\nExpect: 100-continue\r\nContent-Length: " +
           QByteArray::number(names.size()) + "\r\n\r\n");
    r = c.reply();
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 100);
    c.send(names);
    r = c.reply();
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 200);
    EXPECT_EQ(c.socket.state(), QAbstractSocket::ConnectedState);
    // "Connection: close" is honoured.
    c.send("GET /status HTTP/1.1\r\nConnection: close\r\n\r\n");
    r = c.reply();
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 200);
    EXPECT_TRUE(r->has("Connection: close"));
    EXPECT_TRUE(c.closed());
  }
  // Each of these is answered with its reason in JSON, and the connection closes: what follows can't be trusted
  // to be a request.
  const QByteArray bigHeader = "X-Filler: " + QByteArray(limits::kControlMaxHeaderBytes, 'f') + "\r\n";
  const struct {
    QByteArray request;
    int status;
    const char* reason;
  } refused[] = {
      {"GARBAGE\r\n\r\n", 400, "malformed request line"},
      {"GET  /healthz HTTP/1.1\r\n\r\n", 400, "malformed request line"},
      {"GET /healthz HTTP/2.0\r\n\r\n", 505, "only HTTP/1.1"},
      {"GET /healthz HTTP/1.1\r\nno colon here\r\n\r\n", 400, "malformed header line"},
      {post("/control/budget", "{}", "Content-Length: 3\r\n"), 400, "malformed Content-Length"},
      {"POST /control/budget HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n2\r\n{}\r\n0\r\n\r\n", 411,
       "Content-Length"},
      {"GET /healthz HTTP/1.1\r\n" + bigHeader + "\r\n", 431, "over 16 KiB"},
      {"GET /healthz HTTP/1.1\r\n" + bigHeader, 431, "over 16 KiB"},  // not even ended
  };
  for (const auto& [request, status, reason] : refused) {
    SCOPED_TRACE(request.left(60).toStdString());
    RawClient c(port);
    c.send(request);
    const auto r = c.reply();
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, status);
    EXPECT_TRUE(r->has("Connection: close") && r->has("Content-Type: application/json"));
    EXPECT_NE(errorOf(*r).find(reason), std::string::npos) << r->body.toStdString();
    EXPECT_TRUE(c.closed());
  }
}

TEST(ControlPort, ClosesAConnectionIdleBetweenRequestsOrHoldingAnUnfinishedOneAfterItsLimit) {
  test::TestHome home;
  ManualClock clock;
  LocalEngine e(home, {entry("A.mkv", "http://x/a")}, clock);
  const quint16 port = static_cast<quint16>(e.control.port());
  RawClient idle(port), half(port);
  idle.send("GET /healthz HTTP/1.1\r\n\r\n");
  ASSERT_TRUE(idle.reply());
  half.send("POST /control/budget HTTP/1.1\r\nContent-Length: 17\r\n\r\n{\"cache");
  test::settle(50);
  // More bytes of the same request don't buy more time.
  clock.advance(limits::kControlHalfSentSeconds / 2);
  half.send("_gb\"");
  test::settle(50);
  clock.advance(limits::kControlHalfSentSeconds / 2 - 0.1);
  test::settle(50);
  EXPECT_EQ(half.socket.state(), QAbstractSocket::ConnectedState);
  clock.advance(0.1);
  const auto timedOut = half.reply();
  ASSERT_TRUE(timedOut);
  EXPECT_EQ(timedOut->status, 408);
  EXPECT_TRUE(half.closed());
  EXPECT_EQ(e.engine->reader().budgetBytes(), int64_t{1} << 30) << "the half-sent budget was not applied";

  // The idle connection lives on until its own limit, counted from its last request, and then closes unanswered.
  clock.advance(limits::kControlIdleSeconds - limits::kControlHalfSentSeconds - 0.1);
  test::settle(50);
  EXPECT_EQ(idle.socket.state(), QAbstractSocket::ConnectedState);
  idle.send("GET /healthz HTTP/1.1\r\n\r\n");
  ASSERT_TRUE(idle.reply()) << "a request restarts the idle time";
  clock.advance(limits::kControlIdleSeconds - 0.1);
  test::settle(50);
  EXPECT_EQ(idle.socket.state(), QAbstractSocket::ConnectedState);
  clock.advance(0.1);
  EXPECT_TRUE(idle.closed());
  EXPECT_TRUE(idle.received.isEmpty()) << "an idle close sends nothing a client could take for a reply";
}

TEST(ControlPort, ABodyOverTheLimitIsRefusedBeforeItIsReadAndTheEngineDoesntGrow) {
  test::TestHome home;
  test::VtnfsProcess engine(home, {entry("A.mkv", "http://x/a")});
  ASSERT_TRUE(engine.waitReady()) << engine.process.readAll().toStdString();
  const qint64 pid = engine.process.processId();
  constexpr qint64 kBody = 200ll << 20;
  const QByteArray headers =
      "POST /control/budget HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: application/json\r\n"
      "Content-Length: " +
      QByteArray::number(kBody) + "\r\n\r\n";
  const int64_t before = peakResidentBytesOf(pid);
  {
    // Refused on its announced length: no byte of the body has to come.
    RawClient c(engine.controlPort);
    c.send(headers);
    const auto r = c.reply();
    ASSERT_TRUE(r) << "no reply before the body";
    EXPECT_EQ(r->status, 413);
    EXPECT_EQ(errorOf(*r), "the body is over 1 MiB");
    EXPECT_TRUE(c.closed());
  }
  {
    // A client that sends it all regardless gets the same answer, and the engine keeps none of it.
    RawClient c(engine.controlPort);
    c.send(headers);
    const QByteArray piece(1 << 20, 'x');
    qint64 sent = 0;
    std::optional<RawReply> r;
    test::spinUntil(
        [&] {
          while (sent < kBody && c.socket.state() == QAbstractSocket::ConnectedState &&
                 c.socket.bytesToWrite() < piece.size()) {
            c.socket.write(piece);
            sent += piece.size();
          }
          if (!r) r = c.reply(0);
          return r && c.socket.state() == QAbstractSocket::UnconnectedState;
        },
        60000);
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 413);
  }
  EXPECT_TRUE(test::runTask(engine.client.healthz(engine.controlURL())));
  EXPECT_LT(peakResidentBytesOf(pid) - before, int64_t{16} << 20) << "the body was held";
}
