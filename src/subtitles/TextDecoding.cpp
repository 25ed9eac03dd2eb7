// Cues::decode and Cues::repair: turning downloaded bytes into clean UTF-8.
#include <unicode/ucnv.h>
#include <unicode/utf16.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <array>
#include <functional>
#include <memory>

#include "platform/Regex.h"
#include "subtitles/Cues.h"
#include "subtitles/TextDecoding.h"

namespace vt {

namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";  // U+FFFD

// A legacy code page of our vocabulary and the ICU converter that reads it.
struct CodePage {
  std::string_view label;
  const char* converter;
};

constexpr std::array kCodePages = {
    CodePage{"cp949", "windows-949-2000"}, CodePage{"euc-kr", "EUC-KR"},
    CodePage{"gb18030", "GB18030"},        CodePage{"big5", "Big5"},
    CodePage{"shift_jis", "Shift_JIS"},    CodePage{"euc-jp", "EUC-JP"},
    CodePage{"cp1251", "windows-1251"},    CodePage{"koi8-r", "KOI8-R"},
    CodePage{"cp1258", "windows-1258"},    CodePage{"cp1256", "windows-1256"},
    CodePage{"cp1253", "windows-1253"},    CodePage{"cp1255", "windows-1255"},
    CodePage{"cp874", "windows-874"},      CodePage{"cp1254", "windows-1254"},
    CodePage{"cp1250", "windows-1250"},    CodePage{"cp1252", "windows-1252"},
    CodePage{"latin-1", "ISO-8859-1"},
};

using ScriptTest = bool (*)(UChar32);

bool inRange(UChar32 c, UChar32 from, UChar32 to) { return c >= from && c <= to; }

bool vietnameseLetter(UChar32 c) {
  // ăâđêôơưĂÂĐÊÔƠƯ
  static constexpr std::array<UChar32, 14> kLetters = {0x0103, 0x00E2, 0x0111, 0x00EA, 0x00F4, 0x01A1, 0x01B0,
                                                       0x0102, 0x00C2, 0x0110, 0x00CA, 0x00D4, 0x01A0, 0x01AF};
  return std::find(kLetters.begin(), kLetters.end(), c) != kLetters.end();
}

// What a language tag tells the decoder: the code pages to try, in order, and
// the script a text must show to be taken from one of them.
struct LanguageHint {
  std::vector<std::string_view> tags;
  ScriptTest script = nullptr;
  std::vector<std::string_view> codePages;
};

const std::vector<LanguageHint>& languageHints() {
  static const std::vector<LanguageHint> hints = {
      {{"kor", "korean"}, [](UChar32 c) { return inRange(c, 0xAC00, 0xD7AF); }, {"cp949", "euc-kr"}},
      {{"jpn"}, [](UChar32 c) { return inRange(c, 0x3040, 0x30FF); }, {"shift_jis", "euc-jp"}},
      {{"zho", "cmn"}, [](UChar32 c) { return inRange(c, 0x4E00, 0x9FFF); }, {"gb18030", "big5"}},
      {{"chi"}, [](UChar32 c) { return inRange(c, 0x4E00, 0x9FFF); }, {"gb18030"}},
      {{"rus"}, [](UChar32 c) { return inRange(c, 0x0400, 0x04FF); }, {"cp1251", "koi8-r"}},
      {{"ukr"}, [](UChar32 c) { return inRange(c, 0x0400, 0x04FF); }, {"cp1251"}},
      {{"ara", "fas"}, [](UChar32 c) { return inRange(c, 0x0600, 0x06FF); }, {"cp1256"}},
      {{"ell"}, [](UChar32 c) { return inRange(c, 0x0370, 0x03FF); }, {"cp1253"}},
      {{"heb"}, [](UChar32 c) { return inRange(c, 0x0590, 0x05FF); }, {"cp1255"}},
      {{"tha"}, [](UChar32 c) { return inRange(c, 0x0E00, 0x0E7F); }, {"cp874"}},
      {{"vie"}, vietnameseLetter, {"cp1258"}},
      {{"tur"}, nullptr, {"cp1254"}},
      {{"pol", "ces", "hun", "ron"}, nullptr, {"cp1250"}},
  };
  return hints;
}

const LanguageHint* hintFor(std::string_view tag) {
  for (const auto& hint : languageHints())
    if (std::find(hint.tags.begin(), hint.tags.end(), tag) != hint.tags.end()) return &hint;
  return nullptr;
}

void appendUtf8(std::string& out, UChar32 c) {
  char buf[U8_MAX_LENGTH];
  int32_t len = 0;
  U8_APPEND_UNSAFE(buf, len, c);
  out.append(buf, static_cast<size_t>(len));
}

// Whether `bytes` are well-formed UTF-8 (no overlong forms, no surrogates).
bool wellFormedUtf8(std::string_view bytes) {
  const auto* s = reinterpret_cast<const uint8_t*>(bytes.data());
  const int64_t length = static_cast<int64_t>(bytes.size());
  int64_t i = 0;
  while (i < length) {
    if (s[i] < 0x80) {  // the common case, without the macro's branches
      ++i;
      continue;
    }
    UChar32 c;
    U8_NEXT(s, i, length, c);
    if (c < 0) return false;
  }
  return true;
}

std::optional<std::string> strictUtf8(std::string_view bytes) {
  if (!wellFormedUtf8(bytes) || bytes.find(kReplacement) != std::string_view::npos) return std::nullopt;
  return std::string(bytes);
}

std::string replacingUtf8(std::string_view bytes) {
  const auto* s = reinterpret_cast<const uint8_t*>(bytes.data());
  const int64_t length = static_cast<int64_t>(bytes.size());
  std::string out;
  out.reserve(bytes.size());
  int64_t i = 0;
  while (i < length) {
    UChar32 c;
    U8_NEXT(s, i, length, c);
    appendUtf8(out, c < 0 ? 0xFFFD : c);
  }
  return out;
}

struct ConverterCloser {
  void operator()(UConverter* c) const { ucnv_close(c); }
};

}  // namespace

std::optional<std::string> decodeCodePage(std::string_view bytes, std::string_view label, bool (*script)(UChar32),
                                          bool* scriptSeen) {
  const auto page = std::find_if(kCodePages.begin(), kCodePages.end(), [&](const auto& p) { return p.label == label; });
  if (page == kCodePages.end()) return std::nullopt;  // no decoder: a refusal
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<UConverter, ConverterCloser> converter(ucnv_open(page->converter, &status));
  if (U_FAILURE(status) || !converter) return std::nullopt;
  // Stop at the first byte sequence the code page doesn't define.
  ucnv_setToUCallBack(converter.get(), UCNV_TO_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &status);
  if (U_FAILURE(status)) return std::nullopt;

  std::string out;
  out.reserve(bytes.size() + bytes.size() / 2);
  bool seen = false;
  // Converted a piece at a time so that a large file doesn't also need a
  // UTF-16 copy of itself; a lead surrogate at the end of a piece waits for
  // its partner.
  constexpr int32_t kPiece = 16384;
  std::array<UChar, kPiece + 1> buffer;
  const char* source = bytes.data();
  const char* const sourceEnd = source + bytes.size();
  bool carry = false;
  UChar carried = 0;
  for (;;) {
    UChar* target = buffer.data();
    if (carry) *target++ = carried;
    carry = false;
    status = U_ZERO_ERROR;
    ucnv_toUnicode(converter.get(), &target, buffer.data() + buffer.size(), &source, sourceEnd, nullptr, true, &status);
    const bool more = status == U_BUFFER_OVERFLOW_ERROR;
    if (U_FAILURE(status) && !more) return std::nullopt;
    int32_t length = static_cast<int32_t>(target - buffer.data());
    if (more && length > 0 && U16_IS_LEAD(buffer[length - 1])) {
      carried = buffer[--length];
      carry = true;
    }
    for (int32_t i = 0; i < length;) {
      UChar32 c;
      U16_NEXT(buffer.data(), i, length, c);
      if (U_IS_SURROGATE(c)) c = 0xFFFD;
      if (!seen && script && script(c)) seen = true;
      appendUtf8(out, c);
    }
    if (!more) break;
  }
  if (carry) appendUtf8(out, 0xFFFD);
  if (scriptSeen) *scriptSeen = seen;
  return out;
}

Cues::Decoded Cues::decode(std::string_view bytes, std::optional<std::string_view> language) {
  if (bytes.starts_with("\xEF\xBB\xBF")) {
    if (auto text = strictUtf8(bytes.substr(3))) return {std::move(*text), "utf-8-sig"};
  }
  if (auto text = strictUtf8(bytes)) return {std::move(*text), "utf-8"};

  std::string tag(language.value_or(""));
  std::transform(tag.begin(), tag.end(), tag.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
  const LanguageHint* hint = hintFor(tag);
  std::vector<std::string_view> pages = hint ? hint->codePages : std::vector<std::string_view>{};
  pages.push_back("cp1252");
  pages.push_back("latin-1");
  const ScriptTest script = hint ? hint->script : nullptr;
  for (const auto label : pages) {
    bool seen = false;
    auto text = decodeCodePage(bytes, label, script, &seen);
    if (!text) continue;
    if (script && !seen) continue;
    return {std::move(*text), std::string(label)};
  }
  return {replacingUtf8(bytes), "utf-8-replace"};
}

namespace {

struct Mojibake {
  std::string_view damaged;
  std::string_view correct;
};

size_t codePoints(std::string_view s) {
  return static_cast<size_t>(std::count_if(s.begin(), s.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

// UTF-8 read as Windows-1252, longest damage first so that "â€™" is mended
// before its prefix "â€" is.
const std::vector<Mojibake>& mojibake() {
  static const std::vector<Mojibake> table = [] {
    std::vector<Mojibake> t = {
        {"Ã©", "é"},  {"Ã¨", "è"}, {"Ãª", "ê"},      {"Ã§", "ç"},  {"Ã±", "ñ"},  {"Ã³", "ó"},
        {"Ãº", "ú"},  {"Ã¡", "á"}, {"Ã\u00AD", "í"}, {"Ã²", "ò"},  {"Ã¹", "ù"},  {"Ã¶", "ö"},
        {"Ã¤", "ä"},  {"Ã¼", "ü"}, {"Ã£", "ã"},      {"Ã¢", "â"},  {"â€™", "’"}, {"â€˜", "‘"},
        {"â€œ", "“"}, {"â€", "”"}, {"â€¦", "…"},     {"â€“", "–"}, {"â€”", "—"},
    };
    std::stable_sort(t.begin(), t.end(), [](const Mojibake& a, const Mojibake& b) {
      return codePoints(a.damaged) > codePoints(b.damaged);
    });
    return t;
  }();
  return table;
}

// Replaces every `from` by `to`, which is never longer, in place, so that a
// large file isn't copied once per pair.
void replaceLiteral(std::string& text, std::string_view from, std::string_view to) {
  size_t at = text.find(from);
  if (at == std::string::npos) return;
  // Moving left only: the write position never passes the read position.
  char* const data = text.data();
  size_t write = at;
  size_t read = at;
  while (at != std::string::npos) {
    std::copy(data + read, data + at, data + write);
    write += at - read;
    std::copy(to.begin(), to.end(), data + write);
    write += to.size();
    read = at + from.size();
    at = text.find(from, read);
  }
  std::copy(data + read, data + text.size(), data + write);
  text.resize(write + text.size() - read);
}

}  // namespace

std::string Cues::repair(std::string_view input) {
  std::string text(input);
  for (const auto& pair : mojibake()) replaceLiteral(text, pair.damaged, pair.correct);

  // A lost apostrophe read back as the replacement character's UTF-8 bytes in
  // Windows-1252: beside a letter it was an apostrophe, elsewhere it goes.
  static constexpr std::string_view kLost = "ï¿½";
  if (text.find(kLost) != std::string::npos) {
    static const Regex lostApostrophe("(?<=[\\wÀ-ÿ])ï¿½|ï¿½(?=[\\wÀ-ÿ])");
    text = lostApostrophe.replaceAll(text, "'");
    replaceLiteral(text, kLost, "");
  }
  replaceLiteral(text, kReplacement, "");
  return text;
}

}  // namespace vt
