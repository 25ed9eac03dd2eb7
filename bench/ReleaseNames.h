#pragma once

// 100,000 distinct, realistic release names built from the vocabulary of the
// parser's passes, with titles, years, groups and noise. Deterministic.
#include <random>
#include <set>
#include <string>
#include <vector>

namespace vt::bench {

inline std::vector<std::string> releaseNames(size_t count = 100'000) {
  static const std::vector<std::string> titleWords = {
      "The",    "Dark",   "Knight",  "Italian", "Job",     "Return", "of",     "King",    "Star",   "War",
      "Love",   "Night",  "City",    "Last",    "First",   "Man",    "Woman",  "Lost",    "World",  "Blade",
      "Runner", "Fast",   "Furious", "Mission", "Quiet",   "Place",  "Inside", "Out",     "Toy",    "Story",
      "Alien",  "Matrix", "Heat",    "Dune",    "Arrival", "Her",    "Up",     "Cars",    "Фильм",  "Брат",
      "Amélie", "Señor",  "Casa",    "Papel",   "Trailer", "Park",   "Boys",   "English", "Patient"};
  static const std::vector<std::string> res = {"2160p",     "1080p",    "720p",      "480p",  "4K", "UHD",
                                               "1920x1080", "1280x720", "3840x2160", "1O8Op", ""};
  static const std::vector<std::string> src = {"BluRay", "WEB-DL", "WEBRip", "WEB",   "HDTV",    "BDRip", "REMUX",
                                               "HDCAM",  "TS",     "DVDScr", "HDRip", "Blu-Ray", ""};
  static const std::vector<std::string> codec = {"x264", "x265", "H.264", "H 265", "HEVC", "AVC", "AV1", "XviD", ""};
  static const std::vector<std::string> audio = {
      "DTS-HD.MA.5.1", "TrueHD.7.1.Atmos", "DDP5.1", "AAC2.0", "AC3", "EAC3", "FLAC", "DTS", ""};
  static const std::vector<std::string> extra = {
      "HDR",           "HDR10",      "DV",       "10bit",   "PROPER", "REPACK", "EXTENDED",
      "Directors.Cut", "REMASTERED", "MULTI",    "ITA.ENG", "DUAL",   "NF",     "AMZN",
      "DSNP",          "iTALiAN",    "FRENCH",   "Dubbed",  "HC",     "SBS",    "NAPISY.PL",
      "ENG.SUBS",      "60FPS",      "Upscaled", "RUS",     "UKR",    "LATINO", ""};
  static const std::vector<std::string> groups = {
      "-SPARKS", "-FGT",      "-RARBG",      "-YTS.MX", "-NTb",      "-FLUX",       "-EDITH",
      "-TGx",    " [YTS.AM]", "-ION10",      "-PSA",    "-GalaxyRG", " [ABCD1234]", "-EVO",
      "-CAKES",  " (Tigole)", ".mkv-tgx.to", "",        "-x0r",      "-QxR"};
  static const std::vector<std::string> exts = {".mkv", ".mp4", ".avi", "", "", ".m2ts"};
  std::mt19937 rng(20261123);
  auto pick = [&](const std::vector<std::string>& v) -> const std::string& { return v[rng() % v.size()]; };
  std::set<std::string> seen;
  std::vector<std::string> out;
  out.reserve(count);
  while (out.size() < count) {
    const bool dots = rng() % 3 != 0;
    const std::string sep = dots ? "." : " ";
    std::string name;
    const int words = 1 + static_cast<int>(rng() % 4);
    for (int i = 0; i < words; ++i) name += (i ? sep : "") + pick(titleWords);
    if (rng() % 4 == 0) {
      char ep[16];
      std::snprintf(ep, sizeof ep, "S%02dE%02d", 1 + static_cast<int>(rng() % 12), 1 + static_cast<int>(rng() % 24));
      name += sep + (rng() % 5 == 0 ? std::string(ep).substr(0, 3) : std::string(ep));
    } else {
      name += sep + (dots ? "" : "(") + std::to_string(1950 + rng() % 76) + (dots ? "" : ")");
    }
    for (const auto* list : {&res, &src, &codec, &audio, &extra, &extra})
      if (const auto& w = pick(*list); !w.empty()) name += sep + w;
    if (rng() % 7 == 0) name += sep + "Noise" + std::to_string(rng() % 1000);
    name += pick(groups) + pick(exts);
    if (rng() % 10 == 0) name += "\n👤 " + std::to_string(rng() % 500) + " 💾 " + std::to_string(rng() % 60) + " GB";
    if (seen.insert(name).second) out.push_back(std::move(name));
  }
  return out;
}

}  // namespace vt::bench
