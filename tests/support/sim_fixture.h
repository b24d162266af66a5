// Shared set-up for end-to-end tests: simulated adapters plugged into this process,
// scanned and opened through the library, and a record of the transport trace.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "adapter.h"
#include "polybus/polybus.h"

namespace polybus_test {

struct TraceEntry {
    int kind;
    int endpoint;
    uint32_t command;
    uint32_t length;
    std::vector<uint8_t> data;
    int timeout_ms;
    int result;
    int request_type;  // control requests only
    int value;
    int index;
    int dev_handle;
};

// Collects the library's transport trace while it is alive.
class TraceLog {
public:
    TraceLog();
    ~TraceLog();
    std::vector<TraceEntry> entries();
    // Requests only (sends), in order.
    std::vector<TraceEntry> sends();
    // Requests with this command only.
    std::vector<TraceEntry> sends(uint32_t command);
    std::vector<TraceEntry> gets();
    // Vendor control requests on endpoint 0.
    std::vector<TraceEntry> controls();
    void clear();

private:
    static void on_event(const POLYBUS_TRACE_EVENT* ev, void* user);
    std::mutex mutex_;
    std::vector<TraceEntry> entries_;
};

// Plugs one adapter (adapter_config() decides which), scans and opens it.
class SimTest : public ::testing::Test {
protected:
    virtual polybus_sim::AdapterConfig adapter_config() { return {}; }
    void SetUp() override;
    void TearDown() override;

    template <typename Model>
    Model& model() {
        return adapter->model<Model>();
    }

    std::shared_ptr<polybus_sim::Adapter> adapter;
    int handle = 0;
    std::unique_ptr<TraceLog> trace;
};

// Scans and returns the handles found.
std::vector<int> scan();

// Polls `done` every 2 ms for up to `limit`: for what the simulated adapter does in
// its own time (bus traffic, reader threads).
template <typename F>
bool eventually(F done, std::chrono::milliseconds limit = std::chrono::milliseconds(5000)) {
    const auto until = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > until) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

}  // namespace polybus_test
