// CNDMPMessagePacket: one NDMP message on the wire, a header and at most one
// body, with the protocol version under which the body is encoded.
//
// Sending:   CNDMPMessagePacket p(code, type, version);
//            p.SetMessage(body);            // stores a clone
//            p.Serialize(stream); stream.flushRecord();
// Receiving: CNDMPMessagePacket p; p.SetProtocolVersion(v);
//            p.DeSerialize(stream);          // makes the body for (code, type)
#pragma once

#include "ndmpc/ndmp/messages/header.h"
#include "ndmpc/ndmp/messages/message.h"

namespace com::vx::korvane::ndmpc {

class CNDMPMessagePacket : public CISerializable {
 public:
  CNDMPMessagePacket() = default;
  CNDMPMessagePacket(CXDREnumBase<enums::CNDMPMessageCode> code,
                     CXDREnumBase<enums::CNDMPMessageType> type,
                     CXDREnumBase<enums::CNDMPProtocolVersion> version);
  // Copies the header and clones the body; the version is deliberately reset
  // to 4 rather than copied.
  CNDMPMessagePacket(const CNDMPMessagePacket& other);
  // Deliberately shallow: copies version, header and the body pointer itself
  // (no clone, the previous body is not released), so both packets then share
  // one body. Only one of them may be destroyed with the body attached.
  CNDMPMessagePacket& operator=(const CNDMPMessagePacket& other);
  ~CNDMPMessagePacket() override;

  // 0 on success; 0xFFFFFFFF without a body; 0xCFFFFFFF when the header
  // could not be written; otherwise the body's result.
  int Serialize(CXDRStream& stream) override;
  // 0 on success; 0xCFFFFFFF when the header cannot be read or the code is
  // unknown; the header's error number when it carries one (no body is
  // read then); otherwise the body's result.
  int DeSerialize(CXDRStream& stream) override;
  // The packet as text for the log.
  VxString DumpContents();

  CNDMPHeader& GetHeader() { return header_; }
  const CNDMPHeader& GetHeader() const { return header_; }
  // The body, owned by the packet; null when there is none.
  CNDMPMessage* GetMessage() const { return body_; }
  // Replaces the body with a clone of `message`; returns the clone.
  CNDMPMessage& SetMessage(const CNDMPMessage& message);
  CXDREnumBase<enums::CNDMPProtocolVersion> GetProtocolVersion() const { return version_; }
  // Sets the version only; a body already present is left as it is.
  void SetProtocolVersion(const CXDREnumBase<enums::CNDMPProtocolVersion>& version) {
    version_ = version;
  }

 private:
  // The body class for a received (code, type), newly allocated, or null
  // for a code without classes.
  static CNDMPMessage* GetNDMPMessageObject(CXDREnumBase<enums::CNDMPMessageCode>& code,
                                            CXDREnumBase<enums::CNDMPMessageType>& type);
  // Uses `message` as the body without cloning or owning it; the send path
  // uses this so that large bodies are not copied.
  void AttachMessage(CNDMPMessage& message);
  // Hands the body over to the caller.
  CNDMPMessage* ReleaseMessage();
  void DropBody();

  CXDREnumBase<enums::CNDMPProtocolVersion> version_{enums::CNDMPProtocolVersion::PROTOCOL_VERSION_4};
  CNDMPHeader header_;
  CNDMPMessage* body_ = nullptr;
  bool ownsBody_ = true;
  VxString dump_;

  friend class CNDMPConnection;
  friend class CNDMPMessageAccess;
};

}  // namespace com::vx::korvane::ndmpc
