// Reads a 1,500-cue subtitle file the way a downloaded candidate is read
// (decode, repair, parse), once as UTF-8 and once as Windows-1251 Russian,
// which has to fail UTF-8 first. The target is under 2 ms per file.
#include <benchmark/benchmark.h>

#include <unicode/ucnv.h>
#include <unicode/unistr.h>

#include "subtitles/Cues.h"

namespace {

constexpr int kCues = 1500;

std::string russianFile() {
  const char* lines[] = {"Привет, как дела?",
                         "Где ты был вчера вечером?",
                         "<i>Я не знаю, что сказать.</i>",
                         "- Пойдём отсюда.\n- Подожди минуту!",
                         "[дверь хлопает]",
                         "Всё будет хорошо, поверь мне."};
  std::string s;
  for (int i = 0; i < kCues; ++i) {
    const int64_t start = 2000 + 3100LL * i;
    s += std::to_string(i + 1) + "\r\n" + vt::Cues::timestamp(start) + " --> " + vt::Cues::timestamp(start + 2400) +
         "\r\n" + lines[i % 6] + "\r\n\r\n";
  }
  return s;
}

std::string windows1251(const std::string& utf8) {
  UErrorCode status = U_ZERO_ERROR;
  UConverter* c = ucnv_open("windows-1251", &status);
  const auto text = icu::UnicodeString::fromUTF8(utf8);
  std::string out(static_cast<size_t>(text.length()) * 2, '\0');
  out.resize(static_cast<size_t>(
      ucnv_fromUChars(c, out.data(), static_cast<int32_t>(out.size()), text.getBuffer(), text.length(), &status)));
  ucnv_close(c);
  return out;
}

void readFile(benchmark::State& state, const std::string& bytes, const char* tag, const char* label) {
  for (auto _ : state) {
    const auto decoded = vt::Cues::decode(bytes, std::string_view(tag));
    auto cues = vt::Cues::parse(vt::Cues::repair(decoded.text));
    if (decoded.encoding != label || cues.size() != kCues) state.SkipWithError("the file did not read back");
    benchmark::DoNotOptimize(cues);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes.size()));
}

void BM_ReadUtf8(benchmark::State& state) {
  static const std::string file = russianFile();
  readFile(state, file, "rus", "utf-8");
}

void BM_ReadWindows1251(benchmark::State& state) {
  static const std::string file = windows1251(russianFile());
  readFile(state, file, "rus", "cp1251");
}

BENCHMARK(BM_ReadUtf8)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReadWindows1251)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
