#include "ndmpc/xdr/xdr_container.h"

namespace com::vx::korvane::ndmpc {

void CXDRContainer::CMemberList::push_back(const MemberItem& item) {
  if (size_ < kInline) {
    inline_[size_] = item;
  } else {
    if (!overflow_) {
      // Room for the largest records at once, so that registering one costs
      // a single allocation.
      overflow_.reset(new std::vector<MemberItem>());
      overflow_->reserve(12);
    }
    overflow_->push_back(item);
  }
  ++size_;
}

const char* CXDRContainer::CMemberList::KeepName(const VxString& name) {
  if (!names_) names_.reset(new std::deque<VxString>());
  names_->push_back(name);
  return names_->back().c_str();
}

CXDRContainer& CXDRContainer::operator=(const CXDRContainer& other) {
  if (this != &other) {
    CIXDR::operator=(other);
    version_ = other.version_;
    // The registration points at this record's own members; it is rebuilt
    // on next use, since the assigned values may select other members.
    members_.clear();
  }
  return *this;
}

int CXDRContainer::AddMember(const char* name, CIXDR* member) {
  if (member == nullptr) return XDR_FAILURE;
  members_.push_back(MemberItem{name, member, member->GetMemberType()});
  return 0;
}

int CXDRContainer::RegisterMember(const VxString& name, CIXDR* member) {
  if (member == nullptr) return XDR_FAILURE;
  return AddMember(members_.KeepName(name), member);
}

int CXDRContainer::Serialize(CXDRStream& stream) {
  EnsureRegistered();
  for (std::size_t i = 0; i < members_.size(); ++i) {
    // Member results are deliberately not examined; the stream logs failures.
    members_[i].member->Serialize(stream);
  }
  return 0;
}

int CXDRContainer::DeSerialize(CXDRStream& stream) {
  EnsureRegistered();
  for (std::size_t i = 0; i < members_.size(); ++i) {
    if (members_[i].member->DeSerialize(stream) == XDR_FAILURE) return XDR_FAILURE;
  }
  return 0;
}

unsigned int CXDRContainer::SerializeSize() {
  EnsureRegistered();
  unsigned int total = 0;
  for (std::size_t i = 0; i < members_.size(); ++i) total += members_[i].member->SerializeSize();
  return (total + 3u) & ~3u;
}

VxString CXDRContainer::DumpContents(int level) {
  EnsureRegistered();
  VxString text;
  const VxString indent(static_cast<std::size_t>(4 * (level > 0 ? level : 0)), ' ');
  for (std::size_t i = 0; i < members_.size(); ++i) {
    const MemberItem& item = members_[i];
    text += "\n" + indent + item.name + " = ";
    if (item.memberType == MEMBER_ARRAY || item.memberType == MEMBER_CONTAINER) {
      text += "\n" + indent + "{" + item.member->DumpContents(level + 1) + "\n" + indent + "}";
    } else {
      text += item.member->DumpContents(level);
    }
  }
  return text;
}

CXDREnumBase<enums::CNDMPProtocolVersion> CXDRContainer::SetProtocolVersion(
    CXDREnumBase<enums::CNDMPProtocolVersion> version) {
  if (version.getInt32() != version_) {
    version_ = version.getInt32();
    ClearRegistration();
    RegisterMembers();
    for (std::size_t i = 0; i < members_.size(); ++i) {
      if (members_[i].memberType == MEMBER_CONTAINER) {
        if (auto* nested = dynamic_cast<CXDRContainer*>(members_[i].member)) {
          nested->SetProtocolVersion(version);
        }
      }
    }
  }
  return GetProtocolVersion();
}

std::size_t CXDRContainer::GetMemberCount() {
  EnsureRegistered();
  return members_.size();
}

const CXDRContainer::MemberItem& CXDRContainer::GetMember(std::size_t index) {
  EnsureRegistered();
  return members_[index];
}

}  // namespace com::vx::korvane::ndmpc
