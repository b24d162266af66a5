// Slave reception: single polls of the adapter's slave buffer, and continuous reading
// by one streaming thread per adapter that serves both ports.
#include <unistd.h>

#include <atomic>
#include <climits>
#include <mutex>
#include <thread>
#include <vector>

#include "polybus/spi.h"
#include "transport/device_slots.h"
#include "transport/exchange.h"
#include "transport/lock.h"
#include "util/bounded_fifo.h"
#include "wire/spi.h"

using namespace polybus;
using namespace polybus::wire;

namespace {

using SlaveBytes = BoundedFifo<uint8_t, SPI_SLAVE_BUFFER_SIZE>;

struct SlaveStream {
    // Written by API calls, read by the streaming thread.
    std::atomic<bool> wanted[2] = {{false}, {false}};
    std::atomic<SPI_GET_DATA_HANDLE> callback[2] = {{nullptr}, {nullptr}};
    std::atomic<int> device{0};
    // Guarded by spi_data_lock(slot handle, port).
    SlaveBytes bytes[2];
    // Start and stop of the thread are serialised by this.
    std::mutex control;
    std::thread thread;

    ~SlaveStream() {
        wanted[0] = wanted[1] = false;
        if (thread.joinable()) thread.join();
    }
};

PerDevice<SlaveStream> g_streams;

// The data mutex by slot, so that the thread and the API calls take the same one even
// if the device list changes under a running stream.
int slot_handle(int slot) { return int(0xFF000000u | uint32_t(slot)); }

// The data mutex of a slot and port for one scope.
class DataLock : public SpiDataLock {
public:
    DataLock(int slot, int port) : SpiDataLock(slot_handle(slot), port) {}
};

int echoed(int dev, SpiCommand code, int port) {
    Command request(code);
    request.u8(uint8_t(port & 1));
    AnswerBuffer<16> answer;  // the payload, if any, is not wanted
    const int rc = transact(dev, request, answer);
    if (rc != kOk) return rc;
    return expect_echo(answer, code);
}

void stream(SlaveStream* s, int slot) {
    const int dev = s->device.load();
    std::vector<uint8_t> buffers[2] = {std::vector<uint8_t>(SPI_SLAVE_CHUNK_MAX),
                                       std::vector<uint8_t>(SPI_SLAVE_CHUNK_MAX)};
    int toggle = 0;
    for (;;) {
        bool failed = false;
        for (int port = 0; port < 2 && !failed; ++port) {
            if (!s->wanted[port].load()) continue;
            uint8_t* chunk = buffers[toggle].data();
            const int n = SPI_SlaveReadBytesFromBuffer(dev, port, chunk, 1);
            if (n < 0) {
                failed = true;  // unplugged or the adapter stopped answering
                break;
            }
            if (n > 0) {
                if (SPI_GET_DATA_HANDLE cb = s->callback[port].load()) {
                    cb(dev, port, chunk, n);
                } else {
                    DataLock guard(slot, port);
                    s->bytes[port].push(chunk, size_t(n));
                }
            }
            toggle ^= 1;
        }
        if (failed || (!s->wanted[0].load() && !s->wanted[1].load())) break;
        usleep(1000);
    }
    s->wanted[0] = false;
    s->wanted[1] = false;
}

}  // namespace

extern "C" {

POLYBUS_API int SPI_SlaveReadBytesFromBuffer(int dev, int port, unsigned char* out, int TimeOutMs) {
    Command request(SPI_SLAVE_READ_BUFFER);
    request.u8(uint8_t(port & 1));
    AnswerBuffer<16> scratch;
    Answer answer = out != nullptr ? Answer(out, SPI_SLAVE_CHUNK_MAX) : scratch;
    const int wait = TimeOutMs < 1 ? 0 : (TimeOutMs > INT_MAX - 10 ? INT_MAX : TimeOutMs + 10);
    const int rc = transact(dev, request, answer, {1000, wait});
    if (rc != kOk) return rc;
    if (expect_echo(answer, SPI_SLAVE_READ_BUFFER) != kOk) return kBadAnswer;
    return out != nullptr ? int(answer.received) : int(answer.length);
}

POLYBUS_API int SPI_SlaveStartContinueRead(int dev, int port) { return echoed(dev, SPI_SLAVE_START, port); }

POLYBUS_API int SPI_SlaveStopContinueRead(int dev, int port) { return echoed(dev, SPI_SLAVE_STOP, port); }

POLYBUS_API int SPI_SlaveContinueWrite(int dev, int port, unsigned char* data, int len) {
    if (len < 0 || (len != 0 && data == nullptr)) return SPI_ERR_ARGUMENT;
    Command request(SPI_SLAVE_CONTINUE_WRITE, size_t(len) + 1);
    request.u8(uint8_t(port)).bytes(data, size_t(len));
    AnswerBuffer<16> answer;
    const int rc = transact(dev, request, answer);
    if (rc != kOk) return rc;
    return expect_echo(answer, SPI_SLAVE_CONTINUE_WRITE);
}

POLYBUS_API int SPI_SlaveReadBytes(int dev, int port, unsigned char* out, int len, int TimeOutMs) {
    if (out == nullptr || len < 0) return SPI_ERR_ARGUMENT;
    const int started = SPI_SlaveStartContinueRead(dev, port);
    if (started != kOk) return started;
    int budget = TimeOutMs;
    int n = SPI_SlaveReadBytesFromBuffer(dev, port, out, 1);
    if (n < 0) return n;
    long long total = n;
    while (total < len) {
        if (TimeOutMs > 0) {
            if (budget < 11) break;
            budget -= 10;
        }
        n = SPI_SlaveReadBytesFromBuffer(dev, port, out + total, 1);
        if (n < 0) return n;
        total += n;
    }
    SPI_SlaveStopContinueRead(dev, port);
    return int(total);
}

POLYBUS_API int SPI_SlaveContinueRead(int dev, int port, SPI_GET_DATA_HANDLE handler) {
    SlaveStream* s = g_streams.find(dev);
    if (s == nullptr) return kBadAnswer;
    const int started = SPI_SlaveStartContinueRead(dev, port);
    if (started != kOk) return started;
    const int slot = device_slot(dev);
    std::lock_guard<std::mutex> g(s->control);
    {
        DataLock guard(slot, port);
        s->bytes[port & 1].clear();
    }
    s->device = dev;
    s->callback[port & 1] = handler;
    s->wanted[port & 1] = true;
    if (s->thread.joinable()) return kOk;  // the running thread serves both ports
    try {
        s->thread = std::thread(stream, s, slot);
    } catch (...) {
        s->wanted[port & 1] = false;
        return kBadAnswer;
    }
    return kOk;
}

POLYBUS_API int SPI_SlaveGetBytes(int dev, int port, unsigned char* out, int size) {
    SlaveStream* s = g_streams.find(dev);
    if (s == nullptr || out == nullptr || size <= 0) return 0;
    DataLock guard(device_slot(dev), port);
    return int(s->bytes[port & 1].pop(out, size_t(size)));
}

POLYBUS_API int SPI_SlaveContinueWriteReadStop(int dev, int port) {
    SlaveStream* s = g_streams.find(dev);
    if (s != nullptr) {
        std::lock_guard<std::mutex> g(s->control);
        if (s->wanted[0].load() || s->wanted[1].load()) {
            s->wanted[port & 1] = false;
            usleep(10000);
            if (!s->wanted[0].load() && !s->wanted[1].load() && s->thread.joinable()) s->thread.join();
        } else if (s->thread.joinable()) {
            // The thread ended by itself (a failed poll): reap it so that streaming can
            // start again.
            s->thread.join();
        }
    }
    return SPI_SlaveStopContinueRead(dev, port);
}

}  // extern "C"
