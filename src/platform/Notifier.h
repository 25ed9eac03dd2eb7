#pragma once

// Desktop notifications: what the application posts when a long job ends,
// and the one way it opens a web address for the user.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vt {

struct Notification {
  std::string title;
  std::string body;
  // Names the notification; a later one with the same identifier replaces it.
  std::string identifier;
  // Opened when the user clicks the notification; none: a click does nothing.
  std::optional<std::string> openURL;
  // With the desktop's usual notification sound.
  bool sound = false;
  bool operator==(const Notification&) const = default;
};

class Notifier {
 public:
  virtual ~Notifier() = default;
  // Never fails: where the desktop can't show it, it goes elsewhere.
  virtual void post(const Notification& notification) = 0;
  virtual void openURL(const std::string& url) = 0;
};

// Keeps what was posted and opened (tests, tools).
class RecordingNotifier : public Notifier {
 public:
  void post(const Notification& notification) override { posted.push_back(notification); }
  void openURL(const std::string& url) override { opened.push_back(url); }

  std::vector<Notification> posted;
  std::vector<std::string> opened;
};

// Opens a web address with the desktop's opener ("xdg-open") as a child
// process. The address is the opener's only argument: it must carry no secret.
void openWithDesktop(const std::string& url);

// Freedesktop notifications over the session bus. A click on the
// notification (its default action, or the "Open" button) opens its address
// with `opener`. Where no notification service answers (no session bus, no
// daemon), the notification goes to `unavailable` instead.
class DesktopNotifier : public Notifier {
 public:
  static constexpr const char* kService = "org.freedesktop.Notifications";
  static constexpr const char* kPath = "/org/freedesktop/Notifications";
  static constexpr int kCallTimeoutMs = 2000;

  struct Hooks {
    std::function<void(const Notification&)> unavailable;
    std::function<void(const std::string&)> opener;  // openWithDesktop when none
  };
  explicit DesktopNotifier(Hooks hooks);
  ~DesktopNotifier() override;

  void post(const Notification& notification) override;
  void openURL(const std::string& url) override;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace vt
