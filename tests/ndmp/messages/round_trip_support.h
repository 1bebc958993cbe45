// Populated values and the table-driven round trip shared by the extension
// message tests: every class of a family encodes, decodes into what the
// factory makes for its code and type, and re-encodes to the same bytes.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <type_traits>
#include <typeindex>
#include <vector>

#include "ndmpc/ndmp/messages/message_access.h"
#include "tests/support/wire_support.h"

namespace com::vx::korvane::ndmpc::testing {

// Gives every scalar member a distinct non-zero value (strings of 1 to 4
// characters and opaques of odd length, so that padding is exercised) and
// descends into nested records. Arrays are left to the caller.
inline void FillScalars(CXDRContainer& record, unsigned& seed) {
  for (std::size_t i = 0; i < record.GetMemberCount(); ++i) {
    CIXDR* member = record.GetMember(i).member;
    ++seed;
    switch (member->GetMemberType()) {
      case CIXDR::MEMBER_ULONG:
      case CIXDR::MEMBER_ENUM:
        *dynamic_cast<CXDRULong*>(member) = seed;
        break;
      case CIXDR::MEMBER_BOOL:
        *dynamic_cast<CXDRBool*>(member) = true;
        break;
      case CIXDR::MEMBER_STRING:
        dynamic_cast<CXDRString*>(member)->SetString(
            std::string(seed % 4 + 1, static_cast<char>('a' + seed % 26)));
        break;
      case CIXDR::MEMBER_OPAQUE: {
        const unsigned char data[] = {0xA1, 0xB2, 0xC3, 0xD4, 0xE5};
        dynamic_cast<CXDROpaque*>(member)->SetData(data, seed % 2 == 0 ? 3 : 5);
        break;
      }
      case CIXDR::MEMBER_CONTAINER:
        FillScalars(*dynamic_cast<CXDRContainer*>(member), seed);
        break;
      case CIXDR::MEMBER_ARRAY:
        break;
    }
  }
}

template <class T>
T Filled(unsigned& seed) {
  T value;
  if constexpr (std::is_base_of_v<CXDRContainer, T>) {
    FillScalars(value, seed);
  } else {
    static_cast<CXDRULong&>(value) = ++seed;
  }
  return value;
}

template <class T>
void AddTwo(CXDRArray<T>& array, unsigned& seed) {
  array.AddItem(Filled<T>(seed));
  array.AddItem(Filled<T>(seed));
}

struct CRoundTripCase {
  const char* name;
  std::uint32_t code;  // 0 for a record
  unsigned type;       // the message type the factory is asked for
  bool anyType;        // a post: every type yields the same class
  std::type_index cls;
  std::function<std::unique_ptr<CXDRContainer>()> filled;
  // What the value is decoded into: the factory's body for messages.
  std::function<std::unique_ptr<CXDRContainer>()> fresh;
};

template <class T>
using Hook = void (*)(T&, unsigned&);

template <class T>
CRoundTripCase Case(const char* name, std::uint32_t code, unsigned type, bool anyType,
                    Hook<T> hook) {
  return {name,
          code,
          type,
          anyType,
          std::type_index(typeid(T)),
          [hook] {
            auto value = std::make_unique<T>();
            unsigned seed = 0;
            FillScalars(*value, seed);
            if (hook != nullptr) hook(*value, seed);
            return std::unique_ptr<CXDRContainer>(std::move(value));
          },
          [code, type]() -> std::unique_ptr<CXDRContainer> {
            if (code == 0) return std::make_unique<T>();
            return std::unique_ptr<CXDRContainer>(CNDMPMessageAccess::Make(code, type));
          }};
}
template <class T>
CRoundTripCase Request(const char* name, std::uint32_t code, Hook<T> hook = nullptr) {
  return Case<T>(name, code, 0, false, hook);
}
template <class T>
CRoundTripCase Reply(const char* name, std::uint32_t code, Hook<T> hook = nullptr) {
  return Case<T>(name, code, 1, false, hook);
}
template <class T>
CRoundTripCase Post(const char* name, std::uint32_t code) {
  return Case<T>(name, code, 0, true, nullptr);
}
template <class T>
CRoundTripCase Record(const char* name, Hook<T> hook = nullptr) {
  return Case<T>(name, 0, 0, false, hook);
}

// A populated value encodes, decodes into a fresh one (from the factory for
// messages, of the expected class) and re-encodes to the same bytes; its
// size agrees and a clone encodes the same.
inline void ExpectRoundTrips(const std::vector<CRoundTripCase>& cases) {
  for (const CRoundTripCase& c : cases) {
    SCOPED_TRACE(c.name);
    std::unique_ptr<CXDRContainer> source = c.filled();
    const std::vector<unsigned char> bytes = EncodeValue(*source);
    EXPECT_EQ(source->SerializeSize(), bytes.size());

    std::unique_ptr<CXDRContainer> target = c.fresh();
    ASSERT_NE(target, nullptr);
    if (c.code != 0) {
      auto& message = dynamic_cast<CNDMPMessage&>(*source);
      EXPECT_EQ(CNDMPMessageAccess::Code(message).getInt32(), c.code);
      EXPECT_EQ(CNDMPMessageAccess::Type(message).getInt32(), c.type);
      std::unique_ptr<CNDMPMessage> clone(CNDMPMessageAccess::Clone(message));
      EXPECT_EQ(Hex(EncodeValue(*clone)), Hex(bytes));
    }
    CXDRContainer& fresh = *target;
    EXPECT_EQ(std::type_index(typeid(fresh)), c.cls);
    EXPECT_EQ(DecodeValue(bytes, fresh), 0);
    EXPECT_EQ(Hex(EncodeValue(fresh)), Hex(bytes));
    EXPECT_EQ(fresh.SerializeSize(), bytes.size());
    if (c.anyType) {
      for (unsigned type : {1u, 2u}) {
        std::unique_ptr<CNDMPMessage> other(CNDMPMessageAccess::Make(c.code, type));
        ASSERT_NE(other, nullptr);
        CNDMPMessage& post = *other;
        EXPECT_EQ(std::type_index(typeid(post)), c.cls);
      }
    }
  }
}

// The factory knows exactly the codes of `cases` within [first, last].
inline void ExpectFactoryCoversExactly(const std::vector<CRoundTripCase>& cases,
                                       std::uint32_t first, std::uint32_t last) {
  std::set<std::uint32_t> known;
  for (const CRoundTripCase& c : cases) {
    if (c.code != 0) known.insert(c.code);
  }
  for (std::uint32_t code = first; code <= last; ++code) {
    std::unique_ptr<CNDMPMessage> message(CNDMPMessageAccess::Make(code, 0));
    EXPECT_EQ(message != nullptr, known.count(code) == 1) << std::hex << code;
  }
}

}  // namespace com::vx::korvane::ndmpc::testing
