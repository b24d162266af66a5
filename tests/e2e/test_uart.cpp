// UART end to end against simulated peers: the configuration record as it lies in
// memory, real byte timing at the configured baud rate, interval writes, the polling
// read, the adapter's receive buffer, and the answers the family rejects.
#include <chrono>
#include <thread>

#include "sim_fixture.h"
#include "uart_model.h"
#include "wire/uart.h"

using namespace polybus_sim;
using namespace polybus_test;
using namespace polybus::wire;
using Bytes = std::vector<uint8_t>;

namespace {

class Uart : public SimTest {
protected:
    UartModel& uart() { return model<UartModel>(); }
    void init(int port, uint32_t baud) {
        UART_CONFIG c{};
        c.BaudRate = baud;
        ASSERT_EQ(UART_Init(handle, port, &c), 0);
    }
    // Reads until `n` bytes came or a read found nothing within its budget.
    Bytes read_all(int port, size_t n, int budget_ms = 200) {
        Bytes out;
        unsigned char buf[UART_READ_MAX];
        while (out.size() < n) {
            const int got = UART_ReadBytes(handle, port, buf, budget_ms);
            if (got <= 0) break;
            out.insert(out.end(), buf, buf + got);
        }
        return out;
    }
    static UartPeerConfig peer_of(UartPeerConfig::Kind kind) {
        UartPeerConfig p;
        p.kind = kind;
        return p;
    }
    static double ms(std::chrono::steady_clock::duration d) {
        return std::chrono::duration<double, std::milli>(d).count();
    }
};

}  // namespace

TEST_F(Uart, InitSendsTheRecordAsItLiesInMemory) {
    UART_CONFIG c{};
    c.BaudRate = 115200;
    c.FrameSetting1 = 1;
    c.FrameSetting4 = 4;
    ASSERT_EQ(UART_Init(handle, 1, &c), 0);
    EXPECT_EQ(trace->sends(UART_INIT)[0].data, (Bytes{1, 0x00, 0xC2, 0x01, 0x00, 1, 0, 0, 4}));
    EXPECT_EQ(uart().baud(1), 115200u);
    adapter->inject(Fault::Oversized, UART_INIT);
    EXPECT_EQ(UART_Init(handle, 1, &c), -4);
}

TEST_F(Uart, EchoPeerAnswersWithRealByteTiming) {
    init(0, 9600);  // about 1.04 ms a byte
    uart().attach(0, peer_of(UartPeerConfig::Kind::Echo));
    Bytes text(48, 'x');
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(UART_WriteBytes(handle, 0, text.data(), int(text.size())), 0);
    EXPECT_GE(ms(std::chrono::steady_clock::now() - start), 45) << "the adapter answers once the bytes are out";
    EXPECT_EQ(trace->gets().back().timeout_ms, 5000);
    EXPECT_EQ(uart().peer_received(0), text);
    EXPECT_EQ(read_all(0, text.size()), text);

    // The asynchronous write answers before the bytes are out.
    const auto t2 = std::chrono::steady_clock::now();
    ASSERT_EQ(UART_WriteBytesAsync(handle, 0, text.data(), int(text.size())), 0);
    EXPECT_LT(ms(std::chrono::steady_clock::now() - t2), 40);
    EXPECT_EQ(trace->sends(UART_WRITE_ASYNC)[0].data.size(), 49u);
    EXPECT_EQ(read_all(0, text.size()), text);
}

TEST_F(Uart, IntervalWritesSendOnlyTheLowByteAndTakeTheirInterval) {
    init(2, 115200);
    unsigned char data[3] = {1, 2, 3};
    ASSERT_EQ(UART_WriteBytesInterval(handle, 2, data, 3, 300), 0);  // 300 & 0xFF = 44 ms
    EXPECT_EQ(trace->sends(UART_WRITE_INTERVAL)[0].data, (Bytes{2, 44, 1, 2, 3}));
    EXPECT_EQ(trace->gets().back().timeout_ms, 44 * 3 + 5000);
    auto times = uart().peer_receive_times_ms(2);
    ASSERT_EQ(times.size(), 3u);
    EXPECT_NEAR(times[1], 44.09, 0.05);
    EXPECT_NEAR(times[2], 88.17, 0.05);
}

TEST_F(Uart, ReadsPollUntilDataComeOrTheBudgetIsSpent) {
    init(0, 115200);
    unsigned char buf[UART_READ_MAX];
    EXPECT_EQ(UART_ReadBytes(handle, 0, buf, 0), 0);
    EXPECT_EQ(trace->sends(UART_READ).size(), 1u) << "a budget of 0 makes exactly one poll";
    EXPECT_EQ(trace->sends(UART_READ)[0].data, (Bytes{0}));
    trace->clear();
    EXPECT_EQ(UART_ReadBytes(handle, 0, buf, 3), 0);
    EXPECT_LE(trace->sends(UART_READ).size(), 3u);
    EXPECT_GE(trace->sends(UART_READ).size(), 2u);

    // A script peer answers a command; the read waits for the first bytes of it.
    UartPeerConfig peer = peer_of(UartPeerConfig::Kind::Script);
    peer.script = {{{'A', 'T', '\r'}, {'O', 'K', '\r', '\n'}}};
    peer.reply_delay_us = 60000;
    uart().attach(0, peer);
    unsigned char at[] = {'A', 'T', '\r'};
    ASSERT_EQ(UART_WriteBytes(handle, 0, at, 3), 0);
    trace->clear();
    const int got = UART_ReadBytes(handle, 0, buf, 500);
    ASSERT_GT(got, 0);
    EXPECT_GE(trace->sends(UART_READ).size(), 2u) << "polled until the reply came";
    Bytes reply(buf, buf + got);
    auto rest = read_all(0, 4 - reply.size());
    reply.insert(reply.end(), rest.begin(), rest.end());
    EXPECT_EQ(reply, (Bytes{'O', 'K', '\r', '\n'}));
}

TEST_F(Uart, TheAdapterBuffersUpToItsReceiveBuffer) {
    init(1, 2000000);  // 5 us a byte
    UartPeerConfig peer = peer_of(UartPeerConfig::Kind::Stream);
    for (int i = 0; i < 6000; ++i) peer.stream.push_back(uint8_t(i * 7));
    uart().attach(1, peer);
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    unsigned char buf[UART_READ_MAX];
    ASSERT_EQ(UART_ReadBytes(handle, 1, buf, 0), int(UartModel::kRxBuffer));
    EXPECT_EQ(buf[4095], uint8_t(4095 * 7)) << "the oldest bytes are kept";
    EXPECT_EQ(uart().rx_dropped(1), 6000u - UartModel::kRxBuffer);
    EXPECT_EQ(UART_ReadBytes(handle, 1, buf, 0), 0);

    // Clearing discards what is buffered.
    uart().peer_send(1, {1, 2, 3});
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    ASSERT_EQ(UART_ClearData(handle, 1), 0);
    EXPECT_EQ(trace->sends(UART_CLEAR)[0].data, (Bytes{1}));
    EXPECT_EQ(UART_ReadBytes(handle, 1, buf, 0), 0);
}

TEST_F(Uart, RejectedAnswersAndRequests) {
    init(0, 115200);
    unsigned char data[2] = {1, 2};
    adapter->inject(Fault::Oversized, UART_WRITE);
    EXPECT_EQ(UART_WriteBytes(handle, 0, data, 2), -4) << "a write answered with a payload";
    adapter->inject(Fault::Oversized, UART_WRITE_INTERVAL);
    EXPECT_EQ(UART_WriteBytesInterval(handle, 0, data, 2, 0), -4);
    adapter->inject(Fault::ShortHeader, UART_READ);
    unsigned char buf[UART_READ_MAX];
    EXPECT_EQ(UART_ReadBytes(handle, 0, buf, 5), -4);
    adapter->inject(Fault::EmptyPayload, UART_CLEAR);
    EXPECT_EQ(UART_ClearData(handle, 0), 0) << "an empty answer is the acknowledgement";
    adapter->inject(Fault::ShortPayload, UART_CLEAR);
    EXPECT_EQ(UART_ClearData(handle, 0), 0) << "an empty payload cut in half is still empty";
    adapter->inject(Fault::Oversized, UART_CLEAR);
    EXPECT_EQ(UART_ClearData(handle, 0), -4);

    // A read answer longer than the documented maximum is drained, not written past it.
    adapter->replace(UART_READ, [this](const Frame& f) { adapter->answer(f.command, Bytes(UART_READ_MAX + 50, 0x33)); });
    std::vector<unsigned char> guard(UART_READ_MAX + 50, 0);
    EXPECT_EQ(UART_ReadBytes(handle, 0, guard.data(), 0), UART_READ_MAX);
    EXPECT_EQ(guard[UART_READ_MAX], 0);

    trace->clear();
    EXPECT_EQ(UART_WriteBytes(handle, 0, data, -1), UART_ERR_ARGUMENT);
    EXPECT_EQ(UART_WriteBytes(handle, 0, nullptr, 2), UART_ERR_ARGUMENT);
    EXPECT_EQ(UART_Init(handle, 0, nullptr), UART_ERR_ARGUMENT);
    EXPECT_TRUE(trace->sends().empty());
    USB_CloseDevice(handle);
    EXPECT_EQ(UART_WriteBytes(handle, 0, data, 2), -2);
    EXPECT_EQ(UART_ReadBytes(handle, 0, buf, 10), -2);
}
