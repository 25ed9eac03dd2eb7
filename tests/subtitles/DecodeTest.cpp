#include <gtest/gtest.h>

#include "SubtitleFiles.h"
#include "subtitles/TextDecoding.h"

using namespace vt;
using vt::test::encodedAs;
using vt::test::srtFile;

namespace {

struct LegacyFile {
  const char* name;
  std::string text;       // what the file says, in UTF-8
  const char* converter;  // how the test writes it
  const char* tag;        // the language tag handed to the decoder
  const char* label;      // the encoding it must decode as
  bool sameText = true;   // whether the decoded text is the original
};

std::string dialogue(const std::string& line) {
  return srtFile(3, [&](int i) { return line + " " + std::to_string(i); });
}

}  // namespace

TEST(Decode, EachLegacyFileDecodesWithTheCodePageItsLanguageNames) {
  const std::vector<LegacyFile> files = {
      {"Russian, tag in capitals", dialogue("Привет, как дела? Всё хорошо."), "windows-1251", "RUS", "cp1251"},
      {"Arabic", dialogue("مرحبا، كيف حالك؟"), "windows-1256", "ara", "cp1256"},
      {"Chinese in GB18030", dialogue("你好，我们走吧。"), "GB18030", "chi", "gb18030"},
      // Big5 bytes are valid GB18030 too, and GB18030 comes first: they read
      // as other Han characters.
      {"Chinese in Big5 tagged zho", dialogue("我們走吧，時間到了。"), "Big5", "zho", "gb18030", false},
      {"Japanese in Shift_JIS", dialogue("こんにちは、元気ですか？"), "Shift_JIS", "jpn", "shift_jis"},
      {"Japanese in EUC-JP", dialogue("ありがとう、さようなら。"), "EUC-JP", "jpn", "euc-jp"},
      {"Korean in EUC-KR", dialogue("안녕하세요, 반갑습니다."), "EUC-KR", "kor", "cp949"},
      {"Korean beyond EUC-KR", dialogue("똠방각하 안녕"), "windows-949-2000", "korean", "cp949"},
      {"Korean bytes tagged eng", dialogue("안녕하세요"), "EUC-KR", "eng", "cp1252", false},
      {"Greek", dialogue("Καλημέρα, τι κάνεις;"), "windows-1253", "ell", "cp1253"},
      {"Hebrew", dialogue("שלום, מה שלומך?"), "windows-1255", "heb", "cp1255"},
      {"Thai", dialogue("สวัสดีครับ"), "windows-874", "tha", "cp874"},
      {"Vietnamese", dialogue("Tôi đi ăn cơm"), "windows-1258", "vie", "cp1258"},
      {"Turkish", dialogue("Günaydın, nasılsın?"), "windows-1254", "tur", "cp1254"},
      {"Polish", dialogue("Dzień dobry, żółw."), "windows-1250", "pol", "cp1250"},
      {"French without a tag", dialogue("Ça va très bien, merci."), "windows-1252", "", "cp1252"},
  };
  for (const auto& f : files) {
    SCOPED_TRACE(f.name);
    const auto bytes = encodedAs(f.text, f.converter);
    ASSERT_NE(bytes, f.text) << "the file must not be plain UTF-8";
    const auto decoded = Cues::decode(bytes, std::string_view(f.tag));
    EXPECT_EQ(decoded.encoding, f.label);
    if (f.sameText) {
      EXPECT_EQ(decoded.text, f.text);
      EXPECT_EQ(Cues::parse(decoded.text).size(), 3u);
    } else {
      EXPECT_NE(decoded.text, f.text);
    }
  }
}

TEST(Decode, UnicodeFilesAndTheLastResorts) {
  const std::string body = dialogue("Ça va? 你好");
  // A byte-order mark with CRLF line ends.
  const auto crlf = "\xEF\xBB\xBF" + srtFile(
                                         2, [](int) { return "Olá\nmundo"; }, "\r\n");
  auto decoded = Cues::decode(crlf, std::string_view("por"));
  EXPECT_EQ(decoded.encoding, "utf-8-sig");
  EXPECT_FALSE(decoded.text.starts_with("\xEF\xBB\xBF"));
  const auto cues = Cues::parse(decoded.text);
  ASSERT_EQ(cues.size(), 2u);
  EXPECT_EQ(cues[0].text, "Olá\nmundo");

  EXPECT_EQ(Cues::decode(body).encoding, "utf-8");
  EXPECT_EQ(Cues::decode(body).text, body);
  EXPECT_EQ(Cues::decode("\xEF\xBB\xBF").encoding, "utf-8-sig") << "a lone mark is an empty UTF-8 file";
  EXPECT_EQ(Cues::decode("").encoding, "utf-8");

  // A replacement character in the body is damage: the legacy pages get a turn.
  const std::string damaged =
      "\xEF\xBB\xBF"
      "caf\xEF\xBF\xBD";
  EXPECT_EQ(Cues::decode(damaged).encoding, "cp1252");
  EXPECT_EQ(Cues::decode(std::string("caf\xEF\xBF\xBD")).encoding, "cp1252");

  // Vietnamese whose bytes show none of its letters under any page it tries.
  const auto noLetters = encodedAs(dialogue("Xin chao ban"), "windows-1258") + "\xC0\xC1";
  const auto last = Cues::decode(noLetters, std::string_view("vie"));
  EXPECT_EQ(last.encoding, "utf-8-replace");
  EXPECT_NE(last.text.find("\xEF\xBF\xBD"), std::string::npos);

  // Overlong forms and encoded surrogates are not UTF-8.
  EXPECT_EQ(Cues::decode("\xC0\xAF").encoding, "cp1252");
  EXPECT_EQ(Cues::decode("\xED\xA0\x80").encoding, "cp1252");
}

TEST(Decode, ARefusalMovesOnToTheNextCodePage) {
  // These EUC-JP bytes are not Shift_JIS at all (0xFE can't follow a lead
  // byte there): Shift_JIS refuses and EUC-JP reads them.
  const std::string japanese = dialogue("東京で映画を見ました。");
  const auto eucJp = encodedAs(japanese, "EUC-JP");
  EXPECT_EQ(decodeCodePage(eucJp, "shift_jis"), std::nullopt);
  const auto decoded = Cues::decode(eucJp, std::string_view("jpn"));
  EXPECT_EQ(decoded.encoding, "euc-jp");
  EXPECT_EQ(decoded.text, japanese);

  EXPECT_EQ(decodeCodePage(encodedAs("Привет ≤ пока", "KOI8-R"), "koi8-r"), "Привет ≤ пока");
  EXPECT_EQ(decodeCodePage("abc", "cp9999"), std::nullopt) << "a name without a decoder refuses";
  EXPECT_EQ(decodeCodePage("\xD2", "cp1253"), std::nullopt) << "a byte the page leaves undefined";
  EXPECT_EQ(decodeCodePage("\x81\x30", "gb18030"), std::nullopt) << "a cut four-byte sequence";
  const std::string big5 = encodedAs("我們走吧", "Big5");
  EXPECT_EQ(decodeCodePage(big5, "big5"), "我們走吧");
  EXPECT_EQ(decodeCodePage("\xE9\xFF", "latin-1"), "éÿ");
  EXPECT_EQ(decodeCodePage(encodedAs("Дом", "EUC-KR"), "euc-kr"), "Дом");
  // Long enough to cross the converter's internal pieces with pairs of surrogates.
  std::string wide;
  for (int i = 0; i < 20000; ++i) wide += "𠀀";
  EXPECT_EQ(decodeCodePage(encodedAs(wide, "GB18030"), "gb18030"), wide);
}

TEST(Repair, EachMojibakePairAndTheLostApostrophes) {
  // The damage made the way it happens: UTF-8 bytes read as Windows-1252.
  for (const std::string correct :
       {"é", "è", "ê", "ç", "ñ", "ó", "ú", "á", "í", "ò", "ù", "ö", "ä", "ü", "ã", "â", "’", "‘", "“", "…", "–", "—"}) {
    const auto damaged = decodeCodePage(correct, "cp1252").value();
    ASSERT_NE(damaged, correct);
    EXPECT_EQ(Cues::repair("x" + damaged + "y"), "x" + correct + "y") << damaged;
  }
  // The closing quote loses its last byte (0x9D) on the way.
  EXPECT_EQ(Cues::repair("\xC3\xA2\xE2\x82\xAC"
                         "Bonjour"),
            "”Bonjour");
  EXPECT_EQ(Cues::repair("Itâ€™s â€œfineâ€"), "It’s “fine”") << "longest first: â€™ before its prefix â€";

  // A Latin-1 file that was once read as UTF-8 and saved again in parts; its
  // own "déjà" keeps it from being UTF-8.
  const auto latin = encodedAs("Ã‰cole, cafÃ© crÃ¨me, maÃ±ana, déjà, donï¿½t", "windows-1252");
  const auto decoded = Cues::decode(latin, std::string_view("fra"));
  EXPECT_EQ(decoded.encoding, "cp1252");
  EXPECT_EQ(Cues::repair(decoded.text), "Ã‰cole, café crème, mañana, déjà, don't");

  EXPECT_EQ(Cues::repair("donï¿½t ï¿½Holaï¿½ ï¿½ wait"), "don't 'Hola'  wait") << "beside a letter or alone";
  EXPECT_EQ(Cues::repair("café ï¿½ ï¿½ fin\xEF\xBF\xBD"), "café   fin");
  EXPECT_EQ(Cues::repair("Ãªï¿½"), "ê'") << "accented letters count as letters";
  EXPECT_EQ(Cues::repair("plain text"), "plain text");
}
