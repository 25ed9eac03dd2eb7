#pragma once

// XDR (RFC 4506) for the RPC server: a bounds-checked reader over one
// record and an appending writer. Every read returns false instead of
// running past the end, so a truncated or hostile record can't be read
// beyond its bytes.

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace vtnfs {

class XdrReader {
 public:
  XdrReader() = default;
  XdrReader(const char* data, size_t size) : p_(data), end_(data + size) {}

  size_t remaining() const { return static_cast<size_t>(end_ - p_); }

  bool u32(uint32_t& v) {
    if (remaining() < 4) return false;
    const auto* b = reinterpret_cast<const unsigned char*>(p_);
    v = (uint32_t(b[0]) << 24) | (uint32_t(b[1]) << 16) | (uint32_t(b[2]) << 8) | uint32_t(b[3]);
    p_ += 4;
    return true;
  }
  bool u64(uint64_t& v) {
    uint32_t hi = 0, lo = 0;
    if (!u32(hi) || !u32(lo)) return false;
    v = (uint64_t(hi) << 32) | lo;
    return true;
  }
  bool boolean(bool& v) {
    uint32_t x = 0;
    if (!u32(x) || x > 1) return false;
    v = x == 1;
    return true;
  }
  // Fixed-length opaque of n bytes, padded to a multiple of 4.
  bool fixed(std::string_view& out, size_t n) {
    const size_t padded = (n + 3) & ~size_t(3);
    if (n > remaining() || padded > remaining()) return false;
    out = std::string_view(p_, n);
    p_ += padded;
    return true;
  }
  // Variable-length opaque or string of at most `max` bytes.
  bool opaque(std::string_view& out, uint32_t max) {
    uint32_t n = 0;
    if (!u32(n) || n > max) return false;
    return fixed(out, n);
  }

 private:
  const char* p_ = nullptr;
  const char* end_ = nullptr;
};

class XdrWriter {
 public:
  explicit XdrWriter(std::string& out) : out_(out) {}

  void u32(uint32_t v) {
    const char b[4] = {char(v >> 24), char(v >> 16), char(v >> 8), char(v)};
    out_.append(b, 4);
  }
  void u64(uint64_t v) {
    u32(uint32_t(v >> 32));
    u32(uint32_t(v));
  }
  void boolean(bool v) { u32(v ? 1 : 0); }
  void fixed(std::string_view bytes) {
    out_.append(bytes);
    pad(bytes.size());
  }
  void opaque(std::string_view bytes) {
    u32(static_cast<uint32_t>(bytes.size()));
    fixed(bytes);
  }
  void pad(size_t n) { out_.append((4 - (n & 3)) & 3, '\0'); }
  size_t size() const { return out_.size(); }
  std::string& buffer() { return out_; }

  // Overwrites a word written earlier at `at`.
  void patch(size_t at, uint32_t v) {
    const char b[4] = {char(v >> 24), char(v >> 16), char(v >> 8), char(v)};
    std::memcpy(out_.data() + at, b, 4);
  }

 private:
  std::string& out_;
};

}  // namespace vtnfs
