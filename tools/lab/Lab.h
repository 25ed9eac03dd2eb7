#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>

#include <QByteArray>
#include <QObject>
#include <QThread>

#include "lab/LabClips.h"
#include "lab/LabWorld.h"

namespace vt::test {
class FakeCatalogAddon;
class FakeCinemeta;
class FakePlexAccount;
class FakePlexServer;
class FakeRealDebrid;
class FakeRelay;
class FakeStreamAddon;
}  // namespace vt::test

namespace vt::lab {

// A thread with its own event loop for servers that must keep answering
// while another one waits: the simulated Plex reads files through the mount,
// and the engine behind the mount asks the file host for their bytes.
class ServerThread {
 public:
  explicit ServerThread(const char* name);
  ~ServerThread();
  ServerThread(const ServerThread&) = delete;
  ServerThread& operator=(const ServerThread&) = delete;
  // Runs `work` on the thread and waits for it.
  void run(const std::function<void()>& work);

 private:
  QThread thread_;
  std::unique_ptr<QObject> context_;
};

// Where the lab's services answer, what the application's settings need
// to reach them, and the secrets it shares with them.
struct LabAddresses {
  std::string cinemeta;        // origins, "http://127.0.0.1:<port>"
  std::string catalogAddon;    // the catalog add-on's address, with its trailing "/"
  std::string torrentio;       // origin of the Torrentio stand-in
  std::string torrentioAddon;  // its address as a user would paste it (with the key)
  std::string comet;
  std::string mediafusionAddon;
  std::string realDebrid;
  std::string fileHost;
  std::string plex;
  std::string plexAccount;  // the account API base
  std::string relay;        // the subtitle service base
  int controlPort = 0;      // the film engine's; the series engine's is two above
  int nfsPort = 0;          // the same for the engines' NFS ports
  std::string rdKey;
  std::string plexToken;
  std::string serverName;
};

struct LabOptions {
  int portBase = 0;  // 0: free ports
};

// The world's services on 127.0.0.1, seeded from a generated world: Cinemeta
// and a catalog add-on list it, the three stream add-on families give its
// releases in their own row shapes with links that land on the Real-Debrid
// file host, Real-Debrid turns its hashes into links on that host, and the
// host serves every file as a real clip followed by generated filler.
// The simulated Plex has the two library sections over `home`'s folders.
class Lab {
 public:
  Lab(const LabWorld& world, std::map<std::string, QByteArray> clips, const std::string& home, LabOptions options = {});
  ~Lab();
  Lab(const Lab&) = delete;
  Lab& operator=(const Lab&) = delete;

  const LabAddresses& addresses() const { return addresses_; }
  // The file host path of a release's bytes.
  static std::string filePath(const LabRelease& release);

 private:
  void startFiles();
  void startPlex(const std::string& home);
  void fillAddons();
  void fillCinemeta();
  void fillCatalog();

  const LabWorld& world_;
  std::map<std::string, QByteArray> clips_;
  LabAddresses addresses_;
  // By hash: the file host path each add-on link lands on.
  std::map<std::string, std::string> landing_;

  ServerThread filesThread_{"lab-files"};
  ServerThread plexThread_{"lab-plex"};
  std::unique_ptr<test::FakeRealDebrid> rd_;        // lives on filesThread_
  std::unique_ptr<test::FakePlexServer> plex_;      // lives on plexThread_
  std::unique_ptr<test::FakePlexAccount> account_;  // lives on plexThread_
  std::unique_ptr<test::FakeCinemeta> cinemeta_;
  std::unique_ptr<test::FakeCatalogAddon> catalog_;
  std::unique_ptr<test::FakeStreamAddon> torrentio_;
  std::unique_ptr<test::FakeStreamAddon> comet_;
  std::unique_ptr<test::FakeStreamAddon> mediafusion_;
  std::unique_ptr<test::FakeRelay> relay_;
};

// Shell lines that point the application at the lab: its data folder and
// every service address it takes from the environment. No secret is in them.
std::string labEnvironment(const std::string& home, const LabAddresses& addresses);

// Settings that reach the lab's services, and one subscribed catalog list
// (the first `listSize` films of the lab's catalog), published, in `home`.
// A second call keeps the list and points it at the current addresses.
Result<void, LabError> seedHome(const std::string& home, const LabWorld& world, const LabAddresses& addresses,
                                int listSize);

// The name of the subscribed list.
inline constexpr const char* kLabListName = "Lab Top Films";
inline constexpr const char* kLabCatalogId = "lab-top";

}  // namespace vt::lab
