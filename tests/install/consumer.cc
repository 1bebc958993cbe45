// Uses the installed library through the umbrella header only.
#include <ndmpc/ndmpc.h>

#include <cstdio>
#include <type_traits>
#include <utility>

namespace nd = com::vx::korvane::ndmpc;

// The message plumbing (code, type, clone, registration) stays out of an
// application's reach: its access header is not installed, and the
// operations cannot be called on a message from outside.
#if __has_include(<ndmpc/ndmp/messages/message_access.h>)
#error "message_access.h is internal and must not be installed"
#endif

#define NDMPC_CALLABLE(trait, call)                                                      \
  template <class T, class = void>                                                       \
  struct trait : std::false_type {};                                                     \
  template <class T>                                                                     \
  struct trait<T, std::void_t<decltype(std::declval<T&>().call())>> : std::true_type {};
NDMPC_CALLABLE(CanClone, Clone)
NDMPC_CALLABLE(CanGetCode, GetMessageCode)
NDMPC_CALLABLE(CanGetType, GetMessageType)
NDMPC_CALLABLE(CanRegister, RegisterMembers)

template <class T>
constexpr bool kSealed =
    !CanClone<T>::value && !CanGetCode<T>::value && !CanGetType<T>::value && !CanRegister<T>::value;
static_assert(kSealed<nd::CNDMPMessage> && kSealed<nd::CNDMPConfigGetHostInfoRequest> &&
                  kSealed<nd::CNDMPTapeOpenReply>,
              "message internals are not public");

int main() {
  nd::VxLog log;
  nd::CNDMPConnection connection("localhost", "127.0.0.1", log, 1);
  nd::CNDMPConfigGetHostInfoRequest request;
  std::printf("%s %s\n", nd::enums::CNDMPError::ToString(nd::enums::CNDMPError::NDMP_NO_ERR).c_str(),
              request.DumpContents(0).empty() ? "empty" : "fields");
  return connection.IsConnected() ? 1 : 0;
}
