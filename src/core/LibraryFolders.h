#pragma once

// The one place that names the library folders in the data folder and the
// Plex sections that show them: films under "Library" in "Vantory",
// episodes under "Library TV" in "Vantory TV".

namespace vt {

inline constexpr const char* kMovieFolderName = "Library";
inline constexpr const char* kTvFolderName = "Library TV";
inline constexpr const char* kMovieSectionName = "Vantory";
inline constexpr const char* kTvSectionName = "Vantory TV";

inline constexpr const char* libraryFolderName(bool tv) { return tv ? kTvFolderName : kMovieFolderName; }
inline constexpr const char* plexSectionName(bool tv) { return tv ? kTvSectionName : kMovieSectionName; }

}  // namespace vt
