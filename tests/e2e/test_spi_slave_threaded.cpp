// Continuous SPI slave reading: one streaming thread per adapter polls both ports while
// a simulated master clocks bytes in; the application drains the host buffer or takes
// callbacks on the streaming thread. Start, stop, restart, overflow and unplug.
#include <dirent.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include "sim_fixture.h"
#include "spi_model.h"
#include "wire/spi.h"

using namespace polybus_sim;
using namespace polybus_test;
using namespace polybus::wire;
using Bytes = std::vector<uint8_t>;

namespace {

int threads_of_process() {
    int n = 0;
    if (DIR* d = opendir("/proc/self/task")) {
        while (dirent* e = readdir(d)) n += e->d_name[0] != '.';
        closedir(d);
    }
    return n;
}

class SlaveStream : public SimTest {
protected:
    SpiModel& spi() { return model<SpiModel>(); }
    // Drains the port until `n` bytes came; checks each against the master's stream
    // from `first` on.
    ::testing::AssertionResult drain(int port, size_t n, uint64_t first = 0) {
        std::vector<unsigned char> buf(65536);
        size_t got = 0;
        const bool done = eventually([&] {
            const int k = SPI_SlaveGetBytes(handle, port, buf.data(), int(buf.size()));
            for (int i = 0; i < k; ++i, ++got)
                if (buf[size_t(i)] != SpiMasterStream::byte_at(first + got))
                    return true;  // reported below
            return got >= n;
        });
        if (!done) return ::testing::AssertionFailure() << "only " << got << " bytes came";
        if (got < n) return ::testing::AssertionFailure() << "byte " << got << " is not the stream's";
        return ::testing::AssertionSuccess();
    }
};

struct Received {
    std::mutex mutex;
    Bytes bytes;
    std::thread::id thread;
    int calls = 0;
};
Received* g_received = nullptr;

int on_chunk(int, int port, unsigned char* data, int n) {
    std::lock_guard<std::mutex> g(g_received->mutex);
    if (port == 1) {
        g_received->bytes.insert(g_received->bytes.end(), data, data + n);
        g_received->thread = std::this_thread::get_id();
        ++g_received->calls;
    }
    return 0;
}

}  // namespace

TEST_F(SlaveStream, OneThreadServesBothPorts) {
    spi().attach_master(0, {2e6, UINT64_MAX});
    spi().attach_master(1, {1e6, UINT64_MAX});
    const int before = threads_of_process();
    ASSERT_EQ(SPI_SlaveContinueRead(handle, 0, nullptr), 0);
    EXPECT_EQ(threads_of_process(), before + 1);
    ASSERT_EQ(SPI_SlaveContinueRead(handle, 1, nullptr), 0);
    EXPECT_EQ(threads_of_process(), before + 1) << "port 1 joins the running thread";
    EXPECT_EQ(trace->sends(SPI_SLAVE_START)[0].data, (Bytes{0}));
    EXPECT_TRUE(drain(0, 100000));
    EXPECT_TRUE(drain(1, 50000));

    // Stopping one port keeps the thread for the other.
    ASSERT_EQ(SPI_SlaveContinueWriteReadStop(handle, 0), 0);
    EXPECT_FALSE(spi().streaming(0));
    EXPECT_EQ(threads_of_process(), before + 1);
    ASSERT_EQ(SPI_SlaveContinueWriteReadStop(handle, 1), 0);
    EXPECT_EQ(threads_of_process(), before);
    const size_t polls = trace->sends(SPI_SLAVE_READ_BUFFER).size();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(trace->sends(SPI_SLAVE_READ_BUFFER).size(), polls) << "no polls after the stop";
    // Stopping again with nothing streaming just tells the adapter.
    EXPECT_EQ(SPI_SlaveContinueWriteReadStop(handle, 1), 0);
}

TEST_F(SlaveStream, CallbacksRunOnTheStreamingThread) {
    Received received;
    g_received = &received;
    spi().attach_master(1, {1e6, 200000});
    ASSERT_EQ(SPI_SlaveContinueRead(handle, 1, on_chunk), 0);
    unsigned char reply[] = {0xA5, 0x5A};
    ASSERT_EQ(SPI_SlaveContinueWrite(handle, 1, reply, 2), 0);
    ASSERT_TRUE(eventually([&] {
        std::lock_guard<std::mutex> g(received.mutex);
        return received.bytes.size() >= 200000;
    }));
    ASSERT_EQ(SPI_SlaveContinueWriteReadStop(handle, 1), 0);
    std::lock_guard<std::mutex> g(received.mutex);
    EXPECT_NE(received.thread, std::this_thread::get_id());
    EXPECT_GE(received.calls, 4) << "one call per chunk, and a chunk holds at most 61,440 bytes";
    ASSERT_EQ(received.bytes.size(), 200000u);
    for (size_t i = 0; i < received.bytes.size(); ++i) ASSERT_EQ(received.bytes[i], SpiMasterStream::byte_at(i)) << i;
    unsigned char buf[16];
    EXPECT_EQ(SPI_SlaveGetBytes(handle, 1, buf, 16), 0) << "callback data are not buffered";
    auto answered = spi().master_received(1);
    ASSERT_GE(answered.size(), 2u);
    EXPECT_EQ(Bytes(answered.begin(), answered.begin() + 2), (Bytes{0xA5, 0x5A}));
    g_received = nullptr;
}

TEST_F(SlaveStream, TheHostBufferKeepsTheNewestBytes) {
    // 3 MiB at 8 MB/s, nobody draining: the oldest MiB is dropped. The adapter holds
    // everything, however late the thread polls.
    const uint64_t total = 3u << 20;
    spi().set_slave_buffer(total);
    spi().attach_master(0, {8e6, total});
    ASSERT_EQ(SPI_SlaveContinueRead(handle, 0, nullptr), 0);
    ASSERT_TRUE(eventually([&] { return spi().master_clocked(0) >= total; }));
    // Let the thread fetch what the adapter still holds.
    ASSERT_TRUE(eventually([&] {
        const size_t n = trace->sends(SPI_SLAVE_READ_BUFFER).size();
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        return trace->gets().back().length == 0 && trace->sends(SPI_SLAVE_READ_BUFFER).size() > n;
    }));
    ASSERT_EQ(SPI_SlaveContinueWriteReadStop(handle, 0), 0);
    EXPECT_EQ(spi().slave_overruns(0), 0u);
    std::vector<unsigned char> buf(4u << 20);
    ASSERT_EQ(SPI_SlaveGetBytes(handle, 0, buf.data(), int(buf.size())), SPI_SLAVE_BUFFER_SIZE);
    const uint64_t first = total - SPI_SLAVE_BUFFER_SIZE;
    for (size_t i = 0; i < SPI_SLAVE_BUFFER_SIZE; i += 997) ASSERT_EQ(buf[i], SpiMasterStream::byte_at(first + i)) << i;
    EXPECT_EQ(SPI_SlaveGetBytes(handle, 0, buf.data(), int(buf.size())), 0);
}

TEST_F(SlaveStream, StopAndRestartStartAfresh) {
    auto master = spi().attach_master(0, {1e6, UINT64_MAX});
    const int before = threads_of_process();
    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(SPI_SlaveContinueRead(handle, 0, nullptr), 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(15));
        unsigned char first[1];
        ASSERT_TRUE(eventually([&] { return SPI_SlaveGetBytes(handle, 0, first, 1) == 1; }));
        ASSERT_EQ(SPI_SlaveContinueWriteReadStop(handle, 0), 0);
        EXPECT_EQ(threads_of_process(), before);
    }
    // Restarting empties what the previous run left in the host buffer: a silent
    // master now, so nothing new comes.
    ASSERT_EQ(SPI_SlaveContinueRead(handle, 0, nullptr), 0);
    unsigned char left[1];
    ASSERT_TRUE(eventually([&] { return SPI_SlaveGetBytes(handle, 0, left, 1) == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    ASSERT_EQ(SPI_SlaveContinueWriteReadStop(handle, 0), 0);
    ASSERT_EQ(SPI_SlaveGetBytes(handle, 0, left, 1), 1) << "bytes were left over";
    spi().attach_master(0, {0, UINT64_MAX});
    ASSERT_EQ(SPI_SlaveContinueRead(handle, 0, nullptr), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(SPI_SlaveGetBytes(handle, 0, left, 1), 0);
    ASSERT_EQ(SPI_SlaveContinueWriteReadStop(handle, 0), 0);
    // An application thread's commands interleave with the polls.
    ASSERT_EQ(SPI_SlaveContinueRead(handle, 0, nullptr), 0);
    std::atomic<int> failures{0};
    std::thread app([&] {
        unsigned char b[4] = {1, 2, 3, 4};
        for (int i = 0; i < 50; ++i)
            if (SPI_WriteBytes(handle, 1, b, 4) != 0) ++failures;
    });
    app.join();
    EXPECT_EQ(failures.load(), 0);
    ASSERT_EQ(SPI_SlaveContinueWriteReadStop(handle, 0), 0);
}

TEST_F(SlaveStream, UnplugEndsTheThreadWithoutAHang) {
    spi().attach_master(0, {1e6, UINT64_MAX});
    const int before = threads_of_process();
    ASSERT_EQ(SPI_SlaveContinueRead(handle, 0, nullptr), 0);
    ASSERT_TRUE(drain(0, 1000));
    adapter->unplug();
    ASSERT_TRUE(eventually([&] { return threads_of_process() == before; })) << "the thread ends by itself";
    // Buffered bytes can still be taken, then 0.
    std::vector<unsigned char> buf(1 << 20);
    while (SPI_SlaveGetBytes(handle, 0, buf.data(), int(buf.size())) > 0) {
    }
    EXPECT_EQ(SPI_SlaveGetBytes(handle, 0, buf.data(), int(buf.size())), 0);
    // The ended thread is still registered: a new start only sends, and fails.
    EXPECT_EQ(SPI_SlaveContinueRead(handle, 0, nullptr), -2);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(SPI_SlaveContinueWriteReadStop(handle, 0), -2);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_EQ(threads_of_process(), before);
}

TEST_F(SlaveStream, HandlesWithoutASlotCannotStream) {
    unsigned char b[4];
    EXPECT_EQ(SPI_SlaveContinueRead(0x7E000001, 0, nullptr), -4);
    EXPECT_EQ(SPI_SlaveGetBytes(0x7E000001, 0, b, 4), 0);
    EXPECT_EQ(SPI_SlaveContinueWriteReadStop(0x7E000001, 0), -2);
}
