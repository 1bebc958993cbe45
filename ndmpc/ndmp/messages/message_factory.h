// The table from wire codes to message classes. Each interface family
// contributes its rows; the packet looks a received (code, type) up here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>
#include <vector>

#include "ndmpc/ndmp/messages/message.h"

namespace com::vx::korvane::ndmpc {

struct CNDMPFactoryEntry {
  std::uint32_t code;
  CNDMPMessage* (*makeRequest)();  // for message type 0
  CNDMPMessage* (*makeReply)();    // for every other type
};

template <class T>
CNDMPMessage* MakeNDMPMessage() {
  return new (std::nothrow) T();
}

// A request/reply pair.
template <class Request, class Reply>
constexpr CNDMPFactoryEntry FactoryPair() {
  return {Request::kMessageCode, &MakeNDMPMessage<Request>, &MakeNDMPMessage<Reply>};
}
// One class whatever the type (posts, NDMP_CONNECT_CLOSE).
template <class Only>
constexpr CNDMPFactoryEntry FactorySingle() {
  return {Only::kMessageCode, &MakeNDMPMessage<Only>, &MakeNDMPMessage<Only>};
}

// Every row of the table, sorted by code.
const std::vector<CNDMPFactoryEntry>& NDMPFactoryTable();
// The row for `code`, or null.
const CNDMPFactoryEntry* FindNDMPFactoryEntry(std::uint32_t code);

// Rows of each interface family, defined next to its classes.
void AddConnectConfigFactoryEntries(std::vector<CNDMPFactoryEntry>& table);
void AddScsiTapeFactoryEntries(std::vector<CNDMPFactoryEntry>& table);
void AddDataMoverFactoryEntries(std::vector<CNDMPFactoryEntry>& table);
void AddNotifyLogFhFactoryEntries(std::vector<CNDMPFactoryEntry>& table);
void AddSnapshotFactoryEntries(std::vector<CNDMPFactoryEntry>& table);
void AddSnapVaultFactoryEntries(std::vector<CNDMPFactoryEntry>& table);

}  // namespace com::vx::korvane::ndmpc
