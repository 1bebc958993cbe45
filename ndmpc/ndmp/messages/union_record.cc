#include "ndmpc/ndmp/messages/union_record.h"

namespace com::vx::korvane::ndmpc {

int CNDMPUnionRecord::RegisterMembers() {
  CXDRULong& discriminant = Discriminant();
  RegisterStaticMember(DiscriminantName(), &discriminant);
  const char* name = nullptr;
  if (CIXDR* arm = SelectArm(discriminant.getInt32(), &name)) RegisterStaticMember(name, arm);
  return 0;
}

std::uint32_t CNDMPUnionRecord::LayoutKey() {
  const char* name = nullptr;
  CIXDR* arm = SelectArm(Discriminant().getInt32(), &name);
  if (arm == nullptr) return 0;
  return static_cast<std::uint32_t>(reinterpret_cast<std::intptr_t>(arm) -
                                    reinterpret_cast<std::intptr_t>(this)) + 1;
}

int CNDMPUnionRecord::DeSerialize(CXDRStream& stream) {
  CXDRULong& discriminant = Discriminant();
  if (discriminant.DeSerialize(stream) == XDR_FAILURE) return XDR_FAILURE;
  int result = 0;
  const char* name = nullptr;
  if (CIXDR* arm = SelectArm(discriminant.getInt32(), &name)) {
    // A nested record is read under this record's version, whatever it was
    // registered under before.
    if (arm->GetMemberType() == MEMBER_CONTAINER) {
      auto* record = static_cast<CXDRContainer*>(arm);
      if (record->GetProtocolVersion() != GetProtocolVersion()) {
        record->SetProtocolVersion(GetProtocolVersion());
      }
    }
    result = arm->DeSerialize(stream);
  }
  // Members registered by hand give way to the registration of the
  // received discriminant.
  if (HasOwnList()) ClearRegistration();
  return result == XDR_FAILURE ? XDR_FAILURE : 0;
}

}  // namespace com::vx::korvane::ndmpc
