#include "platform/Settings.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QSettings>
#include <QStringList>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/Log.h"

namespace vt {

namespace {

constexpr char kHeader[] =
    "# Vantory settings: one key=value a line, values as written (text, true/false, whole numbers).\n"
    "# Edit while the application is closed; \"vantory-cli config --help\" lists the keys.";

// The type tags of the older format.
constexpr char kTags[][3] = {"s:", "i:", "b:"};

std::string_view trimBlanks(std::string_view s) {
  const auto b = s.find_first_not_of(" \t\r");
  if (b == std::string_view::npos) return {};
  return s.substr(b, s.find_last_not_of(" \t\r") - b + 1);
}

// Length of the valid UTF-8 sequence starting at s[i] (a lead byte of 0x80 or
// more), or 0 when the bytes there aren't one.
size_t utf8SequenceLength(std::string_view s, size_t i) {
  const auto c = static_cast<unsigned char>(s[i]);
  size_t n = 0;
  unsigned char min2 = 0x80, max2 = 0xBF;
  if (c >= 0xC2 && c <= 0xDF) {
    n = 2;
  } else if (c >= 0xE0 && c <= 0xEF) {
    n = 3;
    if (c == 0xE0) min2 = 0xA0;
    if (c == 0xED) max2 = 0x9F;
  } else if (c >= 0xF0 && c <= 0xF4) {
    n = 4;
    if (c == 0xF0) min2 = 0x90;
    if (c == 0xF4) max2 = 0x8F;
  } else {
    return 0;
  }
  if (i + n > s.size()) return 0;
  for (size_t k = 1; k < n; ++k) {
    const auto b = static_cast<unsigned char>(s[i + k]);
    if (k == 1 ? (b < min2 || b > max2) : (b < 0x80 || b > 0xBF)) return 0;
  }
  return n;
}

void appendHex(std::string& out, unsigned char c) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  out += "\\x";
  out += kDigits[c >> 4];
  out += kDigits[c & 0xF];
}

// The file form of a key or a value. Keys also escape '=' and a leading
// comment or section character.
std::string escape(std::string_view s, bool isKey) {
  std::string out;
  out.reserve(s.size());
  for (size_t i = 0; i < s.size(); ++i) {
    const auto c = static_cast<unsigned char>(s[i]);
    const bool edge = i == 0 || i + 1 == s.size();
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c < 0x20 || c == 0x7F || (c == ' ' && edge)) {
      appendHex(out, c);
    } else if (isKey && (c == '=' || (i == 0 && (c == '#' || c == ';' || c == '[')))) {
      appendHex(out, c);
    } else if (c >= 0x80) {
      if (const auto n = utf8SequenceLength(s, i)) {
        out.append(s.substr(i, n));
        i += n - 1;
      } else {
        appendHex(out, c);
      }
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The escapes above; any other backslash stands for itself, so that a value
// typed by hand keeps its backslashes.
std::string unescape(std::string_view s) {
  std::string out;
  out.reserve(s.size());
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] != '\\' || i + 1 >= s.size()) {
      out += s[i];
      continue;
    }
    const char n = s[i + 1];
    if (n == '\\') {
      out += '\\';
    } else if (n == 'n') {
      out += '\n';
    } else if (n == 'r') {
      out += '\r';
    } else if (n == 't') {
      out += '\t';
    } else if (n == 'x' && i + 3 < s.size() && hexValue(s[i + 2]) >= 0 && hexValue(s[i + 3]) >= 0) {
      out += static_cast<char>(hexValue(s[i + 2]) * 16 + hexValue(s[i + 3]));
      i += 2;
    } else {
      out += '\\';
      continue;
    }
    ++i;
  }
  return out;
}

std::string fileName(const std::string& path) { return std::filesystem::path(path).filename().string(); }

std::optional<std::string> readWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

// A value of the older format in its plain form: the type tag dropped, a
// byte array as its bytes, a list (an unquoted value with commas) joined.
std::string legacyPlain(const QVariant& v) {
  if (v.typeId() == QMetaType::QByteArray) return v.toByteArray().toStdString();
  if (v.typeId() == QMetaType::QStringList) return v.toStringList().join(QLatin1Char(',')).toStdString();
  auto s = v.toString().toStdString();
  for (const auto* tag : kTags)
    if (s.rfind(tag, 0) == 0) return s.substr(2);
  return s;
}

}  // namespace

std::optional<int64_t> parseSettingInteger(std::string_view text) {
  if (!text.empty() && text.front() == '+') text.remove_prefix(1);
  if (text.empty() || text.front() == '+') return std::nullopt;
  int64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::optional<bool> parseSettingBoolean(std::string_view text) {
  std::string lower(text);
  for (auto& c : lower)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  if (lower == "true" || lower == "yes" || lower == "on" || lower == "1") return true;
  if (lower == "false" || lower == "no" || lower == "off" || lower == "0") return false;
  return std::nullopt;
}

bool SettingsStore::FileStamp::operator==(const FileStamp& o) const {
  return exists == o.exists && size == o.size && mtime.tv_sec == o.mtime.tv_sec && mtime.tv_nsec == o.mtime.tv_nsec &&
         inode == o.inode;
}

SettingsStore::SettingsStore(const std::string& iniPath, SettingsAccess access) : path_(iniPath), access_(access) {
  load(true);
  if (access_ == SettingsAccess::readWrite && seen_.exists) {
    // The file holds secrets: keep it to its owner even when it was created
    // by hand with a looser mode.
    struct stat st {};
    if (::stat(path_.c_str(), &st) == 0 && (st.st_mode & 077)) ::chmod(path_.c_str(), 0600);
  }
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
    std::ofstream touch(marker);
  }
  return store;
}

SettingsStore::FileStamp SettingsStore::stamp() const {
  FileStamp s;
  struct stat st {};
  if (path_.empty() || ::stat(path_.c_str(), &st) != 0) return s;
  s.exists = true;
  s.size = st.st_size;
  s.mtime = st.st_mtim;
  s.inode = st.st_ino;
  return s;
}

void SettingsStore::load(bool reportLines) {
  lines_.clear();
  seen_ = stamp();
  if (!seen_.exists) return;
  const auto content = readWholeFile(path_);
  if (!content) return;

  bool legacy = false;
  std::string_view rest(*content);
  for (size_t number = 1; !rest.empty(); ++number) {
    const auto nl = rest.find('\n');
    const auto raw = rest.substr(0, nl);
    rest = nl == std::string_view::npos ? std::string_view() : rest.substr(nl + 1);
    const auto text = trimBlanks(raw);
    Line line;
    if (text.empty() || text.front() == '#' || text.front() == ';') {
      line.text = std::string(text);
    } else if (text.front() == '[' && text.back() == ']') {
      legacy = true;
      continue;
    } else if (const auto eq = text.find('='); eq == std::string_view::npos || trimBlanks(text.substr(0, eq)).empty()) {
      if (reportLines)
        logLine("[settings] line " + std::to_string(number) + " of " + fileName(path_) +
                " is not key=value and is ignored");
      line.text = std::string(raw);
    } else {
      line.entry = true;
      line.key = unescape(trimBlanks(text.substr(0, eq)));
      line.value = unescape(trimBlanks(text.substr(eq + 1)));
      // A key written twice: the later value counts, in the earlier place.
      bool merged = false;
      for (auto& earlier : lines_) {
        if (earlier.entry && earlier.key == line.key) {
          earlier.value = line.value;
          merged = true;
        }
      }
      if (merged) continue;
    }
    lines_.push_back(std::move(line));
  }

  if (legacy && loadLegacy() && access_ == SettingsAccess::readWrite) {
    write();
    logLine("[settings] " + fileName(path_) + " rewritten with plain values");
  }
}

// Reads a file of the older format through the reader that wrote it, which
// knows its quoting and escapes, and keeps each value in its plain form.
bool SettingsStore::loadLegacy() {
  std::vector<Line> lines{Line{false, {}, {}, kHeader}};
  {
    QSettings legacy(QString::fromStdString(path_), QSettings::IniFormat);
    if (legacy.status() != QSettings::NoError) return false;
    for (const auto& key : legacy.allKeys()) {
      const auto value = legacy.value(key);
      if (value.isValid()) lines.push_back(Line{true, key.toStdString(), legacyPlain(value), {}});
    }
  }
  lines_ = std::move(lines);
  return true;
}

const SettingsStore::Line* SettingsStore::find(const std::string& key) const {
  for (const auto& line : lines_)
    if (line.entry && line.key == key) return &line;
  return nullptr;
}

void SettingsStore::reportUnreadable(const std::string& key, const char* what) const {
  // Once per key until it is written again; the value itself is never shown.
  if (!reported_.insert(key).second) return;
  logLine("[settings] \"" + key + "\" in " + fileName(path_) + " " + what + "; the value is ignored");
}

bool SettingsStore::contains(const std::string& key) const { return find(key) != nullptr; }

std::optional<std::string> SettingsStore::string(const std::string& key) const {
  const auto* line = find(key);
  if (!line) return std::nullopt;
  return line->value;
}

std::optional<int64_t> SettingsStore::integer(const std::string& key) const {
  const auto* line = find(key);
  if (!line) return std::nullopt;
  const auto n = parseSettingInteger(line->value);
  if (!n) reportUnreadable(key, "is not a whole number");
  return n;
}

std::optional<bool> SettingsStore::boolean(const std::string& key) const {
  const auto* line = find(key);
  if (!line) return std::nullopt;
  const auto b = parseSettingBoolean(line->value);
  if (!b) reportUnreadable(key, "is not true or false");
  return b;
}

std::optional<std::string> SettingsStore::data(const std::string& key) const { return string(key); }

void SettingsStore::refreshIfChangedOnDisk() {
  if (access_ == SettingsAccess::readWrite && !(stamp() == seen_)) load(false);
}

void SettingsStore::put(const std::string& key, std::string value) {
  refreshIfChangedOnDisk();
  reported_.erase(key);
  if (lines_.empty()) lines_.push_back(Line{false, {}, {}, kHeader});
  bool found = false;
  for (auto& line : lines_) {
    if (line.entry && line.key == key) {
      line.value = std::move(value);
      found = true;
      break;
    }
  }
  if (!found) lines_.push_back(Line{true, key, std::move(value), {}});
  write();
}

void SettingsStore::setString(const std::string& key, const std::string& value) { put(key, value); }
void SettingsStore::setInteger(const std::string& key, int64_t value) { put(key, std::to_string(value)); }
void SettingsStore::setBoolean(const std::string& key, bool value) { put(key, value ? "true" : "false"); }
void SettingsStore::setData(const std::string& key, const std::string& bytes) { put(key, bytes); }

void SettingsStore::remove(const std::string& key) {
  refreshIfChangedOnDisk();
  reported_.erase(key);
  std::erase_if(lines_, [&](const Line& line) { return line.entry && line.key == key; });
  write();
}

void SettingsStore::clear() {
  lines_.clear();
  reported_.clear();
  write();
}

std::vector<std::string> SettingsStore::keys() const {
  std::vector<std::string> out;
  for (const auto& line : lines_)
    if (line.entry) out.push_back(line.key);
  return out;
}

void SettingsStore::write() {
  if (access_ != SettingsAccess::readWrite || path_.empty()) return;
  std::string content;
  for (const auto& line : lines_) {
    if (line.entry)
      content += escape(line.key, true) + '=' + escape(line.value, false);
    else
      content += line.text;
    content += '\n';
  }

  std::error_code ec;
  std::filesystem::create_directories(std::filesystem::path(path_).parent_path(), ec);
  // A new file beside the old one, then a rename: a reader never sees half a
  // file, and the file is the owner's alone from its first byte.
  const auto temp = path_ + ".new";
  int error = 0;
  const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0 || ::fchmod(fd, 0600) != 0) error = errno;
  for (size_t done = 0; !error && done < content.size();) {
    const auto n = ::write(fd, content.data() + done, content.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0)
      error = n < 0 ? errno : EIO;
    else
      done += static_cast<size_t>(n);
  }
  if (fd >= 0 && ::close(fd) != 0 && !error) error = errno;
  if (!error && ::rename(temp.c_str(), path_.c_str()) != 0) error = errno;
  if (error) {
    logLine("[settings] could not write " + path_ + ": " + std::strerror(error));
    ::unlink(temp.c_str());
  }
  seen_ = stamp();
}

}  // namespace vt
