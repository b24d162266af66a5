#include "sim_fixture.h"

namespace polybus_test {

TraceLog::TraceLog() { USB_SetTraceCallback(&TraceLog::on_event, this); }
TraceLog::~TraceLog() { USB_SetTraceCallback(nullptr, nullptr); }

void TraceLog::on_event(const POLYBUS_TRACE_EVENT* ev, void* user) {
    auto* self = static_cast<TraceLog*>(user);
    TraceEntry e{ev->Kind, ev->Endpoint, ev->Command, ev->Length, {}, ev->TimeOutMs, ev->Result, ev->RequestType,
                 ev->Value, ev->Index, ev->DevHandle};
    if (ev->Data != nullptr && ev->DataLen > 0) e.data.assign(ev->Data, ev->Data + ev->DataLen);
    std::lock_guard<std::mutex> g(self->mutex_);
    self->entries_.push_back(std::move(e));
}

std::vector<TraceEntry> TraceLog::entries() {
    std::lock_guard<std::mutex> g(mutex_);
    return entries_;
}

std::vector<TraceEntry> TraceLog::sends() {
    std::vector<TraceEntry> out;
    for (auto& e : entries())
        if (e.kind == POLYBUS_TRACE_SEND || e.kind == POLYBUS_TRACE_SEND_INT) out.push_back(e);
    return out;
}

std::vector<TraceEntry> TraceLog::sends(uint32_t command) {
    std::vector<TraceEntry> out;
    for (auto& e : sends())
        if (e.command == command) out.push_back(e);
    return out;
}

std::vector<TraceEntry> TraceLog::gets() {
    std::vector<TraceEntry> out;
    for (auto& e : entries())
        if (e.kind == POLYBUS_TRACE_GET) out.push_back(e);
    return out;
}

std::vector<TraceEntry> TraceLog::controls() {
    std::vector<TraceEntry> out;
    for (auto& e : entries())
        if (e.kind == POLYBUS_TRACE_CONTROL) out.push_back(e);
    return out;
}

void TraceLog::clear() {
    std::lock_guard<std::mutex> g(mutex_);
    entries_.clear();
}

std::vector<int> scan() {
    std::vector<int> handles(64, 0);
    int n = USB_ScanDevice(handles.data());
    handles.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return handles;
}

void SimTest::SetUp() {
    polybus_sim::Simulator::instance().remove_all();
    adapter = polybus_sim::Simulator::instance().add(adapter_config());
    handle = static_cast<int>(adapter->config().identifier);
    auto found = scan();
    ASSERT_EQ(found.size(), 1u);
    ASSERT_EQ(found[0], handle);
    ASSERT_TRUE(USB_OpenDevice(handle));
    adapter->clear_received();
    trace = std::make_unique<TraceLog>();
}

void SimTest::TearDown() {
    trace.reset();
    USB_CloseDevice(handle);
    polybus_sim::Simulator::instance().remove_all();
    adapter.reset();
}

}  // namespace polybus_test
