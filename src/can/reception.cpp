// The receive state of the two CAN families: each fetches with its own ..._ReadMsgToBuffer.
#include "can/can_internal.h"

namespace polybus {

Reception<CAN_MSG>& can_reception() {
    static Reception<CAN_MSG> reception(&CAN_ReadMsgToBuffer);
    return reception;
}

Reception<CANFD_MSG>& canfd_reception() {
    static Reception<CANFD_MSG> reception(&CANFD_ReadMsgToBuffer);
    return reception;
}

}  // namespace polybus
