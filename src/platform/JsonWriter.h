#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vt {

// A streaming compact JSON writer for large stored files, where building a
// document first would cost too much. Keys come out in the order written;
// optional values that are absent are left out. Numbers use the shortest text
// that reads back to the same double. Invalid UTF-8 is replaced by U+FFFD.
class JsonWriter {
 public:
  explicit JsonWriter(size_t reserve = 0) { out_.reserve(reserve); }
  // Writes into `buffer`, emptied first but keeping its capacity, so that a
  // caller that encodes again and again reuses one allocation (take() gives
  // it back).
  explicit JsonWriter(std::string&& buffer) : out_(std::move(buffer)) { out_.clear(); }

  void beginObject() { open('{'); }
  void endObject() { close('}'); }
  void beginArray() { open('['); }
  void endArray() { close(']'); }

  void key(std::string_view k);
  void value(std::string_view s);
  void value(const char* s) { value(std::string_view(s)); }
  void value(const std::string& s) { value(std::string_view(s)); }
  void value(int64_t n);
  void value(int n) { value(static_cast<int64_t>(n)); }
  void value(double d);
  void value(bool b);
  void null();

  template <class T>
  void field(std::string_view k, const T& v) {
    key(k);
    value(v);
  }
  template <class T>
  void field(std::string_view k, const std::optional<T>& v) {
    if (v) field(k, *v);
  }

  const std::string& str() const { return out_; }
  std::string take() { return std::move(out_); }

 private:
  void open(char c);
  void close(char c);
  void separate();

  std::string out_;
  bool needComma_ = false;
};

}  // namespace vt
