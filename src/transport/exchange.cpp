#include "transport/exchange.h"

#include "transport/lock.h"
#include "transport/usb_message.h"

namespace polybus {

int send_request(int DevHandle, Command& request, int send_ms, Route route) {
    if (request.failed()) return -4;
    USB_MSG msg{request.code(), request.size(), request.data()};
    switch (route.pipe) {
        case Pipe::Interrupt:
            return MSG_SendInt(DevHandle, &msg, send_ms) == 0 ? 0 : -2;
        case Pipe::CanFd:
            return CANFD_MSG_Send(DevHandle, route.channel, &msg, send_ms) == 0 ? 0 : -2;
        case Pipe::Bulk:
        default:
            return MSG_Send(DevHandle, &msg, send_ms) == 0 ? 0 : -2;
    }
}

int get_answer(int DevHandle, Answer& answer, int get_ms) {
    USB_MSG msg{0, 0, answer.buffer()};
    size_t received = 0;
    if (MSG_GetBounded(DevHandle, &msg, answer.capacity(), &received, get_ms) != 0) return -4;
    answer.command = msg.Command;
    answer.length = msg.Length;
    answer.received = received;
    return 0;
}

int transact(int DevHandle, Command& request, Answer& answer, Timing timing, Route route) {
    if (request.failed()) return -4;
    DeviceLock guard(DevHandle);
    int rc = send_request(DevHandle, request, timing.send_ms, route);
    if (rc != 0) return rc;
    return get_answer(DevHandle, answer, timing.get_ms);
}

}  // namespace polybus
