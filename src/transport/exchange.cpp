#include "transport/exchange.h"

#include "transport/lock.h"
#include "transport/usb_message.h"

namespace polybus {

Session::Session(int DevHandle) : handle_(DevHandle), held_(true) { lock(handle_); }

Session::~Session() { release(); }

void Session::release() {
    if (!held_) return;
    held_ = false;
    unlock(handle_);
}

int Session::send(Command& request, int send_ms, Route route) {
    if (request.failed()) return kBadAnswer;
    USB_MSG msg{request.code(), request.size(), request.data()};
    int rc;
    switch (route.pipe) {
        case Pipe::Interrupt: rc = MSG_SendInt(handle_, &msg, send_ms); break;
        case Pipe::CanFd: rc = CANFD_MSG_Send(handle_, route.channel, &msg, send_ms); break;
        case Pipe::Bulk:
        default: rc = MSG_Send(handle_, &msg, send_ms); break;
    }
    return rc == 0 ? kOk : kSendFailed;
}

int Session::get(Answer& answer, int get_ms) {
    USB_MSG msg{0, 0, answer.buffer()};
    size_t received = 0;
    if (MSG_GetBounded(handle_, &msg, answer.capacity(), &received, get_ms) != 0) return kBadAnswer;
    answer.command = msg.Command;
    answer.length = msg.Length;
    answer.received = received;
    return kOk;
}

int Session::exchange(Command& request, Answer& answer, Timing timing, Route route) {
    const int rc = send(request, timing.send_ms, route);
    if (rc != kOk) return rc;
    return get(answer, timing.get_ms);
}

int transact(int DevHandle, Command& request, Answer& answer, Timing timing, Route route) {
    if (request.failed()) return kBadAnswer;
    Session session(DevHandle);
    return session.exchange(request, answer, timing, route);
}

bool vendor_request(int DevHandle, const VendorRequest& request, unsigned char* data) {
    return USBCtrlData(DevHandle, request.request_type, request.request, request.value, request.index, data,
                       request.length, request.timeout_ms) == 1;
}

bool vendor_request(int DevHandle, uint8_t bmRequestType, uint8_t bRequest, uint16_t wValue, uint16_t wIndex,
                    unsigned char* data, uint16_t wLength, unsigned TimeOutMs) {
    return vendor_request(DevHandle, VendorRequest{bmRequestType, bRequest, wValue, wIndex, wLength, TimeOutMs}, data);
}

}  // namespace polybus
