#include "cli/Verbs.h"

namespace vt::cli {

const std::vector<Verb>& verbs() {
  // New verbs plug in here.
  static const std::vector<Verb> table = {releaseVerb(), rankVerb(),       configVerb(),    resolveVerb(),
                                          catalogVerb(), setupMountVerb(), subtitleVerb(),  plexLinkVerb(),
                                          watchVerb(),   statusVerb(),     subscribeVerb(), unsubscribeVerb()};
  return table;
}

}  // namespace vt::cli
