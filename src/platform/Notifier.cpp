#include "platform/Notifier.h"

#include <map>

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QObject>
#include <QProcess>
#include <QVariantMap>

#include "platform/Log.h"

namespace vt {

void openWithDesktop(const std::string& url) {
  // Detached: the opener may hand over to a browser that outlives us.
  if (!QProcess::startDetached("xdg-open", {QString::fromStdString(url)}))
    logLine("[Vantory] couldn't start xdg-open to open " + url);
}

namespace {

constexpr const char* kOpenAction = "open";
constexpr const char* kDefaultAction = "default";

// Receives the service's signals; D-Bus delivers them to slots only.
class NotificationSignals : public QObject {
  Q_OBJECT
 public:
  std::function<void(uint, const QString&)> onAction;
  std::function<void(uint)> onClosed;

 public slots:
  void actionInvoked(uint id, const QString& action) {
    if (onAction) onAction(id, action);
  }
  void notificationClosed(uint id, uint /*reason*/) {
    if (onClosed) onClosed(id);
  }
};

}  // namespace

struct DesktopNotifier::State {
  Hooks hooks;
  NotificationSignals receiver;
  bool subscribed = false;
  std::map<uint, std::string> urls;            // by the service's notification id
  std::map<std::string, uint> idByIdentifier;  // so that a repeat replaces
};

DesktopNotifier::DesktopNotifier(Hooks hooks) : state_(std::make_shared<State>()) {
  state_->hooks = std::move(hooks);
  if (!state_->hooks.opener) state_->hooks.opener = openWithDesktop;
  std::weak_ptr<State> weak = state_;
  state_->receiver.onAction = [weak](uint id, const QString& action) {
    const auto state = weak.lock();
    if (!state) return;
    const auto it = state->urls.find(id);
    if (it == state->urls.end()) return;  // not ours, or without an address
    if (action == kOpenAction || action == kDefaultAction) state->hooks.opener(it->second);
  };
  state_->receiver.onClosed = [weak](uint id) {
    if (const auto state = weak.lock()) state->urls.erase(id);
  };
}

DesktopNotifier::~DesktopNotifier() {
  if (state_->subscribed) {
    auto bus = QDBusConnection::sessionBus();
    bus.disconnect(kService, kPath, kService, "ActionInvoked", &state_->receiver, SLOT(actionInvoked(uint, QString)));
    bus.disconnect(kService, kPath, kService, "NotificationClosed", &state_->receiver,
                   SLOT(notificationClosed(uint, uint)));
  }
}

void DesktopNotifier::openURL(const std::string& url) { state_->hooks.opener(url); }

void DesktopNotifier::post(const Notification& n) {
  auto bus = QDBusConnection::sessionBus();
  const auto fallBack = [this, n] {
    if (state_->hooks.unavailable) state_->hooks.unavailable(n);
  };
  if (!bus.isConnected()) {
    fallBack();
    return;
  }
  if (!state_->subscribed) {
    bus.connect(kService, kPath, kService, "ActionInvoked", &state_->receiver, SLOT(actionInvoked(uint, QString)));
    bus.connect(kService, kPath, kService, "NotificationClosed", &state_->receiver,
                SLOT(notificationClosed(uint, uint)));
    state_->subscribed = true;
  }
  QStringList actions;
  if (n.openURL) actions << kDefaultAction << "Open" << kOpenAction << "Open";
  QVariantMap hints;
  hints.insert("desktop-entry", QStringLiteral("vantory"));
  if (n.sound) hints.insert("sound-name", QStringLiteral("message-new-instant"));
  const auto previous = state_->idByIdentifier.find(n.identifier);
  const uint replaces = previous == state_->idByIdentifier.end() ? 0u : previous->second;
  auto call = QDBusMessage::createMethodCall(kService, kPath, kService, "Notify");
  call << QStringLiteral("Vantory") << replaces << QString() << QString::fromStdString(n.title)
       << QString::fromStdString(n.body) << actions << hints << -1;
  auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, kCallTimeoutMs));
  std::weak_ptr<State> weak = state_;
  QObject::connect(watcher, &QDBusPendingCallWatcher::finished, watcher, [weak, n](QDBusPendingCallWatcher* w) {
    w->deleteLater();
    const auto state = weak.lock();
    if (!state) return;
    const QDBusPendingReply<uint> reply = *w;
    if (reply.isError()) {
      if (state->hooks.unavailable) state->hooks.unavailable(n);
      return;
    }
    const uint id = reply.value();
    state->idByIdentifier[n.identifier] = id;
    if (n.openURL) state->urls[id] = *n.openURL;
  });
}

}  // namespace vt

#include "Notifier.moc"
