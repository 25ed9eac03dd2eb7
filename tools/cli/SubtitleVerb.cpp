#include <charconv>
#include <cmath>
#include <ostream>

#include "cli/Verbs.h"
#include "platform/SerialFileWriter.h"
#include "subtitles/Emit.h"

namespace vt::cli {

namespace {

constexpr char kVerb[] = "subtitle";

std::optional<double> parseNumber(const std::string& text) {
  double value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size() || !std::isfinite(value)) return std::nullopt;
  return value;
}

std::optional<int64_t> parseInteger(const std::string& text) {
  int64_t value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::vector<EngineCue> readCues(const std::string& bytes, const std::optional<std::string>& language,
                                std::string* encoding = nullptr) {
  auto decoded = Cues::decode(bytes, language ? std::optional<std::string_view>(*language) : std::nullopt);
  if (encoding) *encoding = decoded.encoding;
  return Cues::parse(Cues::repair(decoded.text));
}

}  // namespace

int subtitleCheck(const SubtitleFile& file, std::optional<double> filmSeconds, std::ostream& out) {
  std::string encoding;
  const auto cues = readCues(file.bytes, file.language, &encoding);
  int64_t dialogue = 0, speech = 0;
  for (const auto& cue : cues) {
    if (Cues::isDialogue(cue)) ++dialogue;
    if (Cues::isSpeech(cue)) ++speech;
  }
  Json report = Json::object();
  report["encoding"] = encoding;
  report["cues"] = static_cast<int64_t>(cues.size());
  report["dialogue"] = dialogue;
  report["speech"] = speech;
  report["soundEffects"] = static_cast<int64_t>(cues.size()) - dialogue;
  report["watermarkRate"] = Cues::watermarkRate(cues, Cues::kWatermarkWindow);
  if (!cues.empty()) {
    const auto& first = cues.front();
    report["first"] = Json{{"n", first.n}, {"startMs", first.startMs}, {"endMs", first.endMs}, {"text", first.text}};
  }
  // Without the film's length the coverage gate passes; the others still apply.
  json::put(report, "refusal", Cues::shapeGate(cues, filmSeconds.value_or(0)));
  out << json::encode(report) << '\n';
  return 0;
}

int subtitleFit(const SubtitleFile& file, double scale, int64_t offsetMs, std::ostream& out) {
  out << Emit::srt(Emit::applyFit(readCues(file.bytes, file.language), offsetMs, scale));
  return 0;
}

Verb subtitleVerb() {
  return {kVerb,
          "read a subtitle file as the subtitle pipeline does: check it, or shift its times",
          "check FILE: decodes the file (a legacy code page chosen with --lang), repairs and parses it, and\n"
          "prints one JSON object: \"encoding\", \"cues\", \"dialogue\", \"speech\", \"soundEffects\",\n"
          "\"watermarkRate\", \"first\" (the first cue, when there is one) and \"refusal\" when the file\n"
          "can't be the film's full dialogue track (its coverage of the film is checked with --duration).\n"
          "fit FILE --scale S --offset MS: writes the cues as SRT on standard output with every time\n"
          "multiplied by S (truncated) and moved by MS milliseconds, never below 0.",
          {{"--lang", "TAG", "the language of the file, an ISO 639-2 code such as rus or zho (default: none)"},
           {"--duration", "SECONDS", "the film's length, for the gates of check"},
           {"--scale", "S", "fit: the factor for every time"},
           {"--offset", "MS", "fit: milliseconds added after scaling"}},
          [](const Arguments& args, Io& io) {
            if (args.operands.size() != 2 || (args.operands[0] != "check" && args.operands[0] != "fit"))
              return usageError(io, kVerb, "give check FILE or fit FILE");
            const auto bytes = readFile(args.operands[1]);
            if (!bytes) {
              io.err << kToolName << ' ' << kVerb << ": can't read " << args.operands[1] << '\n';
              return 1;
            }
            const SubtitleFile file{*bytes, args.value("--lang")};
            if (args.operands[0] == "check") {
              std::optional<double> seconds;
              if (const auto text = args.value("--duration")) {
                seconds = parseNumber(*text);
                if (!seconds) return usageError(io, kVerb, "--duration takes seconds, not \"" + *text + "\"");
              }
              return subtitleCheck(file, seconds, io.out);
            }
            const auto scaleText = args.value("--scale");
            const auto offsetText = args.value("--offset");
            if (!scaleText || !offsetText) return usageError(io, kVerb, "fit needs --scale and --offset");
            const auto scale = parseNumber(*scaleText);
            if (!scale) return usageError(io, kVerb, "--scale takes a number, not \"" + *scaleText + "\"");
            const auto offset = parseInteger(*offsetText);
            if (!offset) return usageError(io, kVerb, "--offset takes whole milliseconds, not \"" + *offsetText + "\"");
            return subtitleFit(file, *scale, *offset, io.out);
          },
          "check FILE | fit FILE"};
}

}  // namespace vt::cli
