#pragma once

#include "fakes/FakePlexServer.h"

namespace vt::lab {

// Pages on the simulated Plex for a person (and the lab's own test), open
// without a token as a look behind the server's counter:
//   GET /lab            HTML: sections, collections and items, each item
//                       with a link that plays its file;
//   GET /lab.json       the same as JSON;
//   GET /lab/file/<key> the item's first file, read from the folder Plex
//                       indexed (the mounted library), with Range support.
// Call on the thread the server lives on.
void addLabPages(test::FakePlexServer& plex);

// The Content-Type of a video file by its name's extension.
QByteArray videoType(const std::string& path);

// The rating keys of the films a collection holds: a plain one its members,
// a smart one the section's films that carry one of its labels.
std::vector<std::string> collectionMembers(const test::FakePlexServer& plex,
                                           const test::FakePlexServer::Collection& collection);

}  // namespace vt::lab
