#include "adapter.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <pthread.h>
#include <stdexcept>

#include "wire/device.h"

namespace polybus_sim {

namespace {
constexpr uint8_t kRequestIdentifier = polybus::wire::VENDOR_READ_IDENTIFIER;
constexpr uint8_t kRequestReset = polybus::wire::VENDOR_RESET;
// A frame announcing more than this is garbage; the partial stream is dropped.
constexpr uint32_t kMaxFrame = 16u << 20;

std::vector<uint8_t> header_of(uint32_t command, uint32_t length) {
    return {uint8_t(command >> 24), uint8_t(command >> 16), uint8_t(command >> 8), uint8_t(command),
            uint8_t(length >> 24),  uint8_t(length >> 16),  uint8_t(length >> 8),  uint8_t(length)};
}
}  // namespace

Adapter::Adapter(AdapterConfig config)
    : config_(std::move(config)) {
    epoch_ns_ = std::chrono::steady_clock::now().time_since_epoch().count();
    timer_thread_ = std::thread([this] { timer_loop(); });
}

Adapter::~Adapter() {
    {
        std::lock_guard<std::mutex> g(timer_mutex_);
        stopping_ = true;
    }
    timer_cv_.notify_all();
    if (timer_thread_.joinable()) timer_thread_.join();
}

uint64_t Adapter::clock_us() const {
    const int64_t now = std::chrono::steady_clock::now().time_since_epoch().count();
    return static_cast<uint64_t>((now - epoch_ns_.load()) / 1000);
}

int Adapter::control(const ControlSetup& setup, uint8_t* data) {
    const bool vendor = (setup.bmRequestType & 0x60) == 0x40;
    if (!vendor) return -EPIPE;
    if (setup.bRequest == kRequestIdentifier && (setup.bmRequestType & 0x80)) {
        if (!config_.answers_identifier) return -EPIPE;
        const uint32_t id = config_.identifier;
        uint8_t bytes[4] = {uint8_t(id), uint8_t(id >> 8), uint8_t(id >> 16), uint8_t(id >> 24)};
        const int n = std::min<int>(4, setup.wLength);
        std::copy(bytes, bytes + n, data);
        return n;
    }
    if (setup.bRequest == kRequestReset && !(setup.bmRequestType & 0x80)) {
        // The firmware restarts once the request is acknowledged, and comes back on the bus.
        std::weak_ptr<Adapter> self = weak_from_this();
        const bool elsewhere = config_.reenumerates_elsewhere;
        UsbHost::instance().defer([self, elsewhere] {
            if (auto a = self.lock()) a->replug(elsewhere);
        });
        return 0;
    }
    std::function<int(const ControlSetup&, uint8_t*)> handler;
    {
        std::lock_guard<std::mutex> g(mutex_);
        auto it = vendor_handlers_.find(setup.bRequest);
        if (it != vendor_handlers_.end()) handler = it->second;
    }
    return handler ? handler(setup, data) : -EPIPE;
}

void Adapter::on_vendor(uint8_t bRequest, std::function<int(const ControlSetup&, uint8_t*)> handler) {
    std::lock_guard<std::mutex> g(mutex_);
    vendor_handlers_[bRequest] = std::move(handler);
}

void Adapter::out(uint8_t ep, bool interrupt, const uint8_t* data, size_t len) {
    if (len == 0) ++zlps_;
    std::vector<Frame> frames;
    {
        std::lock_guard<std::mutex> g(mutex_);
        auto& buf = pending_[ep < 3 ? ep : 0];
        buf.insert(buf.end(), data, data + len);
        while (buf.size() >= 8) {
            const uint32_t length = uint32_t{buf[4]} << 24 | uint32_t{buf[5]} << 16 | uint32_t{buf[6]} << 8 | buf[7];
            if (length > kMaxFrame) {
                buf.clear();
                break;
            }
            if (buf.size() < 8 + size_t{length}) break;
            Frame f;
            f.command = uint32_t{buf[0]} << 24 | uint32_t{buf[1]} << 16 | uint32_t{buf[2]} << 8 | buf[3];
            f.payload.assign(buf.begin() + 8, buf.begin() + 8 + length);
            f.endpoint = ep;
            f.interrupt = interrupt;
            buf.erase(buf.begin(), buf.begin() + 8 + length);
            received_.push_back(f);
            frames.push_back(std::move(f));
        }
    }
    for (auto& f : frames) dispatch(std::move(f));
}

void Adapter::reset() {
    std::lock_guard<std::mutex> g(mutex_);
    for (auto& p : pending_) p.clear();
}

void Adapter::on(uint32_t command, Handler handler) {
    std::lock_guard<std::mutex> g(mutex_);
    if (!handlers_.emplace(command, std::move(handler)).second) {
        // Two models serving one code would silently shadow each other: refuse it while
        // the second model is being built, before any test runs against it.
        char code[16];
        std::snprintf(code, sizeof(code), "0x%04X", static_cast<unsigned>(command));
        throw std::logic_error(std::string("polybus-sim: command ") + code +
                               " is already served by another handler; a code has one owner");
    }
}

void Adapter::replace(uint32_t command, Handler handler) {
    std::lock_guard<std::mutex> g(mutex_);
    handlers_[command] = std::move(handler);
}

void Adapter::dispatch(Frame frame) {
    Handler handler;
    {
        std::lock_guard<std::mutex> g(mutex_);
        auto it = handlers_.find(frame.command);
        if (it != handlers_.end()) handler = it->second;
    }
    if (handler) {
        handler(frame);
    } else {
        // Unknown commands are answered with an empty payload, as the firmware does.
        answer(frame.command);
    }
}

bool Adapter::take_fault(uint32_t command, Fault& fault) {
    std::lock_guard<std::mutex> g(mutex_);
    // Every armed fault counts the commands it waits for; the first one due fires.
    auto due = faults_.end();
    for (auto it = faults_.begin(); it != faults_.end(); ++it) {
        if (it->command != kAnyCommand && it->command != command) continue;
        if (it->skip > 0) --it->skip;
        else if (due == faults_.end()) due = it;
    }
    if (due == faults_.end()) return false;
    fault = due->fault;
    if (--due->count <= 0) faults_.erase(due);
    return true;
}

void Adapter::answer(uint32_t command, const std::vector<uint8_t>& payload) {
    const int port = port_.load();
    if (port < 0) return;
    Fault fault;
    std::vector<std::vector<uint8_t>> transfers;
    if (!take_fault(command, fault)) {
        transfers.push_back(header_of(command, static_cast<uint32_t>(payload.size())));
        if (!payload.empty()) transfers.push_back(payload);
        UsbHost::instance().queue_in(port, std::move(transfers));
        return;
    }
    std::weak_ptr<Adapter> self = weak_from_this();
    auto unplug_later = [self] {
        UsbHost::instance().defer([self] {
            if (auto a = self.lock()) a->unplug();
        });
    };
    switch (fault) {
        case Fault::NoAnswer:
            return;
        case Fault::EmptyPayload:
            transfers.push_back(header_of(command, 0));
            break;
        case Fault::ShortPayload: {
            transfers.push_back(header_of(command, static_cast<uint32_t>(payload.size())));
            std::vector<uint8_t> half(payload.begin(), payload.begin() + payload.size() / 2);
            if (!half.empty()) transfers.push_back(half);
            break;
        }
        case Fault::Oversized: {
            std::vector<uint8_t> big = payload;
            big.resize(payload.size() + 4096, 0xEE);
            transfers.push_back(header_of(command, static_cast<uint32_t>(big.size())));
            transfers.push_back(std::move(big));
            break;
        }
        case Fault::ShortHeader:
            transfers.push_back({uint8_t(command >> 24), uint8_t(command >> 16), uint8_t(command >> 8),
                                 uint8_t(command), 0});
            break;
        case Fault::WrongEcho:
            transfers.push_back(header_of(command ^ 0x8000u, static_cast<uint32_t>(payload.size())));
            if (!payload.empty()) transfers.push_back(payload);
            break;
        case Fault::UnplugBefore:
            unplug_later();
            return;
        case Fault::ReplugElsewhere:
            UsbHost::instance().defer([self] {
                if (auto a = self.lock()) a->replug(true);
            });
            return;
        case Fault::Garbage: {
            // Deterministic noise under another command code; the length is the one
            // thing that holds, so a host can drain it and stay in step.
            uint32_t x = 0x9E3779B9u ^ command;
            auto next = [&x] {
                x ^= x << 13;
                x ^= x >> 17;
                x ^= x << 5;
                return x;
            };
            std::vector<uint8_t> body(payload.size() + 8);
            for (auto& b : body) b = uint8_t(next());
            uint32_t code = next();
            if (code == command) code ^= 0x5A5A5A5Au;
            transfers.push_back(header_of(code, static_cast<uint32_t>(body.size())));
            transfers.push_back(std::move(body));
            break;
        }
        case Fault::UnplugDuring:
            transfers.push_back(header_of(command, static_cast<uint32_t>(payload.size() + 64)));
            UsbHost::instance().queue_in(port, std::move(transfers));
            unplug_later();
            return;
    }
    UsbHost::instance().queue_in(port, std::move(transfers));
}

void Adapter::send_raw(std::vector<std::vector<uint8_t>> transfers) {
    const int port = port_.load();
    if (port >= 0) UsbHost::instance().queue_in(port, std::move(transfers));
}

void Adapter::after(std::chrono::microseconds delay, std::function<void()> fn) {
    {
        std::lock_guard<std::mutex> g(timer_mutex_);
        timers_.push_back({std::chrono::steady_clock::now() + delay, std::move(fn)});
    }
    timer_cv_.notify_all();
}

void Adapter::timer_loop() {
    // Named, so a profile (or the world benchmark) tells the models' time from the host's.
    pthread_setname_np(pthread_self(), "sim-timer");
    std::unique_lock<std::mutex> lk(timer_mutex_);
    while (!stopping_) {
        if (timers_.empty()) {
            timer_cv_.wait(lk);
            continue;
        }
        auto next = std::min_element(timers_.begin(), timers_.end(),
                                     [](const Timer& a, const Timer& b) { return a.due < b.due; });
        if (next->due > std::chrono::steady_clock::now()) {
            // By value: while this waits, after() may grow timers_ and move its elements.
            const auto due = next->due;
            timer_cv_.wait_until(lk, due);
            continue;
        }
        auto fn = std::move(next->fn);
        timers_.erase(next);
        lk.unlock();
        fn();
        lk.lock();
    }
}

void Adapter::inject(Fault fault, uint32_t command, int count, int skip) {
    std::lock_guard<std::mutex> g(mutex_);
    faults_.push_back({fault, command, count, skip});
}

void Adapter::clear_faults() {
    std::lock_guard<std::mutex> g(mutex_);
    faults_.clear();
}

std::vector<Frame> Adapter::received() {
    std::lock_guard<std::mutex> g(mutex_);
    return received_;
}

void Adapter::clear_received() {
    std::lock_guard<std::mutex> g(mutex_);
    received_.clear();
}

void Adapter::plug() {
    if (port_.load() >= 0) return;
    UsbIdentity id;
    id.vendor = 0x0483;
    id.product = config_.product;
    id.manufacturer = config_.manufacturer;
    id.high_speed = config_.high_speed;
    port_ = UsbHost::instance().plug(shared_from_this(), id, config_.bus, config_.address);
    config_.address = UsbHost::instance().address_of(port_);
}

void Adapter::unplug() {
    const int port = port_.exchange(-1);
    if (port >= 0) UsbHost::instance().unplug(port);
    std::lock_guard<std::mutex> g(mutex_);
    for (auto& p : pending_) p.clear();
}

void Adapter::replug(bool new_address) {
    unplug();
    {
        std::lock_guard<std::mutex> g(timer_mutex_);
        timers_.clear();
    }
    epoch_ns_ = std::chrono::steady_clock::now().time_since_epoch().count();
    for (auto& m : models_) m->reset();
    if (new_address) config_.address = -1;
    plug();
}

Simulator& Simulator::instance() {
    static Simulator sim;
    return sim;
}

std::shared_ptr<Adapter> Simulator::add(AdapterConfig config, bool plug) {
    auto adapter = std::make_shared<Adapter>(std::move(config));
    install_models(*adapter);
    if (plug) adapter->plug();
    std::lock_guard<std::mutex> g(mutex_);
    adapters_.push_back(adapter);
    return adapter;
}

void Simulator::remove(const std::shared_ptr<Adapter>& adapter) {
    adapter->unplug();
    std::lock_guard<std::mutex> g(mutex_);
    adapters_.erase(std::remove(adapters_.begin(), adapters_.end(), adapter), adapters_.end());
}

void Simulator::remove_all() {
    std::vector<std::shared_ptr<Adapter>> all;
    {
        std::lock_guard<std::mutex> g(mutex_);
        all.swap(adapters_);
    }
    for (auto& a : all) a->unplug();
}

std::vector<std::shared_ptr<Adapter>> Simulator::adapters() {
    std::lock_guard<std::mutex> g(mutex_);
    return adapters_;
}

}  // namespace polybus_sim
