// Encoding and decoding of ustar and pax headers.
#include "tools/simulator/tar_image.h"

#include <cstring>
#include <vector>

namespace com::vx::korvane::ndmpc::tools {

namespace {

// Field offsets and widths of a ustar header block.
struct CField {
  std::size_t offset, width;
};
constexpr CField kName{0, 100}, kMode{100, 8}, kUid{108, 8}, kGid{116, 8}, kSize{124, 12},
    kMtime{136, 12}, kChecksum{148, 8}, kType{156, 1}, kLink{157, 100}, kMagic{257, 6},
    kVersion{263, 2}, kPrefix{345, 155};

// Extended records larger than this are refused: a name never needs that much.
constexpr std::uint64_t kMaxExtendedSize = 1 << 20;

bool IsAscii(const std::string& text) {
  for (unsigned char c : text) {
    if (c == 0 || c >= 0x80) return false;
  }
  return true;
}

bool FitsOctal(std::uint64_t value, std::size_t width) {
  return (width - 1) * 3 >= 64 || value < (std::uint64_t{1} << ((width - 1) * 3));
}

// Octal digits with a terminating NUL; values too large for that go in
// base-256 (the high bit of the first byte set), which GNU tar also reads.
void PutNumber(char* block, CField field, std::uint64_t value) {
  char* out = block + field.offset;
  if (FitsOctal(value, field.width)) {
    for (std::size_t i = field.width - 1; i-- > 0;) {
      out[i] = static_cast<char>('0' + (value & 7));
      value >>= 3;
    }
    out[field.width - 1] = '\0';
    return;
  }
  for (std::size_t i = field.width; i-- > 1;) {
    out[i] = static_cast<char>(value & 0xff);
    value >>= 8;
  }
  out[0] = static_cast<char>(0x80);
}

void PutText(char* block, CField field, const std::string& text) {
  std::memcpy(block + field.offset, text.data(), std::min(text.size(), field.width));
}

void SealChecksum(char* block) {
  std::memset(block + kChecksum.offset, ' ', kChecksum.width);
  unsigned sum = 0;
  for (std::size_t i = 0; i < kTarBlockSize; ++i) sum += static_cast<unsigned char>(block[i]);
  PutNumber(block, CField{kChecksum.offset, 7}, sum);  // six digits, NUL, then the space
}

// Splits a name into ustar's prefix and name fields at a '/'.
bool SplitName(const std::string& name, std::string* prefix, std::string* rest) {
  if (name.size() <= kName.width) {
    prefix->clear();
    *rest = name;
    return true;
  }
  std::size_t from = name.size() - kName.width - 1;
  for (std::size_t at = name.find('/', from); at != std::string::npos && at <= kPrefix.width;
       at = name.find('/', at + 1)) {
    if (at + 1 < name.size() && name.size() - at - 1 <= kName.width && at > 0) {
      *prefix = name.substr(0, at);
      *rest = name.substr(at + 1);
      return true;
    }
  }
  return false;
}

// A printable ASCII stand-in for names that only the pax record carries.
std::string AsciiFallback(const std::string& name, std::size_t width) {
  std::string out;
  for (unsigned char c : name.substr(name.size() > width ? name.size() - width : 0)) {
    out.push_back(c >= 0x20 && c < 0x7f ? static_cast<char>(c) : '_');
  }
  return out;
}

void AddRecord(std::string* records, const std::string& key, const std::string& value) {
  std::string body = " " + key + "=" + value + "\n";
  std::size_t length = body.size() + 1;
  while (std::to_string(length).size() + body.size() != length) {
    length = std::to_string(length).size() + body.size();
  }
  *records += std::to_string(length) + body;
}

std::string Block(const CTarEntry& entry, const std::string& prefix, const std::string& name,
                  const std::string& link, std::uint64_t size, std::int64_t mtime) {
  std::string block(kTarBlockSize, '\0');
  char* b = &block[0];
  PutText(b, kName, name);
  PutNumber(b, kMode, entry.mode & 07777);
  PutNumber(b, kUid, entry.uid);
  PutNumber(b, kGid, entry.gid);
  PutNumber(b, kSize, size);
  PutNumber(b, kMtime, mtime < 0 ? 0 : static_cast<std::uint64_t>(mtime));
  b[kType.offset] = entry.type;
  PutText(b, kLink, link);
  std::memcpy(b + kMagic.offset, "ustar", 6);
  std::memcpy(b + kVersion.offset, "00", 2);
  PutText(b, kPrefix, prefix);
  SealChecksum(b);
  return block;
}

std::string FieldText(const char* block, CField field) {
  const char* start = block + field.offset;
  return std::string(start, strnlen(start, field.width));
}

bool ParseNumber(const char* block, CField field, std::uint64_t* value) {
  const unsigned char* in = reinterpret_cast<const unsigned char*>(block + field.offset);
  *value = 0;
  if (in[0] & 0x80) {
    if (in[0] != 0x80) return false;  // negative or oversized base-256
    for (std::size_t i = 1; i < field.width; ++i) {
      if (*value >> 56) return false;
      *value = (*value << 8) | in[i];
    }
    return true;
  }
  std::size_t i = 0;
  while (i < field.width && in[i] == ' ') ++i;
  bool digits = false;
  for (; i < field.width && in[i] >= '0' && in[i] <= '7'; ++i) {
    if (*value >> 61) return false;
    *value = (*value << 3) | (in[i] - '0');
    digits = true;
  }
  for (; i < field.width; ++i) {
    if (in[i] != ' ' && in[i] != '\0') return false;
  }
  return digits || field.offset == kChecksum.offset;
}

bool ParseDecimal(const std::string& text, bool allowSign, std::int64_t* value,
                  std::uint32_t* nanoseconds = nullptr) {
  std::size_t i = 0;
  bool negative = allowSign && !text.empty() && text[0] == '-';
  if (negative) ++i;
  if (i == text.size()) return false;
  std::uint64_t magnitude = 0;
  for (; i < text.size() && text[i] != '.'; ++i) {
    if (text[i] < '0' || text[i] > '9' || magnitude > (std::uint64_t{1} << 62) / 10) return false;
    magnitude = magnitude * 10 + static_cast<std::uint64_t>(text[i] - '0');
  }
  std::uint32_t fraction = 0, scale = 1000000000;
  if (i < text.size() && nanoseconds == nullptr) return false;
  for (++i; i < text.size(); ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
    scale /= 10;
    fraction += static_cast<std::uint32_t>(text[i] - '0') * scale;
  }
  *value = negative ? -static_cast<std::int64_t>(magnitude) : static_cast<std::int64_t>(magnitude);
  if (nanoseconds != nullptr) {
    // A negative time with a fraction lies below the whole second: -5.25 is -6 + 0.75.
    *nanoseconds = negative && fraction > 0 ? 1000000000 - fraction : fraction;
    if (negative && fraction > 0) --*value;
  }
  return true;
}

// "SECONDS[.FRACTION]" as pax writes times.
std::string FormatTime(std::int64_t seconds, std::uint32_t nanoseconds) {
  if (nanoseconds == 0) return std::to_string(seconds);
  std::string sign = seconds < 0 ? "-" : "";
  std::uint64_t whole = seconds < 0 ? static_cast<std::uint64_t>(-(seconds + 1)) : seconds;
  std::string digits =
      std::to_string((seconds < 0 ? 1000000000 - nanoseconds : nanoseconds) + 1000000000ull)
          .substr(1);
  while (digits.back() == '0') digits.pop_back();
  return sign + std::to_string(whole) + "." + digits;
}

// Which fields pax records have set.
struct CPaxSeen {
  bool size = false, name = false, link = false, uid = false, gid = false, mtime = false;
};

// Applies "LEN key=value\n" records; false when they are malformed.
bool ApplyPax(const std::string& records, CTarEntry* entry, CPaxSeen* seen) {
  std::size_t at = 0;
  while (at < records.size()) {
    if (records[at] == '\0') break;  // padding some writers leave
    std::size_t space = records.find(' ', at);
    std::int64_t length = 0;
    if (space == std::string::npos ||
        !ParseDecimal(records.substr(at, space - at), false, &length) ||
        length <= static_cast<std::int64_t>(space - at) + 1 ||
        static_cast<std::uint64_t>(length) > records.size() - at ||
        records[at + static_cast<std::size_t>(length) - 1] != '\n') {
      return false;
    }
    std::string record =
        records.substr(space + 1, at + static_cast<std::size_t>(length) - space - 2);
    at += static_cast<std::size_t>(length);
    std::size_t equals = record.find('=');
    if (equals == std::string::npos) return false;
    std::string key = record.substr(0, equals), value = record.substr(equals + 1);
    std::int64_t number = 0;
    if (key == "path") {
      entry->name = value;
      seen->name = true;
    } else if (key == "linkpath") {
      entry->linkName = value;
      seen->link = true;
    } else if (key == "size" || key == "uid" || key == "gid") {
      if (!ParseDecimal(value, false, &number)) return false;
      if (key == "size") {
        entry->size = static_cast<std::uint64_t>(number);
        seen->size = true;
      } else if (key == "uid") {
        entry->uid = static_cast<std::uint32_t>(number);
        seen->uid = true;
      } else {
        entry->gid = static_cast<std::uint32_t>(number);
        seen->gid = true;
      }
    } else if (key == "mtime") {
      if (!ParseDecimal(value, true, &entry->mtime, &entry->mtimeNsec)) return false;
      seen->mtime = true;
    }
  }
  return true;
}

}  // namespace

std::string EncodeTarHeader(const CTarEntry& entry) {
  std::string prefix, name, records;
  bool nameFits = IsAscii(entry.name) && SplitName(entry.name, &prefix, &name);
  if (!nameFits) {
    AddRecord(&records, "path", entry.name);
    prefix.clear();
    name = AsciiFallback(entry.name, kName.width);
  }
  std::string link = entry.linkName;
  if (!IsAscii(link) || link.size() > kLink.width) {
    AddRecord(&records, "linkpath", link);
    link = AsciiFallback(link, kLink.width);
  }
  if (!FitsOctal(entry.size, kSize.width)) AddRecord(&records, "size", std::to_string(entry.size));
  if (!FitsOctal(entry.uid, kUid.width)) AddRecord(&records, "uid", std::to_string(entry.uid));
  if (!FitsOctal(entry.gid, kGid.width)) AddRecord(&records, "gid", std::to_string(entry.gid));
  if (entry.mtime < 0 || entry.mtimeNsec != 0 ||
      !FitsOctal(static_cast<std::uint64_t>(entry.mtime), kMtime.width)) {
    AddRecord(&records, "mtime", FormatTime(entry.mtime, entry.mtimeNsec));
  }
  std::string out;
  if (!records.empty()) {
    std::string base = entry.name;
    while (base.size() > 1 && base.back() == '/') base.pop_back();
    base =
        base.substr(base.find_last_of('/') == std::string::npos ? 0 : base.find_last_of('/') + 1);
    CTarEntry pax;
    pax.type = 'x';
    pax.mode = 0644;
    pax.mtime = entry.mtime < 0 ? 0 : entry.mtime;
    out = Block(pax, "", "PaxHeaders/" + AsciiFallback(base, 80), "", records.size(),
                FitsOctal(static_cast<std::uint64_t>(pax.mtime), kMtime.width) ? pax.mtime : 0);
    out += records;
    out.resize(TarPadded(out.size()), '\0');
  }
  return out +
         Block(entry, prefix, name, link, entry.size,
               entry.mtime < 0 || !FitsOctal(static_cast<std::uint64_t>(entry.mtime), kMtime.width)
                   ? 0
                   : entry.mtime);
}

CTarRead ReadTarHeader(const std::function<bool(void*, std::size_t)>& readExact, CTarEntry* entry,
                       std::string* error) {
  CTarEntry pending;
  CPaxSeen seen;
  char block[kTarBlockSize];
  for (;;) {
    if (!readExact(block, sizeof block)) return CTarRead::kIoFailed;
    bool zero = true;
    unsigned sum = 0;
    int signedSum = 0;
    for (std::size_t i = 0; i < kTarBlockSize; ++i) {
      bool inChecksum = i >= kChecksum.offset && i < kChecksum.offset + kChecksum.width;
      unsigned char c = inChecksum ? ' ' : static_cast<unsigned char>(block[i]);
      zero = zero && block[i] == 0;
      sum += c;
      signedSum += static_cast<signed char>(c);
    }
    if (zero) return CTarRead::kEnd;
    std::uint64_t stored = 0, size = 0, mode = 0, uid = 0, gid = 0, mtime = 0;
    if (!ParseNumber(block, kChecksum, &stored) ||
        (stored != sum && static_cast<std::int64_t>(stored) != signedSum)) {
      *error = "tar header checksum mismatch";
      return CTarRead::kBad;
    }
    if (!ParseNumber(block, kSize, &size) || !ParseNumber(block, kMode, &mode) ||
        !ParseNumber(block, kUid, &uid) || !ParseNumber(block, kGid, &gid) ||
        !ParseNumber(block, kMtime, &mtime)) {
      *error = "tar header has a malformed number";
      return CTarRead::kBad;
    }
    char type = block[kType.offset];
    if (type == 'x' || type == 'g' || type == 'L' || type == 'K') {
      if (size > kMaxExtendedSize) {
        *error = "extended tar header of " + std::to_string(size) + " bytes is too large";
        return CTarRead::kBad;
      }
      std::vector<char> data(static_cast<std::size_t>(TarPadded(size)));
      if (!data.empty() && !readExact(data.data(), data.size())) return CTarRead::kIoFailed;
      std::string text(data.data(), static_cast<std::size_t>(size));
      if (type == 'x' && !ApplyPax(text, &pending, &seen)) {
        *error = "malformed pax extended header";
        return CTarRead::kBad;
      }
      if (type == 'L' || type == 'K') {
        text = text.substr(0, strnlen(text.data(), text.size()));
        (type == 'L' ? pending.name : pending.linkName) = text;
        (type == 'L' ? seen.name : seen.link) = true;
      }
      continue;
    }
    entry->type = type == '\0' || type == '7' ? '0' : type;
    entry->mode = static_cast<std::uint32_t>(mode & 07777);
    entry->uid = seen.uid ? pending.uid : static_cast<std::uint32_t>(uid);
    entry->gid = seen.gid ? pending.gid : static_cast<std::uint32_t>(gid);
    entry->mtime = seen.mtime ? pending.mtime : static_cast<std::int64_t>(mtime);
    entry->mtimeNsec = seen.mtime ? pending.mtimeNsec : 0;
    entry->size = seen.size ? pending.size : size;
    if (seen.name) {
      entry->name = pending.name;
    } else {
      std::string prefix = std::memcmp(block + kMagic.offset, "ustar", 5) == 0
                               ? FieldText(block, kPrefix)
                               : std::string();
      entry->name =
          prefix.empty() ? FieldText(block, kName) : prefix + "/" + FieldText(block, kName);
    }
    entry->linkName = seen.link ? pending.linkName : FieldText(block, kLink);
    // Links and directories carry no data whatever the size field says.
    if (entry->type == '5' || entry->type == '2' || entry->type == '1') entry->size = 0;
    return CTarRead::kEntry;
  }
}

}  // namespace com::vx::korvane::ndmpc::tools
