// Populates any record or message through its registered members, so that
// generic tests (round trips over the factory table, the tshark catalogue)
// need no hand-written fill per class:
//
//   std::unique_ptr<CNDMPMessage> m(CNDMPMessageAccess::Make(code, type));
//   unsigned seed = 0;
//   FillMembers(*m, seed, variant);  // every member non-default
//
// Numbers are distinct per member, strings 1 to 4 characters, opaques of
// odd length (so padding is exercised), two elements per counted array.
// A union takes the discriminant `variant` picks among 0 and the values
// that select an arm, so running variants 0..3 reaches every arm.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "ndmpc/ndmp/messages/connect_config_messages.h"
#include "ndmpc/ndmp/messages/data_mover_messages.h"
#include "ndmpc/ndmp/messages/notify_log_fh_messages.h"
#include "ndmpc/ndmp/messages/snapshot_messages.h"
#include "ndmpc/ndmp/messages/snapvault_messages.h"
#include "ndmpc/ndmp/messages/union_record.h"

namespace com::vx::korvane::ndmpc::testing {

template <class F, class... E>
bool VisitArrayOf(CIXDR& value, F& visit) {
  return ([&] {
    auto* array = dynamic_cast<CXDRArray<E>*>(&value);
    if (array != nullptr) visit(*array);
    return array != nullptr;
  }() || ...);
}

// Calls `visit` with `value` as the CXDRArray<E> it is; false for an
// element type this list does not know.
template <class F>
bool VisitArray(CIXDR& value, F&& visit) {
  return VisitArrayOf<F, CNDMPPVal, CNDMPSvTcpAddr, CXDRUShort, CNDMPSvStatus, CNDMPName,
                      CNDMPFileStat, CNDMPFileName, CNDMPFile, CNDMPDeviceInfo, CNDMPTcpAddr,
                      CNDMPSvsClientStatusItem, CNDMPSvSnapStatusItem, CNDMPSvSnapSchedItem,
                      CNDMPSName, CNDMPNode, CNDMPFsInfo, CNDMPDir, CNDMPDeviceCapability,
                      CNDMPConfigButypeInfo, CNDMPClassVersion, CNDMPClassList,
                      CXDREnumBase<enums::CNDMPEnumSvGranularity>,
                      CXDREnumBase<enums::CNDMPEnumSvRecoverMethod>,
                      CXDREnumBase<enums::CNDMPEnumAuthType>,
                      CXDREnumBase<enums::CNDMPEnumAddrType>>(value, visit);
}

inline void FillMembers(CIXDR& value, unsigned& seed, unsigned variant);

inline void FillUnion(CXDRContainer& record, unsigned& seed, unsigned variant) {
  auto* discriminant = dynamic_cast<CXDRULong*>(record.GetMember(0).member);
  ASSERT_NE(discriminant, nullptr);
  std::vector<std::uint32_t> arms;
  for (std::uint32_t v = 0; v < 16; ++v) {
    *discriminant = v;
    record.SerializeSize();  // registers the arm of the new value
    if (v == 0 || record.GetMemberCount() == 2) arms.push_back(v);
  }
  *discriminant = arms.empty() ? variant : arms[variant % arms.size()];
  record.SerializeSize();
  if (record.GetMemberCount() == 2) FillMembers(*record.GetMember(1).member, seed, variant);
}

inline void FillMembers(CIXDR& value, unsigned& seed, unsigned variant) {
  ++seed;
  switch (value.GetMemberType()) {
    case CIXDR::MEMBER_ULONG:
    case CIXDR::MEMBER_ENUM:
      dynamic_cast<CXDRULong&>(value) = 0x100u + seed * 7u + variant;
      break;
    case CIXDR::MEMBER_BOOL:
      dynamic_cast<CXDRBool&>(value) = true;
      break;
    case CIXDR::MEMBER_STRING:
      dynamic_cast<CXDRString&>(value).SetString(
          std::string(seed % 4 + 1, static_cast<char>('a' + seed % 26)));
      break;
    case CIXDR::MEMBER_OPAQUE: {
      auto& opaque = dynamic_cast<CXDROpaque&>(value);
      std::vector<unsigned char> data(opaque.IsFixedLength() ? opaque.GetFixedSize()
                                                             : 3 + 2 * (seed % 3));
      for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(seed + i);
      opaque.SetData(data.data(), data.size());
      break;
    }
    case CIXDR::MEMBER_CONTAINER: {
      auto& record = dynamic_cast<CXDRContainer&>(value);
      if (dynamic_cast<CNDMPUnionRecord*>(&record) != nullptr) {
        FillUnion(record, seed, variant);
        break;
      }
      for (std::size_t i = 0; i < record.GetMemberCount(); ++i) {
        FillMembers(*record.GetMember(i).member, seed, variant);
      }
      break;
    }
    case CIXDR::MEMBER_ARRAY: {
      const bool known = VisitArray(value, [&](auto& array) {
        const int count = array.GetFixedSize() > 0 ? array.GetFixedSize() : 2;
        for (int i = 0; i < count; ++i) FillMembers(array.AppendNew(), seed, variant + i);
      });
      ASSERT_TRUE(known) << "an array of an element type VisitArray does not list";
      break;
    }
  }
}

}  // namespace com::vx::korvane::ndmpc::testing
