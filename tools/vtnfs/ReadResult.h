#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "platform/Result.h"

namespace vtnfs {

// Why a read of an entry's bytes gave nothing.
struct ReadError {
  enum class Kind {
    notFound,   // no such entry, or its local file is missing
    io,         // the file or every source failed
    cancelled,  // the reader's caller or the reader itself went away
  };
  Kind kind = Kind::io;
  std::string detail;  // what failed: the entry, the file, the last source's answer

  bool operator==(const ReadError&) const = default;
};

std::string message(const ReadError& error);

// A read that went through: its bytes are in the caller's buffer or span.
struct ReadDone {
  bool eof = false;             // the read reached the end of the file
  std::optional<int64_t> size;  // the file's real size, when the source told it

  bool operator==(const ReadDone&) const = default;
};

using ReadResult = vt::Result<ReadDone, ReadError>;

// Named builders, so that coroutines return no braced temporaries.
inline ReadResult readDone(bool eof, std::optional<int64_t> size = std::nullopt) {
  ReadDone done;
  done.eof = eof;
  done.size = size;
  return done;
}
inline ReadResult readFailed(ReadError::Kind kind, std::string detail = {}) {
  ReadError error;
  error.kind = kind;
  error.detail = std::move(detail);
  return vt::Failure(std::move(error));
}

}  // namespace vtnfs
