#include "ndmpc/ndmp/messages/union_record.h"

namespace com::vx::korvane::ndmpc {

int CNDMPUnionRecord::RegisterMembers() {
  CXDRULong& discriminant = Discriminant();
  RegisterStaticMember(DiscriminantName(), &discriminant);
  registeredFor_ = discriminant.getInt32();
  const char* name = nullptr;
  if (CIXDR* arm = SelectArm(registeredFor_, &name)) RegisterStaticMember(name, arm);
  return 0;
}

void CNDMPUnionRecord::Refresh() {
  if (GetMemberCount() == 0 || registeredFor_ != Discriminant().getInt32()) {
    ClearRegistration();
    RegisterMembers();
  }
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
  ClearRegistration();
  RegisterMembers();
  return result == XDR_FAILURE ? XDR_FAILURE : 0;
}

int CNDMPUnionRecord::Serialize(CXDRStream& stream) {
  Refresh();
  return CXDRContainer::Serialize(stream);
}

unsigned int CNDMPUnionRecord::SerializeSize() {
  Refresh();
  return CXDRContainer::SerializeSize();
}

VxString CNDMPUnionRecord::DumpContents(int level) {
  Refresh();
  return CXDRContainer::DumpContents(level);
}

}  // namespace com::vx::korvane::ndmpc
