#include "tests/tshark/tshark_runner.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <utility>

#include "tests/support/ndmjob_server.h"

namespace com::vx::korvane::ndmpc::testing {
namespace {

// Severity numbers of tshark's expert info.
constexpr unsigned long kExpertWarning = 0x00600000ul;

std::string Unescape(const std::string& text) {
  static const std::pair<const char*, char> kNamed[] = {
      {"amp", '&'}, {"lt", '<'}, {"gt", '>'}, {"quot", '"'}, {"apos", '\''}};
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const std::size_t end = text[i] == '&' ? text.find(';', i) : std::string::npos;
    if (end == std::string::npos) {
      out += text[i];
      continue;
    }
    const std::string entity = text.substr(i + 1, end - i - 1);
    std::string replaced = text.substr(i, end - i + 1);  // unknown entities stay
    for (const auto& [name, c] : kNamed) {
      if (entity == name) replaced = std::string(1, c);
    }
    if (entity.size() > 1 && entity[0] == '#') {
      const bool hex = entity[1] == 'x' || entity[1] == 'X';
      replaced = std::string(
          1, static_cast<char>(std::strtoul(entity.c_str() + (hex ? 2 : 1), nullptr, hex ? 16 : 10)));
    }
    out += replaced;
    i = end;
  }
  return out;
}

// The attributes of one tag (between the tag name and '>').
std::string Attribute(const std::string& tag, const char* name) {
  const std::string key = std::string(" ") + name + "=\"";
  const std::size_t at = tag.find(key);
  if (at == std::string::npos) return std::string();
  const std::size_t start = at + key.size();
  const std::size_t end = tag.find('"', start);
  if (end == std::string::npos) return std::string();
  return Unescape(tag.substr(start, end - start));
}

}  // namespace

bool CPdmlPacket::HasProtocol(const std::string& name) const {
  for (const auto& p : protocols) {
    if (p == name) return true;
  }
  return false;
}

std::vector<const CPdmlField*> CPdmlPacket::Find(const std::string& name) const {
  std::vector<const CPdmlField*> found;
  for (const auto& f : fields) {
    if (f.name == name) found.push_back(&f);
  }
  return found;
}

std::vector<CTsharkProblem> ProblemsOf(const CPdmlPacket& packet) {
  std::vector<CTsharkProblem> problems;
  auto add = [&problems](const std::string& proto, const std::string& text) {
    for (const auto& p : problems) {
      if (p.proto == proto && p.text == text) return;
    }
    problems.push_back({proto, text});
  };
  if (packet.HasProtocol("_ws.malformed")) add("_ws.malformed", "Malformed Packet");
  // An expert item is "_ws.expert" with its message and severity as children.
  std::string message;
  for (const auto& f : packet.fields) {
    if (f.name == "_ws.expert.message") message = f.show;
    if (f.name == "_ws.expert.severity") {
      const unsigned long severity = std::strtoul(f.show.c_str(), nullptr, 0);
      if (severity >= kExpertWarning) {
        add(f.proto, (severity > kExpertWarning ? "error: " : "warning: ") + message);
      }
    }
  }
  return problems;
}

std::string FindTshark() { return FindExecutable("tshark"); }

bool RunTshark(const std::string& program, const std::vector<std::string>& args,
               const std::string& outPath, std::string* error, int timeoutSeconds) {
  // Each word in single quotes for the shell (a quote inside becomes '\'').
  auto quote = [](const std::string& word) {
    std::string quoted = "'";
    for (char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
  };
  const std::string errPath = outPath + ".stderr";
  // timeout(1) bounds the run and kills tshark by its PID when it overruns.
  std::string command = "timeout -s KILL " + std::to_string(timeoutSeconds) + " " + quote(program);
  for (const std::string& a : args) command += " " + quote(a);
  command += " </dev/null >" + quote(outPath) + " 2>" + quote(errPath);
  const int status = std::system(command.c_str());
  const std::string errText = ReadFile(errPath);
  ::unlink(errPath.c_str());
  if (status == -1 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    *error = program + " failed or ran over " + std::to_string(timeoutSeconds) + " s (status " +
             std::to_string(status) + "): " + errText;
    return false;
  }
  return true;
}

std::vector<CPdmlPacket> ParsePdml(const std::string& text) {
  std::vector<CPdmlPacket> packets;
  CPdmlPacket* packet = nullptr;
  // Open <proto> elements (a protocol may sit inside another's field).
  std::vector<std::string> protos;
  std::size_t at = 0;
  while ((at = text.find('<', at)) != std::string::npos) {
    const std::size_t end = text.find('>', at);
    if (end == std::string::npos) break;
    const std::string tag = text.substr(at + 1, end - at - 1);
    at = end + 1;
    const bool selfClosing = !tag.empty() && tag.back() == '/';
    // "field", "/field", "proto", ...: up to the first blank or the '/' of "<x/>".
    const std::string name = tag.substr(0, tag.find_first_of(" /", 1));
    if (name == "packet") {
      packets.emplace_back();
      packet = &packets.back();
      protos.clear();
    } else if (name == "/packet") {
      packet = nullptr;
    } else if (packet == nullptr) {
      continue;
    } else if (name == "proto") {
      packet->protocols.push_back(Attribute(tag, "name"));
      if (!selfClosing) protos.push_back(packet->protocols.back());
    } else if (name == "/proto") {
      if (!protos.empty()) protos.pop_back();
    } else if (name == "field") {
      CPdmlField field;
      field.proto = protos.empty() ? std::string() : protos.back();
      field.name = Attribute(tag, "name");
      field.show = Attribute(tag, "show");
      field.showname = Attribute(tag, "showname");
      field.value = Attribute(tag, "value");
      field.pos = std::strtoul(Attribute(tag, "pos").c_str(), nullptr, 10);
      field.size = std::strtoul(Attribute(tag, "size").c_str(), nullptr, 10);
      if (field.proto == "geninfo" && field.name == "num") {
        packet->number = std::strtoul(field.show.c_str(), nullptr, 10);
      }
      packet->fields.push_back(std::move(field));
    }
  }
  return packets;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::string();
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace com::vx::korvane::ndmpc::testing
