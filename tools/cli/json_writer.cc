#include "tools/cli/json_writer.h"

#include <cmath>
#include <cstdio>

namespace com::vx::korvane::ndmpc::tools {
namespace {

// Length of the valid UTF-8 sequence at `s[i]`, or 0 when it is not one.
std::size_t Utf8Length(const std::string& s, std::size_t i) {
  const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(s[k]); };
  const unsigned char c = byte(i);
  std::size_t n;
  std::uint32_t cp;
  if (c >= 0xC2 && c <= 0xDF) {
    n = 2;
    cp = c & 0x1F;
  } else if (c >= 0xE0 && c <= 0xEF) {
    n = 3;
    cp = c & 0x0F;
  } else if (c >= 0xF0 && c <= 0xF4) {
    n = 4;
    cp = c & 0x07;
  } else {
    return 0;
  }
  if (i + n > s.size()) return 0;
  for (std::size_t k = 1; k < n; ++k) {
    if ((byte(i + k) & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (byte(i + k) & 0x3F);
  }
  // Overlong forms, surrogates and values past U+10FFFF are not UTF-8.
  if ((n == 3 && cp < 0x800) || (n == 4 && cp < 0x10000) || cp > 0x10FFFF ||
      (cp >= 0xD800 && cp <= 0xDFFF)) {
    return 0;
  }
  return n;
}

}  // namespace

std::string CJsonWriter::Quote(const std::string& value) {
  std::string out = "\"";
  for (std::size_t i = 0; i < value.size();) {
    const auto c = static_cast<unsigned char>(value[i]);
    char escape[8];
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\b':
        out += "\\b";
        break;
      case '\f':
        out += "\\f";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c < 0x20 || c == 0x7F) {
          std::snprintf(escape, sizeof(escape), "\\u%04x", c);
          out += escape;
        } else if (c < 0x80) {
          out += static_cast<char>(c);
        } else if (std::size_t n = Utf8Length(value, i)) {
          out.append(value, i, n);
          i += n;
          continue;
        } else {
          std::snprintf(escape, sizeof(escape), "\\u%04x", c);
          out += escape;
        }
        break;
    }
    ++i;
  }
  out += '"';
  return out;
}

void CJsonWriter::NewLine() {
  if (indent_ <= 0) return;
  text_ += '\n';
  text_.append(empty_.size() * static_cast<std::size_t>(indent_), ' ');
}

void CJsonWriter::BeforeValue() {
  if (afterKey_) {
    afterKey_ = false;
    return;
  }
  if (empty_.empty()) return;
  if (!empty_.back()) text_ += ',';
  empty_.back() = false;
  NewLine();
}

CJsonWriter& CJsonWriter::BeginObject() {
  BeforeValue();
  text_ += '{';
  empty_.push_back(true);
  return *this;
}

CJsonWriter& CJsonWriter::EndObject() {
  bool wasEmpty = empty_.empty() || empty_.back();
  if (!empty_.empty()) empty_.pop_back();
  if (!wasEmpty) NewLine();
  text_ += '}';
  return *this;
}

CJsonWriter& CJsonWriter::BeginArray() {
  BeforeValue();
  text_ += '[';
  empty_.push_back(true);
  return *this;
}

CJsonWriter& CJsonWriter::EndArray() {
  bool wasEmpty = empty_.empty() || empty_.back();
  if (!empty_.empty()) empty_.pop_back();
  if (!wasEmpty) NewLine();
  text_ += ']';
  return *this;
}

CJsonWriter& CJsonWriter::Key(const std::string& key) {
  BeforeValue();
  text_ += Quote(key);
  text_ += indent_ > 0 ? ": " : ":";
  afterKey_ = true;
  return *this;
}

CJsonWriter& CJsonWriter::String(const std::string& value) {
  BeforeValue();
  text_ += Quote(value);
  return *this;
}

CJsonWriter& CJsonWriter::Number(std::uint64_t value) {
  BeforeValue();
  text_ += std::to_string(value);
  return *this;
}

CJsonWriter& CJsonWriter::Number(std::int64_t value) {
  BeforeValue();
  text_ += std::to_string(value);
  return *this;
}

CJsonWriter& CJsonWriter::Double(double value) {
  BeforeValue();
  if (!std::isfinite(value)) {
    text_ += "null";
  } else {
    char buffer[32];
    std::snprintf(buffer, sizeof(buffer), "%.3f", value);
    text_ += buffer;
  }
  return *this;
}

CJsonWriter& CJsonWriter::Bool(bool value) {
  BeforeValue();
  text_ += value ? "true" : "false";
  return *this;
}

CJsonWriter& CJsonWriter::Null() {
  BeforeValue();
  text_ += "null";
  return *this;
}

}  // namespace com::vx::korvane::ndmpc::tools
