// CJsonWriter: builds JSON text for the command-line tool's --json output.
//
//   CJsonWriter json;
//   json.BeginObject().Key("vendor").String("ndmpc").Key("auth").BeginArray();
//   json.String("NDMP_AUTH_MD5").EndArray().EndObject();
//   std::string text = json.Text();   // {"vendor": "ndmpc", "auth": ["NDMP_AUTH_MD5"]}
//
// Strings are escaped as JSON requires; bytes that are not valid UTF-8 are
// written as \u00XX (read as Latin-1), so any text from the wire stays valid
// JSON. The writer does not check that calls are balanced.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace com::vx::korvane::ndmpc::tools {

class CJsonWriter {
 public:
  // `indent` 0 writes everything on one line.
  explicit CJsonWriter(int indent = 2) : indent_(indent) {}

  CJsonWriter& BeginObject();
  CJsonWriter& EndObject();
  CJsonWriter& BeginArray();
  CJsonWriter& EndArray();
  CJsonWriter& Key(const std::string& key);
  CJsonWriter& String(const std::string& value);
  CJsonWriter& Number(std::uint64_t value);
  CJsonWriter& Number(std::int64_t value);
  CJsonWriter& Number(unsigned int value) { return Number(static_cast<std::uint64_t>(value)); }
  CJsonWriter& Number(int value) { return Number(static_cast<std::int64_t>(value)); }
  CJsonWriter& Double(double value);
  CJsonWriter& Bool(bool value);
  CJsonWriter& Null();

  const std::string& Text() const { return text_; }

  // `value` as a quoted JSON string.
  static std::string Quote(const std::string& value);

 private:
  void BeforeValue();
  void NewLine();

  int indent_;
  std::string text_;
  // One entry per open object or array: true until its first element.
  std::vector<bool> empty_;
  bool afterKey_ = false;
};

}  // namespace com::vx::korvane::ndmpc::tools
