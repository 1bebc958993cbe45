// Records and arrays: wire order, fixed and counted arrays, partial decodes,
// protocol-version re-registration, dump layout, and copies that never lean
// on their source's registration.
#include "ndmpc/xdr/xdr_container.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "ndmpc/ndmp/enums/protocol_ids.h"
#include "ndmpc/xdr/xdr_enum.h"
#include "tests/support/wire_support.h"

namespace com::vx::korvane::ndmpc {
namespace {

using enums::CNDMPProtocolVersion;
using testing::Bytes;
using testing::DecodeValue;
using testing::EncodeValue;
using testing::Hex;

class CEmptyRecord : public CXDRContainer {
 protected:
  int RegisterMembers() override { return 0; }
};

// Registers one more field under protocol version 3.
class CInner : public CXDRContainer {
 public:
  CXDRULong X;
  CXDRString S;
  CXDRULong V3Only;

 protected:
  int RegisterMembers() override {
    RegisterMember("X", &X);
    RegisterMember("S", &S);
    if (Version() == CNDMPProtocolVersion::PROTOCOL_VERSION_3) RegisterMember("V3Only", &V3Only);
    return 0;
  }
};

class COuter : public CXDRContainer {
 public:
  CXDRULong A;
  CInner B;
  CXDRArray<CXDRUShort> C;
  CXDRArray<CInner> D;
  CXDREnumBase<enums::CNDMPError> E;
  CXDRBool F;

 protected:
  int RegisterMembers() override {
    RegisterMember("A", &A);
    RegisterMember("B", &B);
    RegisterMember("C", &C);
    RegisterMember("D", &D);
    RegisterMember("E", &E);
    RegisterMember("F", &F);
    return 0;
  }
};

CXDRArray<CXDRUShort> OneTwoThree() {
  CXDRArray<CXDRUShort> array;
  for (int v : {1, 2, 3}) array.AddItem(CXDRUShort(v));
  return array;
}

COuter FilledOuter() {
  COuter outer;
  outer.A = 7u;
  outer.B.X = 1u;
  outer.B.S.SetString("s");
  outer.C.AddItem(CXDRUShort(1));
  outer.C.AddItem(CXDRUShort(2));
  CInner item;
  item.X = 9u;
  outer.D.AddItem(item);
  outer.E = enums::CNDMPError::NDMP_IO_ERR;
  outer.F = true;
  return outer;
}

TEST(XdrContainer, EmptyRecordWritesNothingAndDumpsNothing) {
  CEmptyRecord empty;
  EXPECT_TRUE(EncodeValue(empty).empty());
  EXPECT_EQ(empty.SerializeSize(), 0u);
  EXPECT_EQ(empty.DumpContents(0), "");
  EXPECT_EQ(empty.GetMemberType(), CIXDR::MEMBER_CONTAINER);
  EXPECT_EQ(DecodeValue({}, empty), 0);
}

TEST(XdrContainer, RegisterMemberRefusesNullAndKeepsTheList) {
  CInner record;
  ASSERT_EQ(record.GetMemberCount(), 2u);
  EXPECT_EQ(static_cast<unsigned int>(record.RegisterMember("Z", nullptr)), 0xCFFFFFFFu);
  EXPECT_EQ(record.RegisterMember(VxString("Z"), nullptr), XDR_FAILURE);
  EXPECT_EQ(record.GetMemberCount(), 2u);

  // A run-time name is kept after the caller's string is gone; duplicates
  // are accepted and written twice.
  {
    VxString name = "Again";
    EXPECT_EQ(record.RegisterMember(name, &record.X), 0);
  }
  record.X = 5u;
  EXPECT_EQ(Hex(EncodeValue(record)), "00 00 00 05 00 00 00 00 00 00 00 05");
  EXPECT_EQ(record.DumpContents(0), "\nX = 5\nS = \"\"\nAgain = 5");
}

TEST(XdrContainer, ArrayOfUShortsCountedAndFixed) {
  CXDRArray<CXDRUShort> array = OneTwoThree();
  EXPECT_EQ(Hex(EncodeValue(array)), "00 00 00 03 00 00 00 01 00 00 00 02 00 00 00 03");
  EXPECT_EQ(array.SerializeSize(), 16u);

  EXPECT_TRUE(array.SetFixedSize(3));
  EXPECT_EQ(array.GetFixedSize(), 3);
  EXPECT_EQ(Hex(EncodeValue(array)), "00 00 00 01 00 00 00 02 00 00 00 03");
  EXPECT_EQ(array.SerializeSize(), 16u);  // the count word is counted although not sent

  EXPECT_FALSE(array.SetFixedSize(0));
  EXPECT_EQ(array.GetFixedSize(), 0);
  EXPECT_EQ(Hex(EncodeValue(array)), "00 00 00 03 00 00 00 01 00 00 00 02 00 00 00 03");
  EXPECT_TRUE(array.SetFixedSize(2));
  EXPECT_FALSE(array.SetFixedSize(-1));
  EXPECT_EQ(array.GetFixedSize(), 0);

  CXDRArray<CXDRUShort> empty;
  EXPECT_EQ(Hex(EncodeValue(empty)), "00 00 00 00");
  EXPECT_EQ(empty.DumpContents(0), "");
}

TEST(XdrContainer, ArrayDecodeReplacesElementsAndKeepsThoseBeforeAFailure) {
  CXDRArray<CXDRUShort> array = OneTwoThree();
  EXPECT_EQ(DecodeValue(Bytes({0, 0, 0, 1, 0, 0, 0, 9}), array), 0);
  ASSERT_EQ(array.size(), 1u);
  EXPECT_EQ(array[0].getInt32(), 9u);

  EXPECT_EQ(DecodeValue(Bytes({0, 0, 0, 3, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0}), array), XDR_FAILURE);
  ASSERT_EQ(array.size(), 2u);
  EXPECT_EQ(array[0].getInt32(), 1u);
  EXPECT_EQ(array[1].getInt32(), 2u);

  CXDRArray<CXDRUShort> fixed;
  fixed.SetFixedSize(2);
  EXPECT_EQ(DecodeValue(Bytes({0, 0, 0, 5, 0, 0, 0, 6}), fixed), 0);
  ASSERT_EQ(fixed.size(), 2u);
  EXPECT_EQ(fixed(1).getInt32(), 6u);

  EXPECT_EQ(DecodeValue(Bytes({0, 0}), fixed), XDR_FAILURE);
  EXPECT_EQ(fixed.size(), 0u);
}

TEST(XdrContainer, DecodeStopsAtTheFirstFailingMember) {
  CInner record;
  record.SetProtocolVersion(CNDMPProtocolVersion::PROTOCOL_VERSION_3);
  record.S.SetString("old");
  record.V3Only = 3u;
  EXPECT_EQ(DecodeValue(Bytes({0, 0, 0, 7, 0, 0}), record), XDR_FAILURE);
  EXPECT_EQ(record.X.getInt32(), 7u);
  EXPECT_EQ(record.S.GetString(), "");  // a string cut short is emptied
  EXPECT_EQ(record.V3Only.getInt32(), 3u);
}

TEST(XdrContainer, NestedRecordsSerialiseInRegistrationOrderAndDumpIndented) {
  COuter outer = FilledOuter();
  EXPECT_EQ(Hex(EncodeValue(outer)),
            "00 00 00 07 "                          // A
            "00 00 00 01 00 00 00 01 73 00 00 00 "  // B: X, S "s"
            "00 00 00 02 00 00 00 01 00 00 00 02 "  // C
            "00 00 00 01 00 00 00 09 00 00 00 00 "  // D: one record
            "00 00 00 07 "                          // E
            "00 00 00 01");                         // F
  EXPECT_EQ(outer.SerializeSize(), 48u);

  COuter back;
  ASSERT_EQ(DecodeValue(EncodeValue(outer), back), 0);
  EXPECT_EQ(back.DumpContents(0), outer.DumpContents(0));
  EXPECT_EQ(outer.DumpContents(0),
            "\nA = 7"
            "\nB = "
            "\n{"
            "\n    X = 1"
            "\n    S = \"s\""
            "\n}"
            "\nC = "
            "\n{"
            "\n    1"
            "\n    2"
            "\n}"
            "\nD = "
            "\n{"
            "\n    Item 0"
            "\n    {"
            "\n        X = 9"
            "\n        S = \"\""
            "\n    }"
            "\n}"
            "\nE = 0x7:NDMP_IO_ERR"
            "\nF = true");
  EXPECT_EQ(outer.B.DumpContents(2), "\n        X = 1\n        S = \"s\"");
}

TEST(XdrContainer, SetProtocolVersionReregistersNestedRecordsButNotArrayElements) {
  COuter outer = FilledOuter();
  EXPECT_EQ(outer.SerializeSize(), 48u);
  // A member added by hand shows whether the registration was made anew.
  ASSERT_EQ(outer.RegisterMember("Extra", &outer.A), 0);

  // The version already held changes nothing.
  EXPECT_EQ(outer.SetProtocolVersion(CNDMPProtocolVersion::PROTOCOL_VERSION_4).getInt32(), 4u);
  EXPECT_EQ(outer.SerializeSize(), 52u);
  EXPECT_EQ(outer.GetMemberCount(), 7u);

  EXPECT_EQ(outer.SetProtocolVersion(CNDMPProtocolVersion::PROTOCOL_VERSION_3).getInt32(), 3u);
  EXPECT_EQ(outer.GetMemberCount(), 6u);
  EXPECT_EQ(outer.GetProtocolVersion().getInt32(), 3u);
  EXPECT_EQ(outer.B.GetProtocolVersion().getInt32(), 3u);
  EXPECT_EQ(outer.D[0].GetProtocolVersion().getInt32(), 4u);
  // B now carries its version-3 field; the record inside the array does not.
  EXPECT_EQ(outer.SerializeSize(), 52u);
  EXPECT_EQ(outer.B.GetMemberCount(), 3u);
  EXPECT_EQ(outer.D[0].GetMemberCount(), 2u);
  EXPECT_EQ(EncodeValue(outer).size(), 52u);
  // Another record of the class still has its own version's members.
  EXPECT_EQ(FilledOuter().SerializeSize(), 48u);

  // An unregistered record registers at once under the new version, so a
  // member added by hand comes after the registered ones.
  CInner fresh;
  fresh.SetProtocolVersion(CNDMPProtocolVersion::PROTOCOL_VERSION_3);
  ASSERT_EQ(fresh.RegisterMember("Extra", &fresh.X), 0);
  EXPECT_EQ(fresh.GetMemberCount(), 4u);
  EXPECT_EQ(fresh.SerializeSize(), 16u);
  // One that was never used holds only what was added by hand.
  CInner unused;
  ASSERT_EQ(unused.RegisterMember("Only", &unused.X), 0);
  EXPECT_EQ(unused.DumpContents(0), "\nOnly = 0");
}

TEST(XdrContainer, CopySerialisesItsOwnMembers) {
  auto source = std::make_unique<COuter>(FilledOuter());
  source->SetProtocolVersion(CNDMPProtocolVersion::PROTOCOL_VERSION_3);
  const std::vector<unsigned char> before = EncodeValue(*source);

  COuter copy(*source);
  source->A = 100u;
  source->B.X = 101u;
  source->D[0].X = 102u;
  source->C[0] = 103;
  EXPECT_EQ(copy.GetProtocolVersion().getInt32(), 3u);
  EXPECT_EQ(Hex(EncodeValue(copy)), Hex(before));
  source.reset();  // the copy must not reach into the source
  EXPECT_EQ(Hex(EncodeValue(copy)), Hex(before));

  CNDMPUQuad quad(5);
  EXPECT_EQ(quad.SerializeSize(), 8u);
  CNDMPUQuad quadCopy(quad);
  quad.Low = 6u;
  EXPECT_EQ(Hex(EncodeValue(quadCopy)), "00 00 00 00 00 00 00 05");
}

TEST(XdrContainer, CopyAssignmentSerialisesItsOwnMembers) {
  auto source = std::make_unique<CInner>();
  source->X = 1u;
  source->S.SetString("abc");
  source->SetProtocolVersion(CNDMPProtocolVersion::PROTOCOL_VERSION_3);
  source->V3Only = 2u;
  EXPECT_EQ(source->SerializeSize(), 16u);

  CInner target;
  target.X = 50u;
  EXPECT_EQ(target.SerializeSize(), 8u);  // registered under version 4
  target = *source;
  source->X = 99u;
  source->V3Only = 98u;
  source.reset();
  EXPECT_EQ(target.GetProtocolVersion().getInt32(), 3u);
  EXPECT_EQ(Hex(EncodeValue(target)), "00 00 00 01 00 00 00 03 61 62 63 00 00 00 00 02");

  CXDRArray<CInner> array;
  array.AddItem(target);
  CXDRArray<CInner> arrayCopy;
  arrayCopy = array;
  array[0].X = 7u;
  EXPECT_EQ(arrayCopy[0].X.getInt32(), 1u);
  EXPECT_EQ(EncodeValue(arrayCopy).size(), 20u);
}

TEST(XdrContainer, RecordsInAnArraySurviveGrowthCopyAndMove) {
  CXDRArray<CInner> array;
  CInner* first = nullptr;
  for (unsigned int i = 0; i < 1000; ++i) {
    CInner item;
    item.X = i;
    item.SetProtocolVersion(CXDREnumBase<CNDMPProtocolVersion>(i % 2 == 0 ? 3u : 4u));
    item.V3Only = i + 1;
    array.AddItem(item);
    // Elements are used in place while the array grows around them.
    EXPECT_EQ(array[i].SerializeSize(), i % 2 == 0 ? 12u : 8u);
    if (i == 0) first = &array[0];
  }
  EXPECT_EQ(&array[0], first);  // growth never moves an element
  auto check = [](CXDRArray<CInner>& a) {
    std::vector<unsigned char> bytes = EncodeValue(a);
    ASSERT_EQ(bytes.size(), 4u + 500u * 12u + 500u * 8u);
    std::size_t at = 4;
    for (unsigned int i = 0; i < 1000; ++i) {
      EXPECT_EQ(bytes[at + 2] * 256 + bytes[at + 3], static_cast<int>(i));
      at += 8;  // X and the empty S
      if (i % 2 == 0) {
        EXPECT_EQ(bytes[at + 2] * 256 + bytes[at + 3], static_cast<int>(i + 1));
        at += 4;
      }
    }
  };
  check(array);
  CXDRArray<CInner> copy(array);
  CXDRArray<CInner> moved(std::move(array));
  array = copy;  // a moved-from array takes a new value
  copy[999].X = 5u;
  check(moved);
  check(array);
  std::size_t visited = 0;
  for (CInner& item : moved) visited += item.X.getInt32() == visited ? 1 : 0;
  EXPECT_EQ(visited, 1000u);
  EXPECT_THROW(moved[1000], std::out_of_range);

  // Arrays inside decoded elements outlive the array they came from when
  // moved or copied out of it.
  CXDRArray<COuter> outers;
  for (unsigned int i = 0; i < 3; ++i) outers.AddItem(FilledOuter());
  auto decoded = std::make_unique<CXDRArray<COuter>>();
  ASSERT_EQ(DecodeValue(EncodeValue(outers), *decoded), 0);
  CXDRArray<CInner> movedOut(std::move((*decoded)[2].D));
  CXDRArray<CXDRUShort> copiedOut((*decoded)[1].C);
  (*decoded)[0].C = OneTwoThree();
  EXPECT_EQ(Hex(EncodeValue((*decoded)[0].C)), "00 00 00 03 00 00 00 01 00 00 00 02 00 00 00 03");
  decoded.reset();
  ASSERT_EQ(movedOut.size(), 1u);
  EXPECT_EQ(movedOut[0].X.getInt32(), 9u);
  EXPECT_EQ(Hex(EncodeValue(copiedOut)), "00 00 00 02 00 00 00 01 00 00 00 02");
}

// Names built at run time, in a buffer that is gone once registration ends
// and in a temporary string.
class CBuiltNamesRecord : public CXDRContainer {
 public:
  CXDRULong First{1u};
  CXDRULong Second{2u};

 protected:
  int RegisterMembers() override {
    char name[16];
    std::snprintf(name, sizeof(name), "field%d", 1);
    RegisterMember(name, &First);
    RegisterMember(VxString("field") + std::to_string(2), &Second);
    return 0;
  }
};

// Overwrites the stack where the registration's buffer was.
[[gnu::noinline]] void ScribbleStack() {
  volatile char junk[1024];
  for (auto& c : junk) c = 'x';
}

TEST(XdrContainer, NamesBuiltAtRunTimeOutliveTheirBuffers) {
  CBuiltNamesRecord record;
  for (unsigned int version : {3u, 4u, 3u}) {
    record.SetProtocolVersion(CXDREnumBase<CNDMPProtocolVersion>(version));
    ScribbleStack();
    EXPECT_EQ(record.DumpContents(0), "\nfield1 = 1\nfield2 = 2");
  }
  CBuiltNamesRecord copy(record);
  EXPECT_EQ(copy.DumpContents(0), "\nfield1 = 1\nfield2 = 2");
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc
