#include "ndmpc/ndmp/messages/message_factory.h"

#include <algorithm>

#include "ndmpc/ndmp/messages/message_packet.h"

namespace com::vx::korvane::ndmpc {

const std::vector<CNDMPFactoryEntry>& NDMPFactoryTable() {
  static const std::vector<CNDMPFactoryEntry> table = [] {
    std::vector<CNDMPFactoryEntry> rows;
    AddConnectConfigFactoryEntries(rows);
    AddScsiTapeFactoryEntries(rows);
    AddDataMoverFactoryEntries(rows);
    AddNotifyLogFhFactoryEntries(rows);
    AddSnapshotFactoryEntries(rows);
    AddSnapVaultFactoryEntries(rows);
    std::sort(rows.begin(), rows.end(),
              [](const CNDMPFactoryEntry& a, const CNDMPFactoryEntry& b) { return a.code < b.code; });
    return rows;
  }();
  return table;
}

const CNDMPFactoryEntry* FindNDMPFactoryEntry(std::uint32_t code) {
  const auto& table = NDMPFactoryTable();
  auto it = std::lower_bound(
      table.begin(), table.end(), code,
      [](const CNDMPFactoryEntry& row, std::uint32_t c) { return row.code < c; });
  return (it != table.end() && it->code == code) ? &*it : nullptr;
}

CNDMPMessage* CNDMPMessagePacket::GetNDMPMessageObject(
    CXDREnumBase<enums::CNDMPMessageCode>& code, CXDREnumBase<enums::CNDMPMessageType>& type) {
  const CNDMPFactoryEntry* row = FindNDMPFactoryEntry(code.getInt32());
  if (row == nullptr) return nullptr;
  // Type 0 is a request; any other type number, not only 1, is a reply.
  return type.getInt32() == enums::CNDMPMessageType::NDMP_MESSAGE_REQUEST ? row->makeRequest()
                                                                          : row->makeReply();
}

}  // namespace com::vx::korvane::ndmpc
