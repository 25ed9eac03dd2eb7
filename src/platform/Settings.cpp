#include "platform/Settings.h"

#include <QFile>
#include <QSettings>
#include <filesystem>

namespace vt {

namespace {
QString qkey(const std::string& key) { return QString::fromStdString(key); }

// Values carry a type tag so that a string "1" is not read back as the
// integer 1, and so the file stays readable by a person.
constexpr char kIntTag[] = "i:";
constexpr char kBoolTag[] = "b:";
constexpr char kStringTag[] = "s:";
}  // namespace

SettingsStore::SettingsStore(const std::string& iniPath)
    : settings_(std::make_unique<QSettings>(QString::fromStdString(iniPath), QSettings::IniFormat)) {
  std::error_code ec;
  std::filesystem::create_directories(std::filesystem::path(iniPath).parent_path(), ec);
}

SettingsStore::~SettingsStore() = default;

std::unique_ptr<SettingsStore> SettingsStore::openForTestHome(const std::string& testHome) {
  namespace fs = std::filesystem;
  std::error_code ec;
  fs::create_directories(testHome, ec);
  const auto marker = fs::path(testHome) / ".settings-owned";
  auto store = std::make_unique<SettingsStore>((fs::path(testHome) / "settings.ini").string());
  if (!fs::exists(marker, ec)) {
    store->clear();
    QFile f(QString::fromStdString(marker.string()));
    if (f.open(QIODevice::WriteOnly)) f.close();
  }
  return store;
}

bool SettingsStore::contains(const std::string& key) const { return settings_->contains(qkey(key)); }

std::optional<std::string> SettingsStore::string(const std::string& key) const {
  const auto v = settings_->value(qkey(key));
  if (!v.isValid() || v.typeId() != QMetaType::QString) return std::nullopt;
  const auto s = v.toString();
  if (!s.startsWith(QLatin1String(kStringTag))) return std::nullopt;
  return s.mid(2).toStdString();
}

std::optional<int64_t> SettingsStore::integer(const std::string& key) const {
  const auto v = settings_->value(qkey(key));
  if (!v.isValid() || v.typeId() != QMetaType::QString) return std::nullopt;
  const auto s = v.toString();
  if (!s.startsWith(QLatin1String(kIntTag))) return std::nullopt;
  bool ok = false;
  const auto n = s.mid(2).toLongLong(&ok);
  if (!ok) return std::nullopt;
  return n;
}

std::optional<bool> SettingsStore::boolean(const std::string& key) const {
  const auto v = settings_->value(qkey(key));
  if (!v.isValid() || v.typeId() != QMetaType::QString) return std::nullopt;
  const auto s = v.toString();
  if (s == QLatin1String("b:true")) return true;
  if (s == QLatin1String("b:false")) return false;
  return std::nullopt;
}

std::optional<std::string> SettingsStore::data(const std::string& key) const {
  const auto v = settings_->value(qkey(key));
  if (!v.isValid() || v.typeId() != QMetaType::QByteArray) return std::nullopt;
  return v.toByteArray().toStdString();
}

void SettingsStore::setString(const std::string& key, const std::string& value) {
  settings_->setValue(qkey(key), QLatin1String(kStringTag) + QString::fromStdString(value));
  settings_->sync();
}

void SettingsStore::setInteger(const std::string& key, int64_t value) {
  settings_->setValue(qkey(key), QLatin1String(kIntTag) + QString::number(value));
  settings_->sync();
}

void SettingsStore::setBoolean(const std::string& key, bool value) {
  settings_->setValue(qkey(key), QLatin1String(kBoolTag) + QLatin1String(value ? "true" : "false"));
  settings_->sync();
}

void SettingsStore::setData(const std::string& key, const std::string& bytes) {
  settings_->setValue(qkey(key), QByteArray::fromStdString(bytes));
  settings_->sync();
}

void SettingsStore::remove(const std::string& key) {
  settings_->remove(qkey(key));
  settings_->sync();
}

void SettingsStore::clear() {
  settings_->clear();
  settings_->sync();
}

std::string SettingsStore::path() const { return settings_->fileName().toStdString(); }

}  // namespace vt
