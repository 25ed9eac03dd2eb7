// The lab and the application as a person starts them: vantory-lab on a
// fresh data folder, then vantory --headless with the lab's environment. In
// real time, the subscribed list resolves, its files are mounted and read
// through the engine, the simulated Plex indexes them into the list's smart
// collection; then the application stops on SIGTERM and takes its engines
// and mounts along, and a second lab start reuses the clips.

#include <sys/types.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <set>

#include <QDate>
#include <QElapsedTimer>
#include <QTcpSocket>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include "catalog/CatalogStore.h"
#include "core/LibraryTitle.h"
#include "lab/Lab.h"
#include "lab/LabWorld.h"
#include "platform/Clock.h"
#include "platform/Http.h"
#include "platform/Json.h"
#include "platform/Mounts.h"
#include "platform/SerialFileWriter.h"
#include "support/TestKit.h"

using namespace vt;
using namespace vt::lab;

namespace {

namespace fs = std::filesystem;

constexpr int kListSize = 30;

bool canMountWithFuse() {
  return !QStandardPaths::findExecutable("fusermount3").isEmpty() && QFile::exists("/dev/fuse");
}

// "export NAME='value'" lines, as the lab writes them.
std::map<std::string, std::string> readEnvironment(const std::string& path) {
  std::map<std::string, std::string> out;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("export ", 0) != 0) continue;
    const auto equals = line.find('=');
    const std::string name = line.substr(7, equals - 7);
    std::string quoted = line.substr(equals + 1), value;
    // 'a'\''b' → a'b
    bool inside = false;
    for (size_t i = 0; i < quoted.size(); ++i) {
      if (quoted[i] == '\'') {
        inside = !inside;
      } else if (!inside && quoted[i] == '\\' && i + 1 < quoted.size()) {
        value += quoted[++i];
      } else {
        value += quoted[i];
      }
    }
    out[name] = value;
  }
  return out;
}

std::string contents(const std::string& path) { return readFile(path).value_or(""); }

QByteArray readThroughMount(const std::string& path, int64_t first, int64_t count) {
  std::ifstream in(path, std::ios::binary);
  in.seekg(first);
  QByteArray out(static_cast<qsizetype>(count), '\0');
  in.read(out.data(), count);
  out.resize(static_cast<qsizetype>(in.gcount()));
  return out;
}

// A process of this test, whose output is kept for the failure message and
// which is ended if the test leaves early.
struct Child {
  QProcess process;
  std::string name;
  explicit Child(std::string n) : name(std::move(n)) { process.setProcessChannelMode(QProcess::MergedChannels); }
  // SIGTERM first: under a test home the application then stops its engines.
  ~Child() {
    if (process.state() == QProcess::NotRunning) return;
    process.terminate();
    if (!process.waitForFinished(15'000)) {
      process.kill();
      process.waitForFinished(5'000);
    }
  }
  std::string output() {
    log += process.readAll().toStdString();
    return log;
  }
  std::string log;
};

// Leaves no engine and no mount behind in the temporary folder, whatever happened.
struct Leftovers {
  std::string home;
  ~Leftovers() {
    for (const char* pidFile : {"/vtnfs.pid", "/tv/vtnfs.pid"})
      if (const int pid = std::atoi(readFile(home + pidFile).value_or("0").c_str()); pid > 0) ::kill(pid, SIGTERM);
    for (const char* folder : {"/Library", "/Library TV"})
      if (mountedFileSystem(home + folder))
        QProcess::execute("fusermount3", {"-u", "-z", QString::fromStdString(home + folder)});
  }
};

std::set<std::string> idsInNames(const std::vector<std::string>& names) {
  std::set<std::string> out;
  for (const auto& n : names)
    if (auto id = imdbIdOf(fs::path(n).filename().string())) out.insert(*id);
  return out;
}

}  // namespace

TEST(LabChain, AListGoesThroughTheMountIntoPlexAndTheApplicationStopsCleanly) {
  if (!canMountWithFuse()) GTEST_SKIP() << "no FUSE on this machine";
  QTemporaryDir dir;
  const std::string home = dir.path().toStdString() + "/home";
  Leftovers leftovers{home};
  const auto world = generateWorld(QDate::currentDate().year());
  const std::string noSource = world.firstOfKind(LabFilm::Kind::noSource)->id;
  const std::string unreleased = world.firstOfKind(LabFilm::Kind::unreleased)->id;

  Child lab("vantory-lab");
  lab.process.start(VT_LAB_BINARY, {"--home", QString::fromStdString(home), "--cache", VT_LAB_CLIPS, "--list-size",
                                    QString::number(kListSize)});
  // The first start in a build tree makes the clips (about a minute).
  ASSERT_TRUE(test::spinUntil(
      [&] { return fs::exists(home + "/lab.env") || lab.process.state() == QProcess::NotRunning; }, 240'000));
  ASSERT_TRUE(fs::exists(home + "/lab.env")) << lab.output();
  const auto env = readEnvironment(home + "/lab.env");
  ASSERT_EQ(env.at("VT_UITEST_HOME"), home);
  for (const auto& [name, value] : env) {
    if (name.rfind("VT_ENDPOINT_", 0) != 0) continue;
    EXPECT_EQ(value.find("127.0.0.1"), 7u) << name;
  }

  Child app("vantory");
  QProcessEnvironment appEnv = QProcessEnvironment::systemEnvironment();
  for (const auto& [name, value] : env) appEnv.insert(QString::fromStdString(name), QString::fromStdString(value));
  app.process.setProcessEnvironment(appEnv);
  QElapsedTimer clock;
  clock.start();
  app.process.start(VT_APP_BINARY, {"--headless"});
  ASSERT_TRUE(app.process.waitForStarted(10'000));
  struct ShowLogs {
    Child& lab;
    Child& app;
    ~ShowLogs() {
      if (!::testing::Test::HasFailure() && !std::getenv("VT_SHOW_LOG")) return;
      std::cerr << "--- vantory-lab\n" << lab.output() << "--- vantory\n" << app.output();
    }
  } showLogs{lab, app};

  HttpClient http(systemClock(), HttpClient::Session::ephemeral);
  const std::string plex = env.at("VT_ENDPOINT_PLEX_LOCAL");
  auto smartCollection = [&]() -> std::set<std::string> {
    const auto reply = test::runTask(http.get(QUrl(QString::fromStdString(plex + "/lab.json")), 10));
    const auto state = json::parse(reply.body.toStdString());
    if (reply.status != 200 || !state) return {};
    std::map<std::string, std::vector<std::string>> files;
    for (const auto& section : (*state)["sections"])
      for (const auto& item : section["items"]) files[item["ratingKey"]] = item["files"];
    for (const auto& c : (*state)["collections"]) {
      if (c["title"] != kLabListName || !c["smart"].get<bool>()) continue;
      std::vector<std::string> names;
      for (const auto& key : c["members"])
        for (const auto& f : files[key]) names.push_back(f);
      return idsInNames(names);
    }
    return {};
  };
  // The list as the application keeps it now.
  auto listMembers = [&]() -> std::vector<std::string> {
    CatalogStore store(home, systemClock(), nullptr, {.readOnly = true});
    for (const auto& c : store.publishedLists())
      if (c.name == kLabListName) return c.itemImdbIds;
    return {};
  };
  // Whether the application holds a no-source verdict on a title, read from
  // the file: a store loaded now would forget verdicts on titles that left
  // every list.
  auto cooling = [&](const std::string& id) {
    const auto vetting = json::parse(contents(home + "/stream-vetting.json"));
    return vetting && vetting->contains("failed") && (*vetting)["failed"].contains(id);
  };
  // Within three minutes: every member that is out is in the smart collection,
  // and the film without a source cooled down and left the list.
  std::set<std::string> inPlex;
  std::vector<std::string> members;
  const bool published = test::spinUntil(
      [&] {
        if (app.process.state() == QProcess::NotRunning) return true;
        test::settle(400);
        members = listMembers();
        inPlex = smartCollection();
        if (members.empty() || !cooling(noSource)) return false;
        for (const auto& id : members)
          if (id != unreleased && !inPlex.count(id)) return false;
        return true;
      },
      180'000);
  ASSERT_NE(app.process.state(), QProcess::NotRunning) << "the application ended early";
  if (!published) {
    std::string missing;
    for (const auto& id : members)
      if (!inPlex.count(id)) missing += " " + id;
    FAIL() << inPlex.size() << " of " << members.size() << " members in Plex's collection; missing:" << missing
           << "; the film without a source " << (cooling(noSource) ? "cools" : "does not cool");
  }
  std::cout << "[ lab ] " << inPlex.size() << " films in Plex's smart collection after " << clock.elapsed()
            << " ms of real time\n";
  EXPECT_EQ(members.size(), static_cast<size_t>(kListSize)) << "the list is refilled to its size";
  EXPECT_EQ(std::count(members.begin(), members.end(), noSource), 0);
  EXPECT_EQ(inPlex.size(), members.size() - 1) << "all but the unreleased film";

  // The engine serves NFS on the lab's port, away from the user's own Vantory.
  QTcpSocket nfs;
  nfs.connectToHost("127.0.0.1", static_cast<quint16>(std::stoi(env.at("VT_TEST_NFS_PORT"))));
  EXPECT_TRUE(nfs.waitForConnected(5000)) << "nothing listens on the lab's NFS port";

  // The unreleased film waits: still a member, neither published nor cooling.
  EXPECT_EQ(std::count(members.begin(), members.end(), unreleased), 1);
  EXPECT_FALSE(inPlex.count(unreleased));
  EXPECT_FALSE(cooling(unreleased));

  // Published files read the same through the mount as from the file host:
  // the clip at the start, across its end into the filler, deep in the
  // filler and at the end.
  const auto library = json::parse(contents(home + "/library.json"));
  ASSERT_TRUE(library && library->is_array() && !library->empty());
  const size_t count = library->size();
  const std::vector<size_t> sample = {0, count / 2, count - 1};
  for (const size_t i : sample) {
    const auto& title = (*library)[i];
    const std::string name = title["name"];
    const std::string url = title["url"];
    const int64_t size = title["size"];
    const LabRelease* release = nullptr;
    for (const auto* r : world.releases())
      if (title.contains("rdFilename") && r->filename == title["rdFilename"]) release = r;
    ASSERT_NE(release, nullptr) << name;
    ASSERT_EQ(release->bytes, size) << name;
    const QByteArray clip = QByteArray::fromStdString(contents(std::string(VT_LAB_CLIPS) + "/" + release->clip));
    ASSERT_FALSE(clip.isEmpty());
    const std::string path = home + "/Library/" + name;
    EXPECT_EQ(readThroughMount(path, 0, clip.size()), clip) << name << " starts with its clip";
    for (const auto& [first, count] : std::vector<std::pair<int64_t, int64_t>>{
             {0, 65'536}, {clip.size() - 3'000, 9'000}, {size / 2, 1 << 20}, {size - 70'000, 70'000}}) {
      HttpRequest request;
      request.url = QUrl(QString::fromStdString(url));
      request.range = std::make_pair(first, std::optional<int64_t>(first + count - 1));
      request.timeoutSeconds = 20;
      const auto hosted = test::runTask(http.send(request));
      ASSERT_EQ(hosted.status, 206) << name;
      EXPECT_EQ(readThroughMount(path, first, count), hosted.body) << name << " at " << first;
    }
  }

  // SIGTERM: the application quits, and under a test home its engines and
  // mounts go with it.
  const std::string enginePid = contents(home + "/vtnfs.pid");
  app.process.terminate();
  ASSERT_TRUE(app.process.waitForFinished(30'000)) << "the application did not stop on SIGTERM";
  EXPECT_EQ(app.process.exitStatus(), QProcess::NormalExit);
  EXPECT_EQ(app.process.exitCode(), 0);
  EXPECT_NE(app.output().find("[Vantory] quitting"), std::string::npos);
  EXPECT_FALSE(mountedFileSystem(home + "/Library")) << "the films' folder is still mounted";
  if (const auto pid = std::atoi(enginePid.c_str()); pid > 0) {
    EXPECT_TRUE(test::spinUntil([&] { return ::kill(pid, 0) != 0; }, 10'000)) << "the engine still runs";
  }

  // The lab stops on SIGTERM too, and takes its environment file along.
  lab.process.terminate();
  ASSERT_TRUE(lab.process.waitForFinished(15'000));
  EXPECT_EQ(lab.process.exitCode(), 0) << lab.output();
  EXPECT_FALSE(fs::exists(home + "/lab.env"));

  // A second start reuses the clips: none is made again.
  std::map<std::string, fs::file_time_type> made;
  for (const auto& spec : clipSpecs())
    made[spec.name] = fs::last_write_time(std::string(VT_LAB_CLIPS) + "/" + spec.name);
  Child again("vantory-lab");
  QElapsedTimer restart;
  restart.start();
  again.process.start(VT_LAB_BINARY, {"--home", dir.path() + "/second", "--cache", VT_LAB_CLIPS});
  ASSERT_TRUE(test::spinUntil(
      [&] {
        return fs::exists(dir.path().toStdString() + "/second/lab.env") ||
               again.process.state() == QProcess::NotRunning;
      },
      60'000));
  const auto readyMs = restart.elapsed();
  // Its servers answer once it says it is ready, and the file names this lab.
  const auto second = readEnvironment(dir.path().toStdString() + "/second/lab.env");
  EXPECT_EQ(second.count("VT_LAB_PID") ? second.at("VT_LAB_PID") : "", std::to_string(again.process.processId()));
  const std::string cinemeta = second.count("VT_ENDPOINT_CINEMETA") ? second.at("VT_ENDPOINT_CINEMETA") : "";
  const auto answer =
      test::runTask(http.get(QUrl(QString::fromStdString(cinemeta + "/meta/movie/tt0111161.json")), 10));
  EXPECT_EQ(answer.status, 200) << cinemeta;
  again.process.terminate();
  again.process.waitForFinished(15'000);
  EXPECT_EQ(again.output().find("making the clip"), std::string::npos) << again.output();
  for (const auto& spec : clipSpecs())
    EXPECT_EQ(fs::last_write_time(std::string(VT_LAB_CLIPS) + "/" + spec.name), made[spec.name]) << spec.name;
  std::cout << "[ lab ] second start answered after " << readyMs << " ms\n";
}
