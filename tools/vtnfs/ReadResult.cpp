#include "ReadResult.h"

namespace vtnfs {

std::string message(const ReadError& error) {
  std::string text;
  switch (error.kind) {
    case ReadError::Kind::notFound:
      text = "not found";
      break;
    case ReadError::Kind::io:
      text = "read failed";
      break;
    case ReadError::Kind::cancelled:
      text = "read cancelled";
      break;
  }
  if (!error.detail.empty()) text += ": " + error.detail;
  return text;
}

}  // namespace vtnfs
